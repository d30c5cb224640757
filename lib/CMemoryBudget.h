// How much memory a run may take: the machine's physical memory, or less
// where the process is limited (address space or data segment).
#pragma once

#include <cstddef>

namespace NMemoryBudget {

size_t available();

}  // namespace NMemoryBudget
