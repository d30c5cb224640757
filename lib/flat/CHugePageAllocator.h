// An allocator for the solver's large arrays that asks the kernel to back them
// with 2 MiB pages. The sweeps walk tens of megabytes per pass, partly by
// gathering, and with 4 KiB pages most of those reads also miss the address
// translation caches. Small arrays and systems without the advice get plain
// memory; the contents never depend on it.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>

namespace NFlat {

template <class T>
struct CHugePageAllocator {
  using value_type = T;
  static constexpr size_t kPage = size_t(1) << 21;

  CHugePageAllocator() = default;
  template <class U>
  CHugePageAllocator(const CHugePageAllocator<U>&) {}

  T* allocate(size_t aCount) {
    const size_t bytes = aCount * sizeof(T);
    if (bytes < kPage) return std::allocator<T>().allocate(aCount);
    const size_t rounded = (bytes + kPage - 1) / kPage * kPage;
    void* memory = std::aligned_alloc(kPage, rounded);
    if (memory == nullptr) throw std::bad_alloc();
    madvise(memory, rounded, MADV_HUGEPAGE);
    return static_cast<T*>(memory);
  }
  void deallocate(T* aMemory, size_t aCount) {
    if (aCount * sizeof(T) < kPage)
      std::allocator<T>().deallocate(aMemory, aCount);
    else
      std::free(aMemory);
  }
  template <class U>
  bool operator==(const CHugePageAllocator<U>&) const { return true; }
  template <class U>
  bool operator!=(const CHugePageAllocator<U>&) const { return false; }
};

}  // namespace NFlat
