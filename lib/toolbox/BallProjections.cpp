// Toolbox, not called by the labelling run: projections of pairs of vector
// fields onto (weighted) unit balls, the dual constraints of total-variation
// models on the label degrees.
#include <cmath>
#include <vector>

#include "CProjection.h"

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

// Calls aStep(x, y) for every pixel of aField, the rows shared out among the threads.
template <class TStep>
void forEachPixel(const CTensor<float>& aField, TStep aStep) {
  const int width = aField.xSize();
  const int height = aField.ySize();
#pragma omp parallel for schedule(static)
  for (int y = 0; y < height; y++)
    for (int x = 0; x < width; x++) aStep(x, y);
}

// Divides the pixel's vectors in both fields by aNorm when it exceeds 1.
void shrinkIntoUnitBall(CTensor<float>& p1, CTensor<float>& p2, int x, int y, float aNorm) {
  const float s = 1 / (aNorm < 1 ? 1 : aNorm);
  for (int k = 0; k < p1.zSize(); k++) {
    p1(x, y, k) *= s;
    p2(x, y, k) *= s;
  }
}

}  // namespace

void CProjection::L2sphere_coupled(CTensor<float>& p1, CTensor<float>& p2) {
  requireCovers(p1, p2);
  forEachPixel(p1, [&](int x, int y) {
    float q = 0;
    for (int k = 0; k < p1.zSize(); k++) q += p1(x, y, k) * p1(x, y, k) + p2(x, y, k) * p2(x, y, k);
    shrinkIntoUnitBall(p1, p2, x, y, std::sqrt(q));
  });
}

void CProjection::L2sphere_w_coupled(CTensor<float>& p1, CTensor<float>& p2, const CMatrix<float>& Dx,
                                     const CMatrix<float>& Dy) {
  requireCovers(p1, p2);
  requireCovers(p1, Dx);
  requireCovers(p1, Dy);
  forEachPixel(p1, [&](int x, int y) {
    float q1 = 0;
    float q2 = 0;
    for (int k = 0; k < p1.zSize(); k++) {
      q1 += p1(x, y, k) * p1(x, y, k);
      q2 += p2(x, y, k) * p2(x, y, k);
    }
    shrinkIntoUnitBall(p1, p2, x, y, std::sqrt(q1 * Dx(x, y) + q2 * Dy(x, y)));
  });
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
