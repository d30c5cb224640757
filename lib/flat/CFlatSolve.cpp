// The flat solver's outer loop: data term, then per outer iteration the
// weights and the inner iterations of sweeps and projection, shared out among
// one team of threads that meets at a barrier between the phases.
#include <omp.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>

#include "CFlatHierarchy.h"
#include "SameBits.h"
#include "SolverRules.h"
#include "flat/CYieldingBarrier.h"
#include "flat/FlatKernels.h"

namespace {

std::atomic<int> gVectorLimit{CFlatHierarchy::kDefaultVectorBits};
std::atomic<size_t> gShareAbove{CFlatHierarchy::kCacheBytes};

const NFlat::CKernels& kernelsOf(int aBits) {
  if (aBits >= 512) return NFlat::kernels512();
  if (aBits >= 256) return NFlat::kernels256();
  return NFlat::kernels128();
}

// Adds the wall time since the previous lap to a phase's total, when on.
class CPhaseClock {
public:
  explicit CPhaseClock(bool aOn) : mOn(aOn), mLast(std::chrono::steady_clock::now()) {}
  void lap(double& aTotal) {
    if (!mOn) return;
    const auto now = std::chrono::steady_clock::now();
    aTotal += std::chrono::duration<double>(now - mLast).count();
    mLast = now;
  }

private:
  bool mOn;
  std::chrono::steady_clock::time_point mLast;
};

}  // namespace

void CFlatHierarchy::limitVectorBits(int aBits) { gVectorLimit.store(aBits, std::memory_order_relaxed); }

void CFlatHierarchy::sharePixelPassesAbove(size_t aBytes) { gShareAbove.store(aBytes, std::memory_order_relaxed); }

int CFlatHierarchy::vectorBits() {
  static const int available = __builtin_cpu_supports("avx512f") ? 512 : __builtin_cpu_supports("avx") ? 256 : 128;
  return std::min(available, gVectorLimit.load(std::memory_order_relaxed));
}

bool CFlatHierarchy::anyZeroWeightSum(int aLayer) const {
  const auto first = mZeroWeightSum.begin() + static_cast<long>(aLayer) * mTeam;
  return std::find(first, first + mTeam, 1) != first + mTeam;
}

void CFlatHierarchy::solve(const CMatrix<float>& aConf, const CTensor<float>& aLabels, const CMatrix<float>& aWeight,
                           float aAlpha, float aOmega, int maxiter) {
  const int width = mXSize;
  const int n = width * mYSize;
  // Data term: constant for the whole solve, and +0 for every label of most
  // pixels. Those pixels share one quad of zeros; the others get a quad per
  // chunk of their own (also when some of it is -0 or 0 * infinity).
  auto rhsOf = [&](int i, int k) {
    const int x = i % width;
    const int y = i / width;
    const float c = aConf(x, y) == 1.0f ? 1.0f : 0.0f;
    return aWeight(x, y) * aAlpha * c * aLabels(x, y, k);
  };
  mDataWeight.resize(n);
  mRhsQuad.assign(n, 0);
#pragma omp parallel for schedule(static)
  for (int i = 0; i < n; i++) {
    const int x = i % width;
    const int y = i / width;
    const float c = aConf(x, y) == 1.0f ? 1.0f : 0.0f;
    mDataWeight[i] = aAlpha * aWeight(x, y) * c;
    for (int k = 0; k < mLabels; k++)
      if (!sameBits(rhsOf(i, k), 0.0f)) mRhsQuad[i] = 1;
  }
  unsigned quads = 1;
  for (int i = 0; i < n; i++)
    if (mRhsQuad[i] != 0) mRhsQuad[i] = quads++;
  mRhsStride = static_cast<size_t>(quads) * 4;
  mRhs.assign(static_cast<size_t>(mChunks) * mRhsStride, 0.0f);
  for (int i = 0; i < n; i++)
    if (mRhsQuad[i] != 0)
      for (int k = 0; k < mLabels; k++)
        mRhs[(k / mLanes) * mRhsStride + static_cast<size_t>(mRhsQuad[i]) * 4 + k % mLanes] = rhsOf(i, k);
  if (maxiter <= 0) return;
  const int layers = size();
  // Two threads even for one chunk: they share its pixel passes.
  const int wanted = std::max(1, std::min(omp_get_max_threads(), std::max(2, mChunks)));
  mBandProgress = std::vector<NFlat::CBandProgress>(static_cast<size_t>(mYSize));
  mKernels = &kernelsOf(vectorBits());
  std::unique_ptr<NFlat::CYieldingBarrier> barrier;
  std::atomic<int> projectionTicket{0};
#pragma omp parallel num_threads(wanted)
  {
#pragma omp single
    {
      mTeam = omp_get_num_threads();
      mZeroWeightSum.assign(static_cast<size_t>(layers) * mTeam, 0);
      barrier = std::make_unique<NFlat::CYieldingBarrier>(mTeam);
    }
    const int thread = omp_get_thread_num();
    const int threads = omp_get_num_threads();
    // The first thread times the phases; the clock costs nothing against them.
    CPhaseClock clock(thread == 0);
    // Two threads share every pixel pass when the pixels' degrees and
    // weights outgrow the cache, so that the pixels' projection can join the
    // next pass instead of reading all chunks from memory in a pass of its
    // own; and for an odd number of chunks, whose last one would otherwise
    // leave one thread idle through its coarser layers. Otherwise each keeps
    // to its own chunks and neither waits for the other band by band.
    const bool allShared = threads == 2 && mChunks >= 2 &&
                           (mChunks % 2 == 1 || static_cast<size_t>(n) * kPixelBytesPerChunk * (mChunks + 1) >
                                                    gShareAbove.load(std::memory_order_relaxed));
    // Chunks whose coarser layers a thread sweeps alone, and without every
    // pass shared also their pixels; the rest each in passes the team
    // shares, then on through the coarser layers by one of them.
    const int alone = allShared ? mChunks : mChunks - mChunks % threads;
    const auto partner = [&](int c) { return c + threads < alone ? c + threads : -1; };
    long long sharedPasses = 0;
    // When the pixel passes of all chunks follow each other in one stream of
    // bands, the pixels' projection can wait for the next pass, which finds
    // their degrees in the cache; not before the weights are renewed.
    const bool oneStream = threads == 1 || mChunks == 1 || allShared;
    bool pixelsLater = false;
    for (int iter = 0; iter < maxiter; iter++) {
      computeVariableWeights(thread, threads);
      barrier->wait();
      computeWeightSums(thread, threads, aAlpha, aOmega);
      barrier->wait();
      clock.lap(mPhaseTimes.weights);
      for (int inner = 0; inner < NSolverRules::kInnerIterations; inner++) {
        const bool projectFirst = pixelsLater;
        pixelsLater = oneStream && inner + 1 < NSolverRules::kInnerIterations;
        clock.lap(mPhaseTimes.layerSweeps);
        if (allShared) {
          // Two chunks to a shared pass (two pass numbers, see CPixelSweep).
          for (int c = 0; c < mChunks; c += 2) {
            sharedPasses += 2;
            sweepPixels(c, c + 1 < mChunks ? c + 1 : -1, aAlpha, aOmega, projectFirst && c == 0, thread, threads,
                        sharedPasses - 1);
          }
          barrier->wait();
        } else {
          // A thread's own chunks two at a time: their pixels in one pass,
          // then their coarser layers, whose update chains overlap.
          for (int c = thread; c < alone; c += 2 * threads)
            sweepPixels(c, partner(c), aAlpha, aOmega, projectFirst && c == 0);
        }
        clock.lap(mPhaseTimes.pixelSweeps);
        for (int c = thread; c < alone; c += 2 * threads)
          for (int l = 1; l < layers; l++) sweepLayer(l, c, partner(c), aOmega);
        for (int c = alone; c < mChunks; c++) {
          clock.lap(mPhaseTimes.layerSweeps);
          sweepPixels(c, -1, aAlpha, aOmega, projectFirst, thread, threads, ++sharedPasses);
          barrier->wait();
          clock.lap(mPhaseTimes.pixelSweeps);
          if (thread == c % threads)
            for (int l = 1; l < layers; l++) sweepLayer(l, c, -1, aOmega);
        }
        barrier->wait();
        clock.lap(mPhaseTimes.layerSweeps);
        normalizeShare(thread, threads, pixelsLater, projectionTicket);
        barrier->wait();
        // No thread takes a block again before the next pass's barriers.
        if (thread == 0) projectionTicket.store(0, std::memory_order_relaxed);
        clock.lap(mPhaseTimes.projection);
      }
    }
  }
}
