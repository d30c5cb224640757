// What a level's superpixel hierarchy will cost, told to the user before the
// wait: coarser layers that do not shrink, or a region that touches many
// others, link every node to a large part of its layer, and the relaxation
// walks every link of every node for every label and sweep.
#pragma once

#include <string>
#include <vector>

#include "CFlatHierarchy.h"

namespace NDriver {

struct CLevelCost {
  std::vector<int> nodes;         // per layer, pixels first
  std::vector<long long> links;   // per layer: links walked per label and sweep
  int labels = 0;
  long long sweepsLeft = 0;       // sweeps of this and the finer levels
  size_t bytes = 0;               // the hierarchy of this level
};

// A warning when the coarser layers' links outweigh the pixels' and are many,
// naming the segmentation of the worst layer (aNames, fine to coarse) and the
// expected cost; empty otherwise.
std::string costWarning(const CLevelCost& aCost, const std::vector<std::string>& aNames);

// The refusal of a hierarchy too large for the memory, naming the segmentation.
std::string tooLargeMessage(const CFlatHierarchy::ETooLarge& aError, const std::vector<std::string>& aNames);

}  // namespace NDriver
