// The converged labelling: every unlabelled pixel's degrees solved to
// convergence on a weighted graph of the pixels and the superpixel regions,
// with the labelled pixels held fixed.
#pragma once

#include <vector>

#include "CMatrix.h"
#include "CTensor.h"

namespace NConverged {

// The image size the size-dependent parameters below are given for.
constexpr double kReferencePixels = 320.0 * 240.0;

struct CConvergedParameters {
  // Radius of the texture window at 320x240 (it grows with the image's
  // side). Pixel edges compare the texture features (TextureFeatures.h);
  // 0 compares the plain colours instead.
  float mTextureRadius = 4.0f;
  // Weight of the orientation features against the colour means and
  // deviations; it lets stripes and checks of one colour be told apart.
  float mOrientationWeight = 2.0f;
  // Pixel edges weigh exp(-beta * d / mean d), d the squared distance of
  // the two pixels' features (or colours).
  float mBeta = 8.0f;
  // Links to regions weigh exp(-gate * d), d the distance of a pixel to its
  // region's mean or of a region's mean to its parent's: the squared
  // distance of the texture features over its mean plus that of the colours
  // over theirs.
  float mGate = 1.5f;
  // A pixel's gate never falls below this: a pixel whose window straddles a
  // boundary differs from every region's mean, and without any link to its
  // region it would be left to its weak pixel edges, slow to converge and
  // decided by whichever label reaches along them.
  float mGateFloor = 1e-3f;
  // Weight of a pixel's link to its finest region at 320x240; it falls with
  // the square root of the pixel count so that it keeps its share against
  // region boundaries, whose length grows with the resolution.
  float mPixelLink = 0.5f;
  // A labelled pixel's link to its region weighs this many times a plain
  // pixel's, so that a few points decide a region their label has reached.
  float mSeedLink = 10.0f;
  // A region's link to its parent, per pixel of the region, relative to the
  // pixel link.
  float mParentLink = 0.1f;
  // The solve stops once the estimated error of every degree is below this.
  // The estimate (the preconditioned residual) falls short of the true error
  // in areas weakly tied to every label, so degrees there may be off by a few
  // hundredths; on the benchmark's scenes the hard labels are those of the
  // full solve but for at most one pixel in about 7,700.
  float mTolerance = 1e-3f;
  int mMaxIterations = 300;
  // The smallest block, in unknowns plus links, that the threads share out
  // (see CMultilevelSolver); it shapes the smoother, so the result depends
  // on it, but not on the number of threads.
  int mBlockSize = 65536;
};

// What a solve did, for transcripts and benchmarks.
struct CConvergedReport {
  int mUnknowns = 0;
  int mLevels = 0;
  int mIterations = 0;           // the most any label needed
  double mLargestError = 0;      // estimated remaining error of the degrees
};

// aImage: colour XxYx3. aSegmentations: colour images of the image's size,
// fine to coarse, each region painted in one colour. aLabelOf: per pixel its
// label 0 .. aLabelCount - 1, or -1 when unlabelled. Returns the XxYxL
// degrees; a labelled pixel has degree 1 for its label. The result does not
// depend on the number of threads.
CTensor<float> solveConverged(const CTensor<float>& aImage, const std::vector<CTensor<float>>& aSegmentations,
                              const CMatrix<int>& aLabelOf, int aLabelCount,
                              const CConvergedParameters& aParameters = CConvergedParameters(),
                              CConvergedReport* aReport = nullptr);

}  // namespace NConverged
