// Shared set-up of the fuzzing harnesses.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <streambuf>

namespace NFuzz {

// Rejected inputs are the normal case under fuzzing, and every rejection
// prints its message from the exception's constructor. Those messages go to
// a buffer that drops them; the sanitizers and the fuzzer itself write to the
// error file descriptor directly and stay visible.
inline void silenceErrorStream() {
  class CDiscard : public std::streambuf {
  protected:
    int overflow(int aChar) override { return traits_type::not_eof(aChar); }
  };
  static CDiscard discard;
  std::cerr.rdbuf(&discard);
}

// Ends the run as a finding when a decoder returned an image that is not
// whole: extents must be positive, with one or three layers of samples.
inline void requireWholeImage(int aWidth, int aHeight, int aLayers, std::size_t aSamples) {
  const bool layersValid = aLayers == 1 || aLayers == 3;
  const std::size_t expected = static_cast<std::size_t>(aWidth) * static_cast<std::size_t>(aHeight) *
                               static_cast<std::size_t>(aLayers);
  if (aWidth <= 0 || aHeight <= 0 || !layersValid || aSamples != expected) std::abort();
}

}  // namespace NFuzz
