// A symmetric system A = diag(mDiagonal) - W whose off-diagonal part W is a
// weighted graph with non-negative weights, stored row by row (every edge
// appears in the rows of both of its ends).
#pragma once

#include <vector>

namespace NConverged {

struct CSparseGraph {
  std::vector<int> mStart{0};  // row i's links are mStart[i] .. mStart[i + 1] - 1
  std::vector<int> mNeighbour;
  std::vector<float> mWeight;
  std::vector<float> mDiagonal;

  int nodeCount() const { return static_cast<int>(mDiagonal.size()); }
  int linkCount() const { return static_cast<int>(mNeighbour.size()); }
};

}  // namespace NConverged
