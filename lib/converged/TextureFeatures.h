// A description of every pixel's neighbourhood that stays constant inside a
// regular texture, so that stripes, checks and blotches look like one region
// while a change of colour or of texture still shows: the window mean and the
// window standard deviation of every colour channel, and the window's
// orientation energy (the structure tensor of the grey image), which tells
// stripes from checks of the same colours and contrast.
#pragma once

#include <vector>

#include "CTensor.h"

namespace NConverged {

// Planes of one value per pixel (x fastest), one after the other.
struct CTextureFeatures {
  // Mean of R, G, B; their standard deviations; then the root of the window
  // means of gx^2, gy^2 and (signed) gx*gy, g the grey image's forward
  // differences, times the orientation weight.
  static constexpr int kPlanes = 9;
  std::vector<double> mPlanes;
  int mPixels = 0;
  const double* plane(int aPlane) const { return mPlanes.data() + static_cast<size_t>(aPlane) * mPixels; }
};

// The window radius for an image of aPixels pixels: aRadiusAt320x240 scaled
// with the image's side (textures grow with the resolution), at least 1;
// 0 when aRadiusAt320x240 is 0.
int textureRadius(int aPixels, float aRadiusAt320x240);

// Replaces every value of the aWidth x aHeight plane by a weighted mean over
// the window of radius about aRadius around it: three passes of the mean over
// a box of side 2 aRadius + 1 (clipped at the borders), close to a Gaussian.
void smoothPlane(std::vector<double>& aPlane, int aWidth, int aHeight, int aRadius);

// The features of aImage (XxYx3) for windows of radius aRadius >= 1; the
// orientation planes are scaled by aOrientationWeight.
CTextureFeatures textureFeatures(const CTensor<float>& aImage, int aRadius, float aOrientationWeight);

}  // namespace NConverged
