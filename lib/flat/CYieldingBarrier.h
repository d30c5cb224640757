// Barrier of one parallel team that spins briefly and then yields its core:
// when more threads are busy than there are cores (frames labelled side by
// side), a spinning waiter would keep the thread it waits for off the core.
#pragma once

#include <atomic>
#include <thread>

namespace NFlat {

// Pauses a waiter makes before it yields, here and in the pixel passes'
// hand-over between bands. With 4000, two two-thread runs side by side took
// 1.6 times as long, and up to 2.5 times with every pixel pass shared.
constexpr int kSpinsBeforeYield = 200;

class CYieldingBarrier {
public:
  explicit CYieldingBarrier(int aThreads) : mThreads(aThreads) {}
  void wait() {
    if (mThreads == 1) return;
    const unsigned generation = mGeneration.load(std::memory_order_acquire);
    if (mArrived.fetch_add(1, std::memory_order_acq_rel) == mThreads - 1) {
      mArrived.store(0, std::memory_order_relaxed);
      mGeneration.fetch_add(1, std::memory_order_release);
      return;
    }
    for (int spin = 0; mGeneration.load(std::memory_order_acquire) == generation; spin++) {
      if (spin < kSpinsBeforeYield)
        __builtin_ia32_pause();  // lets the sibling hardware thread run while spinning
      else
        std::this_thread::yield();
    }
  }

private:
  const int mThreads;
  std::atomic<int> mArrived{0};
  std::atomic<unsigned> mGeneration{0};
};

}  // namespace NFlat
