#include "CPixmapHeader.h"

#include <utility>

namespace NPixmapHeader {

namespace {

constexpr int kEnd = -1;
const char* const kTruncated = "pixmap header ends before the pixel data";

// Numbers beyond this are reported as too large instead of overflowing.
constexpr long long kHuge = 1LL << 40;

// Character source with getc semantics over the file's bytes.
class CScanner {
public:
  CScanner(const std::vector<unsigned char>& aBytes, size_t aStart) : mBytes(aBytes), mPos(aStart) {}
  int get() { return mPos < mBytes.size() ? mBytes[mPos++] : kEnd; }
  int peek() const { return mPos < mBytes.size() ? mBytes[mPos] : kEnd; }
  size_t position() const { return mPos; }

private:
  const std::vector<unsigned char>& mBytes;
  size_t mPos;
};

bool isDigit(int c) { return c >= '0' && c <= '9'; }

bool isWhite(int c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

// The start value may be negative (a non-digit taken as the first digit), so
// the value stops growing once its magnitude passes kHuge in either direction.
long long readDigits(CScanner& aIn, long long aValue, int& aChar) {
  aChar = aIn.get();
  while (isDigit(aChar)) {
    if (aValue < kHuge && aValue > -kHuge) aValue = aValue * 10 + (aChar - '0');
    aChar = aIn.get();
  }
  return aValue;
}

CReading incomplete(const std::string& aProblem) {
  CReading reading;
  reading.problem = aProblem;
  return reading;
}

CReading complete(long long aWidth, long long aHeight, long long aMaxval, size_t aDataStart) {
  CReading reading;
  reading.complete = true;
  reading.header = {aWidth, aHeight, aMaxval, aDataStart};
  return reading;
}

// Passes over a comment from '#' up to and including the line end.
void skipComment(CScanner& aIn) {
  int c = aIn.get();
  while (c != '\n' && c != '\r' && c != kEnd) c = aIn.get();
}

// White space and comments before a number; false when there are none.
bool skipSeparators(CScanner& aIn) {
  bool skipped = false;
  for (int c = aIn.peek(); isWhite(c) || c == '#'; c = aIn.peek()) {
    if (c == '#')
      skipComment(aIn);
    else
      aIn.get();
    skipped = true;
  }
  return skipped;
}

std::string shown(int aChar) {
  if (aChar >= 0x21 && aChar <= 0x7e) return "'" + std::string(1, static_cast<char>(aChar)) + "'";
  const char* const hex = "0123456789abcdef";
  return std::string("byte 0x") + hex[aChar >> 4] + hex[aChar & 15];
}

// One number of the header, followed by white space or a comment, which is
// consumed; an empty problem when it was read. aSeparated tells whether the
// byte before was a separator already.
std::string readNumber(CScanner& aIn, const char* aWhat, bool aSeparated, long long& aValue) {
  const bool separated = skipSeparators(aIn) || aSeparated;
  int c = aIn.peek();
  if (c == kEnd) return kTruncated;
  if (!isDigit(c)) return std::string("bad pixmap header: ") + shown(c) + " where the " + aWhat + " should be";
  if (!separated) return std::string("bad pixmap header: no white space before the ") + aWhat;
  aValue = readDigits(aIn, aIn.get() - '0', c);
  if (c == kEnd) return kTruncated;
  if (!isWhite(c) && c != '#') return std::string("bad pixmap header: ") + shown(c) + " after the " + aWhat;
  if (c == '#') skipComment(aIn);
  return "";
}

}  // namespace

CReading readQuirky(const std::vector<unsigned char>& aBytes, size_t aStart) {
  CScanner in(aBytes, aStart);
  // Rest of the magic token.
  int c = in.get();
  while (c != ' ' && c != '\n' && c != kEnd) c = in.get();
  if (c == kEnd) return incomplete(kTruncated);
  // Comments are recognised only directly after the magic line.
  c = in.get();
  while (c == '#') {
    do c = in.get();
    while (c != '\n' && c != kEnd);
    c = in.get();
  }
  while (c == '\n') c = in.get();
  if (c == kEnd) return incomplete(kTruncated);
  // The character at hand is taken as the first digit of the width untested.
  const long long width = readDigits(in, c - '0', c);
  while (!isDigit(c) && c != kEnd) c = in.get();
  if (c == kEnd) return incomplete(kTruncated);
  const long long height = readDigits(in, c - '0', c);
  while (c != ' ' && c != '\n' && c != kEnd) c = in.get();
  do c = in.get();
  while (!isDigit(c) && c != kEnd);
  if (c == kEnd) return incomplete(kTruncated);
  const long long maxval = readDigits(in, c - '0', c);
  while (c != '\n' && c != kEnd) c = in.get();
  return complete(width, height, maxval, in.position());
}

CReading readStandard(const std::vector<unsigned char>& aBytes) {
  if (aBytes.size() < 2 || aBytes[0] != 'P') return incomplete("no magic number at the start of the file");
  CScanner in(aBytes, 2);
  long long width = 0;
  long long height = 0;
  long long maxval = 0;
  for (const auto& [what, value] : {std::pair<const char*, long long*>{"width", &width}, {"height", &height},
                                    {"maximum value", &maxval}}) {
    const std::string problem = readNumber(in, what, value != &width, *value);
    if (!problem.empty()) return incomplete(problem);
  }
  // readNumber consumed the one white-space byte (or comment) that ends the header.
  return complete(width, height, maxval, in.position());
}

}  // namespace NPixmapHeader
