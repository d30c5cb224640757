// The vector kernels of the flat solver: what each reads and writes, and one
// table of them per register width. Each kernel is written once over a lane
// type (simd/CLanes.h) and compiled per width; every width gives the same
// bits, because every lane goes through the operations of the 128-bit path.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace NFlat {

// Progress of one band in one shared pass: pass * kPassSpan + steps done; a
// cache line of its own, so that the neighbouring bands' threads do not
// contend for it.
constexpr long long kPassSpan = 1LL << 32;
struct alignas(64) CBandProgress {
  std::atomic<long long> steps{0};
};

struct CProjection;

// One Gauss-Seidel pass over the pixels for the labels of one chunk.
struct CPixelSweep {
  ptrdiff_t width;
  int height;
  float* u;                  // degrees of the chunk, four lanes per pixel
  const float* rhs;          // data term of the chunk: a quad of zeros, then one per pixel that has one
  const unsigned* rhsQuad;   // per pixel: its quad in rhs (0: the zeros)
  const float* weights;      // per pixel: right edge, lower edge, parent edge, omega / md
  const int* parent;         // nullptr: no layer above
  const float* parentValues;
  const float* md;
  float oneMinusAlpha;
  float oneMinusOmega;
  bool check;                // some pixel has a weight sum of 0 and keeps its degree
  // A pass shared by a team: the bands of rows go round its members, each
  // band trailing the one above it (whose progress it reads) as closely as
  // the row-by-row order allows. One member alone does every band.
  int member = 0;
  int team = 1;
  CBandProgress* bandProgress = nullptr;  // per band
  long long pass = 0;
  // When set, the pixels' degrees (all chunks) are still to be projected onto
  // the simplex for this pass: each band first projects the whole quads of
  // pixels from its second row up to the first row of the next band (band 0
  // from the first pixel), so every pixel is projected once and before it is
  // read, and its degrees are then still in the cache for the pass. The
  // projection kernel may be of another width than the pass's (CKernels).
  const CProjection* projectFirst = nullptr;
  void (*project)(const CProjection& aProjection, int aFirstQuad, int aEndQuad) = nullptr;
  // When not 0, the pass relaxes a second chunk alongside, whose degrees lie
  // this many floats after u (and its parents' after parentValues) and its
  // data term pairRhsStride floats after rhs: both chunks of a pixel in one
  // register, sharing the loads of the weights. Where they cannot share one
  // (128-bit registers, or the check), the chunks go one after the other, in
  // a shared pass the second as pass + 1.
  ptrdiff_t pairStride = 0;
  ptrdiff_t pairRhsStride = 0;
};

// One Gauss-Seidel pass over a coarser layer, for one chunk or two. The nodes
// go in slots of two whose updates do not read each other (see
// CFlatHierarchy::scheduleSweep); a node's links four at a time, padded with
// links of weight 0 to the zero slot.
struct CLayerSweep {
  const float* values[2];    // each chunk's degrees, which the link offsets address
  float* u[2];               // the layer's own in each chunk
  int chunks;                // 1 or 2
  const int* order;          // two nodes per slot, the second -1 when alone
  int positions;             // of order
  const int* entryStart;     // per position: its links, and the next position's
  const uint32_t* offset;    // per link
  const float* g;            // per link: its weight product
  const float* md;           // per node
  const float* omegaOverMd;  // per node
  float oneMinusOmega;
  bool check;                // some node has a weight sum of 0 and keeps its degree
  int prefetchLinks;         // how many links ahead to ask for the linked degrees; 0: not at all
};

// The degrees of the pixels, for their edges' value-dependent weights.
struct CPixelPlanes {
  const float* first;        // pixel degrees of chunk 0, four lanes per pixel
  size_t chunkStride;
  int chunks;
  int lanes;                 // labels per chunk
  int labels;
  int width;                 // at least 3
  int height;                // at least 3
  float* varX;               // per pixel: weight of the edge to the right
  float* varY;               // and of the edge below
};

// Node pairs weighted by the diffusivity of their degree vectors: pair p
// links node a[p * aStep] (degrees at aBase + 4 * node within a chunk) and
// node b[p * bStep] (at bBase + 4 * node), or node p if b is nullptr.
struct CNodePairs {
  const float* values;       // chunk 0
  size_t chunkStride;
  int chunks;
  int lanes;
  int labels;
  const int* a;
  int aStep;
  size_t aBase;
  const int* b;
  int bStep;
  size_t bBase;
  float* out;                // per pair

  size_t offsetA(int p) const { return aBase + 4 * static_cast<size_t>(a[static_cast<ptrdiff_t>(p) * aStep]); }
  size_t offsetB(int p) const {
    return bBase + 4 * static_cast<size_t>(b ? b[static_cast<ptrdiff_t>(p) * bStep] : p);
  }
};

// The degrees of one layer, projected onto the simplex node by node.
struct CProjection {
  float* first;              // degrees of the layer's node 0 in chunk 0
  size_t chunkStride;
  int chunks;
  int lanes;
  int labels;
  const int* laneIndex;      // chunk * 4 + lane of every label
};

struct CKernels {
  int bits;
  // Rows [aFirstRow, aEndRow) of the pixel weights.
  void (*pixelWeights)(const CPixelPlanes& aPlanes, int aFirstRow, int aEndRow);
  // Pairs [aBegin, aEnd).
  void (*nodePairWeights)(const CNodePairs& aPairs, int aBegin, int aEnd);
  void (*sweepPixels)(const CPixelSweep& aSweep);  // one chunk, or two (pairStride)
  void (*sweepLayer)(const CLayerSweep& aSweep);
  // Nodes 4 * aFirstQuad up to 4 * aEndQuad.
  void (*project)(const CProjection& aProjection, int aFirstQuad, int aEndQuad);
};

const CKernels& kernels128();
const CKernels& kernels256();  // processors with AVX only
const CKernels& kernels512();  // processors with AVX-512F only

}  // namespace NFlat
