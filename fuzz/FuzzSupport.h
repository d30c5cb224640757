// Shared set-up of the fuzzing harnesses.
#pragma once

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

}  // namespace NFuzz
