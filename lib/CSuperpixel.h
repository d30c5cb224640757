// One node of the superpixel hierarchy: a pixel of the finest layer or a
// superpixel of a coarser one. A node is owned by its layer; every pointer it
// holds (parent, children, neighbours) is a non-owning link into a layer.
#pragma once

#include <vector>

#include "CMatrix.h"
#include "CTensor.h"
#include "CVector.h"

class CSuperpixel {
public:
  CSuperpixel() = default;
  // Nodes are linked by address, so they are never copied or moved.
  CSuperpixel(const CSuperpixel&) = delete;
  CSuperpixel& operator=(const CSuperpixel&) = delete;

  // Position: pixel coordinates, or the mean of the children's positions.
  void setX(float ax) { mx = ax; }
  void setY(float ay) { my = ay; }
  float getX() const { return mx; }
  float getY() const { return my; }
  // Position of the first-child-first leaf pixel: where images are sampled.
  float getLeafX() const { return mChildren.empty() ? mx : mChildren[0]->getLeafX(); }
  float getLeafY() const { return mChildren.empty() ? my : mChildren[0]->getLeafY(); }

  // Per-label values.
  void setValues(const CVector<float>& aValues) { mValues = aValues; }
  void setValue(float av, int index) { mValues(index) = av; }
  float getValue(int index) const { return mValues(index); }
  const CVector<float>& getValues() const { return mValues; }

  // Position of the node in its layer's list.
  void setLabel(int aLabel) { mLabel = aLabel; }
  int getLabel() const { return mLabel; }

  // Spatial distance of each neighbour, and the unused constant distance.
  void setDistance(float ad, int index) { mDistance[index] = ad; }
  float getDistance(int index) const { return mDistance[index]; }
  const std::vector<float>& getDistance() const { return mDistance; }
  void setConstDistance(float ad, int index) { mConstDistance[index] = ad; }
  float getConstDistance(int index) const { return mConstDistance[index]; }
  const std::vector<float>& getConstDistance() const { return mConstDistance; }

  // Neighbours in the same layer, with their parallel weight lists.
  // addNeighbour appends 1.0 to all four parallel lists, then the link.
  void addNeighbour(CSuperpixel* sp) {
    mDistance.push_back(1.0f);
    mDiffusivitiesNeighbours.push_back(1.0f);
    mConstDistance.push_back(1.0f);
    mConstDiffusivitiesNeighbours.push_back(1.0f);
    mNeighbours.push_back(sp);
  }
  // Room for aCount more neighbours in all five parallel lists.
  void reserveNeighbours(size_t aCount);
  const std::vector<CSuperpixel*>& getNeighbours() const { return mNeighbours; }
  CSuperpixel* getNeighbour(int index) const { return mNeighbours[index]; }
  void removeNeighbour(int index);
  void setDiffusivityNeighbour(float ad, int index) { mDiffusivitiesNeighbours[index] = ad; }
  float getDiffusivityNeighbour(int index) const { return mDiffusivitiesNeighbours[index]; }
  void setConstDiffusivityNeighbour(float ad, int index) { mConstDiffusivitiesNeighbours[index] = ad; }
  float getConstDiffusivityNeighbour(int index) const { return mConstDiffusivitiesNeighbours[index]; }

  // Parent in the next coarser layer (null in the top layer).
  void setParent(CSuperpixel* sp) { mParent = sp; }
  CSuperpixel* getParent() const { return mParent; }
  void setDiffusivityParent(float ad) { mDiffusivityParent = ad; }
  float getDiffusivityParent() const { return mDiffusivityParent; }
  void setConstDiffusivityParent(float ad) { mConstDiffusivityParent = ad; }
  float getConstDiffusivityParent() const { return mConstDiffusivityParent; }

  // Children in the next finer layer; addChild appends the link, then 1.0 to
  // both weight lists.
  void addChild(CSuperpixel* sp) {
    mChildren.push_back(sp);
    mDiffusivitiesChildren.push_back(1.0f);
    mConstDiffusivitiesChildren.push_back(1.0f);
  }
  const std::vector<CSuperpixel*>& getChildren() const { return mChildren; }
  void setDiffusivityChildren(float ad, int index) { mDiffusivitiesChildren[index] = ad; }
  float getDiffusivityChildren(int index) const { return mDiffusivitiesChildren[index]; }
  void setConstDiffusivityChildren(float ad, int index) { mConstDiffusivitiesChildren[index] = ad; }
  float getConstDiffusivityChildren(int index) const { return mConstDiffusivitiesChildren[index]; }

  // Centre = unweighted mean of the children's centres.
  void computeCoordinates();

  // Leaf recursions: visit every pixel node below this one, at its truncated
  // (mx, my). getLeafSum adds the pixels' elements to *mean and counts them
  // in *counter; setLeafValue replaces each element e by (e - 1) / data;
  // fill writes aCol into every channel of aResult.
  void getLeafSum(float* mean, int* counter, const CMatrix<float>& aMatrix) const;
  void setLeafValue(float data, CMatrix<float>& aMatrix) const;
  void fill(CTensor<float>& aResult, const CVector<float>& aCol) const;
  // Number of pixels below the node (1 for a pixel node).
  float getLeafSize() const;

  float constDist(const CSuperpixel* /*sp*/) const { return 1.0f; }
  // Distance of the two centres.
  float avrgEuclideanDist(const CSuperpixel* sp) const;
  // Smallest distance between a child of this node and a child of sp.
  float minEuclideanDist(const CSuperpixel* sp) const;

  // For label iz: *out = -sum(g * neighbouring value), *in = sum(g), with g
  // the product of the constant and the value-dependent weight of every
  // neighbour, child and parent edge.
  void computeDiffusionFlow(float* out, float* in, int iz) const;

private:
  float mx = 0.0f;
  float my = 0.0f;
  int mLabel = -1;
  CVector<float> mValues;
  CSuperpixel* mParent = nullptr;
  std::vector<CSuperpixel*> mChildren;
  std::vector<CSuperpixel*> mNeighbours;
  std::vector<float> mDistance;
  std::vector<float> mConstDistance;
  std::vector<float> mDiffusivitiesNeighbours;
  std::vector<float> mConstDiffusivitiesNeighbours;
  std::vector<float> mDiffusivitiesChildren;
  std::vector<float> mConstDiffusivitiesChildren;
  float mDiffusivityParent = 0.0f;
  float mConstDiffusivityParent = 0.0f;
};
