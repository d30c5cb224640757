// Conjugate gradients preconditioned by an aggregation multigrid K-cycle,
// for the symmetric positive definite systems of CSparseGraph form. Each
// coarse level groups the nodes of the level above by pairs matched over
// strong links (the finest level's pairs matched again, so four to a group)
// and takes the Galerkin product as its system; on every third coarse level
// the cycle takes two conjugate-gradient steps preconditioned by the cycle
// below. So the iterations stay about the same whatever the graph's size,
// and a cycle costs a small multiple of one sweep over the matrix.
#pragma once

#include <vector>

#include "CSparseGraph.h"

namespace NConverged {

struct CSolveResult {
  int mIterations = 0;          // the most any column needed
  double mLargestError = 0;     // the largest final error estimate |M r| of the columns
};

class CMultilevelSolver {
public:
  // The smoother sweeps the phases of a level (CSparseGraph::mPhaseStart;
  // the coarser levels have one) one after the other, and the blocks of a
  // phase side by side, each of at least aBlockSize nodes plus links (at most
  // 16 per phase): inside a block it is Gauss-Seidel, between the blocks of
  // a phase it takes the values before the sweep. The blocks depend on the
  // graph and aBlockSize alone, so the results are the same for any number
  // of threads.
  CMultilevelSolver(CSparseGraph aMatrix, int aBlockSize);

  // Solves A X = B for aColumns right-hand sides stored node-major
  // (aRhs[i * aColumns + c]) into aSolution, laid out alike. aRhs becomes
  // the residual, so a caller that moves it in saves a copy. Every column is
  // iterated until its preconditioned residual, weighted per node by
  // min(1, sqrt(diagonal)), is at most aTolerance at every node and then
  // leaves the solve, so the others go on without its work; its result does
  // not depend on the other columns.
  CSolveResult solve(std::vector<float> aRhs, float* aSolution, int aColumns, float aTolerance, int aMaxIterations) const;

  int levelCount() const { return static_cast<int>(mLevels.size()); }

private:
  struct CLevel {
    CSparseGraph mMatrix;
    std::vector<float> mInverseDiagonal;
    std::vector<int> mAggregate;  // node -> node of the next level, -1 when left to the smoother
    std::vector<int> mMemberStart;  // the members of node g of the next level are
    std::vector<int> mMembers;      // mMembers[mMemberStart[g]] .. mMembers[mMemberStart[g + 1] - 1]
    // The restriction's plan over the node blocks: which nodes their block
    // sums, each block's first group, and its groups that span blocks,
    // mStraddlers[mStraddlerStart[b]] .. mStraddlers[mStraddlerStart[b + 1] - 1].
    std::vector<unsigned char> mSummedHere;
    std::vector<int> mCoarseStart;
    std::vector<int> mStraddlerStart;
    std::vector<int> mStraddlers;
    // The smoother's blocks: block b holds the nodes mBlockStart[b] ..
    // mBlockStart[b + 1] - 1, phase p the blocks mPhaseBlock[p] ..
    // mPhaseBlock[p + 1] - 1. The other kernels cut the level into blocks of
    // about equal nodes plus links (mRowBlockStart) or nodes (mNodeBlockStart).
    std::vector<int> mBlockStart;
    std::vector<int> mPhaseBlock;
    std::vector<int> mRowBlockStart;
    std::vector<int> mNodeBlockStart;
    std::vector<int> mLowerEnd;     // per row, where the parts of its links end (see the smoother)
    std::vector<int> mHaloEnd;
  };
  struct CWork;

  // Sizes aWork's coarse levels and residual for aColumns columns.
  void prepare(CWork& aWork, int aColumns) const;
  void factorCoarsest();
  void cycle(int aLevel, CWork& aWork) const;
  void correct(int aLevel, CWork& aWork) const;
  bool takesKSteps(int aLevel) const;
  // One sweep of the smoother over level aLevel, in place; aHalo as in the
  // smoother's kernel.
  void sweep(int aLevel, const float* aRhs, float* aX, const float* aHalo, int aColumns, bool aForward) const;
  void solveCoarsest(CWork& aWork) const;

  std::vector<CLevel> mLevels;
  std::vector<double> mCholesky;  // lower triangle of the coarsest system, row-major
  std::vector<float> mErrorWeight;  // per node of the system, see solve
};

}  // namespace NConverged
