#include "TextureFeatures.h"

#include <algorithm>
#include <cmath>

#include "Converged.h"

namespace NConverged {

namespace {

// The clipped box mean along every row: each value becomes the mean of the
// values at most aRadius before and after it in its row, from prefix sums.
void rowPass(double* aValues, int aWidth, int aHeight, int aRadius, std::vector<double>& aPrefix) {
  aPrefix.resize(static_cast<size_t>(aWidth) + 1);
  for (int y = 0; y < aHeight; y++) {
    double* row = aValues + static_cast<size_t>(y) * aWidth;
    aPrefix[0] = 0.0;
    for (int x = 0; x < aWidth; x++) aPrefix[static_cast<size_t>(x) + 1] = aPrefix[static_cast<size_t>(x)] + row[x];
    for (int x = 0; x < aWidth; x++) {
      const int low = std::max(0, x - aRadius);
      const int high = std::min(aWidth, x + aRadius + 1);
      row[x] = (aPrefix[static_cast<size_t>(high)] - aPrefix[static_cast<size_t>(low)]) / (high - low);
    }
  }
}

// The same along every column. The prefix sums of all columns are formed
// row after row, so that memory is walked in its order; each column's sums
// and means are those of the row pass applied to it.
void columnPass(double* aValues, int aWidth, int aHeight, int aRadius, std::vector<double>& aPrefix) {
  const size_t width = static_cast<size_t>(aWidth);
  aPrefix.resize(width * (static_cast<size_t>(aHeight) + 1));
  std::fill(aPrefix.begin(), aPrefix.begin() + static_cast<std::ptrdiff_t>(width), 0.0);
  for (int y = 0; y < aHeight; y++) {
    const double* above = &aPrefix[static_cast<size_t>(y) * width];
    double* below = &aPrefix[(static_cast<size_t>(y) + 1) * width];
    const double* row = aValues + static_cast<size_t>(y) * width;
    for (size_t x = 0; x < width; x++) below[x] = above[x] + row[x];
  }
  for (int y = 0; y < aHeight; y++) {
    const int low = std::max(0, y - aRadius);
    const int high = std::min(aHeight, y + aRadius + 1);
    const double* lowSums = &aPrefix[static_cast<size_t>(low) * width];
    const double* highSums = &aPrefix[static_cast<size_t>(high) * width];
    double* row = aValues + static_cast<size_t>(y) * width;
    for (size_t x = 0; x < width; x++) row[x] = (highSums[x] - lowSums[x]) / (high - low);
  }
}

void smooth(double* aPlane, int aWidth, int aHeight, int aRadius, std::vector<double>& aPrefix) {
  for (int pass = 0; pass < 3; pass++) {
    rowPass(aPlane, aWidth, aHeight, aRadius, aPrefix);
    columnPass(aPlane, aWidth, aHeight, aRadius, aPrefix);
  }
}

// A signed square root, so that the products of differences have the units
// of the differences themselves, like the deviations.
double signedRoot(double aValue) { return aValue >= 0 ? std::sqrt(aValue) : -std::sqrt(-aValue); }

// Fills planes 6, 7 and 8 with gx^2, gy^2 and gx*gy of the grey image (the
// mean of the channels), g its forward differences (zero at the far border).
// Forward differences see the finest checks, whose central differences
// vanish.
void orientationProducts(const CTensor<float>& aImage, double* aPlanes) {
  const int width = aImage.xSize();
  const int height = aImage.ySize();
  const size_t n = static_cast<size_t>(width) * height;
  std::vector<double> grey(n);
#pragma omp parallel for schedule(static)
  for (size_t i = 0; i < n; i++)
    grey[i] = (static_cast<double>(aImage.data()[i]) + aImage.data()[i + n] + aImage.data()[i + 2 * n]) / 3.0;
#pragma omp parallel for schedule(static)
  for (int y = 0; y < height; y++)
    for (int x = 0; x < width; x++) {
      const size_t i = x + static_cast<size_t>(y) * width;
      const double gx = x + 1 < width ? grey[i + 1] - grey[i] : 0.0;
      const double gy = y + 1 < height ? grey[i + width] - grey[i] : 0.0;
      aPlanes[6 * n + i] = gx * gx;
      aPlanes[7 * n + i] = gy * gy;
      aPlanes[8 * n + i] = gx * gy;
    }
}

}  // namespace

int textureRadius(int aPixels, float aRadiusAt320x240) {
  if (aRadiusAt320x240 <= 0.0f) return 0;
  return std::max(1, static_cast<int>(std::lround(aRadiusAt320x240 * std::sqrt(aPixels / kReferencePixels))));
}

void smoothPlane(std::vector<double>& aPlane, int aWidth, int aHeight, int aRadius) {
  std::vector<double> prefix;
  smooth(aPlane.data(), aWidth, aHeight, aRadius, prefix);
}

CTextureFeatures textureFeatures(const CTensor<float>& aImage, int aRadius, float aOrientationWeight) {
  const int width = aImage.xSize();
  const int height = aImage.ySize();
  const size_t n = static_cast<size_t>(width) * height;
  CTextureFeatures features;
  features.mPixels = static_cast<int>(n);
  features.mPlanes.resize(CTextureFeatures::kPlanes * n);
  double* planes = features.mPlanes.data();
  // Every plane holds the values whose window mean it needs: the channels,
  // their squares and the orientation products; the planes are smoothed
  // independently, so sharing them among threads leaves the bits alone.
#pragma omp parallel for schedule(static)
  for (size_t i = 0; i < n; i++)
    for (int c = 0; c < 3; c++) {
      const double value = aImage.data()[c * n + i];
      planes[c * n + i] = value;
      planes[(c + 3) * n + i] = value * value;
    }
  orientationProducts(aImage, planes);
#pragma omp parallel
  {
    std::vector<double> prefix;
#pragma omp for schedule(dynamic, 1)
    for (int p = 0; p < CTextureFeatures::kPlanes; p++) smooth(planes + p * n, width, height, aRadius, prefix);
  }
#pragma omp parallel for schedule(static)
  for (size_t i = 0; i < n; i++) {
    for (int c = 0; c < 3; c++) {
      const double mean = planes[c * n + i];
      planes[(c + 3) * n + i] = std::sqrt(std::max(0.0, planes[(c + 3) * n + i] - mean * mean));
    }
    planes[6 * n + i] = aOrientationWeight * std::sqrt(std::max(0.0, planes[6 * n + i]));
    planes[7 * n + i] = aOrientationWeight * std::sqrt(std::max(0.0, planes[7 * n + i]));
    planes[8 * n + i] = aOrientationWeight * signedRoot(planes[8 * n + i]);
  }
  return features;
}

}  // namespace NConverged
