#include "CProjection.h"

#include <cmath>
#include <random>
#include <vector>

namespace {

// The second field must offer every pixel and layer of the first.
void requireCovers(const CTensor<float>& aFirst, const CTensor<float>& aSecond) {
  if (aSecond.xSize() < aFirst.xSize() || aSecond.ySize() < aFirst.ySize() || aSecond.zSize() < aFirst.zSize())
    throw ETensorIncompatibleSize(aSecond.xSize(), aSecond.ySize(), aSecond.zSize());
}

void requireCovers(const CTensor<float>& aFirst, const CMatrix<float>& aWeights) {
  if (aWeights.xSize() < aFirst.xSize() || aWeights.ySize() < aFirst.ySize())
    throw ETensorIncompatibleSize(aWeights.xSize(), aWeights.ySize(), aFirst.xSize(), aFirst.ySize());
}

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

void CProjection::interval(float* val, float a, float b) {
  const float v = *val;
  const float t = a > v ? a : v;
  const float r = b < t ? b : t;
  *val = r;
}

void CProjection::binary(CTensor<float>& aLabelFunction) {
  const int width = aLabelFunction.xSize();
  const int height = aLabelFunction.ySize();
  const int labels = aLabelFunction.zSize();
#pragma omp parallel for schedule(static)
  for (int x = 0; x < width; x++)
    for (int y = 0; y < height; y++) {
      float best = -1.0f;
      int index = -1;
      for (int k = 0; k < labels; k++)
        if (aLabelFunction(x, y, k) > best) {
          best = aLabelFunction(x, y, k);
          index = k;
        }
      for (int k = 0; k < labels; k++) aLabelFunction(x, y, k) = 0;
      if (index >= 0) aLabelFunction(x, y, index) = 1.0f;
    }
}

void CProjection::simplex(CTensor<float>& aTensor) {
  const int width = aTensor.xSize();
  const int height = aTensor.ySize();
  const int labels = aTensor.zSize();
#pragma omp parallel for schedule(static)
  for (int y = 0; y < height; y++)
    for (int x = 0; x < width; x++) {
      float tau = -1e10f;
      for (int pass = 0; pass < labels; pass++) {
        float s = 0;
        float n = 0;
        for (int k = 0; k < labels; k++)
          if (aTensor(x, y, k) > tau) {
            s += aTensor(x, y, k);
            n += 1.0f;
          }
        tau = (s - 1) / n;
      }
      for (int k = 0; k < labels; k++) {
        const float shifted = aTensor(x, y, k) - tau;
        aTensor(x, y, k) = 0 > shifted ? 0 : shifted;
      }
    }
}

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

void CProjection::L2sphere_coupled(CTensor<float>& p1, CTensor<float>& p2) {
  requireCovers(p1, p2);
  const int width = p1.xSize();
  const int height = p1.ySize();
  const int labels = p1.zSize();
#pragma omp parallel for schedule(static)
  for (int y = 0; y < height; y++)
    for (int x = 0; x < width; x++) {
      float q = 0;
      for (int k = 0; k < labels; k++) q += p1(x, y, k) * p1(x, y, k) + p2(x, y, k) * p2(x, y, k);
      const float n = std::sqrt(q);
      const float s = 1 / (n < 1 ? 1 : n);
      for (int k = 0; k < labels; k++) {
        p1(x, y, k) *= s;
        p2(x, y, k) *= s;
      }
    }
}

void CProjection::L2sphere_w_coupled(CTensor<float>& p1, CTensor<float>& p2, const CMatrix<float>& Dx,
                                     const CMatrix<float>& Dy) {
  requireCovers(p1, p2);
  requireCovers(p1, Dx);
  requireCovers(p1, Dy);
  const int width = p1.xSize();
  const int height = p1.ySize();
  const int labels = p1.zSize();
#pragma omp parallel for schedule(static)
  for (int y = 0; y < height; y++)
    for (int x = 0; x < width; x++) {
      float q1 = 0;
      float q2 = 0;
      for (int k = 0; k < labels; k++) {
        q1 += p1(x, y, k) * p1(x, y, k);
        q2 += p2(x, y, k) * p2(x, y, k);
      }
      const float n = std::sqrt(q1 * Dx(x, y) + q2 * Dy(x, y));
      const float s = 1 / (1 > n ? 1 : n);
      for (int k = 0; k < labels; k++) {
        p1(x, y, k) *= s;
        p2(x, y, k) *= s;
      }
    }
}

// Corrections are stored per pixel, pairs (a, b) with a < b in lexicographic
// order: correction of pair i at pixel (x, y) lies at (y * width + x) * pairs + i.
// The stopping test uses the largest change of the iteration just finished.
void CProjection::L2sphereIntersect_w_dykstra(CTensor<float>& p1, CTensor<float>& p2, const CMatrix<float>& Dx,
                                              const CMatrix<float>& Dy, int aMaxIter, int aTolerance) {
  requireCovers(p1, p2);
  requireCovers(p1, Dx);
  requireCovers(p1, Dy);
  const int width = p1.xSize();
  const int height = p1.ySize();
  const int labels = p1.zSize();
  const size_t pairs = labels > 1 ? static_cast<size_t>(labels) * (labels - 1) / 2 : 0;
  const size_t pixels = width > 0 && height > 0 ? static_cast<size_t>(width) * height : 0;
  std::vector<float> correction1(pairs * pixels, 0.0f);
  std::vector<float> correction2(pairs * pixels, 0.0f);
  const float tolerance = static_cast<float>(aTolerance);
  for (int iteration = 0; iteration < aMaxIter; iteration++) {
    float largestChange = 0;
    size_t i = 0;
    for (int y = 0; y < height; y++)
      for (int x = 0; x < width; x++) {
        const float dx = Dx(x, y);
        const float dy = Dy(x, y);
        for (int a = 0; a < labels; a++)
          for (int b = a + 1; b < labels; b++, i++) {
            const float d1 = 0.5f * (p1(x, y, a) - p1(x, y, b)) + correction1[i];
            const float d2 = 0.5f * (p2(x, y, a) - p2(x, y, b)) + correction2[i];
            const float n = std::sqrt(d1 * d1 * dx + d2 * d2 * dy);
            const float excess1 = n > 1 ? d1 - d1 / n : 0.0f;
            const float excess2 = n > 1 ? d2 - d2 / n : 0.0f;
            const float change1 = correction1[i] - excess1;
            const float change2 = correction2[i] - excess2;
            p1(x, y, a) += change1;
            p1(x, y, b) -= change1;
            p2(x, y, a) += change2;
            p2(x, y, b) -= change2;
            correction1[i] = excess1;
            correction2[i] = excess2;
            const float change = std::sqrt(change1 * change1 + change2 * change2);
            if (change > largestChange) largestChange = change;
          }
      }
    if (largestChange < tolerance) break;
  }
}
