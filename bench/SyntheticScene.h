// Synthetic scenes with a known ground truth for the benchmarks: textured
// regions, small objects, low-contrast boundaries, shading and noise, and
// scribbles drawn from the ground truth.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

#include "CMatrix.h"
#include "CTensor.h"

namespace NBench {

// Deterministic pseudo-random numbers, independent of the standard library.
class CRandom {
public:
  explicit CRandom(uint64_t aSeed) : mState(aSeed * 2862933555777941757ULL + 3037000493ULL) {}
  double uniform() {
    mState = mState * 6364136223846793005ULL + 1442695040888963407ULL;
    return static_cast<double>(mState >> 11) / 9007199254740992.0;
  }
  double uniform(double aLow, double aHigh) { return aLow + (aHigh - aLow) * uniform(); }
  double gaussian() {
    const double u = std::max(uniform(), 1e-12);
    return std::sqrt(-2.0 * std::log(u)) * std::cos(6.283185307179586 * uniform());
  }

private:
  uint64_t mState;
};

// Smooth random field in [-1, 1]: random values on a grid of aCell pixels,
// interpolated with a smooth step.
class CValueNoise {
public:
  CValueNoise(CRandom& aRandom, int aWidth, int aHeight, double aCell)
      : mCell(aCell), mNx(static_cast<int>(aWidth / aCell) + 2), mNy(static_cast<int>(aHeight / aCell) + 2) {
    for (int i = 0; i < mNx * mNy; i++) mValues.push_back(2.0 * aRandom.uniform() - 1.0);
  }
  double operator()(double x, double y) const {
    const double gx = x / mCell;
    const double gy = y / mCell;
    const int ix = static_cast<int>(gx);
    const int iy = static_cast<int>(gy);
    auto fade = [](double t) { return t * t * (3.0 - 2.0 * t); };
    const double tx = fade(gx - ix);
    const double ty = fade(gy - iy);
    auto v = [&](int i, int j) { return mValues[static_cast<size_t>(i + j * mNx)]; };
    const double top = v(ix, iy) + (v(ix + 1, iy) - v(ix, iy)) * tx;
    const double bottom = v(ix, iy + 1) + (v(ix + 1, iy + 1) - v(ix, iy + 1)) * tx;
    return top + (bottom - top) * ty;
  }

private:
  double mCell;
  int mNx;
  int mNy;
  std::vector<double> mValues;
};

struct CScene {
  CTensor<float> image;
  CMatrix<int> truth;
  int labels = 0;
};

// A scene of aRegions bent Voronoi regions and aObjects small ellipses on top,
// one label each; the same arguments always give the same scene.
CScene makeScene(int aWidth, int aHeight, int aSeed, int aRegions = 16, int aObjects = 6);

// Colours of the scribbles of labels 0 to 21.
extern const std::array<std::array<int, 3>, 22> kLabelColours;

// Scribbles: in every true region a few short strokes, kept well inside it;
// shorter ones where long ones do not fit.
CTensor<float> scribbles(const CScene& aScene, int aSeed);

}  // namespace NBench
