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
// Pairs are matched over links of at least this strength (the link over the
// root of both diagonals), halved at most kThresholdHalvings times until a
// level has at most 1 / kFinestShrink (below the finest level, whose pairs
// are matched twice) or 1 / kPairShrink (below the others) of the nodes of
// the level above.
constexpr float kPairThreshold = 0.1f;
constexpr int kThresholdHalvings = 6;
constexpr double kFinestShrink = 3.0;
constexpr double kPairShrink = 1.8;
// Every kKCycleEvery-th coarse level, from the first on, takes the K-cycle's
// two steps (see CMultilevelSolver::correct), the others a single cycle: with
// pairs the nodes fall about eightfold from one such level to the next, so a
// cycle's work stays a bounded multiple of one sweep of the finest level.
constexpr int kKCycleEvery = 3;
// Blocks per level for the threads to share; a level's blocks are fixed by
// its graph alone.
constexpr int kMaxBlocks = 16;

// Every group's members in order: those of group g are aMembers[aMemberStart[g]]
// .. aMembers[aMemberStart[g + 1] - 1].
void listMembers(const std::vector<int>& aGroup, int aGroups, std::vector<int>& aMemberStart,
                 std::vector<int>& aMembers) {
  aMemberStart.assign(static_cast<size_t>(aGroups) + 1, 0);
  for (const int g : aGroup)
    if (g >= 0) aMemberStart[g + 1]++;
  for (int g = 0; g < aGroups; g++) aMemberStart[g + 1] += aMemberStart[g];
  aMembers.resize(static_cast<size_t>(aMemberStart.back()));
  std::vector<int> fill(aMemberStart.begin(), aMemberStart.end() - 1);
  for (int i = 0; i < static_cast<int>(aGroup.size()); i++)
    if (aGroup[i] >= 0) aMembers[fill[aGroup[i]]++] = i;
}

// The Galerkin product P^T A P for the piecewise constant P of aGroup.
CSparseGraph coarsen(const CSparseGraph& aMatrix, const std::vector<int>& aGroup, int aGroups) {
  std::vector<int> memberStart;
  std::vector<int> members;
  listMembers(aGroup, aGroups, memberStart, members);
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
        // Links inside the group cancel. A node left to the smoother is zero
        // in the coarse space, so a link to it holds the group like ground;
        // dropped, it would leave a group tied only through it (a region
        // whose pixels are mostly labelled) all but free in the coarse
        // system, and its coarse correction far too large.
        if (h < 0) ground += aMatrix.mWeight[e];
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

// Pairs each node without a group with its strongest neighbour without a
// group, if their link is at least aThreshold times the root of both
// diagonals; a node left alone then joins the group of its strongest
// neighbour over such a link. With aDominance, nodes whose ground outweighs
// their links kDominance times are left to the smoother (-1). Returns the
// number of groups.
int matchPairs(const CSparseGraph& aMatrix, float aThreshold, bool aDominance, std::vector<int>& aGroup) {
  const int n = aMatrix.nodeCount();
  aGroup.assign(static_cast<size_t>(n), -2);
  std::vector<float> diagonal(static_cast<size_t>(n));
  for (int i = 0; i < n; i++) {
    diagonal[i] = aMatrix.linkSum(i) + aMatrix.mGround[i];
    if (aDominance && aMatrix.mGround[i] > kDominance * aMatrix.linkSum(i)) aGroup[i] = -1;
  }
  // The strongest neighbour j of i with aAccept(j), and the link's strength.
  const auto strongest = [&](int i, auto aAccept) {
    int partner = -1;
    float best = -1.0f;
    for (int e = aMatrix.mStart[i]; e < aMatrix.mStart[i + 1]; e++) {
      const int j = aMatrix.mNeighbour[e];
      if (j == i || !aAccept(j)) continue;
      const float strength = aMatrix.mWeight[e] / std::sqrt(diagonal[i] * diagonal[j]);
      if (strength > best) {
        best = strength;
        partner = j;
      }
    }
    return std::make_pair(partner, best);
  };
  std::vector<int> alone;
  int groups = 0;
  for (int i = 0; i < n; i++) {
    if (aGroup[i] != -2) continue;
    const auto [partner, strength] = strongest(i, [&](int j) { return aGroup[j] == -2; });
    aGroup[i] = groups++;
    if (partner >= 0 && strength >= aThreshold)
      aGroup[partner] = aGroup[i];
    else
      alone.push_back(i);
  }
  for (const int i : alone) {
    const auto [partner, strength] = strongest(i, [&](int j) { return aGroup[j] >= 0; });
    if (partner >= 0 && strength >= aThreshold) aGroup[i] = aGroup[partner];
  }
  // Number the groups that kept members in order.
  std::vector<int> number(static_cast<size_t>(groups), -1);
  int kept = 0;
  for (int& g : aGroup)
    if (g >= 0) {
      if (number[g] < 0) number[g] = kept++;
      g = number[g];
    }
  return kept;
}

// Groups the nodes by pairs, and with aTwice the pairs again by pairs on
// their Galerkin product, so a group follows strong links and has at most two
// or four members: groups chained along the strongest links represent the
// error that varies along the chain badly, and the iterations grew with the
// image. Only the finest level's pairs are matched twice: with groups of
// four on the coarser levels too, small images took two to three times the
// iterations, the error left lying along the seams where the texture window
// crosses a boundary. The threshold starts at aThreshold and halves until
// the level shrinks enough; aThreshold carries it to the next level, whose
// nodes are more loosely tied, and each attempt costs a matching. Returns the
// coarse system.
CSparseGraph groupNodes(const CSparseGraph& aMatrix, bool aTwice, float& aThreshold, std::vector<int>& aGroup) {
  const double shrink = aTwice ? kFinestShrink : kPairShrink;
  for (int attempt = 0;; attempt++, aThreshold *= 0.5f) {
    const bool last = attempt == kThresholdHalvings;
    const int pairCount = matchPairs(aMatrix, aThreshold, true, aGroup);
    if (!aTwice) {
      if (pairCount * shrink <= aMatrix.nodeCount() || last) return coarsen(aMatrix, aGroup, pairCount);
      continue;
    }
    const CSparseGraph pairs = coarsen(aMatrix, aGroup, pairCount);
    std::vector<int> pairGroup;
    const int groups = matchPairs(pairs, aThreshold, false, pairGroup);
    for (int& g : aGroup)
      if (g >= 0) g = pairGroup[g];
    if (groups * shrink <= aMatrix.nodeCount() || last) return coarsen(pairs, pairGroup, groups);
  }
}

size_t valuesSize(int aNodes, int aColumns) { return static_cast<size_t>(aNodes) * aColumns; }

// Four floats in one register. Each lane does exactly the operations of the
// scalar loop, so the bits are those of the plain path.
typedef float CLane4 __attribute__((vector_size(16)));

CLane4 load4(const float* aValues) {
  CLane4 lanes;
  std::memcpy(&lanes, aValues, sizeof lanes);
  return lanes;
}

CLane4 broadcast4(float aValue) { return CLane4{aValue, aValue, aValue, aValue}; }

// A node's columns in registers of four lanes: kColumns >= 4 columns take
// kGroups registers, the last starting four columns before the end (so two
// registers may share columns and compute them alike). Fewer columns take
// the plain loops: a register of three would have to read a fourth value
// that may belong to a node another thread is writing.
template <int kColumns>
struct CNodeLanes {
  static_assert(kColumns >= 4, "four columns or more");
  static constexpr int kGroups = (kColumns + 3) / 4;
  static constexpr int start(int aGroup) { return std::min(4 * aGroup, kColumns - 4); }
  CLane4 mLanes[kGroups];

  void load(const float* aValues) {
    for (int g = 0; g < kGroups; g++) mLanes[g] = load4(aValues + start(g));
  }
  void fill(float aValue) {
    for (int g = 0; g < kGroups; g++) mLanes[g] = broadcast4(aValue);
  }
  void store(float* aValues) const {
    for (int g = 0; g < kGroups; g++) std::memcpy(aValues + start(g), &mLanes[g], sizeof(CLane4));
  }
};

// aTo[c] += aFrom[c] (or = with kAssign) for the columns of one node.
template <int kColumns, bool kAssign = false>
void addNode(const float* aFrom, float* aTo, int aColumns) {
  const int columns = kColumns > 0 ? kColumns : aColumns;
  for (int c = 0; c < columns; c++) aTo[c] = kAssign ? aFrom[c] : aTo[c] + aFrom[c];
}

// Rows with more links than this (region nodes, up to a whole flat area's
// pixels) are summed in float over this many links at a time and the parts
// added in double: one float sum over thousands of links loses the digits
// that the stopping test asks for, and the solve would stall.
constexpr int kLongRow = 64;

bool isLongRow(const CSparseGraph& aMatrix, int aRow) {
  return aMatrix.mStart[aRow + 1] - aMatrix.mStart[aRow] > kLongRow;
}

// Per column, a long row's sum: aSum[c] += the sum over the links aFirst ..
// aLast - 1 of w * (aOwn[c] - value[c]) with kOwn, else of w * value[c], in
// parts of kLongRow links.
template <int kColumns, bool kOwn = false>
void addLongRowLinks(const CSparseGraph& aMatrix, const float* aValues, const float* aOwn, int aFirst, int aLast,
                     double* aSum, int aColumns) {
  const int columns = kColumns > 0 ? kColumns : aColumns;
  if constexpr (kColumns >= 4) {
    using CLanes = CNodeLanes<kColumns>;
    CLanes own;
    if (kOwn) own.load(aOwn);
    for (int first = aFirst; first < aLast; first += kLongRow) {
      CLanes part;
      part.fill(0.0f);
      for (int e = first; e < std::min(aLast, first + kLongRow); e++) {
        const CLane4 w = broadcast4(aMatrix.mWeight[e]);
        CLanes xj;
        xj.load(aValues + static_cast<size_t>(aMatrix.mNeighbour[e]) * kColumns);
        for (int g = 0; g < CLanes::kGroups; g++)
          part.mLanes[g] += kOwn ? w * (own.mLanes[g] - xj.mLanes[g]) : w * xj.mLanes[g];
      }
      float sums[kColumns];
      part.store(sums);
      for (int c = 0; c < kColumns; c++) aSum[c] += sums[c];
    }
    return;
  }
  std::vector<float> part(static_cast<size_t>(columns));
  for (int first = aFirst; first < aLast; first += kLongRow) {
    std::fill(part.begin(), part.end(), 0.0f);
    for (int e = first; e < std::min(aLast, first + kLongRow); e++) {
      const float w = aMatrix.mWeight[e];
      const float* xj = aValues + static_cast<size_t>(aMatrix.mNeighbour[e]) * columns;
      for (int c = 0; c < columns; c++) part[c] += kOwn ? w * (aOwn[c] - xj[c]) : w * xj[c];
    }
    for (int c = 0; c < columns; c++) aSum[c] += part[c];
  }
}

// The kernels' work on a long row, kept out of their loops. Each column
// goes through the same operations whatever the column count.
template <int kColumns>
[[gnu::noinline]] void relaxLongRow(const CSparseGraph& aMatrix, int aRow, int aLowerEnd, int aHaloEnd,
                                    float aInverseDiagonal, const float* aRhs, float* aX, const float* aHalo,
                                    int aColumns) {
  const int columns = kColumns > 0 ? kColumns : aColumns;
  std::vector<double> sum(aRhs + static_cast<size_t>(aRow) * columns, aRhs + static_cast<size_t>(aRow + 1) * columns);
  addLongRowLinks<kColumns>(aMatrix, aX, nullptr, aMatrix.mStart[aRow], aLowerEnd, sum.data(), columns);
  if (aHalo != nullptr) {
    addLongRowLinks<kColumns>(aMatrix, aHalo, nullptr, aLowerEnd, aHaloEnd, sum.data(), columns);
    addLongRowLinks<kColumns>(aMatrix, aX, nullptr, aHaloEnd, aMatrix.mStart[aRow + 1], sum.data(), columns);
  }
  for (int c = 0; c < columns; c++)
    aX[static_cast<size_t>(aRow) * columns + c] = static_cast<float>(sum[c] * aInverseDiagonal);
}

template <int kColumns>
[[gnu::noinline]] void multiplyLongRow(const CSparseGraph& aMatrix, int aRow, const float* aX, float* aOut,
                                       int aColumns) {
  const int columns = kColumns > 0 ? kColumns : aColumns;
  const float* xi = aX + static_cast<size_t>(aRow) * columns;
  std::vector<double> sum(static_cast<size_t>(columns));
  for (int c = 0; c < columns; c++) sum[c] = static_cast<double>(aMatrix.mGround[aRow]) * xi[c];
  addLongRowLinks<kColumns, true>(aMatrix, aX, xi, aMatrix.mStart[aRow], aMatrix.mStart[aRow + 1], sum.data(),
                                  columns);
  for (int c = 0; c < columns; c++) aOut[static_cast<size_t>(aRow) * columns + c] = static_cast<float>(sum[c]);
}

template <int kColumns>
[[gnu::noinline]] void sumLongRowUpper(const CSparseGraph& aMatrix, int aRow, int aLowerEnd, const float* aX,
                                       float* aOut, int aColumns) {
  const int columns = kColumns > 0 ? kColumns : aColumns;
  std::vector<double> sum(static_cast<size_t>(columns), 0.0);
  addLongRowLinks<kColumns>(aMatrix, aX, nullptr, aLowerEnd, aMatrix.mStart[aRow + 1], sum.data(), columns);
  for (int c = 0; c < columns; c++) aOut[static_cast<size_t>(aRow) * columns + c] = static_cast<float>(sum[c]);
}

// The kernels below work on one block of nodes, begin .. end - 1. They take
// the column count as a template argument where it is small (0: given at run
// time) so that the per-column loops unroll; every column goes through the
// same operations either way.
//
// A level's nodes fall into phases, consecutive ranges that the smoother
// sweeps one after the other, and each phase into blocks that it sweeps side
// by side. Every row's links are ordered in three parts:
//   [mStart[i], aLowerEnd[i])  earlier phases and earlier nodes of its block,
//   [aLowerEnd[i], aHaloEnd[i])  other blocks of its phase,
//   [aHaloEnd[i], mStart[i + 1])  later nodes of its block and later phases.
//
// A Gauss-Seidel sweep over one block, in place: each node takes the newest
// values of its own block and of the other phases, and from the other
// blocks of its phase their values before the sweep (aHalo). With aHalo null
// the sweep starts from zero (forward only): a node then takes only the
// first part, the rest being zero. So the blocks of a phase can be swept
// side by side, and the result depends on the phases and blocks, never on
// the threads that sweep them. Forward and backward sweeps are each other's
// transpose, so the cycle stays symmetric.
template <int kColumns>
void relaxRows(const CSparseGraph& aMatrix, const int* aLowerEnd, const int* aHaloEnd,
               const std::vector<float>& aInverseDiagonal, const float* aRhs, float* aX, const float* aHalo,
               int aColumns, int aBegin, int aEnd, bool aForward) {
  const int columns = kColumns > 0 ? kColumns : aColumns;
  // Returns whether row i is long and so relaxed.
  const auto relaxLong = [&](int i) {
    if (!isLongRow(aMatrix, i)) return false;
    relaxLongRow<kColumns>(aMatrix, i, aLowerEnd[i], aHaloEnd[i], aInverseDiagonal[i], aRhs, aX, aHalo, columns);
    return true;
  };
  if constexpr (kColumns >= 4) {
    using CLanes = CNodeLanes<kColumns>;
    const auto add = [&](CLanes& aSum, const float* aValues, int aFirst, int aLast) {
      for (int e = aFirst; e < aLast; e++) {
        const CLane4 w = broadcast4(aMatrix.mWeight[e]);
        CLanes xj;
        xj.load(aValues + static_cast<size_t>(aMatrix.mNeighbour[e]) * kColumns);
        for (int g = 0; g < CLanes::kGroups; g++) aSum.mLanes[g] += w * xj.mLanes[g];
      }
    };
    for (int step = aBegin; step < aEnd; step++) {
      const int i = aForward ? step : aBegin + aEnd - 1 - step;
      if (relaxLong(i)) continue;
      CLanes sum;
      sum.load(aRhs + static_cast<size_t>(i) * kColumns);
      add(sum, aX, aMatrix.mStart[i], aLowerEnd[i]);
      if (aHalo != nullptr) {
        add(sum, aHalo, aLowerEnd[i], aHaloEnd[i]);
        add(sum, aX, aHaloEnd[i], aMatrix.mStart[i + 1]);
      }
      const CLane4 inverse = broadcast4(aInverseDiagonal[i]);
      for (int g = 0; g < CLanes::kGroups; g++) sum.mLanes[g] = sum.mLanes[g] * inverse;
      sum.store(aX + static_cast<size_t>(i) * kColumns);
    }
    return;
  }
  float fixedSum[kColumns > 0 ? kColumns : 1];
  std::vector<float> runtimeSum(kColumns > 0 ? 0 : static_cast<size_t>(columns));
  float* sum = kColumns > 0 ? fixedSum : runtimeSum.data();
  const auto add = [&](const float* aValues, int aFirst, int aLast) {
    for (int e = aFirst; e < aLast; e++) {
      const float w = aMatrix.mWeight[e];
      const float* xj = aValues + static_cast<size_t>(aMatrix.mNeighbour[e]) * columns;
      for (int c = 0; c < columns; c++) sum[c] += w * xj[c];
    }
  };
  for (int step = aBegin; step < aEnd; step++) {
    const int i = aForward ? step : aBegin + aEnd - 1 - step;
    if (relaxLong(i)) continue;
    const float* rhs = aRhs + static_cast<size_t>(i) * columns;
    for (int c = 0; c < columns; c++) sum[c] = rhs[c];
    add(aX, aMatrix.mStart[i], aLowerEnd[i]);
    if (aHalo != nullptr) {
      add(aHalo, aLowerEnd[i], aHaloEnd[i]);
      add(aX, aHaloEnd[i], aMatrix.mStart[i + 1]);
    }
    float* xi = aX + static_cast<size_t>(i) * columns;
    for (int c = 0; c < columns; c++) xi[c] = sum[c] * aInverseDiagonal[i];
  }
}

// aOut = A aX over one block; aDot[c] gets the block's sum of aX * aOut per
// column, in node order.
template <int kColumns>
void multiplyRows(const CSparseGraph& aMatrix, const float* aX, float* aOut, double* aDot, int aColumns, int aBegin,
                  int aEnd) {
  const int columns = kColumns > 0 ? kColumns : aColumns;
  double fixedDot[kColumns > 0 ? kColumns : 1] = {};
  std::vector<double> runtimeDot(kColumns > 0 ? 0 : static_cast<size_t>(columns), 0.0);
  double* dot = kColumns > 0 ? fixedDot : runtimeDot.data();
  const auto addDot = [&](int i) {
    const size_t k = static_cast<size_t>(i) * columns;
    for (int c = 0; c < columns; c++) dot[c] += static_cast<double>(aX[k + c]) * aOut[k + c];
  };
  // Returns whether row i is long and so multiplied.
  const auto multiplyLong = [&](int i) {
    if (!isLongRow(aMatrix, i)) return false;
    multiplyLongRow<kColumns>(aMatrix, i, aX, aOut, columns);
    addDot(i);
    return true;
  };
  if constexpr (kColumns >= 4) {
    using CLanes = CNodeLanes<kColumns>;
    for (int i = aBegin; i < aEnd; i++) {
      if (multiplyLong(i)) continue;
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
      addDot(i);
    }
  } else {
    for (int i = aBegin; i < aEnd; i++) {
      if (multiplyLong(i)) continue;
      float* out = aOut + static_cast<size_t>(i) * columns;
      const float* xi = aX + static_cast<size_t>(i) * columns;
      for (int c = 0; c < columns; c++) out[c] = aMatrix.mGround[i] * xi[c];
      for (int e = aMatrix.mStart[i]; e < aMatrix.mStart[i + 1]; e++) {
        const float w = aMatrix.mWeight[e];
        const float* xj = aX + static_cast<size_t>(aMatrix.mNeighbour[e]) * columns;
        for (int c = 0; c < columns; c++) out[c] += w * (xi[c] - xj[c]);
      }
      addDot(i);
    }
  }
  std::copy(dot, dot + columns, aDot);
}

// The residual b - A x after a sweep from zero: of row i only the links the
// sweep took as zero remain.
template <int kColumns>
void sweptResidualRows(const CSparseGraph& aMatrix, const int* aLowerEnd, const float* aX, float* aOut, int aColumns,
                       int aBegin, int aEnd) {
  const int columns = kColumns > 0 ? kColumns : aColumns;
  // Returns whether row i is long and so summed.
  const auto sumLong = [&](int i) {
    if (!isLongRow(aMatrix, i)) return false;
    sumLongRowUpper<kColumns>(aMatrix, i, aLowerEnd[i], aX, aOut, columns);
    return true;
  };
  if constexpr (kColumns >= 4) {
    using CLanes = CNodeLanes<kColumns>;
    for (int i = aBegin; i < aEnd; i++) {
      if (sumLong(i)) continue;
      CLanes sum;
      sum.fill(0.0f);
      for (int e = aLowerEnd[i]; e < aMatrix.mStart[i + 1]; e++) {
        const CLane4 w = broadcast4(aMatrix.mWeight[e]);
        CLanes xj;
        xj.load(aX + static_cast<size_t>(aMatrix.mNeighbour[e]) * kColumns);
        for (int g = 0; g < CLanes::kGroups; g++) sum.mLanes[g] += w * xj.mLanes[g];
      }
      sum.store(aOut + static_cast<size_t>(i) * kColumns);
    }
    return;
  }
  for (int i = aBegin; i < aEnd; i++) {
    if (sumLong(i)) continue;
    float* out = aOut + static_cast<size_t>(i) * columns;
    for (int c = 0; c < columns; c++) out[c] = 0.0f;
    for (int e = aLowerEnd[i]; e < aMatrix.mStart[i + 1]; e++) {
      const float w = aMatrix.mWeight[e];
      const float* xj = aX + static_cast<size_t>(aMatrix.mNeighbour[e]) * columns;
      for (int c = 0; c < columns; c++) out[c] += w * xj[c];
    }
  }
}

// Restriction from the fine block aBegin .. aEnd - 1. Groups are numbered
// in the order of their first members, so the groups whose first member lies
// in the block are aCoarseFirst .. aCoarseLast - 1; the block clears them and
// adds in the members of those whose members all lie in the block, in their
// order (aSummedHere). The groups that span blocks, aStraddlers[aStraddlerFirst
// .. aStraddlerLast - 1], it sums member by member.
template <int kColumns>
void restrictRows(const std::vector<int>& aGroup, const std::vector<unsigned char>& aSummedHere,
                  const std::vector<int>& aMemberStart, const std::vector<int>& aMembers, const int* aStraddlers,
                  int aStraddlerFirst, int aStraddlerLast, int aCoarseFirst, int aCoarseLast, const float* aFine,
                  float* aCoarse, int aColumns, int aBegin, int aEnd) {
  const int columns = kColumns > 0 ? kColumns : aColumns;
  std::fill(aCoarse + valuesSize(aCoarseFirst, columns), aCoarse + valuesSize(aCoarseLast, columns), 0.0f);
  for (int i = aBegin; i < aEnd; i++)
    if (aSummedHere[i])
      addNode<kColumns>(aFine + static_cast<size_t>(i) * columns, aCoarse + static_cast<size_t>(aGroup[i]) * columns,
                        columns);
  for (int s = aStraddlerFirst; s < aStraddlerLast; s++) {
    float* to = aCoarse + static_cast<size_t>(aStraddlers[s]) * columns;
    for (int m = aMemberStart[aStraddlers[s]]; m < aMemberStart[aStraddlers[s] + 1]; m++)
      addNode<kColumns>(aFine + static_cast<size_t>(aMembers[m]) * columns, to, columns);
  }
}

// Prolongation: every fine node with a group adds its group's value; a node
// that other blocks of its phase read also keeps the result in aHalo for
// the sweep that follows.
template <int kColumns>
void prolongRows(const std::vector<int>& aGroup, const int* aLowerEnd, const int* aHaloEnd, const float* aCoarse,
                 float* aFine, float* aHalo, int aColumns, int aBegin, int aEnd) {
  const int columns = kColumns > 0 ? kColumns : aColumns;
  for (int i = aBegin; i < aEnd; i++) {
    const int g = aGroup[i];
    float* fine = aFine + static_cast<size_t>(i) * columns;
    if (g >= 0) addNode<kColumns>(aCoarse + static_cast<size_t>(g) * columns, fine, columns);
    if (aHaloEnd[i] > aLowerEnd[i]) addNode<kColumns, true>(fine, aHalo + static_cast<size_t>(i) * columns, columns);
  }
}

// Over one block, per column the largest of aWeight[i] * |aZ| and the sum
// of aR * aZ in node order.
template <int kColumns>
void measureRows(const float* aZ, const float* aR, const float* aWeight, float* aLargest, double* aDot, int aColumns,
                 int aBegin, int aEnd) {
  const int columns = kColumns > 0 ? kColumns : aColumns;
  float fixedLargest[kColumns > 0 ? kColumns : 1] = {};
  double fixedDot[kColumns > 0 ? kColumns : 1] = {};
  std::vector<float> runtimeLargest(kColumns > 0 ? 0 : static_cast<size_t>(columns), 0.0f);
  std::vector<double> runtimeDot(kColumns > 0 ? 0 : static_cast<size_t>(columns), 0.0);
  float* largest = kColumns > 0 ? fixedLargest : runtimeLargest.data();
  double* dot = kColumns > 0 ? fixedDot : runtimeDot.data();
  for (int i = aBegin; i < aEnd; i++) {
    const size_t k = static_cast<size_t>(i) * columns;
    for (int c = 0; c < columns; c++) {
      largest[c] = std::max(largest[c], aWeight[i] * std::fabs(aZ[k + c]));
      dot[c] += static_cast<double>(aR[k + c]) * aZ[k + c];
    }
  }
  std::copy(largest, largest + columns, aLargest);
  std::copy(dot, dot + columns, aDot);
}

// The conjugate gradient step: x += alpha p and r -= alpha q, per column.
template <int kColumns>
void stepRows(const float* aAlpha, const float* aP, const float* aQ, float* aX, float* aR, int aColumns, int aBegin,
              int aEnd) {
  const int columns = kColumns > 0 ? kColumns : aColumns;
  for (size_t k = static_cast<size_t>(aBegin) * columns; k < static_cast<size_t>(aEnd) * columns;
       k += static_cast<size_t>(columns))
    for (int c = 0; c < columns; c++) {
      aX[k + c] += aAlpha[c] * aP[k + c];
      aR[k + c] -= aAlpha[c] * aQ[k + c];
    }
}

// The next search direction: p = z + beta p, per column.
template <int kColumns>
void directionRows(const float* aBeta, const float* aZ, float* aP, int aColumns, int aBegin, int aEnd) {
  const int columns = kColumns > 0 ? kColumns : aColumns;
  for (size_t k = static_cast<size_t>(aBegin) * columns; k < static_cast<size_t>(aEnd) * columns;
       k += static_cast<size_t>(columns))
    for (int c = 0; c < columns; c++) aP[k + c] = aZ[k + c] + aBeta[c] * aP[k + c];
}

// Over one block, per column the sum of aA * aB in node order.
template <int kColumns>
void dotRows(const float* aA, const float* aB, double* aDot, int aColumns, int aBegin, int aEnd) {
  const int columns = kColumns > 0 ? kColumns : aColumns;
  double fixedDot[kColumns > 0 ? kColumns : 1] = {};
  std::vector<double> runtimeDot(kColumns > 0 ? 0 : static_cast<size_t>(columns), 0.0);
  double* dot = kColumns > 0 ? fixedDot : runtimeDot.data();
  for (size_t k = static_cast<size_t>(aBegin) * columns; k < static_cast<size_t>(aEnd) * columns;
       k += static_cast<size_t>(columns))
    for (int c = 0; c < columns; c++) dot[c] += static_cast<double>(aA[k + c]) * aB[k + c];
  std::copy(dot, dot + columns, aDot);
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

// Runs aWork(block, begin, end) for the blocks aFirst .. aLast - 1 of
// aBlockStart, shared out among the threads.
template <class TWork>
void forBlocks(const std::vector<int>& aBlockStart, int aFirst, int aLast, const TWork& aWork) {
#pragma omp parallel for schedule(static) if (aLast - aFirst > 1)
  for (int b = aFirst; b < aLast; b++) aWork(b, aBlockStart[b], aBlockStart[b + 1]);
}

template <class TWork>
void forBlocks(const std::vector<int>& aBlockStart, const TWork& aWork) {
  forBlocks(aBlockStart, 0, static_cast<int>(aBlockStart.size()) - 1, aWork);
}

// Cuts the nodes aFirst .. aLast - 1 into aBlocks ranges with about equal
// shares of aCost (a running total over the nodes) and appends where each
// ends to aBlockStart.
template <class TCost>
void appendBlocks(int aFirst, int aLast, int aBlocks, const TCost& aCost, std::vector<int>& aBlockStart) {
  const double total = aCost(aLast) - aCost(aFirst);
  int made = 1;
  for (int i = aFirst + 1; i < aLast && made < aBlocks; i++)
    if (aCost(i) - aCost(aFirst) >= total * made / aBlocks) {
      aBlockStart.push_back(i);
      made++;
    }
  aBlockStart.push_back(aLast);
}

// How many blocks a range of nodes whose nodes plus links come to aCost
// falls into: blocks of at least aBlockSize, one when smaller, at most
// kMaxBlocks.
int blockCount(double aCost, int aBlockSize) {
  return static_cast<int>(std::clamp(aCost / std::max(1, aBlockSize), 1.0, static_cast<double>(kMaxBlocks)));
}

// Cuts a level into the blocks of its kernels: the smoother's blocks within
// each phase, and over the whole level blocks of about equal numbers of
// nodes plus links (for the matrix products) and of nodes (for the rest).
template <class TLevel>
void splitIntoBlocks(TLevel& aLevel, int aBlockSize) {
  const CSparseGraph& matrix = aLevel.mMatrix;
  const int n = matrix.nodeCount();
  const auto cost = [&](int aNode) { return static_cast<double>(matrix.mStart[aNode]) + aNode; };
  aLevel.mBlockStart.assign(1, 0);
  aLevel.mPhaseBlock.assign(1, 0);
  for (size_t p = 0; p < matrix.mPhaseStart.size(); p++) {
    const int first = matrix.mPhaseStart[p];
    const int last = p + 1 < matrix.mPhaseStart.size() ? matrix.mPhaseStart[p + 1] : n;
    if (last > first)
      appendBlocks(first, last, blockCount(cost(last) - cost(first), aBlockSize), cost, aLevel.mBlockStart);
    aLevel.mPhaseBlock.push_back(static_cast<int>(aLevel.mBlockStart.size()) - 1);
  }
  const int blocks = blockCount(cost(n), aBlockSize);
  aLevel.mRowBlockStart.assign(1, 0);
  appendBlocks(0, n, blocks, cost, aLevel.mRowBlockStart);
  aLevel.mNodeBlockStart.assign(1, 0);
  appendBlocks(0, n, blocks, [](int aNode) { return static_cast<double>(aNode); }, aLevel.mNodeBlockStart);
}

// Orders every row's links in the three parts that relaxRows reads, keeping
// their order within each part, and gives where the first two end.
void orderLinks(CSparseGraph& aMatrix, const std::vector<int>& aBlockStart, const std::vector<int>& aPhaseBlock,
                std::vector<int>& aLowerEnd, std::vector<int>& aHaloEnd) {
  const int n = aMatrix.nodeCount();
  aLowerEnd.resize(static_cast<size_t>(n));
  aHaloEnd.resize(static_cast<size_t>(n));
  for (size_t p = 0; p + 1 < aPhaseBlock.size(); p++) {
    const int phaseFirst = aBlockStart[aPhaseBlock[p]];
    const int phaseLast = aBlockStart[aPhaseBlock[p + 1]];
#pragma omp parallel for schedule(static)
    for (int b = aPhaseBlock[p]; b < aPhaseBlock[p + 1]; b++) {
      const int begin = aBlockStart[b];
      const int end = aBlockStart[b + 1];
      std::vector<int> neighbour;
      std::vector<float> weight;
      for (int i = begin; i < end; i++) {
        neighbour.clear();
        weight.clear();
        const auto take = [&](const auto& aInPart) {
          for (int e = aMatrix.mStart[i]; e < aMatrix.mStart[i + 1]; e++)
            if (aInPart(aMatrix.mNeighbour[e])) {
              neighbour.push_back(aMatrix.mNeighbour[e]);
              weight.push_back(aMatrix.mWeight[e]);
            }
          return aMatrix.mStart[i] + static_cast<int>(neighbour.size());
        };
        const auto halo = [&](int j) { return j >= phaseFirst && j < phaseLast && (j < begin || j >= end); };
        aLowerEnd[i] = take([&](int j) { return j < phaseFirst || (j >= begin && j < i); });
        aHaloEnd[i] = take(halo);
        take([&](int j) { return !halo(j) && (j >= phaseLast || (j > i && j < end)); });
        std::copy(neighbour.begin(), neighbour.end(), aMatrix.mNeighbour.begin() + aMatrix.mStart[i]);
        std::copy(weight.begin(), weight.end(), aMatrix.mWeight.begin() + aMatrix.mStart[i]);
      }
    }
  }
}

// Plans the restriction of a level with groups (see restrictRows): which
// fine nodes their block sums, per block its groups that span blocks, and
// the first group of every block.
template <class TLevel>
void planRestriction(TLevel& aLevel) {
  const std::vector<int>& blockStart = aLevel.mNodeBlockStart;
  const std::vector<int>& memberStart = aLevel.mMemberStart;
  const std::vector<int>& members = aLevel.mMembers;
  const int blocks = static_cast<int>(blockStart.size()) - 1;
  std::vector<int> blockOf(aLevel.mAggregate.size());
  for (int b = 0; b < blocks; b++) std::fill(blockOf.begin() + blockStart[b], blockOf.begin() + blockStart[b + 1], b);
  aLevel.mSummedHere.assign(aLevel.mAggregate.size(), 0);
  aLevel.mCoarseStart.assign(static_cast<size_t>(blocks) + 1, 0);
  std::vector<std::vector<int>> straddlers(static_cast<size_t>(blocks));
  const int groups = static_cast<int>(memberStart.size()) - 1;
  for (int g = 0; g < groups; g++) {
    const int first = blockOf[members[memberStart[g]]];
    aLevel.mCoarseStart[first + 1] = g + 1;
    if (first != blockOf[members[memberStart[g + 1] - 1]]) {
      straddlers[first].push_back(g);
      continue;
    }
    for (int m = memberStart[g]; m < memberStart[g + 1]; m++) aLevel.mSummedHere[members[m]] = 1;
  }
  for (int b = 0; b < blocks; b++) aLevel.mCoarseStart[b + 1] = std::max(aLevel.mCoarseStart[b + 1], aLevel.mCoarseStart[b]);
  aLevel.mStraddlerStart.assign(1, 0);
  aLevel.mStraddlers.clear();
  for (const std::vector<int>& list : straddlers) {
    aLevel.mStraddlers.insert(aLevel.mStraddlers.end(), list.begin(), list.end());
    aLevel.mStraddlerStart.push_back(static_cast<int>(aLevel.mStraddlers.size()));
  }
}

// Per column the sum over the blocks, in block order, of aPartial (one
// value per block and column).
std::vector<double> sumOverBlocks(const std::vector<double>& aPartial, int aColumns) {
  std::vector<double> sum(static_cast<size_t>(aColumns), 0.0);
  for (size_t k = 0; k < aPartial.size(); k++) sum[k % aColumns] += aPartial[k];
  return sum;
}

}  // namespace

// Right-hand sides, solutions and residuals of every level for one solve.
struct CMultilevelSolver::CWork {
  int mColumns = 0;
  std::vector<std::vector<float>> mRhs;
  std::vector<std::vector<float>> mX;
  // Per level, the values other blocks read during the backward sweep; until
  // the prolongation writes them, the residual that the restriction reads.
  std::vector<std::vector<float>> mHalo;
  // Per level that takes K steps, their direction, its product and their sum.
  std::vector<std::vector<float>> mDirection;
  std::vector<std::vector<float>> mProduct;
  std::vector<std::vector<float>> mSum;
};

CMultilevelSolver::CMultilevelSolver(CSparseGraph aMatrix, int aBlockSize) {
  mLevels.emplace_back();
  mLevels.back().mMatrix = std::move(aMatrix);
  float threshold = kPairThreshold;
  while (mLevels.back().mMatrix.nodeCount() > kDirectLimit && static_cast<int>(mLevels.size()) < kMaxLevels) {
    CLevel& fine = mLevels.back();
    std::vector<int> group;
    CSparseGraph coarse = groupNodes(fine.mMatrix, mLevels.size() == 1, threshold, group);
    if (coarse.nodeCount() > kStall * fine.mMatrix.nodeCount()) break;
    listMembers(group, coarse.nodeCount(), fine.mMemberStart, fine.mMembers);
    fine.mAggregate = std::move(group);
    mLevels.emplace_back();
    mLevels.back().mMatrix = std::move(coarse);
  }
  for (CLevel& level : mLevels) {
    splitIntoBlocks(level, aBlockSize);
    orderLinks(level.mMatrix, level.mBlockStart, level.mPhaseBlock, level.mLowerEnd, level.mHaloEnd);
    if (!level.mAggregate.empty()) planRestriction(level);
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
    // The diagonal from the same weights in double, so that every row sums
    // to its ground exactly.
    double diagonal = matrix.mGround[i];
    for (int e = matrix.mStart[i]; e < matrix.mStart[i + 1]; e++) {
      diagonal += matrix.mWeight[e];
      mCholesky[static_cast<size_t>(i) * n + matrix.mNeighbour[e]] -= matrix.mWeight[e];
    }
    mCholesky[static_cast<size_t>(i) * n + i] += diagonal;
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

void CMultilevelSolver::sweep(int aLevel, const float* aRhs, float* aX, const float* aHalo, int aColumns,
                              bool aForward) const {
  const CLevel& level = mLevels[aLevel];
  const int phases = static_cast<int>(level.mPhaseBlock.size()) - 1;
  for (int k = 0; k < phases; k++) {
    const int p = aForward ? k : phases - 1 - k;
    forBlocks(level.mBlockStart, level.mPhaseBlock[p], level.mPhaseBlock[p + 1], [&](int, int aBegin, int aEnd) {
      TARNWICK_DISPATCH_COLUMNS(relaxRows, aColumns, level.mMatrix, level.mLowerEnd.data(), level.mHaloEnd.data(),
                                level.mInverseDiagonal, aRhs, aX, aHalo, aColumns, aBegin, aEnd, aForward)
    });
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
    sweep(last, rhs, x, nullptr, columns, true);
    std::vector<float> halo(valuesSize(n, columns));
    for (int round = 1; round < 20; round++) {
      std::copy(x, x + halo.size(), halo.begin());
      sweep(last, rhs, x, halo.data(), columns, round % 2 == 0);
    }
    return;
  }
#pragma omp parallel for schedule(static) if (columns > 1)
  for (int c = 0; c < columns; c++) {
    std::vector<double> y(static_cast<size_t>(n));
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

bool CMultilevelSolver::takesKSteps(int aLevel) const {
  return aLevel > 0 && aLevel < levelCount() - 1 && (aLevel - 1) % kKCycleEvery == 0;
}

// The coarse correction of level aLevel. On the levels that take K steps it
// is two steps of flexible conjugate gradients on the level's system, each
// preconditioned by its cycle (a K-cycle), so that the correction is the
// best of its span in the system's energy; with a single cycle on every
// level, as in a V-cycle, the iterations grew with the image. The coarsest
// level is solved directly.
void CMultilevelSolver::correct(int aLevel, CWork& aWork) const {
  if (!takesKSteps(aLevel)) {
    cycle(aLevel, aWork);
    return;
  }
  const CLevel& level = mLevels[aLevel];
  const int columns = aWork.mColumns;
  float* r = aWork.mRhs[aLevel].data();
  float* p = aWork.mDirection[aLevel].data();
  float* q = aWork.mProduct[aLevel].data();
  float* sum = aWork.mSum[aLevel].data();
  const std::vector<int>& blocks = level.mNodeBlockStart;
  const std::vector<int>& rowBlocks = level.mRowBlockStart;
  std::vector<double> blockDot;
  const auto dot = [&](const float* aA, const float* aB) {
    blockDot.resize(static_cast<size_t>(blocks.size() - 1) * columns);
    forBlocks(blocks, [&](int aBlock, int aBegin, int aEnd) {
      TARNWICK_DISPATCH_COLUMNS(dotRows, columns, aA, aB, &blockDot[static_cast<size_t>(aBlock) * columns], columns,
                                aBegin, aEnd)
    });
    return sumOverBlocks(blockDot, columns);
  };
  // q = A p; returns p . q per column.
  const auto multiply = [&] {
    blockDot.resize(static_cast<size_t>(rowBlocks.size() - 1) * columns);
    forBlocks(rowBlocks, [&](int aBlock, int aBegin, int aEnd) {
      TARNWICK_DISPATCH_COLUMNS(multiplyRows, columns, level.mMatrix, p, q,
                                &blockDot[static_cast<size_t>(aBlock) * columns], columns, aBegin, aEnd)
    });
    return sumOverBlocks(blockDot, columns);
  };
  const auto ratio = [](double aNumerator, double aDenominator) {
    return aDenominator > 0.0 ? static_cast<float>(aNumerator / aDenominator) : 0.0f;
  };
  std::vector<float> alpha(static_cast<size_t>(columns));
  std::vector<float> beta(static_cast<size_t>(columns));
  // First step: p = z = M r, sum = alpha p, r -= alpha q.
  cycle(aLevel, aWork);
  float* z = aWork.mX[aLevel].data();
  const std::vector<double> rz = dot(r, z);
  forBlocks(blocks, [&](int, int aBegin, int aEnd) {
    std::copy(z + static_cast<size_t>(aBegin) * columns, z + static_cast<size_t>(aEnd) * columns,
              p + static_cast<size_t>(aBegin) * columns);
    std::fill(sum + static_cast<size_t>(aBegin) * columns, sum + static_cast<size_t>(aEnd) * columns, 0.0f);
  });
  const std::vector<double> pq = multiply();
  for (int c = 0; c < columns; c++) alpha[c] = ratio(rz[c], pq[c]);
  forBlocks(blocks, [&](int, int aBegin, int aEnd) {
    TARNWICK_DISPATCH_COLUMNS(stepRows, columns, alpha.data(), p, q, sum, r, columns, aBegin, aEnd)
  });
  // Second step: z = M r made conjugate to p, p = z + beta p.
  cycle(aLevel, aWork);
  z = aWork.mX[aLevel].data();
  const std::vector<double> zq = dot(z, q);
  const std::vector<double> rzNext = dot(r, z);
  for (int c = 0; c < columns; c++) beta[c] = -ratio(zq[c], pq[c]);
  forBlocks(blocks, [&](int, int aBegin, int aEnd) {
    TARNWICK_DISPATCH_COLUMNS(directionRows, columns, beta.data(), z, p, columns, aBegin, aEnd)
  });
  const std::vector<double> pqNext = multiply();
  for (int c = 0; c < columns; c++) alpha[c] = ratio(rzNext[c], pqNext[c]);
  forBlocks(blocks, [&](int, int aBegin, int aEnd) {
    TARNWICK_DISPATCH_COLUMNS(stepRows, columns, alpha.data(), p, q, sum, r, columns, aBegin, aEnd)
  });
  std::swap(aWork.mX[aLevel], aWork.mSum[aLevel]);
}

// One cycle from a zero guess: forward sweep, coarse correction of the
// residual, backward sweep. Each step is shared out by blocks.
void CMultilevelSolver::cycle(int aLevel, CWork& aWork) const {
  if (aLevel == levelCount() - 1) {
    solveCoarsest(aWork);
    return;
  }
  const CLevel& level = mLevels[aLevel];
  const int columns = aWork.mColumns;
  const float* rhs = aWork.mRhs[aLevel].data();
  float* x = aWork.mX[aLevel].data();
  float* residual = aWork.mHalo[aLevel].data();
  sweep(aLevel, rhs, x, nullptr, columns, true);
  forBlocks(level.mRowBlockStart, [&](int, int aBegin, int aEnd) {
    TARNWICK_DISPATCH_COLUMNS(sweptResidualRows, columns, level.mMatrix, level.mLowerEnd.data(), x, residual, columns,
                              aBegin, aEnd)
  });
  float* coarseRhs = aWork.mRhs[aLevel + 1].data();
  forBlocks(level.mNodeBlockStart, [&](int aBlock, int aBegin, int aEnd) {
    TARNWICK_DISPATCH_COLUMNS(restrictRows, columns, level.mAggregate, level.mSummedHere, level.mMemberStart,
                              level.mMembers, level.mStraddlers.data(), level.mStraddlerStart[aBlock],
                              level.mStraddlerStart[aBlock + 1], level.mCoarseStart[aBlock],
                              level.mCoarseStart[aBlock + 1], residual, coarseRhs, columns, aBegin, aEnd)
  });
  correct(aLevel + 1, aWork);
  const float* coarseX = aWork.mX[aLevel + 1].data();
  float* halo = aWork.mHalo[aLevel].data();
  forBlocks(level.mNodeBlockStart, [&](int, int aBegin, int aEnd) {
    TARNWICK_DISPATCH_COLUMNS(prolongRows, columns, level.mAggregate, level.mLowerEnd.data(), level.mHaloEnd.data(),
                              coarseX, x, halo, columns, aBegin, aEnd)
  });
  sweep(aLevel, rhs, x, halo, columns, false);
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
  aWork.mHalo.resize(mLevels.size());
  aWork.mDirection.resize(mLevels.size());
  aWork.mProduct.resize(mLevels.size());
  aWork.mSum.resize(mLevels.size());
  // Every kernel writes these before it reads them, and the column count
  // only falls, so they are sized without being filled.
  for (size_t l = 0; l < mLevels.size(); l++) {
    const size_t size = valuesSize(mLevels[l].mMatrix.nodeCount(), aColumns);
    // The finest level's residual and preconditioned residual carry over.
    if (l > 0) aWork.mRhs[l].resize(size);
    if (l > 0) aWork.mX[l].resize(size);
    // The finest level's halo also holds the product A p (see solve).
    if (l == 0 || l + 1 < mLevels.size()) aWork.mHalo[l].resize(size);
    if (takesKSteps(static_cast<int>(l))) {
      aWork.mDirection[l].resize(size);
      aWork.mProduct[l].resize(size);
      aWork.mSum[l].resize(size);
    }
  }
}

CSolveResult CMultilevelSolver::solve(std::vector<float> aRhs, float* aSolution, int aColumns, float aTolerance,
                                      int aMaxIterations) const {
  const CLevel& finest = mLevels[0];
  const int n = finest.mMatrix.nodeCount();
  const std::vector<int>& blocks = finest.mNodeBlockStart;
  const std::vector<int>& rowBlocks = finest.mRowBlockStart;
  // The columns still iterated, in their order; a column that has settled
  // is written out and dropped, so that the others run on without its work.
  std::vector<int> columnOf(static_cast<size_t>(aColumns));
  for (int c = 0; c < aColumns; c++) columnOf[static_cast<size_t>(c)] = c;
  int columns = aColumns;
  CWork work;
  work.mRhs.assign(mLevels.size(), {});
  work.mX.assign(mLevels.size(), {});
  work.mRhs[0] = std::move(aRhs);
  work.mX[0].assign(valuesSize(n, aColumns), 0.0f);
  prepare(work, columns);

  std::vector<float>& r = work.mRhs[0];
  std::vector<float>& z = work.mX[0];
  std::vector<float> x(valuesSize(n, aColumns), 0.0f);
  std::vector<float> p;
  // A q = A p lives only from the product to the step, so it takes the
  // finest level's halo, which the cycle uses only after the step.
  std::vector<float>& q = work.mHalo[0];
  const size_t nodeBlocks = blocks.size() - 1;
  std::vector<double> rz;
  std::vector<double> rzNew;
  std::vector<float> largest;
  // The preconditioned residual z = M r estimates the remaining error of
  // every node in the units of the solution. One pass gives per column the
  // largest weighted estimate and the dot r . z.
  const auto measure = [&] {
    std::vector<float> blockLargest(nodeBlocks * columns);
    std::vector<double> blockDot(nodeBlocks * columns);
    forBlocks(blocks, [&](int aBlock, int aBegin, int aEnd) {
      const size_t at = static_cast<size_t>(aBlock) * columns;
      TARNWICK_DISPATCH_COLUMNS(measureRows, columns, z.data(), r.data(), mErrorWeight.data(), &blockLargest[at],
                                &blockDot[at], columns, aBegin, aEnd)
    });
    largest.assign(static_cast<size_t>(columns), 0.0f);
    for (size_t k = 0; k < blockLargest.size(); k++) largest[k % columns] = std::max(largest[k % columns], blockLargest[k]);
    rzNew = sumOverBlocks(blockDot, columns);
  };
  CSolveResult result;
  // A column stops once its weighted estimate is below the tolerance
  // everywhere. Returns whether any column goes on.
  const auto settle = [&](int aIteration) {
    result.mIterations = std::max(result.mIterations, aIteration);
    std::vector<int> keep;
    for (int c = 0; c < columns; c++) {
      if (largest[c] > aTolerance && aIteration < aMaxIterations) {
        keep.push_back(c);
        continue;
      }
      result.mLargestError = std::max(result.mLargestError, static_cast<double>(largest[c]));
      forBlocks(blocks, [&](int, int aBegin, int aEnd) {
        for (int i = aBegin; i < aEnd; i++)
          aSolution[static_cast<size_t>(i) * aColumns + columnOf[static_cast<size_t>(c)]] = x[static_cast<size_t>(i) * columns + c];
      });
    }
    if (static_cast<int>(keep.size()) == columns) return true;
    for (std::vector<float>* values : {&x, &r, &z, &p}) keepColumns(*values, n, columns, keep);
    std::vector<int> kept;
    std::vector<double> keptRz;
    std::vector<double> keptRzNew;
    for (const int c : keep) {
      kept.push_back(columnOf[static_cast<size_t>(c)]);
      if (!rz.empty()) keptRz.push_back(rz[static_cast<size_t>(c)]);
      keptRzNew.push_back(rzNew[static_cast<size_t>(c)]);
    }
    columnOf = kept;
    rz = keptRz;
    rzNew = keptRzNew;
    columns = static_cast<int>(keep.size());
    prepare(work, columns);
    return columns > 0;
  };
  cycle(0, work);
  p.assign(x.size(), 0.0f);
  measure();
  if (!settle(0)) return result;
  rz = rzNew;
  p = z;
  std::vector<double> blockPq;
  std::vector<float> alpha;
  std::vector<float> beta;
  for (int iteration = 1;; iteration++) {
    blockPq.resize(static_cast<size_t>(rowBlocks.size() - 1) * columns);
    forBlocks(rowBlocks, [&](int aBlock, int aBegin, int aEnd) {
      TARNWICK_DISPATCH_COLUMNS(multiplyRows, columns, finest.mMatrix, p.data(), q.data(),
                                &blockPq[static_cast<size_t>(aBlock) * columns], columns, aBegin, aEnd)
    });
    const std::vector<double> pq = sumOverBlocks(blockPq, columns);
    alpha.assign(static_cast<size_t>(columns), 0.0f);
    for (int c = 0; c < columns; c++) alpha[c] = pq[c] > 0.0 ? static_cast<float>(rz[c] / pq[c]) : 0.0f;
    forBlocks(blocks, [&](int, int aBegin, int aEnd) {
      TARNWICK_DISPATCH_COLUMNS(stepRows, columns, alpha.data(), p.data(), q.data(), x.data(), r.data(), columns, aBegin,
                                aEnd)
    });
    cycle(0, work);
    measure();
    if (!settle(iteration)) return result;
    // The plain conjugate-gradient direction, although the K-cycle's steps
    // make the preconditioner depend on the residual: the flexible one (z
    // made conjugate to p through z . q) took as many iterations or more on
    // the benchmark's scenes, and it would keep q through the cycle, a
    // vector of the finest level's size more.
    beta.assign(static_cast<size_t>(columns), 0.0f);
    for (int c = 0; c < columns; c++) {
      beta[c] = rz[c] > 0.0 ? static_cast<float>(rzNew[c] / rz[c]) : 0.0f;
      rz[c] = rzNew[c];
    }
    forBlocks(blocks, [&](int, int aBegin, int aEnd) {
      TARNWICK_DISPATCH_COLUMNS(directionRows, columns, beta.data(), z.data(), p.data(), columns, aBegin, aEnd)
    });
  }
}

}  // namespace NConverged
