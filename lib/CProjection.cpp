#include "CProjection.h"

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
