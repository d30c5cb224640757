// How the segmentation files of an image are named: the image's name without
// its ending, "_seg", the level (0 finest) and the ending
// ("dir/frame.ppm" -> "dir/frame_seg0.ppm"). tarnwick-segment writes them,
// tarnwick reads them.
#pragma once

#include <string>

inline std::string segmentationFileName(const std::string& aStem, int aLevel, const std::string& aEnding) {
  return aStem + "_seg" + std::to_string(aLevel) + aEnding;
}
