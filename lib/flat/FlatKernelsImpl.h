// The flat solver's kernels, written once over a lane type L (simd/CLanes.h).
// Included once by each width's file (FlatKernels128/256/512.cpp), which
// defines TARNWICK_KERNEL_TARGET to the target of its lane type first; every
// function here gets that target and internal linkage. Where a kernel cannot
// fill a whole register (image borders, remainders, zero weight sums) it uses
// CLanes4, the 128-bit path every width agrees with lane for lane.
#pragma once

#ifndef TARNWICK_KERNEL_TARGET
#error "define TARNWICK_KERNEL_TARGET before including FlatKernelsImpl.h"
#endif

#include <algorithm>
#include <atomic>
#include <cmath>
#include <thread>
#include <vector>

#include "CSuperpixelLayer.h"
#include "flat/CYieldingBarrier.h"
#include "flat/FlatKernels.h"
#include "simd/CLanes.h"

// No lambdas below: GCC does not pass the target attribute on to them.
#define TARNWICK_KERNEL __attribute__((target(TARNWICK_KERNEL_TARGET)))
#define TARNWICK_KERNEL_INLINE __attribute__((target(TARNWICK_KERNEL_TARGET), always_inline)) inline

namespace NFlat {
namespace {

using NSimd::CLanes4;

// diffusivity_fl lane by lane: the shift in float, root and division in double.
template <class L>
TARNWICK_KERNEL_INLINE L diffusivityOfSums(L aSums) {
  return L::reciprocalRootInDouble(aSums + L::splat(mEpsilon));
}

// interval(v, 0, 1): max(0, v) keeps NaN as the second operand wins when a
// comparison fails, min likewise.
template <class L>
TARNWICK_KERNEL_INLINE L clampUnit(L v) {
  return L::min(L::splat(1.0f), L::max(L::zero(), v));
}

// ---------------------------------------------------------------------------
// Value-dependent pixel weights, as diffusivities_fl computes them from the
// degrees: per label the forward difference across the edge and the mean of
// the two central derivatives along it, summed over the labels in order.

// Central derivative with the mirrored border: -0.5 * before + 0.5 * after.
template <class L>
TARNWICK_KERNEL_INLINE L derivative(L aBefore, L aAfter) {
  return L::splat(-0.5f) * aBefore + L::splat(0.5f) * aAfter;
}

template <class L>
TARNWICK_KERNEL_INLINE L energy(L aGradX, L aGradY) {
  return aGradX * aGradX + aGradY * aGradY;
}

// Pixels (ax + 4g, ay) of chunk plane aPlane in quad g.
template <class L>
TARNWICK_KERNEL_INLINE L pixelQuads(const float* aPlane, int aWidth, int ax, int ay) {
  return L::loadQuads(aPlane + static_cast<size_t>(ay * aWidth + ax) * 4, 16);
}

// The pixels x .. x + kWidth - 1 of row y, all with a left and a right
// neighbour: per quad the terms of four pixels transposed to one register per
// label, so that the sums go label by label; pixel x + 4g + q ends in lane q of
// quad g.
template <class L>
TARNWICK_KERNEL_INLINE void pixelWeightBlock(const CPixelPlanes& s, int x, int y) {
  const int width = s.width;
  const int up = y > 0 ? y - 1 : 0;
  const int down = y < s.height - 1 ? y + 1 : s.height - 1;
  const bool below = y < s.height - 1;
  const L half = L::splat(0.5f);
  L sumX = L::zero();
  L sumY = L::zero();
  for (int c = 0; c < s.chunks; c++) {
    const float* m = s.first + c * s.chunkStride;
    // Vertical derivatives of the columns x .. x + 4, each shared by two edges.
    L vertical[5];
    for (int q = 0; q < 5; q++)
      vertical[q] = derivative(pixelQuads<L>(m, width, x + q, up), pixelQuads<L>(m, width, x + q, down));
    L tx[4];
    L ty[4] = {L::zero(), L::zero(), L::zero(), L::zero()};
    for (int q = 0; q < 4; q++) {
      const int px = x + q;
      tx[q] = energy(pixelQuads<L>(m, width, px + 1, y) - pixelQuads<L>(m, width, px, y),
                     half * (vertical[q] + vertical[q + 1]));
      if (below)
        ty[q] = energy(half * (derivative(pixelQuads<L>(m, width, px - 1, y), pixelQuads<L>(m, width, px + 1, y)) +
                               derivative(pixelQuads<L>(m, width, px - 1, y + 1), pixelQuads<L>(m, width, px + 1, y + 1))),
                       pixelQuads<L>(m, width, px, y + 1) - pixelQuads<L>(m, width, px, y));
    }
    L::transposeQuads(tx[0], tx[1], tx[2], tx[3]);
    L::transposeQuads(ty[0], ty[1], ty[2], ty[3]);
    const int lanes = std::min(s.lanes, s.labels - c * s.lanes);
    for (int lane = 0; lane < lanes; lane++) {
      sumX = sumX + tx[lane];
      if (below) sumY = sumY + ty[lane];
    }
  }
  diffusivityOfSums(sumX).store(s.varX + y * width + x);
  diffusivityOfSums(sumY).store(s.varY + y * width + x);
}

// One pixel at the left or right border: the labels of a chunk together, the
// terms summed in label order.
TARNWICK_KERNEL_INLINE void pixelWeightBorder(const CPixelPlanes& s, int x, int y) {
  const int width = s.width;
  const int height = s.height;
  const int up = y > 0 ? y - 1 : 0;
  const int down = y < height - 1 ? y + 1 : height - 1;
  const int left = x > 0 ? x - 1 : 0;
  const int right = x < width - 1 ? x + 1 : width - 1;
  const CLanes4 half = CLanes4::splat(0.5f);
  float termsX[4];
  float termsY[4];
  float sumX = 0.0f;
  float sumY = 0.0f;
  for (int c = 0; c < s.chunks; c++) {
    const float* m = s.first + c * s.chunkStride;
    const CLanes4 centre = pixelQuads<CLanes4>(m, width, x, y);
    if (x < width - 1) {
      const CLanes4 gradX = pixelQuads<CLanes4>(m, width, x + 1, y) - centre;
      const CLanes4 gradY = half * (derivative(pixelQuads<CLanes4>(m, width, x, up), pixelQuads<CLanes4>(m, width, x, down)) +
                                    derivative(pixelQuads<CLanes4>(m, width, x + 1, up),
                                               pixelQuads<CLanes4>(m, width, x + 1, down)));
      energy(gradX, gradY).store(termsX);
    }
    if (y < height - 1) {
      const CLanes4 gradX =
          half * (derivative(pixelQuads<CLanes4>(m, width, left, y), pixelQuads<CLanes4>(m, width, right, y)) +
                  derivative(pixelQuads<CLanes4>(m, width, left, y + 1), pixelQuads<CLanes4>(m, width, right, y + 1)));
      const CLanes4 gradY = pixelQuads<CLanes4>(m, width, x, y + 1) - centre;
      energy(gradX, gradY).store(termsY);
    }
    const int lanes = std::min(s.lanes, s.labels - c * s.lanes);
    for (int lane = 0; lane < lanes; lane++) {
      if (x < width - 1) sumX += termsX[lane];
      if (y < height - 1) sumY += termsY[lane];
    }
  }
  s.varX[y * width + x] = CSuperpixelLayer::diffusivity_fl(sumX);
  s.varY[y * width + x] = CSuperpixelLayer::diffusivity_fl(sumY);
}

template <class L>
TARNWICK_KERNEL void pixelWeights(const CPixelPlanes& aPlanes, int aFirstRow, int aEndRow) {
  const CPixelPlanes s = aPlanes;
  for (int y = aFirstRow; y < aEndRow; y++)
    for (int x = 0; x < s.width; x++) {
      if (x > 0 && x + L::kWidth < s.width) {
        pixelWeightBlock<L>(s, x, y);
        x += L::kWidth - 1;
      } else if (x > 0 && x + 4 < s.width) {
        pixelWeightBlock<CLanes4>(s, x, y);
        x += 3;
      } else {
        pixelWeightBorder(s, x, y);
      }
    }
}

// ---------------------------------------------------------------------------
// Node pair weights: the squared differences summed in label order, then
// diffusivity_fl's float shift and double root and division.

// Pairs p .. p + kWidth - 1; pair p + 4g + q ends in lane q of quad g.
template <class L>
TARNWICK_KERNEL_INLINE L nodePairBlock(const CNodePairs& s, int p) {
  L sum = L::zero();
  for (int c = 0; c < s.chunks; c++) {
    const size_t chunk = c * s.chunkStride;
    L d[4];
#pragma GCC unroll 4
    for (int q = 0; q < 4; q++) {
      const float* a[L::kGroups];
      const float* b[L::kGroups];
#pragma GCC unroll 4
      for (int g = 0; g < L::kGroups; g++) {
        a[g] = s.values + chunk + s.offsetA(p + 4 * g + q);
        b[g] = s.values + chunk + s.offsetB(p + 4 * g + q);
      }
      d[q] = L::gatherQuads(a) - L::gatherQuads(b);
    }
    L::transposeQuads(d[0], d[1], d[2], d[3]);
    const int lanes = std::min(s.lanes, s.labels - c * s.lanes);
    for (int lane = 0; lane < lanes; lane++) sum = sum + d[lane] * d[lane];
  }
  return diffusivityOfSums(sum);
}

TARNWICK_KERNEL_INLINE float nodePairWeight(const CNodePairs& s, int p) {
  float sum = 0.0f;
  for (int k = 0; k < s.labels; k++) {
    const size_t label = (k / s.lanes) * s.chunkStride + k % s.lanes;
    const float d = s.values[s.offsetA(p) + label] - s.values[s.offsetB(p) + label];
    sum += d * d;
  }
  return CSuperpixelLayer::diffusivity_fl(sum);
}

template <class L>
TARNWICK_KERNEL void nodePairWeights(const CNodePairs& aPairs, int aBegin, int aEnd) {
  const CNodePairs s = aPairs;
  int p = aBegin;
  for (; p + L::kWidth <= aEnd; p += L::kWidth) nodePairBlock<L>(s, p).store(s.out + p);
  for (; p + 4 <= aEnd; p += 4) nodePairBlock<CLanes4>(s, p).store(s.out + p);
  for (; p < aEnd; p++) s.out[p] = nodePairWeight(s, p);
}

// ---------------------------------------------------------------------------
// Pixel sweep.

// The update of pixels i + g * aStep, one per quad, or with kPair of pixel i
// in two chunks (quad g in chunk g); each reads its neighbours where the
// template flags say it has them.
template <class L, bool kUp, bool kLeft, bool kDown, bool kRight, bool kParent, bool kCheck, bool kPair = false>
TARNWICK_KERNEL_INLINE void updatePixels(const CPixelSweep& s, ptrdiff_t i, ptrdiff_t aStep) {
  static_assert(!kCheck || L::kGroups == 1 || kPair, "a pixel without weights is checked one at a time");
  static_assert(!kPair || L::kGroups == 2, "a pair of chunks fills two quads");
  float* u = s.u;
  const ptrdiff_t w = s.width;
  const ptrdiff_t stride = kPair ? s.pairStride : 4 * aStep;  // between the quads of u
  const ptrdiff_t weightStride = kPair ? 0 : 4 * aStep;
  const L own = L::loadQuads(s.weights + 4 * i, weightStride);
  L out = L::zero();
  if (kUp)
    out = out - L::splatQuads(s.weights + 4 * (i - w) + 1, weightStride) * L::loadQuads(u + 4 * (i - w), stride);
  if (kLeft) out = out - L::splatQuads(s.weights + 4 * (i - 1), weightStride) * L::loadQuads(u + 4 * (i - 1), stride);
  if (kDown) out = out - own.template laneOfQuads<1>() * L::loadQuads(u + 4 * (i + w), stride);
  if (kRight) out = out - own.template laneOfQuads<0>() * L::loadQuads(u + 4 * (i + 1), stride);
  if (kParent) {
    const float* parents[L::kGroups];
#pragma GCC unroll 4
    for (int g = 0; g < L::kGroups; g++)
      parents[g] = s.parentValues + (kPair ? g * s.pairStride : 0) + 4 * s.parent[kPair ? i : i + g * aStep];
    out = out - own.template laneOfQuads<2>() * L::gatherQuads(parents);
  }
  if (kCheck && s.md[i] == 0.0f) return;
  const float* rhs[L::kGroups];
#pragma GCC unroll 4
  for (int g = 0; g < L::kGroups; g++)
    rhs[g] = s.rhs + (kPair ? g * s.pairRhsStride : 0) + 4 * static_cast<size_t>(s.rhsQuad[kPair ? i : i + g * aStep]);
  out = L::splat(s.oneMinusAlpha) * out;
  const L step = own.template laneOfQuads<3>() * (L::gatherQuads(rhs) - out);
  clampUnit(L::splat(s.oneMinusOmega) * L::loadQuads(u + 4 * i, stride) + step).storeQuads(u + 4 * i, stride);
}

template <bool kParent, bool kCheck>
TARNWICK_KERNEL void updateBorderPixel(const CPixelSweep& s, int x, int y) {
  const ptrdiff_t i = y * s.width + x;
  const bool up = y > 0;
  const bool left = x > 0;
  const bool down = y < s.height - 1;
  const bool right = x < s.width - 1;
  // Every combination the borders can have, each a plain instantiation.
  switch ((up ? 8 : 0) | (left ? 4 : 0) | (down ? 2 : 0) | (right ? 1 : 0)) {
    case 0: updatePixels<CLanes4, false, false, false, false, kParent, kCheck>(s, i, 0); break;
    case 1: updatePixels<CLanes4, false, false, false, true, kParent, kCheck>(s, i, 0); break;
    case 2: updatePixels<CLanes4, false, false, true, false, kParent, kCheck>(s, i, 0); break;
    case 3: updatePixels<CLanes4, false, false, true, true, kParent, kCheck>(s, i, 0); break;
    case 4: updatePixels<CLanes4, false, true, false, false, kParent, kCheck>(s, i, 0); break;
    case 5: updatePixels<CLanes4, false, true, false, true, kParent, kCheck>(s, i, 0); break;
    case 6: updatePixels<CLanes4, false, true, true, false, kParent, kCheck>(s, i, 0); break;
    case 7: updatePixels<CLanes4, false, true, true, true, kParent, kCheck>(s, i, 0); break;
    case 8: updatePixels<CLanes4, true, false, false, false, kParent, kCheck>(s, i, 0); break;
    case 9: updatePixels<CLanes4, true, false, false, true, kParent, kCheck>(s, i, 0); break;
    case 10: updatePixels<CLanes4, true, false, true, false, kParent, kCheck>(s, i, 0); break;
    case 11: updatePixels<CLanes4, true, false, true, true, kParent, kCheck>(s, i, 0); break;
    case 12: updatePixels<CLanes4, true, true, false, false, kParent, kCheck>(s, i, 0); break;
    case 13: updatePixels<CLanes4, true, true, false, true, kParent, kCheck>(s, i, 0); break;
    case 14: updatePixels<CLanes4, true, true, true, false, kParent, kCheck>(s, i, 0); break;
    default: updatePixels<CLanes4, true, true, true, true, kParent, kCheck>(s, i, 0); break;
  }
}

// The whole quads of pixels that cover the rows before aRow: a band projects
// those up to the end of the next band's first row, from where the band above
// stopped. The pixels beyond the last whole quad are left to the projection
// after the pass.
TARNWICK_KERNEL_INLINE int quadsBeforeRow(const CPixelSweep& s, int aRow) {
  const long long pixels = static_cast<long long>(s.width) * s.height;
  const long long before = std::min<long long>(static_cast<long long>(aRow) * s.width, pixels);
  return static_cast<int>(std::min<long long>((before + 3) / 4, pixels / 4));
}

// Waits until aProgress has reached aWanted; returns what it read.
TARNWICK_KERNEL_INLINE long long awaitProgress(const std::atomic<long long>& aProgress, long long aWanted) {
  long long seen = aProgress.load(std::memory_order_acquire);
  for (int spin = 0; seen < aWanted; spin++) {
    if (spin < kSpinsBeforeYield)
      __builtin_ia32_pause();
    else
      std::this_thread::yield();
    seen = aProgress.load(std::memory_order_acquire);
  }
  return seen;
}

// The second chunk of a pair as a pass of its own, which does not project.
TARNWICK_KERNEL_INLINE CPixelSweep secondOfPair(const CPixelSweep& aPair) {
  CPixelSweep second = aPair;
  second.u += aPair.pairStride;
  second.rhs += aPair.pairRhsStride;
  if (second.parentValues != nullptr) second.parentValues += aPair.pairStride;
  second.pairStride = 0;
  second.pairRhsStride = 0;
  second.projectFirst = nullptr;
  second.pass = aPair.pass + 1;
  return second;
}

// The pixels in row-major Gauss-Seidel order, computed as a skewed wavefront:
// bands of rows, row r of a band trailing row r - 1 by one pixel. Each pixel
// still reads new degrees above and to its left and old ones below and to its
// right, but the updates of one wavefront step depend only on the step
// before: they go kGroups to a register, in kChains independent chains whose
// latencies overlap. In a shared pass the first row of a band reads the last
// row of the band above, done by another thread: step t of a band needs steps
// up to t + kBand - 1 of the band above done (the pixel above new), and then
// also the pixel above has read the one below before it changes.
// With kPair a register holds one pixel in two chunks (see CPixelSweep), and
// the border pixels are updated chunk by chunk.
template <class L, bool kParent, bool kCheck, bool kPair = false>
TARNWICK_KERNEL void sweepRows(const CPixelSweep& aSweep) {
  constexpr int kPixels = kPair ? 1 : L::kGroups;  // per register
  constexpr int kChains = kPixels == 1 ? 6 : 3;
  constexpr int kBand = kChains * kPixels;
  constexpr int kPublish = 16;  // steps between two reports of a band's progress
  const CPixelSweep s = aSweep;  // a local copy: the stores cannot change it
  const CPixelSweep second = secondOfPair(aSweep);
  const int width = static_cast<int>(s.width);
  const int height = s.height;
  const int bands = (height + kBand - 1) / kBand;
  const long long passStart = s.pass * kPassSpan;
  const int aboveSteps = width + kBand - 1;
  for (int band = s.member; band < bands; band += s.team) {
    const int y0 = band * kBand;
    const int rows = std::min(kBand, height - y0);
    const bool innerRows = rows == kBand && y0 > 0 && y0 + kBand < height;
    const bool trails = s.team > 1 && band > 0;
    if (s.projectFirst != nullptr)
      s.project(*s.projectFirst, band == 0 ? 0 : quadsBeforeRow(s, y0 + 1), quadsBeforeRow(s, y0 + kBand + 1));
    long long above = 0;  // steps of the band above known to be done
    for (int t = 0; t < width + rows - 1; t++) {
      if (trails && above < std::min(t + kBand, aboveSteps))
        above = awaitProgress(s.bandProgress[band - 1].steps, passStart + std::min(t + kBand, aboveSteps)) - passStart;
      if (s.team > 1 && t % kPublish == 0) s.bandProgress[band].steps.store(passStart + t, std::memory_order_release);
      if (innerRows && t >= kBand && t < width - 1) {
        const ptrdiff_t i = static_cast<ptrdiff_t>(y0) * width + t;
        const ptrdiff_t next = width - 1;
#pragma GCC unroll 6
        for (int chain = 0; chain < kChains; chain++)
          updatePixels<L, true, true, true, true, kParent, kCheck, kPair>(s, i + chain * next, kChains * next);
        continue;
      }
      // The steps that are not full (the band's first and last, and every
      // step of a band at the top or bottom) go pixel by pixel; only the
      // pixels on the image's border take the general path.
      for (int r = 0; r < rows; r++) {
        const int x = t - r;
        const int y = y0 + r;
        if (x < 0 || x >= width) continue;
        if (x > 0 && x < width - 1 && y > 0 && y < height - 1) {
          const ptrdiff_t i = static_cast<ptrdiff_t>(y) * width + x;
          updatePixels<CLanes4, true, true, true, true, kParent, kCheck>(s, i, 0);
          if (kPair) updatePixels<CLanes4, true, true, true, true, kParent, kCheck>(second, i, 0);
          continue;
        }
        updateBorderPixel<kParent, kCheck>(s, x, y);
        if (kPair) updateBorderPixel<kParent, kCheck>(second, x, y);
      }
    }
    if (s.team > 1) s.bandProgress[band].steps.store(passStart + width + rows - 1, std::memory_order_release);
  }
}

// One chunk, or a pair: in registers of two quads together, otherwise chunk
// after chunk (the chunks do not read each other).
template <class L>
TARNWICK_KERNEL void sweepPixels(const CPixelSweep& aSweep) {
  const bool parent = aSweep.parent != nullptr;
  if (aSweep.pairStride != 0 && L::kGroups == 2 && !aSweep.check) {
    if constexpr (L::kGroups == 2)
      parent ? sweepRows<L, true, false, true>(aSweep) : sweepRows<L, false, false, true>(aSweep);
    return;
  }
  CPixelSweep one = aSweep;
  one.pairStride = 0;
  for (int chunk = 0; chunk < (aSweep.pairStride != 0 ? 2 : 1); chunk++) {
    if (chunk == 1) one = secondOfPair(aSweep);
    if (one.check)
      parent ? sweepRows<CLanes4, true, true>(one) : sweepRows<CLanes4, false, true>(one);
    else
      parent ? sweepRows<L, true, false>(one) : sweepRows<L, false, false>(one);
  }
}

// ---------------------------------------------------------------------------
// Coarser-layer sweep. Every node's update is a chain of dependent
// subtractions whose order the rounding fixes; the chains of the two nodes of
// a slot, and of two chunks, are independent and overlap. Layer 1 gathers its
// children's degrees from all over the pixel layer, in runs too short for the
// hardware to prefetch: at large sizes they come from memory, so the sweep
// asks for them a fixed number of links ahead.

// Four links from entry j into the sums of every chunk.
template <bool kPrefetch, int kChunks>
TARNWICK_KERNEL_INLINE void gatherLinks(const CLayerSweep& s, CLanes4* aSums, int j) {
#pragma GCC unroll 4
  for (int t = 0; t < 4; t++) {
    const int k = j + t;
    const CLanes4 weight = CLanes4::splat(s.g[k]);
#pragma GCC unroll 2
    for (int c = 0; c < kChunks; c++) {
      if (kPrefetch) __builtin_prefetch(s.values[c] + s.offset[k + s.prefetchLinks]);
      aSums[c] = aSums[c] - weight * CLanes4::load(s.values[c] + s.offset[k]);
    }
  }
}

template <int kChunks>
TARNWICK_KERNEL_INLINE void relaxNode(const CLayerSweep& s, int p, const CLanes4* aSums) {
  if (s.check && s.md[p] == 0.0f) return;
  const CLanes4 omegaOverMd = CLanes4::splat(s.omegaOverMd[p]);
#pragma GCC unroll 2
  for (int c = 0; c < kChunks; c++) {
    float* u = s.u[c] + 4 * static_cast<size_t>(p);
    const CLanes4 step = omegaOverMd * (CLanes4::zero() - aSums[c]);
    clampUnit(CLanes4::splat(s.oneMinusOmega) * CLanes4::load(u) + step).store(u);
  }
}

template <bool kPrefetch, int kChunks>
TARNWICK_KERNEL void sweepSlots(const CLayerSweep& aSweep) {
  const CLayerSweep s = aSweep;
  const int* start = s.entryStart;
  for (int slot = 0; slot < s.positions; slot += 2) {
    CLanes4 first[kChunks];
    CLanes4 second[kChunks];
    for (int c = 0; c < kChunks; c++) first[c] = second[c] = CLanes4::zero();
    int j = start[slot];
    int k = start[slot + 1];
    for (; j < start[slot + 1] && k < start[slot + 2]; j += 4, k += 4) {
      gatherLinks<kPrefetch, kChunks>(s, first, j);
      gatherLinks<kPrefetch, kChunks>(s, second, k);
    }
    for (; j < start[slot + 1]; j += 4) gatherLinks<kPrefetch, kChunks>(s, first, j);
    for (; k < start[slot + 2]; k += 4) gatherLinks<kPrefetch, kChunks>(s, second, k);
    relaxNode<kChunks>(s, s.order[slot], first);
    if (s.order[slot + 1] >= 0) relaxNode<kChunks>(s, s.order[slot + 1], second);
  }
}

TARNWICK_KERNEL void sweepLayer(const CLayerSweep& aSweep) {
  const bool prefetch = aSweep.prefetchLinks > 0;
  if (aSweep.chunks == 2)
    prefetch ? sweepSlots<true, 2>(aSweep) : sweepSlots<false, 2>(aSweep);
  else
    prefetch ? sweepSlots<true, 1>(aSweep) : sweepSlots<false, 1>(aSweep);
}

// ---------------------------------------------------------------------------
// Projection onto the simplex, as the layers' normalize does it: rounds of
// thresholding, one per label; several nodes at once, one per lane. A round
// whose threshold equals the previous one to the bit selects the same degrees
// again, so all later rounds repeat it and are skipped; a lane that has
// settled repeats its round unchanged while the others go on.

// One round: the threshold from the degrees above aMu, with their count (in
// float, as the plain path counts).
template <class L, int kVectors>
TARNWICK_KERNEL_INLINE L thresholdRound(const L* v, L aMu, L& aCount) {
  const L one = L::splat(1.0f);
  L sum = L::zero();
  aCount = L::zero();
#pragma GCC unroll 16
  for (int k = 0; k < kVectors; k++) {
    const typename L::CMask above = v[k] > aMu;
    sum = sum + L::select(above, v[k]);
    aCount = aCount + L::select(above, one);
  }
  return (sum - one) / aCount;
}

// kWidth nodes from aNode with the degrees in registers, for kChunks chunks.
// Four registers of kWidth lanes hold kWidth nodes' chunk; after the in-quad
// transpose register k holds lane k of them. The lanes of a chunk beyond its
// labels hold -inf: never above a threshold, they add +0 to a sum that starts
// at +0 and so cannot be -0, which changes nothing. The second round usually
// selects the same degrees as the first, and then its threshold is the first
// one's. With a threshold no lower than the first, it selects a subset of the
// first round's degrees, the same set when as many: that is tested without
// forming the sum again.
template <class L, int kChunks>
TARNWICK_KERNEL_INLINE void projectFixed(const CProjection& s, int aNode) {
  constexpr int kVectors = 4 * kChunks;
  L v[kVectors];
#pragma GCC unroll 4
  for (int c = 0; c < kChunks; c++) {
    const float* base = s.first + c * s.chunkStride + static_cast<size_t>(aNode) * 4;
#pragma GCC unroll 4
    for (int q = 0; q < 4; q++) v[4 * c + q] = L::load(base + L::kWidth * q);
    L::transposeQuads(v[4 * c], v[4 * c + 1], v[4 * c + 2], v[4 * c + 3]);
    const int used = std::min(s.lanes, s.labels - c * s.lanes);
#pragma GCC unroll 4
    for (int lane = 0; lane < 4; lane++)
      if (lane >= used) v[4 * c + lane] = L::splat(-INFINITY);
  }
  const L first = L::splat(-1e10f);
  L count;
  L mu = thresholdRound<L, kVectors>(v, first, count);
  if (s.labels > 1) {
    const L one = L::splat(1.0f);
    L again = L::zero();
#pragma GCC unroll 16
    for (int k = 0; k < kVectors; k++) again = again + L::select(v[k] > mu, one);
    if (!L::all((mu >= first) & (again == count)))
      for (int r = 1; r < s.labels; r++) {
        const L next = thresholdRound<L, kVectors>(v, mu, count);
        const bool settled = L::sameBits(next, mu);
        mu = next;
        if (settled) break;
      }
  }
#pragma GCC unroll 4
  for (int c = 0; c < kChunks; c++) {
    float* base = s.first + c * s.chunkStride + static_cast<size_t>(aNode) * 4;
    L r[4];
#pragma GCC unroll 4
    for (int q = 0; q < 4; q++) r[q] = L::max(L::zero(), v[4 * c + q] - mu);
    L::transposeQuads(r[0], r[1], r[2], r[3]);
#pragma GCC unroll 4
    for (int q = 0; q < 4; q++) r[q].store(base + L::kWidth * q);
  }
}

// Four nodes from aNode for any number of chunks, every round formed, the
// lanes of each chunk in aLanes.
TARNWICK_KERNEL_INLINE void projectMany(const CProjection& s, int aNode, CLanes4* aLanes) {
  for (int c = 0; c < s.chunks; c++) {
    const float* base = s.first + c * s.chunkStride + static_cast<size_t>(aNode) * 4;
    CLanes4* lanes = aLanes + 4 * c;
    for (int q = 0; q < 4; q++) lanes[q] = CLanes4::load(base + 4 * q);
    CLanes4::transposeQuads(lanes[0], lanes[1], lanes[2], lanes[3]);
  }
  const int* index = s.laneIndex;
  const CLanes4 one = CLanes4::splat(1.0f);
  CLanes4 mu = CLanes4::splat(-1e10f);
  for (int round = 0; round < s.labels; round++) {
    CLanes4 sum = CLanes4::zero();
    CLanes4 count = CLanes4::zero();
    for (int k = 0; k < s.labels; k++) {
      const CLanes4 degree = aLanes[index[k]];
      const CLanes4::CMask above = degree > mu;
      sum = sum + CLanes4::select(above, degree);
      count = count + CLanes4::select(above, one);
    }
    const CLanes4 next = (sum - one) / count;
    const bool settled = CLanes4::sameBits(next, mu);
    mu = next;
    if (settled) break;
  }
  for (int k = 0; k < s.labels; k++) aLanes[index[k]] = CLanes4::max(CLanes4::zero(), aLanes[index[k]] - mu);
  for (int c = 0; c < s.chunks; c++) {
    float* base = s.first + c * s.chunkStride + static_cast<size_t>(aNode) * 4;
    CLanes4* lanes = aLanes + 4 * c;
    CLanes4::transposeQuads(lanes[0], lanes[1], lanes[2], lanes[3]);
    for (int q = 0; q < 4; q++) lanes[q].store(base + 4 * q);
  }
}

// Up to two chunks in registers, kWidth nodes at a time while they fill one;
// more chunks four nodes at a time.
template <class L>
TARNWICK_KERNEL void project(const CProjection& aProjection, int aFirstQuad, int aEndQuad) {
  const CProjection s = aProjection;
  constexpr int kQuads = L::kGroups;
  int q = aFirstQuad;
  if (s.chunks == 1) {
    for (; q + kQuads <= aEndQuad; q += kQuads) projectFixed<L, 1>(s, 4 * q);
    for (; q < aEndQuad; q++) projectFixed<CLanes4, 1>(s, 4 * q);
  } else if (s.chunks == 2) {
    for (; q + kQuads <= aEndQuad; q += kQuads) projectFixed<L, 2>(s, 4 * q);
    for (; q < aEndQuad; q++) projectFixed<CLanes4, 2>(s, 4 * q);
  } else if (q < aEndQuad) {
    std::vector<CLanes4> lanes(4 * static_cast<size_t>(s.chunks));
    for (; q < aEndQuad; q++) projectMany(s, 4 * q, lanes.data());
  }
}

// aSweep: the pixel pass, this width's own unless another width's is faster.
template <class L>
CKernels kernelTable(int aBits, decltype(CKernels::sweepPixels) aSweep = &sweepPixels<L>) {
  return {aBits, &pixelWeights<L>, &nodePairWeights<L>, aSweep, &sweepLayer, &project<L>};
}

}  // namespace
}  // namespace NFlat
