// A symmetric system A x = G x + L x: L is the Laplacian of a weighted graph
// with non-negative weights, (L x)_i = sum_j w_ij (x_i - x_j), stored row by
// row (every edge appears in the rows of both of its ends), and G the
// diagonal of each node's ground weight (its links to fixed nodes). Kept in
// this form, A applied to a constant gives G exactly, whatever the rounding.
#pragma once

#include <vector>

namespace NConverged {

struct CSparseGraph {
  std::vector<int> mStart{0};  // row i's links are mStart[i] .. mStart[i + 1] - 1
  std::vector<int> mNeighbour;
  std::vector<float> mWeight;
  std::vector<float> mGround;
  // The nodes fall into phases, consecutive ranges starting at these nodes,
  // that the smoother sweeps one after the other (see CMultilevelSolver).
  std::vector<int> mPhaseStart{0};

  int nodeCount() const { return static_cast<int>(mGround.size()); }
  // Sum of the row's link weights (in double: a region's row has thousands).
  float linkSum(int aNode) const {
    double sum = 0.0;
    for (int e = mStart[aNode]; e < mStart[aNode + 1]; e++) sum += mWeight[e];
    return static_cast<float>(sum);
  }
  int linkCount() const { return static_cast<int>(mNeighbour.size()); }
};

}  // namespace NConverged
