#include "TextureFeatures.h"

#include <algorithm>
#include <cmath>

#include "Converged.h"

namespace NConverged {

namespace {

// One pass of the clipped box mean along aCount lines of aLength values,
// aStride apart, with aStep between the values of a line.
void boxPass(double* aValues, int aCount, int aLength, size_t aStride, size_t aStep, int aRadius,
             std::vector<double>& aPrefix) {
  aPrefix.resize(static_cast<size_t>(aLength) + 1);
  for (int l = 0; l < aCount; l++) {
    double* line = aValues + static_cast<size_t>(l) * aStride;
    aPrefix[0] = 0.0;
    for (int i = 0; i < aLength; i++) aPrefix[static_cast<size_t>(i) + 1] = aPrefix[static_cast<size_t>(i)] + line[i * aStep];
    for (int i = 0; i < aLength; i++) {
      const int low = std::max(0, i - aRadius);
      const int high = std::min(aLength, i + aRadius + 1);
      line[i * aStep] = (aPrefix[static_cast<size_t>(high)] - aPrefix[static_cast<size_t>(low)]) / (high - low);
    }
  }
}

// A signed square root, so that the products of differences have the units
// of the differences themselves, like the deviations.
double signedRoot(double aValue) { return aValue >= 0 ? std::sqrt(aValue) : -std::sqrt(-aValue); }

// The orientation planes: the window means of gx^2, gy^2 and gx*gy of the
// grey image (the mean of the channels), g its forward differences (zero at
// the far border). Forward differences see the finest checks, whose central
// differences vanish.
void addOrientation(const CTensor<float>& aImage, int aRadius, float aWeight, double* aPlanes) {
  const int width = aImage.xSize();
  const int height = aImage.ySize();
  const size_t n = static_cast<size_t>(width) * height;
  std::vector<double> grey(n);
  for (size_t i = 0; i < n; i++)
    grey[i] = (static_cast<double>(aImage.data()[i]) + aImage.data()[i + n] + aImage.data()[i + 2 * n]) / 3.0;
  std::vector<double> xx(n);
  std::vector<double> yy(n);
  std::vector<double> xy(n);
  for (int y = 0; y < height; y++)
    for (int x = 0; x < width; x++) {
      const size_t i = x + static_cast<size_t>(y) * width;
      const double gx = x + 1 < width ? grey[i + 1] - grey[i] : 0.0;
      const double gy = y + 1 < height ? grey[i + width] - grey[i] : 0.0;
      xx[i] = gx * gx;
      yy[i] = gy * gy;
      xy[i] = gx * gy;
    }
  smoothPlane(xx, width, height, aRadius);
  smoothPlane(yy, width, height, aRadius);
  smoothPlane(xy, width, height, aRadius);
  for (size_t i = 0; i < n; i++) {
    aPlanes[i] = aWeight * std::sqrt(std::max(0.0, xx[i]));
    aPlanes[i + n] = aWeight * std::sqrt(std::max(0.0, yy[i]));
    aPlanes[i + 2 * n] = aWeight * signedRoot(xy[i]);
  }
}

}  // namespace

int textureRadius(int aPixels, float aRadiusAt320x240) {
  if (aRadiusAt320x240 <= 0.0f) return 0;
  return std::max(1, static_cast<int>(std::lround(aRadiusAt320x240 * std::sqrt(aPixels / kReferencePixels))));
}

void smoothPlane(std::vector<double>& aPlane, int aWidth, int aHeight, int aRadius) {
  std::vector<double> prefix;
  for (int pass = 0; pass < 3; pass++) {
    boxPass(aPlane.data(), aHeight, aWidth, static_cast<size_t>(aWidth), 1, aRadius, prefix);
    boxPass(aPlane.data(), aWidth, aHeight, 1, static_cast<size_t>(aWidth), aRadius, prefix);
  }
}

CTextureFeatures textureFeatures(const CTensor<float>& aImage, int aRadius, float aOrientationWeight) {
  const int width = aImage.xSize();
  const int height = aImage.ySize();
  const size_t n = static_cast<size_t>(width) * height;
  CTextureFeatures features;
  features.mPixels = static_cast<int>(n);
  features.mPlanes.resize(CTextureFeatures::kPlanes * n);
  std::vector<double> square(n);
  for (int c = 0; c < 3; c++) {
    double* mean = features.mPlanes.data() + c * n;
    double* deviation = features.mPlanes.data() + (c + 3) * n;
    std::vector<double> plane(aImage.data() + c * n, aImage.data() + (c + 1) * n);
    for (size_t i = 0; i < n; i++) square[i] = plane[i] * plane[i];
    smoothPlane(plane, width, height, aRadius);
    smoothPlane(square, width, height, aRadius);
    for (size_t i = 0; i < n; i++) {
      mean[i] = plane[i];
      deviation[i] = std::sqrt(std::max(0.0, square[i] - plane[i] * plane[i]));
    }
  }
  addOrientation(aImage, aRadius, aOrientationWeight, features.mPlanes.data() + 6 * n);
  return features;
}

}  // namespace NConverged
