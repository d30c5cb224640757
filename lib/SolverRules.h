// Rules both solvers share, the node-by-node reference and the flat-array one:
// the inner iteration count and the spatial factor of the coarser layers' edge
// weights. One home, so the two cannot drift apart.
#pragma once

#include <algorithm>
#include <cmath>

namespace NSolverRules {

// Relaxation sweeps per outer iteration (the edge weights are renewed once per
// outer iteration).
constexpr int kInnerIterations = 10;

// Scale of the spatial factor for a layer of aXSize x aYSize pixels:
// 0.2 * max(aXSize, aYSize), formed in double and rounded to float.
inline float distanceRelaxation(int aXSize, int aYSize) {
  return static_cast<float>(0.2 * std::max(aXSize, aYSize));
}

// exp(-aDistance^2 / aRelaxation); the quotient in float, exp in double.
inline float spatialFactor(float aDistance, float aRelaxation) {
  const float exponent = -aDistance * aDistance / aRelaxation;
  return static_cast<float>(std::exp(static_cast<double>(exponent)));
}

}  // namespace NSolverRules
