#include "CMultilevelSolver.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

namespace NConverged {

namespace {

// Systems this small are solved directly.
constexpr int kDirectLimit = 400;
// A node whose ground weight exceeds its links this many times over is handled
// by the smoother alone (typically a pixel beside many labelled ones).
constexpr float kDominance = 5.0f;
// Coarsening that keeps more than this share of the nodes has stalled.
constexpr double kStall = 0.85;
constexpr int kMaxLevels = 40;

// Groups the nodes along their strongest links: a node joins the group of
// its strongest neighbour, or starts a new group with it. Pixels tied to a
// region more strongly than to each other thus gather with it in one group.
// Returns the number of groups.
int groupNodes(const CSparseGraph& aMatrix, std::vector<int>& aGroup) {
  const int n = aMatrix.nodeCount();
  aGroup.assign(static_cast<size_t>(n), -2);
  for (int i = 0; i < n; i++)
    if (aMatrix.mGround[i] > kDominance * aMatrix.linkSum(i)) aGroup[i] = -1;
  int groups = 0;
  for (int i = 0; i < n; i++) {
    if (aGroup[i] != -2) continue;
    int partner = -1;
    float best = 0.0f;
    for (int e = aMatrix.mStart[i]; e < aMatrix.mStart[i + 1]; e++) {
      const int j = aMatrix.mNeighbour[e];
      if (j != i && aGroup[j] != -1 && aMatrix.mWeight[e] > best) {
        best = aMatrix.mWeight[e];
        partner = j;
      }
    }
    if (partner >= 0 && aGroup[partner] >= 0) {
      aGroup[i] = aGroup[partner];
      continue;
    }
    aGroup[i] = groups;
    if (partner >= 0) aGroup[partner] = groups;
    groups++;
  }
  return groups;
}

// The Galerkin product P^T A P for the piecewise constant P of aGroup.
CSparseGraph coarsen(const CSparseGraph& aMatrix, const std::vector<int>& aGroup, int aGroups) {
  const int n = aMatrix.nodeCount();
  std::vector<int> memberStart(static_cast<size_t>(aGroups) + 1, 0);
  for (int i = 0; i < n; i++)
    if (aGroup[i] >= 0) memberStart[aGroup[i] + 1]++;
  for (int g = 0; g < aGroups; g++) memberStart[g + 1] += memberStart[g];
  std::vector<int> members(static_cast<size_t>(memberStart.back()));
  std::vector<int> fill(memberStart.begin(), memberStart.end() - 1);
  for (int i = 0; i < n; i++)
    if (aGroup[i] >= 0) members[fill[aGroup[i]]++] = i;

  CSparseGraph coarse;
  coarse.mGround.assign(static_cast<size_t>(aGroups), 0.0f);
  coarse.mStart.assign(1, 0);
  std::vector<int> slot(static_cast<size_t>(aGroups), -1);
  for (int g = 0; g < aGroups; g++) {
    const int rowStart = coarse.linkCount();
    float ground = 0.0f;
    for (int m = memberStart[g]; m < memberStart[g + 1]; m++) {
      const int i = members[m];
      ground += aMatrix.mGround[i];
      for (int e = aMatrix.mStart[i]; e < aMatrix.mStart[i + 1]; e++) {
        const int h = aGroup[aMatrix.mNeighbour[e]];
        // Links inside the group cancel; links to nodes left to the smoother
        // are dropped with them.
        if (h < 0 || h == g) continue;
        if (slot[h] < 0) {
          slot[h] = coarse.linkCount();
          coarse.mNeighbour.push_back(h);
          coarse.mWeight.push_back(aMatrix.mWeight[e]);
        } else {
          coarse.mWeight[slot[h]] += aMatrix.mWeight[e];
        }
      }
    }
    for (int e = rowStart; e < coarse.linkCount(); e++) slot[coarse.mNeighbour[e]] = -1;
    coarse.mGround[g] = ground;
    coarse.mStart.push_back(coarse.linkCount());
  }
  return coarse;
}

// Node-major arrays of values carry this many floats beyond their last node,
// so that the kernels may load four lanes at every node of three columns.
constexpr size_t kSlack = 1;

size_t valuesSize(int aNodes, int aColumns) { return static_cast<size_t>(aNodes) * aColumns + kSlack; }

// Four floats in one register. Each lane does exactly the operations of the
// scalar loop, so the bits are those of the plain path.
typedef float CLane4 __attribute__((vector_size(16)));

CLane4 load4(const float* aValues) {
  CLane4 lanes;
  std::memcpy(&lanes, aValues, sizeof lanes);
  return lanes;
}

CLane4 broadcast4(float aValue) { return CLane4{aValue, aValue, aValue, aValue}; }

// A node's columns in registers of four lanes: kColumns >= 3 columns take
// kGroups registers, the last starting four columns before the end (so two
// registers may share columns and compute them alike); three columns take
// one register whose fourth lane reads the next node's first column or the
// slack and is never stored.
template <int kColumns>
struct CNodeLanes {
  static constexpr int kGroups = (kColumns + 3) / 4;
  static constexpr int start(int aGroup) { return kColumns < 4 ? 0 : std::min(4 * aGroup, kColumns - 4); }
  CLane4 mLanes[kGroups];

  void load(const float* aValues) {
    for (int g = 0; g < kGroups; g++) mLanes[g] = load4(aValues + start(g));
  }
  void fill(float aValue) {
    for (int g = 0; g < kGroups; g++) mLanes[g] = broadcast4(aValue);
  }
  void store(float* aValues) const {
    for (int g = 0; g < kGroups; g++)
      std::memcpy(aValues + start(g), &mLanes[g], (kColumns < 4 ? kColumns : 4) * sizeof(float));
  }
};

// The kernels below take the column count as a template argument where it
// is small (0: given at run time) so that the per-column loops unroll; every
// column goes through the same operations either way.
template <int kColumns>
void relaxRows(const CSparseGraph& aMatrix, const std::vector<float>& aInverseDiagonal, const float* aRhs, float* aX,
               int aColumns, bool aForward) {
  const int columns = kColumns > 0 ? kColumns : aColumns;
  float fixedSum[kColumns > 0 ? kColumns : 1];
  std::vector<float> runtimeSum(kColumns > 0 ? 0 : static_cast<size_t>(columns));
  float* sum = kColumns > 0 ? fixedSum : runtimeSum.data();
  const int n = aMatrix.nodeCount();
  if constexpr (kColumns >= 3) {
    using CLanes = CNodeLanes<kColumns>;
    for (int step = 0; step < n; step++) {
      const int i = aForward ? step : n - 1 - step;
      CLanes sum;
      sum.load(aRhs + static_cast<size_t>(i) * kColumns);
      for (int e = aMatrix.mStart[i]; e < aMatrix.mStart[i + 1]; e++) {
        const CLane4 w = broadcast4(aMatrix.mWeight[e]);
        CLanes xj;
        xj.load(aX + static_cast<size_t>(aMatrix.mNeighbour[e]) * kColumns);
        for (int g = 0; g < CLanes::kGroups; g++) sum.mLanes[g] += w * xj.mLanes[g];
      }
      const CLane4 inverse = broadcast4(aInverseDiagonal[i]);
      for (int g = 0; g < CLanes::kGroups; g++) sum.mLanes[g] = sum.mLanes[g] * inverse;
      sum.store(aX + static_cast<size_t>(i) * kColumns);
    }
    return;
  }
  for (int step = 0; step < n; step++) {
    const int i = aForward ? step : n - 1 - step;
    const float* rhs = aRhs + static_cast<size_t>(i) * columns;
    for (int c = 0; c < columns; c++) sum[c] = rhs[c];
    for (int e = aMatrix.mStart[i]; e < aMatrix.mStart[i + 1]; e++) {
      const float w = aMatrix.mWeight[e];
      const float* xj = aX + static_cast<size_t>(aMatrix.mNeighbour[e]) * columns;
      for (int c = 0; c < columns; c++) sum[c] += w * xj[c];
    }
    float* xi = aX + static_cast<size_t>(i) * columns;
    for (int c = 0; c < columns; c++) xi[c] = sum[c] * aInverseDiagonal[i];
  }
}

template <int kColumns>
void multiplyRows(const CSparseGraph& aMatrix, const float* aX, float* aOut, int aColumns) {
  const int columns = kColumns > 0 ? kColumns : aColumns;
  const int n = aMatrix.nodeCount();
  if constexpr (kColumns >= 3) {
    using CLanes = CNodeLanes<kColumns>;
    for (int i = 0; i < n; i++) {
      CLanes xi;
      xi.load(aX + static_cast<size_t>(i) * kColumns);
      CLanes sum;
      const CLane4 ground = broadcast4(aMatrix.mGround[i]);
      for (int g = 0; g < CLanes::kGroups; g++) sum.mLanes[g] = ground * xi.mLanes[g];
      for (int e = aMatrix.mStart[i]; e < aMatrix.mStart[i + 1]; e++) {
        const CLane4 w = broadcast4(aMatrix.mWeight[e]);
        CLanes xj;
        xj.load(aX + static_cast<size_t>(aMatrix.mNeighbour[e]) * kColumns);
        for (int g = 0; g < CLanes::kGroups; g++) sum.mLanes[g] += w * (xi.mLanes[g] - xj.mLanes[g]);
      }
      sum.store(aOut + static_cast<size_t>(i) * kColumns);
    }
    return;
  }
  for (int i = 0; i < n; i++) {
    float* out = aOut + static_cast<size_t>(i) * columns;
    const float* xi = aX + static_cast<size_t>(i) * columns;
    for (int c = 0; c < columns; c++) out[c] = aMatrix.mGround[i] * xi[c];
    for (int e = aMatrix.mStart[i]; e < aMatrix.mStart[i + 1]; e++) {
      const float w = aMatrix.mWeight[e];
      const float* xj = aX + static_cast<size_t>(aMatrix.mNeighbour[e]) * columns;
      for (int c = 0; c < columns; c++) out[c] += w * (xi[c] - xj[c]);
    }
  }
}

// The residual b - A x after one forward sweep from zero: row i's own and
// earlier terms cancel, only the links to later nodes remain.
template <int kColumns>
void sweptResidualRows(const CSparseGraph& aMatrix, const float* aX, float* aOut, int aColumns) {
  const int columns = kColumns > 0 ? kColumns : aColumns;
  const int n = aMatrix.nodeCount();
  if constexpr (kColumns >= 3) {
    using CLanes = CNodeLanes<kColumns>;
    for (int i = 0; i < n; i++) {
      CLanes sum;
      sum.fill(0.0f);
      for (int e = aMatrix.mStart[i]; e < aMatrix.mStart[i + 1]; e++) {
        const int j = aMatrix.mNeighbour[e];
        if (j <= i) continue;
        const CLane4 w = broadcast4(aMatrix.mWeight[e]);
        CLanes xj;
        xj.load(aX + static_cast<size_t>(j) * kColumns);
        for (int g = 0; g < CLanes::kGroups; g++) sum.mLanes[g] += w * xj.mLanes[g];
      }
      sum.store(aOut + static_cast<size_t>(i) * kColumns);
    }
    return;
  }
  for (int i = 0; i < n; i++) {
    float* out = aOut + static_cast<size_t>(i) * columns;
    for (int c = 0; c < columns; c++) out[c] = 0.0f;
    for (int e = aMatrix.mStart[i]; e < aMatrix.mStart[i + 1]; e++) {
      const int j = aMatrix.mNeighbour[e];
      if (j <= i) continue;
      const float w = aMatrix.mWeight[e];
      const float* xj = aX + static_cast<size_t>(j) * columns;
      for (int c = 0; c < columns; c++) out[c] += w * xj[c];
    }
  }
}

// Between a level and the next, over the nodes i that have a group: adds
// aFrom's values to aTo's, fine to coarse (restriction, aTo[group of i] +=
// aFrom[i]) or coarse to fine (prolongation, aTo[i] += aFrom[group of i]).
template <int kColumns, bool kRestrict>
void transferRows(const std::vector<int>& aGroup, const float* aFrom, float* aTo, int aColumns) {
  const int columns = kColumns > 0 ? kColumns : aColumns;
  for (size_t i = 0; i < aGroup.size(); i++) {
    const int g = aGroup[i];
    if (g < 0) continue;
    const size_t fine = i * columns;
    const size_t coarse = static_cast<size_t>(g) * columns;
    const float* from = aFrom + (kRestrict ? fine : coarse);
    float* to = aTo + (kRestrict ? coarse : fine);
    for (int c = 0; c < columns; c++) to[c] += from[c];
  }
}

template <int kColumns>
void restrictRows(const std::vector<int>& aGroup, const float* aFine, float* aCoarse, int aColumns) {
  transferRows<kColumns, true>(aGroup, aFine, aCoarse, aColumns);
}

template <int kColumns>
void prolongRows(const std::vector<int>& aGroup, const float* aCoarse, float* aFine, int aColumns) {
  transferRows<kColumns, false>(aGroup, aCoarse, aFine, aColumns);
}

// The conjugate gradient step: x += alpha p and r -= alpha q, per column.
template <int kColumns>
void stepRows(const float* aAlpha, const float* aP, const float* aQ, float* aX, float* aR, int aNodes, int aColumns) {
  const int columns = kColumns > 0 ? kColumns : aColumns;
  const size_t size = static_cast<size_t>(aNodes) * columns;
  for (size_t k = 0; k < size; k += static_cast<size_t>(columns))
    for (int c = 0; c < columns; c++) {
      aX[k + c] += aAlpha[c] * aP[k + c];
      aR[k + c] -= aAlpha[c] * aQ[k + c];
    }
}

// The next search direction: p = z + beta p, per column.
template <int kColumns>
void directionRows(const float* aBeta, const float* aZ, float* aP, int aNodes, int aColumns) {
  const int columns = kColumns > 0 ? kColumns : aColumns;
  const size_t size = static_cast<size_t>(aNodes) * columns;
  for (size_t k = 0; k < size; k += static_cast<size_t>(columns))
    for (int c = 0; c < columns; c++) aP[k + c] = aZ[k + c] + aBeta[c] * aP[k + c];
}

// Calls aKernel<k>(...) with k = aColumns for small counts, else k = 0.
#define TARNWICK_DISPATCH_COLUMNS(aKernel, aColumns, ...) \
  switch (aColumns) {                                     \
    case 1: aKernel<1>(__VA_ARGS__); break;               \
    case 2: aKernel<2>(__VA_ARGS__); break;               \
    case 3: aKernel<3>(__VA_ARGS__); break;               \
    case 4: aKernel<4>(__VA_ARGS__); break;               \
    case 5: aKernel<5>(__VA_ARGS__); break;               \
    case 6: aKernel<6>(__VA_ARGS__); break;               \
    case 7: aKernel<7>(__VA_ARGS__); break;               \
    case 8: aKernel<8>(__VA_ARGS__); break;               \
    default: aKernel<0>(__VA_ARGS__); break;              \
  }

// One Gauss-Seidel sweep over all columns, forward or backward.
void relax(const CSparseGraph& aMatrix, const std::vector<float>& aInverseDiagonal, const float* aRhs, float* aX,
           int aColumns, bool aForward) {
  TARNWICK_DISPATCH_COLUMNS(relaxRows, aColumns, aMatrix, aInverseDiagonal, aRhs, aX, aColumns, aForward)
}

// aOut = A aX.
void multiply(const CSparseGraph& aMatrix, const float* aX, float* aOut, int aColumns) {
  TARNWICK_DISPATCH_COLUMNS(multiplyRows, aColumns, aMatrix, aX, aOut, aColumns)
}

void sweptResidual(const CSparseGraph& aMatrix, const float* aX, float* aOut, int aColumns) {
  TARNWICK_DISPATCH_COLUMNS(sweptResidualRows, aColumns, aMatrix, aX, aOut, aColumns)
}

void restrictToGroups(const std::vector<int>& aGroup, const float* aFine, float* aCoarse, int aColumns) {
  TARNWICK_DISPATCH_COLUMNS(restrictRows, aColumns, aGroup, aFine, aCoarse, aColumns)
}

void prolongFromGroups(const std::vector<int>& aGroup, const float* aCoarse, float* aFine, int aColumns) {
  TARNWICK_DISPATCH_COLUMNS(prolongRows, aColumns, aGroup, aCoarse, aFine, aColumns)
}

void step(const float* aAlpha, const float* aP, const float* aQ, float* aX, float* aR, int aNodes, int aColumns) {
  TARNWICK_DISPATCH_COLUMNS(stepRows, aColumns, aAlpha, aP, aQ, aX, aR, aNodes, aColumns)
}

void newDirection(const float* aBeta, const float* aZ, float* aP, int aNodes, int aColumns) {
  TARNWICK_DISPATCH_COLUMNS(directionRows, aColumns, aBeta, aZ, aP, aNodes, aColumns)
}

// Per column the sum of aA * aB over the nodes, in node order.
void columnDots(const float* aA, const float* aB, int aNodes, int aColumns, std::vector<double>& aDots) {
  aDots.assign(static_cast<size_t>(aColumns), 0.0);
  for (int i = 0; i < aNodes; i++)
    for (int c = 0; c < aColumns; c++)
      aDots[c] += static_cast<double>(aA[static_cast<size_t>(i) * aColumns + c]) * aB[static_cast<size_t>(i) * aColumns + c];
}

}  // namespace

// Right-hand sides, solutions and residuals of every level for one solve.
struct CMultilevelSolver::CWork {
  int mColumns = 0;
  std::vector<std::vector<float>> mRhs;
  std::vector<std::vector<float>> mX;
  std::vector<float> mResidual;
};

CMultilevelSolver::CMultilevelSolver(CSparseGraph aMatrix) {
  mLevels.emplace_back();
  mLevels.back().mMatrix = std::move(aMatrix);
  while (mLevels.back().mMatrix.nodeCount() > kDirectLimit && static_cast<int>(mLevels.size()) < kMaxLevels) {
    CLevel& fine = mLevels.back();
    std::vector<int> group;
    const int coarseCount = groupNodes(fine.mMatrix, group);
    if (coarseCount > kStall * fine.mMatrix.nodeCount()) break;
    CSparseGraph coarse = coarsen(fine.mMatrix, group, coarseCount);
    fine.mAggregate = std::move(group);
    fine.mCoarseCount = coarseCount;
    mLevels.emplace_back();
    mLevels.back().mMatrix = std::move(coarse);
  }
  for (CLevel& level : mLevels) {
    const CSparseGraph& matrix = level.mMatrix;
    level.mInverseDiagonal.resize(matrix.mGround.size());
    for (int i = 0; i < matrix.nodeCount(); i++) level.mInverseDiagonal[i] = 1.0f / (matrix.linkSum(i) + matrix.mGround[i]);
  }
  factorCoarsest();
  // A node's error counts in proportion to the root of its diagonal, up to
  // that of a node with one link of full weight: the error in the energy
  // the system minimises. A node held only by links at the weight floor
  // hardly moves its neighbours, and waiting for its last digits would let
  // the iterations grow with the length of the weak seams it lies on.
  const CSparseGraph& finest = mLevels[0].mMatrix;
  mErrorWeight.resize(finest.mGround.size());
  for (int i = 0; i < finest.nodeCount(); i++)
    mErrorWeight[i] = std::min(1.0f, std::sqrt(finest.linkSum(i) + finest.mGround[i]));
}

void CMultilevelSolver::factorCoarsest() {
  const CSparseGraph& matrix = mLevels.back().mMatrix;
  const int n = matrix.nodeCount();
  if (n > kDirectLimit) return;
  mCholesky.assign(static_cast<size_t>(n) * n, 0.0);
  for (int i = 0; i < n; i++) {
    mCholesky[static_cast<size_t>(i) * n + i] = static_cast<double>(matrix.linkSum(i)) + matrix.mGround[i];
    for (int e = matrix.mStart[i]; e < matrix.mStart[i + 1]; e++)
      mCholesky[static_cast<size_t>(i) * n + matrix.mNeighbour[e]] -= matrix.mWeight[e];
  }
  for (int j = 0; j < n; j++) {
    double* rowJ = &mCholesky[static_cast<size_t>(j) * n];
    for (int k = 0; k < j; k++) rowJ[j] -= rowJ[k] * rowJ[k];
    rowJ[j] = std::sqrt(std::max(rowJ[j], 1e-300));
    for (int i = j + 1; i < n; i++) {
      double* rowI = &mCholesky[static_cast<size_t>(i) * n];
      double sum = rowI[j];
      for (int k = 0; k < j; k++) sum -= rowI[k] * rowJ[k];
      rowI[j] = sum / rowJ[j];
    }
  }
}

void CMultilevelSolver::solveCoarsest(CWork& aWork) const {
  const int last = levelCount() - 1;
  const CLevel& level = mLevels[last];
  const int n = level.mMatrix.nodeCount();
  const int columns = aWork.mColumns;
  const float* rhs = aWork.mRhs[last].data();
  float* x = aWork.mX[last].data();
  if (mCholesky.empty()) {
    // Coarsening stalled above the direct size: symmetric sweeps instead.
    std::fill(x, x + static_cast<size_t>(n) * columns, 0.0f);
    for (int sweep = 0; sweep < 10; sweep++) {
      relax(level.mMatrix, level.mInverseDiagonal, rhs, x, columns, true);
      relax(level.mMatrix, level.mInverseDiagonal, rhs, x, columns, false);
    }
    return;
  }
  std::vector<double> y(static_cast<size_t>(n));
  for (int c = 0; c < columns; c++) {
    for (int i = 0; i < n; i++) {
      double sum = rhs[static_cast<size_t>(i) * columns + c];
      for (int k = 0; k < i; k++) sum -= mCholesky[static_cast<size_t>(i) * n + k] * y[k];
      y[i] = sum / mCholesky[static_cast<size_t>(i) * n + i];
    }
    for (int i = n - 1; i >= 0; i--) {
      double sum = y[i];
      for (int k = i + 1; k < n; k++) sum -= mCholesky[static_cast<size_t>(k) * n + i] * y[k];
      y[i] = sum / mCholesky[static_cast<size_t>(i) * n + i];
    }
    for (int i = 0; i < n; i++) x[static_cast<size_t>(i) * columns + c] = static_cast<float>(y[i]);
  }
}

// A symmetric V-cycle from a zero guess: forward sweep, coarse correction of
// the residual, backward sweep.
void CMultilevelSolver::cycle(int aLevel, CWork& aWork) const {
  if (aLevel == levelCount() - 1) {
    solveCoarsest(aWork);
    return;
  }
  const CLevel& level = mLevels[aLevel];
  const int n = level.mMatrix.nodeCount();
  const int columns = aWork.mColumns;
  const float* rhs = aWork.mRhs[aLevel].data();
  float* x = aWork.mX[aLevel].data();
  std::fill(x, x + static_cast<size_t>(n) * columns, 0.0f);
  relax(level.mMatrix, level.mInverseDiagonal, rhs, x, columns, true);
  float* residual = aWork.mResidual.data();
  sweptResidual(level.mMatrix, x, residual, columns);
  std::vector<float>& coarseRhs = aWork.mRhs[aLevel + 1];
  std::fill(coarseRhs.begin(), coarseRhs.end(), 0.0f);
  restrictToGroups(level.mAggregate, residual, coarseRhs.data(), columns);
  cycle(aLevel + 1, aWork);
  prolongFromGroups(level.mAggregate, aWork.mX[aLevel + 1].data(), x, columns);
  relax(level.mMatrix, level.mInverseDiagonal, rhs, x, columns, false);
}

namespace {

// Keeps the columns aKeep[0], aKeep[1], ... of the node-major aValues, which
// has aColumns per node, in that order.
void keepColumns(std::vector<float>& aValues, int aNodes, int aColumns, const std::vector<int>& aKeep) {
  const int kept = static_cast<int>(aKeep.size());
  for (int i = 0; i < aNodes; i++)
    for (int c = 0; c < kept; c++)
      aValues[static_cast<size_t>(i) * kept + c] = aValues[static_cast<size_t>(i) * aColumns + aKeep[static_cast<size_t>(c)]];
  aValues.resize(valuesSize(aNodes, kept));
}

}  // namespace

void CMultilevelSolver::prepare(CWork& aWork, int aColumns) const {
  aWork.mColumns = aColumns;
  aWork.mRhs.resize(mLevels.size());
  aWork.mX.resize(mLevels.size());
  for (size_t l = 0; l < mLevels.size(); l++) {
    const size_t size = valuesSize(mLevels[l].mMatrix.nodeCount(), aColumns);
    // The finest level's residual and preconditioned residual carry over.
    if (l > 0) aWork.mRhs[l].assign(size, 0.0f);
    if (l > 0) aWork.mX[l].assign(size, 0.0f);
  }
  aWork.mResidual.assign(valuesSize(mLevels[0].mMatrix.nodeCount(), aColumns), 0.0f);
}

CSolveResult CMultilevelSolver::solve(const float* aRhs, float* aSolution, int aColumns, float aTolerance,
                                      int aMaxIterations) const {
  const int n = mLevels[0].mMatrix.nodeCount();
  // The columns still iterated, in their order; a column that has settled
  // is written out and dropped, so that the others run on without its work.
  std::vector<int> columnOf(static_cast<size_t>(aColumns));
  for (int c = 0; c < aColumns; c++) columnOf[static_cast<size_t>(c)] = c;
  int columns = aColumns;
  CWork work;
  work.mRhs.assign(mLevels.size(), {});
  work.mX.assign(mLevels.size(), {});
  work.mRhs[0].assign(valuesSize(n, aColumns), 0.0f);
  std::copy(aRhs, aRhs + static_cast<size_t>(n) * aColumns, work.mRhs[0].begin());
  work.mX[0].assign(valuesSize(n, aColumns), 0.0f);
  prepare(work, columns);

  std::vector<float>& r = work.mRhs[0];
  std::vector<float>& z = work.mX[0];
  std::vector<float> x(valuesSize(n, aColumns), 0.0f);
  std::vector<float> p;
  std::vector<float> q(x.size());
  std::vector<double> rz;
  std::vector<double> pq;
  CSolveResult result;
  // The preconditioned residual z = M r estimates the remaining error of
  // every node in the units of the solution; a column stops once its
  // weighted estimate is below the tolerance everywhere. Returns whether
  // any column goes on.
  const auto settle = [&](int aIteration) {
    result.mIterations = std::max(result.mIterations, aIteration);
    std::vector<float> largest(static_cast<size_t>(columns), 0.0f);
    for (int i = 0; i < n; i++)
      for (int c = 0; c < columns; c++)
        largest[c] = std::max(largest[c], mErrorWeight[i] * std::fabs(z[static_cast<size_t>(i) * columns + c]));
    std::vector<int> keep;
    for (int c = 0; c < columns; c++) {
      if (largest[c] > aTolerance && aIteration < aMaxIterations) {
        keep.push_back(c);
        continue;
      }
      result.mLargestError = std::max(result.mLargestError, static_cast<double>(largest[c]));
      for (int i = 0; i < n; i++)
        aSolution[static_cast<size_t>(i) * aColumns + columnOf[static_cast<size_t>(c)]] = x[static_cast<size_t>(i) * columns + c];
    }
    if (static_cast<int>(keep.size()) == columns) return true;
    for (std::vector<float>* values : {&x, &r, &z, &p, &q}) keepColumns(*values, n, columns, keep);
    std::vector<int> kept;
    std::vector<double> keptRz;
    for (const int c : keep) {
      kept.push_back(columnOf[static_cast<size_t>(c)]);
      if (!rz.empty()) keptRz.push_back(rz[static_cast<size_t>(c)]);
    }
    columnOf = kept;
    rz = keptRz;
    columns = static_cast<int>(keep.size());
    prepare(work, columns);
    return columns > 0;
  };
  cycle(0, work);
  p.assign(x.size(), 0.0f);
  if (!settle(0)) return result;
  columnDots(r.data(), z.data(), n, columns, rz);
  p = z;
  std::vector<float> alpha;
  std::vector<float> beta;
  for (int iteration = 1;; iteration++) {
    multiply(mLevels[0].mMatrix, p.data(), q.data(), columns);
    columnDots(p.data(), q.data(), n, columns, pq);
    alpha.assign(static_cast<size_t>(columns), 0.0f);
    for (int c = 0; c < columns; c++) alpha[c] = pq[c] > 0.0 ? static_cast<float>(rz[c] / pq[c]) : 0.0f;
    step(alpha.data(), p.data(), q.data(), x.data(), r.data(), n, columns);
    cycle(0, work);
    if (!settle(iteration)) return result;
    std::vector<double> rzNew;
    columnDots(r.data(), z.data(), n, columns, rzNew);
    beta.assign(static_cast<size_t>(columns), 0.0f);
    for (int c = 0; c < columns; c++) {
      beta[c] = rz[c] > 0.0 ? static_cast<float>(rzNew[c] / rz[c]) : 0.0f;
      rz[c] = rzNew[c];
    }
    newDirection(beta.data(), z.data(), p.data(), n, columns);
  }
}

}  // namespace NConverged
