// One layer of the superpixel hierarchy: the pixel layer (operations ending
// in _fl) or a layer of superpixels built from a colour-coded segmentation.
// The layer owns its nodes; they keep fixed addresses for their lifetime.
#pragma once

#include <cmath>
#include <deque>
#include <vector>

#include "CMatrix.h"
#include "CSuperpixel.h"
#include "CTensor.h"
#include "CVector.h"

// Added to every squared difference before the root of a diffusivity.
constexpr float mEpsilon = 1e-5f;
// Distance between a parent and its children; enters no formula.
constexpr float mDistChildren = 1.0f;
// Set by every hierarchy construction; nothing reads it.
inline int FLAG_distFunc = 0;
// Scale of the spatial factor distFCT: 0.2 * max(width, height) of the most
// recently constructed sized layer.
extern float mDistRelaxationFac;

// 1 / sqrt(sum_k (aVec1(k) - aVec2(k))^2 + mEpsilon) over the length of aVec1;
// the sum in float, the root and the division in double.
float diffusivity(const CVector<float>& aVec1, const CVector<float>& aVec2);
// exp(-dist^2 / mDistRelaxationFac); the quotient in float, exp in double.
float distFCT(float dist);
// Colour of segmentation pixel (ix, iy) packed into 24 bits, channel 0
// lowest, each channel truncated to int; a pixel outside the image or a
// channel outside 0..255 throws EFileError.
int segmentColourKey(const CTensor<float>& aSeg, int ix, int iy);
// vec = the channel vector of aTensor at (ix, iy).
void getZVector(const CTensor<float>& aTensor, int ix, int iy, CVector<float>& vec);

class CSuperpixelLayer {
public:
  // Leaves mDistRelaxationFac alone.
  CSuperpixelLayer() = default;
  // Resets mDistRelaxationFac to 0.2 * max(aXSize, aYSize).
  CSuperpixelLayer(int aXSize, int aYSize);
  CSuperpixelLayer(const CSuperpixelLayer&) = delete;
  CSuperpixelLayer& operator=(const CSuperpixelLayer&) = delete;

  // The nodes in creation order; a node's position equals its label.
  const std::vector<CSuperpixel*>& getSP() const { return sLayer; }
  int size() const { return static_cast<int>(sLayer.size()); }
  // Appends a new default node owned by this layer.
  CSuperpixel* addSP();

  // Pixel layer: one node per pixel of aTensor in row-major order, values =
  // the pixel's channels, label = y * width + x.
  void createSP_fl(const CTensor<float>& aTensor);
  // Links every pixel node to its 4-neighbours, in the order up, left, down,
  // right; only the width and height of aTensor are read.
  void setSPNeighbours_fl(const CTensor<float>& aTensor);
  // 1 / sqrt(aValue + mEpsilon); the sum in float, the root and division in double.
  static float diffusivity_fl(float aValue) {
    const float sum = aValue + mEpsilon;
    return static_cast<float>(1.0 / std::sqrt(static_cast<double>(sum)));
  }
  // Edge diffusivities from all channels of aTensor: aResultX(x, y) for the
  // edge to (x + 1, y), aResultY(x, y) for the edge to (x, y + 1). Both
  // results must have the tensor's width and height.
  static void diffusivities_fl(const CTensor<float>& aTensor, CMatrix<float>& aResultX, CMatrix<float>& aResultY);
  // Edge diffusivities of aIImage (the pixel layer's size) into the constant
  // or the value-dependent neighbour weights of every pixel node.
  void computeConstDiffusivitiesNeighbours_fl(const CTensor<float>& aIImage);
  void computeDiffusivitiesNeighbours_fl(const CTensor<float>& aIImage);

  // Coarser layer: one node per colour of aSeg, taken at the first leaf of
  // every node of SLayer2, in order of first appearance; every node of
  // SLayer2 becomes a child. Values start uniform over aImg's channels.
  void createSPLayer(CSuperpixelLayer& SLayer2, const CTensor<float>& aSeg, const CTensor<float>& aImg);
  // Links nodes whose children are neighbours in SLayer2.
  void setSPNeighbours(const CSuperpixelLayer& SLayer2);
  // Adds the neighbours of neighbours, with their centre distance; a node
  // becomes its own neighbour once per adjacent neighbour that lists it.
  void addNonLocalSPNeighbours();
  void computeCoordinatesSP();

  // Constant weights from the colours at the nodes' first leaves: neighbours
  // from aIImage times the spatial factor; children from aIImage (parent)
  // against aIImage1 (child), the parent side scaled by the child count.
  void computeConstDiffusivitiesNeighbours(const CTensor<float>& aIImage);
  void computeConstDiffusivitiesChildren(const CTensor<float>& aIImage, const CTensor<float>& aIImage1);
  // Value-dependent weights from the nodes' current values.
  void computeDiffusivitiesNeighbours();
  void computeDiffusivitiesChildren();
  // Projects every node's values onto the probability simplex.
  void normalize();

  // Paints every node's values into all pixels below it (result's z size of
  // channels each).
  void convertToImage(CTensor<float>& result) const;
  // Per node: each pixel weight e becomes (e - 1) / mean of the node's weights.
  void distanceFunction(CMatrix<float>& aDistance) const;

private:
  using CNeighbourSetter = void (CSuperpixel::*)(float, int);
  void writeDiffusivitiesNeighbours_fl(const CTensor<float>& aIImage, CNeighbourSetter aSet);

  std::deque<CSuperpixel> mNodes;  // owner; a deque never relocates its elements
  std::vector<CSuperpixel*> sLayer;
};
