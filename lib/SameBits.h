// Bitwise equality of floats: unlike ==, it tells -0 from +0 and finds a NaN
// equal to the same NaN, which is what "the same result to the bit" means.
#pragma once

#include <cstring>

inline bool sameBits(float aA, float aB) { return std::memcmp(&aA, &aB, sizeof(float)) == 0; }
