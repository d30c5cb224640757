// Region adjacency graph of a label map with greedy agglomerative merging.
// Regions only ever merge with a region they touch, so regions that start
// 4-connected stay connected, and every coarser state is a union of the
// regions of each earlier state.
#pragma once

#include <vector>

#include "CMatrix.h"
#include "CTensor.h"

class CRegionGraph {
public:
  // aRegions holds region indices 0 .. aCount - 1; aFeatures holds per-pixel
  // colour features (here CIELab) of the same width and height.
  CRegionGraph(const CTensor<float>& aFeatures, const CMatrix<int>& aRegions, int aCount);

  int count() const { return mAlive; }

  // Merges every region smaller than aMinSize pixels, smallest first, into
  // the neighbour of closest mean colour.
  void absorbSmall(int aMinSize);

  // Merges the cheapest touching pair until at most aCount regions are left
  // or no two regions touch. The cost is Ward's criterion (growth of the
  // summed squared deviation) on mean colour and inner texture, raised where
  // the colour steps across the boundary exceed those inside the regions.
  void mergeDownTo(int aCount);

  // Current regions as a label map, numbered in the scan order of their first pixel.
  CMatrix<int> labels();

private:
  struct CRegion {
    int size = 0;
    double colour[3] = {0, 0, 0};  // sums over the pixels
    double texture = 0;            // sum of the colour steps between 4-neighbours inside
    int texturePairs = 0;
    int stamp = 0;                 // changes with every change of the region
    bool alive = true;
    std::vector<int> edges;
  };
  struct CEdge {
    int a = 0;
    int b = 0;
    int length = 0;       // 4-neighbour pixel pairs across the boundary
    double strength = 0;  // sum of their colour steps
    bool alive = true;
  };

  void addPair(int aRegion, int aOther, double aStep);
  int edgeBetween(int aRegion, int aOther) const;
  double colourDistance2(int aA, int aB) const;
  double mergeCost(const CEdge& aEdge) const;
  // Merges the regions of aEdge; returns the surviving region.
  int merge(int aEdge);
  int find(int aRegion);

  CMatrix<int> mInitial;
  std::vector<CRegion> mRegions;
  std::vector<CEdge> mEdges;
  std::vector<int> mParent;  // union-find over the initial regions
  int mAlive = 0;
  int mNextStamp = 0;
};
