// An allocator for the solver's large arrays that asks the kernel to back them
// with 2 MiB pages. The sweeps walk tens of megabytes per pass, partly by
// gathering, and with 4 KiB pages most of those reads also miss the address
// translation caches. Small arrays and systems without the advice get plain
// memory; the contents never depend on it. A vector with this allocator
// leaves the elements that resize() adds uninitialised, so that
// fillInParallel() can make the first touch of its pages, which costs the
// kernel a zeroing per page, on every thread of the team.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

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
  void construct(U* aPlace) {
    static_assert(std::is_trivially_default_constructible_v<U>, "only plain numbers are left uninitialised");
    ::new (static_cast<void*>(aPlace)) U;
  }
  template <class U, class... A>
  void construct(U* aPlace, A&&... aArguments) {
    ::new (static_cast<void*>(aPlace)) U(std::forward<A>(aArguments)...);
  }
  template <class U>
  bool operator==(const CHugePageAllocator<U>&) const { return true; }
  template <class U>
  bool operator!=(const CHugePageAllocator<U>&) const { return false; }
};

// aVector as aCount copies of aValue, written by a parallel loop.
template <class T>
void fillInParallel(std::vector<T, CHugePageAllocator<T>>& aVector, size_t aCount, T aValue) {
  aVector.clear();
  aVector.resize(aCount);
  T* data = aVector.data();
  const long long count = static_cast<long long>(aCount);
#pragma omp parallel for schedule(static)
  for (long long i = 0; i < count; i++) data[i] = aValue;
}

}  // namespace NFlat
