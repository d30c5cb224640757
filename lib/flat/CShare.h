// How the flat solver shares items out among the threads of a solve.
#pragma once

#include <algorithm>

namespace NFlat {

// Contiguous share [begin, end) of aCount items for one of aThreads threads.
struct CShare {
  int begin;
  int end;
};

inline CShare share(int aCount, int aThread, int aThreads) {
  const int block = (aCount + aThreads - 1) / aThreads;
  return {std::min(aCount, aThread * block), std::min(aCount, (aThread + 1) * block)};
}

}  // namespace NFlat
