// Toolbox, not called by the labelling run: the simplex projection by random
// pivots, an alternative to the thresholding rounds of CProjection::simplex.
#include <random>
#include <vector>

#include "CProjection.h"

namespace {

// Pivot search on the label indices of one pixel; the index lists are kept
// by the caller so that a thread reuses their storage from pixel to pixel.
struct CPivotLists {
  std::vector<int> mOpen;
  std::vector<int> mGreater;
  std::vector<int> mLower;
};

void simplexByPivots(CTensor<float>& aTensor, int ax, int ay, std::minstd_rand& aRandom, CPivotLists& aLists) {
  const int labels = aTensor.zSize();
  std::vector<int>& open = aLists.mOpen;
  open.clear();
  for (int k = 0; k < labels; k++) open.push_back(k);
  float s = 0;
  float rho = 0;
  while (!open.empty()) {
    const int k = open[aRandom() % open.size()];
    const float pivot = aTensor(ax, ay, k);
    aLists.mGreater.clear();
    aLists.mLower.clear();
    float deltaS = 0;
    for (const int j : open) {
      const float value = aTensor(ax, ay, j);
      if (value >= pivot) {
        aLists.mGreater.push_back(j);
        deltaS += value;
      } else if (value < pivot) {
        aLists.mLower.push_back(j);
      }
    }
    const float deltaRho = static_cast<float>(aLists.mGreater.size());
    if ((s + deltaS) - pivot * (rho + deltaRho) < 1) {
      s += deltaS;
      rho += deltaRho;
      open.swap(aLists.mLower);
    } else {
      open.clear();
      for (const int j : aLists.mGreater)
        if (j != k) open.push_back(j);
    }
  }
  const float theta = (s - 1) / rho;
  for (int j = 0; j < labels; j++) {
    const float shifted = aTensor(ax, ay, j) - theta;
    aTensor(ax, ay, j) = shifted >= 0 ? shifted : 0;
  }
}

}  // namespace

void CProjection::simplex_DSSC(CTensor<float>& aTensor) {
  const int width = aTensor.xSize();
  const int height = aTensor.ySize();
#pragma omp parallel
  {
    CPivotLists lists;
#pragma omp for schedule(static)
    for (int y = 0; y < height; y++) {
      // Seeded by the row, so the pivots do not depend on the thread count.
      std::minstd_rand random(static_cast<unsigned>(y) + 1u);
      for (int x = 0; x < width; x++) simplexByPivots(aTensor, x, y, random, lists);
    }
  }
}
