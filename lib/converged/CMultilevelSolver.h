// Conjugate gradients preconditioned by an aggregation multigrid cycle, for
// the symmetric positive definite systems of CSparseGraph form. The coarse
// levels group strongly linked nodes in pairs, twice per level, and take the
// Galerkin product as their system, so a cycle costs a small multiple of one
// sweep over the matrix whatever the graph's diameter.
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
  explicit CMultilevelSolver(CSparseGraph aMatrix);

  // Solves A X = B for aColumns right-hand sides stored node-major
  // (aRhs[i * aColumns + c]) into aSolution, laid out alike. Every column is
  // iterated until its preconditioned residual, weighted per node by
  // min(1, sqrt(diagonal)), is at most aTolerance at every node and then
  // leaves the solve, so the others go on without its work; its result does
  // not depend on the other columns.
  CSolveResult solve(const float* aRhs, float* aSolution, int aColumns, float aTolerance, int aMaxIterations) const;

  int levelCount() const { return static_cast<int>(mLevels.size()); }

private:
  struct CLevel {
    CSparseGraph mMatrix;
    std::vector<float> mInverseDiagonal;
    std::vector<int> mAggregate;  // node -> node of the next level, -1 when left to the smoother
    int mCoarseCount = 0;
  };
  struct CWork;

  // Sizes aWork's coarse levels and residual for aColumns columns.
  void prepare(CWork& aWork, int aColumns) const;
  void factorCoarsest();
  void cycle(int aLevel, CWork& aWork) const;
  void solveCoarsest(CWork& aWork) const;

  std::vector<CLevel> mLevels;
  std::vector<double> mCholesky;  // lower triangle of the coarsest system, row-major
  std::vector<float> mErrorWeight;  // per node of the system, see solve
};

}  // namespace NConverged
