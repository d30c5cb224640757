// Nested superpixel hierarchy of a colour image and its colour-coded pixmaps.
#pragma once

#include <vector>

#include "CMatrix.h"
#include "CTensor.h"

namespace NSegment {

// The most regions a level may have above a level of aRegions: 0.8 times as
// many, at least 1. The labelling tool's coarser layers link every node to
// the neighbours of its children's neighbours, so a level that does not
// shrink doubles the links per node and the work.
int coarserLimit(int aRegions);

// Default region counts for aLevels levels, fine to coarse: aPixels / 500 for
// the finest, aPixels / 3000 for the coarsest and geometric steps between
// (one level: aPixels / 500), each within coarserLimit of the one before;
// never below 1.
std::vector<int> defaultRegionCounts(int aPixels, int aLevels);

// Label maps, fine to coarse, of at most aCounts[k] regions each (exactly as
// many where the image allows), and each within coarserLimit of the level
// before. Every region is 4-connected and every region
// of level k + 1 is a union of regions of level k. aImage is RGB with byte
// values; the result depends on nothing but its arguments.
std::vector<CMatrix<int>> segment(const CTensor<float>& aImage, const std::vector<int>& aCounts);

// An RGB image in which region r of aLabels (0 .. count - 1) is painted in its
// mean colour in aImage, rounded, or, when another region already took that
// colour, in the nearest free colour: every region gets a colour of its own.
CTensor<float> paintRegions(const CTensor<float>& aImage, const CMatrix<int>& aLabels);

}  // namespace NSegment
