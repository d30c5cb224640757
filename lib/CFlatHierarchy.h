// The superpixel hierarchy in flat arrays, with its solver. It builds the same
// nodes, links and weights as CHierarchy and relaxes them exactly as
// solveSegmentation_SOR does, operation for operation, so the degrees agree
// to the last bit; it is only laid out for speed:
// - the pixel layer is implicit (the 4-neighbours of a pixel are found by
//   index arithmetic) and every other link is held in compressed lists;
// - the degrees are stored in chunks of up to four labels, node after node,
//   so one walk of a node's edges updates all labels of a chunk at once with
//   SIMD lanes; within one inner iteration the label passes are independent,
//   so the chunks are shared out among the threads, and a chunk left over
//   (such as one of one) has its pixel pass shared by all of them in bands
//   of rows that trail each other; two threads share every pass that way
//   when the pixels outgrow the cache or the chunks are odd in number, so
//   that the pixels' projection can join the next pass;
// - edge weights, weight sums and the over-relaxation factor per node are
//   formed once per outer iteration with the same float operations;
// - the vector kernels (flat/FlatKernels.h) are written once over a lane
//   type and compiled for 128-, 256- and 512-bit registers, several pixels
//   or nodes side by side; every lane goes through the operations of the
//   128-bit path.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "CMatrix.h"
#include "CTensor.h"
#include "flat/CHugePageAllocator.h"
#include "flat/FlatKernels.h"


class CFlatHierarchy {
public:
  // A coarser layer whose links would take more memory than the process may
  // have; thrown before they are made.
  struct ETooLarge : std::runtime_error {
    ETooLarge(int aLayer, int aNodes, int aFinerNodes, long long aLinks, size_t aBytes, size_t aAvailable);
    int layer;
    int nodes;
    int finerNodes;  // of the layer below
    long long links;
    size_t bytes;      // the hierarchy would need
    size_t available;  // the process may have
  };

  // Bytes a link of a coarser layer takes in all the lists that hold it.
  static constexpr size_t kBytesPerLink = 48;
  // How many links ahead the sweep of layer 1 asks for its children's degrees.
  static constexpr int kPrefetchLinks = 256;
  // Bytes a pixel takes per chunk of degrees, and as much again for its
  // weights; beyond kCacheBytes in all (the last-level cache of the machine
  // it was measured on), two threads share every pixel pass (see solve).
  static constexpr size_t kPixelBytesPerChunk = 16;
  static constexpr size_t kCacheBytes = size_t(32) << 20;

  // aImg: starting degrees of the pixels, one layer per label; aSegs[0] the
  // image that weights the pixel edges, aSegs[k] the segmentation of layer k.
  CFlatHierarchy(const CTensor<float>& aImg, const std::vector<CTensor<float>>& aSegs);
  // The same with the image and segmentations where they are; they are read
  // during the construction only.
  CFlatHierarchy(const CTensor<float>& aImg, const std::vector<const CTensor<float>*>& aSegs);

  int size() const { return static_cast<int>(mLayers.size()); }
  int layerSize(int aLayer) const { return mLayers[aLayer].nodes; }
  // Links the update of a coarser layer walks per label and sweep (neighbours,
  // children and parent of every node, padded to fours); 0 for the pixels.
  long long layerLinks(int aLayer) const { return aLayer == 0 ? 0 : mLayers[aLayer].entryStart.back(); }
  // Bytes the hierarchy holds.
  size_t bytes() const;
  float value(int aLayer, int aNode, int aLabel) const;

  // The data weight spread over the superpixels of layer 1, as
  // CSuperpixelLayer::distanceFunction does.
  void distanceFunction(CMatrix<float>& aDistance) const;
  // The pixel degrees into aResult (working size, one layer per label).
  void convertToImage(CTensor<float>& aResult) const;
  // The relaxation of solveSegmentation_SOR with the data weight aWeight.
  void solve(const CMatrix<float>& aConf, const CTensor<float>& aLabels, const CMatrix<float>& aWeight, float aAlpha,
             float aOmega, int maxiter);

  // Wall time of the phases of all solve calls so far, as the first thread
  // of the team sees them; a phase ends when all threads have done it.
  struct CPhaseTimes {
    double weights = 0;      // value-dependent weights, weight sums
    double pixelSweeps = 0;  // the first thread's pixel passes
    double layerSweeps = 0;  // its coarser-layer passes and the wait for the others
    double projection = 0;
  };
  const CPhaseTimes& phaseTimes() const { return mPhaseTimes; }

  // The widest registers the solver may use: 128, 256 or 512 bits; all
  // widths give the same bits. By default the widest the processor has (with
  // 512 bits the pixel pass still works in 256-bit registers, see
  // FlatKernels512.cpp).
  static constexpr int kDefaultVectorBits = 512;
  static void limitVectorBits(int aBits);
  // The width the solver uses: the widest the processor has within the limit.
  static int vectorBits();
  // The pixel bytes beyond which two threads share every pixel pass
  // (kCacheBytes by default; 0 makes them always share it); both schedules
  // give the same bits.
  static void sharePixelPassesAbove(size_t aBytes);

private:
  struct CLayer {
    int nodes = 0;
    // Centre and pixel index of the first-child-first leaf (coarser layers;
    // a pixel's are its coordinates and its index).
    std::vector<float> x, y;
    std::vector<int> firstLeaf;
    std::vector<int> parent;           // node in the layer above, -1 in the top layer
    std::vector<float> parentConst;    // constant weight of the edge to the parent
    std::vector<float> parentVar;      // value-dependent weight of that edge
    std::vector<int> childStart, child;       // children in the layer below
    std::vector<float> childConst;            // per child edge, parent side
    std::vector<int> nbrStart, nbr;           // neighbours (coarser layers only)
    std::vector<float> nbrDist, nbrConst;
    std::vector<int> nbrPair;                 // the linked pair of each entry
    std::vector<int> pairNodes;               // the two nodes of every pair
    std::vector<float> pairVar;               // value-dependent weight of every pair
    std::vector<float> md;             // weight sum (pixels: with the data term)
    std::vector<float> omegaOverMd;    // (coarser layers)
    size_t base = 0;                   // of the layer's degrees within a chunk
    // The sweep order (coarser layers): slots of two nodes that do not
    // neighbour each other, the second -1 when a node is alone.
    std::vector<int> order;
    std::vector<int> position;  // of every node in the order
    // What the update of a coarser node walks, per position in the order:
    // per link the offset of the linked node's degrees within a chunk and the
    // link's weight product. The offsets run on past the last link (to the
    // zero slot) by the distance the sweep looks ahead.
    std::vector<int> entryStart;
    std::vector<uint32_t, NFlat::CHugePageAllocator<uint32_t>> entryOffset;
    std::vector<float, NFlat::CHugePageAllocator<float>> entryG;
  };

  float* chunk(int aChunk) { return mValues.data() + static_cast<size_t>(aChunk) * mChunkStride; }
  // Per-node arrays of a layer whose node count is set.
  void allocateNodeArrays(CLayer& aLayer);
  void allocateValues(const CTensor<float>& aImg);
  static void scheduleSweep(CLayer& aLayer);
  void buildEntries(int aLayer);
  size_t slot(const CLayer& aLayer, int aNode, int aLabel) const {
    return mLabelOffset[aLabel] + aLayer.base + static_cast<size_t>(aNode) * 4;
  }

  void buildPixelLayer(const CTensor<float>& aImage);
  void buildCoarserLayer(int aLayer, const CTensor<float>& aSeg, const CTensor<float>& aFinerSeg);
  void linkNeighbours(int aLayer);
  void checkLinkMemory(int aLayer, const std::vector<std::vector<int>>& aAdjacent) const;

  // The solve's phases, each one thread's share (flat/CFlat*.cpp).
  void computeVariableWeights(int aThread, int aThreads);
  void computePixelVariableWeights(int aFirstRow, int aEndRow);
  void computeWeightSums(int aThread, int aThreads, float aAlpha, float aOmega);
  void sweepPixels(int aChunk, int aSecondChunk, float aAlpha, float aOmega, bool aProjectFirst, int aMember = 0,
                   int aTeam = 1, long long aPass = 0);
  // aSecondChunk: another chunk swept alongside, or -1.
  void sweepLayer(int aLayer, int aChunk, int aSecondChunk, float aOmega);
  static void numberPairs(CLayer& aLayer);
  void normalizeNode(const CLayer& aLayer, int aNode);
  // aPixelsLater: the pixels' whole quads are left to the next pixel pass.
  // aTicket: the team's count of blocks taken, 0 at the start.
  void normalizeShare(int aThread, int aThreads, bool aPixelsLater, std::atomic<int>& aTicket);
  NFlat::CProjection projectionOf(CLayer& aLayer);
  bool anyZeroWeightSum(int aLayer) const;

  int mXSize = 0;
  int mYSize = 0;
  int mLabels = 0;
  int mLanes = 1;   // labels per chunk, at most 4
  int mChunks = 0;
  std::vector<int> mLaneIndex;  // chunk * 4 + lane of every label
  int mTeam = 1;                // threads of the solve
  // Per band of rows, the progress of the pixel pass that several threads share.
  std::vector<NFlat::CBandProgress> mBandProgress;
  const NFlat::CKernels* mKernels = nullptr;  // of the solve's register width
  // [layer][thread]: a node of the thread's share has a weight sum of 0.
  std::vector<char> mZeroWeightSum;
  float mDistRelaxation = 0.0f;
  std::vector<CLayer> mLayers;
  // The degrees: [chunk][layer][node][lane], a chunk every mChunkStride
  // floats, ending in four zeros (mZeroSlot) that padding links point to.
  std::vector<float, NFlat::CHugePageAllocator<float>> mValues;
  size_t mChunkStride = 0;
  size_t mZeroSlot = 0;
  std::vector<size_t> mLabelOffset;  // of label k in mValues for node 0 of a layer
  // Pixel edges: X(i) to the right neighbour, Y(i) to the one below.
  std::vector<float> mConstX, mConstY, mVarX, mVarY;
  // What a pixel update reads of its own, four floats per pixel: the weight
  // products of the edges to the right, below and to the parent, and omega / md.
  std::vector<float, NFlat::CHugePageAllocator<float>> mPixelWeights;
  // Per pixel and solve: alpha * data weight * data-term flag.
  std::vector<float> mDataWeight;
  // The data term per chunk, quads of the pixels that have one after a quad
  // of zeros (mRhsStride floats a chunk), and each pixel's quad.
  std::vector<float> mRhs;
  size_t mRhsStride = 0;
  std::vector<unsigned> mRhsQuad;
  CPhaseTimes mPhaseTimes;
};
