#include "CMemoryBudget.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

namespace NMemoryBudget {

namespace {

size_t limitOf(int aResource) {
  rlimit limit{};
  if (getrlimit(aResource, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return static_cast<size_t>(-1);
  return static_cast<size_t>(limit.rlim_cur);
}

}  // namespace

size_t available() {
  const long pages = sysconf(_SC_PHYS_PAGES);
  const long pageSize = sysconf(_SC_PAGESIZE);
  const size_t physical =
      pages > 0 && pageSize > 0 ? static_cast<size_t>(pages) * static_cast<size_t>(pageSize) : static_cast<size_t>(-1);
  return std::min({physical, limitOf(RLIMIT_AS), limitOf(RLIMIT_DATA)});
}

}  // namespace NMemoryBudget
