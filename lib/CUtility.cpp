#include "CUtility.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "CErrors.h"
#include "TensorChecks.h"

// Labels 0 to 19 in the first row, 20 to 39 in the second.
const int CUtility::mR[40] = {
    255, 200,  10,   0, 255,   0,   0, 180, 255, 180,   0, 170, 100, 240,   0, 255,  10, 200,  90,  10,
      0, 180,  70, 100, 255,  30, 100,   0, 100, 255,  50, 120, 140,  70,  70, 100, 235, 180, 200, 210};
const int CUtility::mG[40] = {
     10, 190,  10, 180,   0, 255, 255,   0, 130,   0,   0, 170, 100, 100, 100,  70,  10, 200,   0, 100,
    150,  75,  70,  30, 100,   0,   0,   0, 255, 100,  80, 180, 100, 100, 140, 200, 235, 200,  70, 160};
const int CUtility::mB[40] = {
     10,   0, 255,   0, 255, 255,   0,   0,   0, 180, 130, 170, 100,  80, 255,  30,  10,  70,  90,  50,
     25,  10, 255, 170, 170, 200,   0,  75, 100, 100, 200, 120,   0,   0, 140, 200, 100,   0, 250, 210};
const int CUtility::mGray[40] = {
      0,   6,  13,  19,  26,  32,  39,  45,  52,  58,  65,  71,  78,  85,  91,  98, 104, 111, 117, 124,
    130, 137, 143, 150, 156, 163, 170, 176, 183, 189, 196, 202, 209, 215, 222, 228, 235, 241, 248, 255};

namespace {

using NTensorChecks::requireCovers;
using NTensorChecks::requireLayers;
using NTensorChecks::requireSameExtents;

using CColorTable = std::vector<std::array<int, 3>>;

constexpr float mInfinity = 1e21f;

bool isWhite(float aR, float aG, float aB) { return aR == 255.0f && aG == 255.0f && aB == 255.0f; }

// Index of the first list entry whose colour equals the pixel exactly, or -1.
int findColor(const std::vector<CVector<int>>& aList, float aR, float aG, float aB) {
  const int n = static_cast<int>(aList.size());
  for (int k = 0; k < n; k++) {
    const CVector<int>& c = aList[k];
    if (static_cast<float>(c(0)) == aR && static_cast<float>(c(1)) == aG && static_cast<float>(c(2)) == aB) return k;
  }
  return -1;
}

// Truncation toward zero that saturates instead of overflowing; values out of
// the int range (or NaN, which becomes 0) never come from pixmap files.
int truncateToInt(float aValue) {
  if (!(aValue > -2147483648.0f)) return aValue < 0.0f ? INT_MIN : 0;
  if (!(aValue < 2147483648.0f)) return INT_MAX;
  return static_cast<int>(aValue);
}

CColorTable colorsOf(const std::vector<CVector<int>>& aList, int aLabels) {
  if (static_cast<int>(aList.size()) < aLabels) throw EMissingLabelColors(static_cast<int>(aList.size()), aLabels);
  CColorTable table(static_cast<size_t>(aLabels));
  for (int k = 0; k < aLabels; k++) table[k] = {aList[k](0), aList[k](1), aList[k](2)};
  return table;
}

CColorTable paletteColors(int aLabels) {
  if (aLabels > CUtility::mPaletteSize) throw EMissingLabelColors(CUtility::mPaletteSize, aLabels);
  CColorTable table(static_cast<size_t>(aLabels));
  for (int k = 0; k < aLabels; k++) CUtility::paletteColor(k, table[k][0], table[k][1], table[k][2]);
  return table;
}

// Colour of the label function at a pixel: per channel, the sum over the
// labels in order of colour times degree.
void colorSums(const CTensor<float>& aLabelFunction, int ax, int ay, const CColorTable& aColors, float aSum[3]) {
  aSum[0] = aSum[1] = aSum[2] = 0.0f;
  const int labels = static_cast<int>(aColors.size());
  for (int k = 0; k < labels; k++) {
    const float degree = aLabelFunction(ax, ay, k);
    for (int c = 0; c < 3; c++) aSum[c] += static_cast<float>(aColors[k][c]) * degree;
  }
}

void overlay(CTensor<float>& aInOut, const CTensor<float>& aLabelFunction, const CColorTable& aColors, float ratio) {
  requireLayers(aInOut, 3);
  requireCovers(aLabelFunction.xSize(), aLabelFunction.ySize(), aInOut.xSize(), aInOut.ySize());
  const float ratio1 = 1 - ratio;
  const int width = aInOut.xSize();
  const int height = aInOut.ySize();
#pragma omp parallel for schedule(static)
  for (int y = 0; y < height; y++)
    for (int x = 0; x < width; x++) {
      float sum[3];
      colorSums(aLabelFunction, x, y, aColors, sum);
      for (int c = 0; c < 3; c++) aInOut(x, y, c) = aInOut(x, y, c) * ratio1 + ratio * sum[c];
    }
}

// Sets the pixels that touch a difference of truncated values to a right or
// lower neighbour to 0. Truncated floats compare like truncated integers,
// without the undefined conversion of NaN or huge values.
void markBoundaries(const CTensor<float>& aTensor, CMatrix<float>& aComputed) {
  for (int z = 0; z < aTensor.zSize(); z++)
    for (int y = 0; y < aTensor.ySize() - 1; y++)
      for (int x = 0; x < aTensor.xSize() - 1; x++) {
        const float here = std::trunc(aTensor(x, y, z));
        if (here != std::trunc(aTensor(x + 1, y, z))) {
          aComputed(x, y) = 0;
          aComputed(x + 1, y) = 0;
        }
        if (here != std::trunc(aTensor(x, y + 1, z))) {
          aComputed(x, y) = 0;
          aComputed(x, y + 1) = 0;
        }
      }
}

// Squares are formed as integers; 64 bits keep very long lines defined.
float squareOf(int aValue) { return static_cast<float>(static_cast<long long>(aValue) * aValue); }

}  // namespace

// Labels 40 to 255 take the 6 x 6 x 6 grid of the channel levels below; none
// of the levels is 255 and no fixed entry has all three channels among them,
// so every colour differs from white, from the fixed ones and from the others.
void CUtility::paletteColor(int aLabel, int& aR, int& aG, int& aB) {
  if (aLabel < 0 || aLabel >= mPaletteSize) throw std::out_of_range("palette label " + std::to_string(aLabel));
  if (aLabel < 40) {
    aR = mR[aLabel];
    aG = mG[aLabel];
    aB = mB[aLabel];
    return;
  }
  static constexpr int levels[6] = {15, 60, 105, 150, 195, 240};
  const int i = aLabel - 40;
  aR = levels[i / 36];
  aG = levels[i / 6 % 6];
  aB = levels[i % 6];
}

int CUtility::getNumberOfLabels(const CTensor<float>& aInputColor, std::vector<CVector<int>>& mapLabelToColor) {
  requireLayers(aInputColor, 3);
  for (int y = 0; y < aInputColor.ySize(); y++)
    for (int x = 0; x < aInputColor.xSize(); x++) {
      const float r = aInputColor(x, y, 0);
      const float g = aInputColor(x, y, 1);
      const float b = aInputColor(x, y, 2);
      if (isWhite(r, g, b) || findColor(mapLabelToColor, r, g, b) >= 0) continue;
      CVector<int> color(3);
      color(0) = truncateToInt(r);
      color(1) = truncateToInt(g);
      color(2) = truncateToInt(b);
      mapLabelToColor.push_back(color);
    }
  return static_cast<int>(mapLabelToColor.size());
}

int CUtility::color2labelFunction(CTensor<float>& aLabelFunction, const CTensor<float>& aInputColor,
                                  std::vector<CVector<int>>& mapLabelToColor) {
  const int labels = getNumberOfLabels(aInputColor, mapLabelToColor);
  const int width = aInputColor.xSize();
  const int height = aInputColor.ySize();
  aLabelFunction.setSize(width, height, labels);
#pragma omp parallel for schedule(static)
  for (int y = 0; y < height; y++)
    for (int x = 0; x < width; x++) {
      for (int k = 0; k < labels; k++) aLabelFunction(x, y, k) = 0;
      const float r = aInputColor(x, y, 0);
      const float g = aInputColor(x, y, 1);
      const float b = aInputColor(x, y, 2);
      if (isWhite(r, g, b)) continue;
      const int k = findColor(mapLabelToColor, r, g, b);
      if (k >= 0) aLabelFunction(x, y, k) = 1.0f;
    }
  return labels;
}

void CUtility::labelFunction2color(const CTensor<float>& aLabelFunction, CTensor<float>& aOutputColor,
                                   const std::vector<CVector<int>>& mapLabelToColor) {
  requireLayers(aOutputColor, 3);
  requireCovers(aOutputColor.xSize(), aOutputColor.ySize(), aLabelFunction.xSize(), aLabelFunction.ySize());
  const CColorTable colors = colorsOf(mapLabelToColor, aLabelFunction.zSize());
  const int width = aLabelFunction.xSize();
  const int height = aLabelFunction.ySize();
  const int labels = aLabelFunction.zSize();
#pragma omp parallel for schedule(static)
  for (int y = 0; y < height; y++)
    for (int x = 0; x < width; x++) {
      float sum[3];
      colorSums(aLabelFunction, x, y, colors, sum);
      float mass = 0.0f;
      for (int k = 0; k < labels; k++) mass += aLabelFunction(x, y, k);
      const bool unlabelled = static_cast<double>(mass) < 1e-5;
      for (int c = 0; c < 3; c++) aOutputColor(x, y, c) = unlabelled ? 255.0f : sum[c];
    }
}

// Malformed files are rejected rather than read on in a failed state, and a
// point of the selected frame must lie inside the image: each problem throws
// EFileError naming the track and point. Labels index the extended palette.
// Counts from the file only bound loops, they never size an allocation.
bool CUtility::readTracks(const char* aFilename, int aFrame, CTensor<float>& aLabelColor) {
  std::ifstream file;
  struct stat status {};
  // A folder opens as a stream on Linux but cannot be read, and a pipe could
  // block the open: only plain files count as present.
  if (stat(aFilename, &status) == 0 && S_ISREG(status.st_mode)) file.open(aFilename);
  if (!file.is_open()) {
    std::cout << "File not found." << std::endl;
    return false;
  }
  requireLayers(aLabelColor, 3);
  const auto fail = [aFilename](const std::string& aProblem) { return EFileError(aFilename, aProblem); };
  const auto ofCount = [](int aIndex, int aCount) {
    return std::to_string(aIndex + 1) + " of " + std::to_string(aCount);
  };
  int header = 0;
  int trackCount = 0;
  if (!(file >> header >> trackCount)) throw fail("expected the header value and the track count");
  if (trackCount < 0) throw fail("negative track count " + std::to_string(trackCount));
  const int width = aLabelColor.xSize();
  const int height = aLabelColor.ySize();
  for (int t = 0; t < trackCount; t++) {
    const std::string track = "track " + ofCount(t, trackCount);
    int label = 0;
    int length = 0;
    if (!(file >> label >> length)) throw fail(track + ": expected label and length");
    if (label < 0 || label >= mPaletteSize)
      throw fail(track + ": label " + std::to_string(label) + " outside 0 to " + std::to_string(mPaletteSize - 1));
    if (length < 0) throw fail(track + ": negative length " + std::to_string(length));
    int r = 0;
    int g = 0;
    int b = 0;
    paletteColor(label, r, g, b);
    for (int p = 0; p < length; p++) {
      float x = 0;
      float y = 0;
      int frame = 0;
      if (!(file >> x >> y >> frame))
        throw fail(track + ": expected x, y and frame of point " + ofCount(p, length));
      if (frame != aFrame) continue;
      // Truncation toward zero maps (-1, width) onto the columns 0 .. width - 1.
      if (!(x > -1.0f && x < static_cast<float>(width) && y > -1.0f && y < static_cast<float>(height))) {
        std::ostringstream problem;
        problem << track << ": point " << ofCount(p, length) << " at (" << x << ", " << y
                << ") lies outside the " << width << " by " << height << " image";
        throw fail(problem.str());
      }
      const int ix = static_cast<int>(x);
      const int iy = static_cast<int>(y);
      aLabelColor(ix, iy, 0) = static_cast<float>(r);
      aLabelColor(ix, iy, 1) = static_cast<float>(g);
      aLabelColor(ix, iy, 2) = static_cast<float>(b);
    }
  }
  return true;
}

void CUtility::euclideanDistanceTransform(const CTensor<float>& aTensor, CMatrix<float>& aComputed) {
  const int width = aTensor.xSize();
  const int height = aTensor.ySize();
  aComputed.setSize(width, height);
  aComputed.fill(mInfinity);
  markBoundaries(aTensor, aComputed);
  // Columns, then rows, each line on its own.
#pragma omp parallel
  {
    CVector<float> f(std::max(width, height));
    CVector<float> d;
#pragma omp for schedule(static)
    for (int x = 0; x < width; x++) {
      for (int y = 0; y < height; y++) f(y) = aComputed(x, y);
      dt(f, d, height);
      for (int y = 0; y < height; y++) aComputed(x, y) = d(y);
    }
#pragma omp for schedule(static)
    for (int y = 0; y < height; y++) {
      for (int x = 0; x < width; x++) f(x) = aComputed(x, y);
      dt(f, d, width);
      for (int x = 0; x < width; x++) aComputed(x, y) = d(x);
    }
  }
  float* values = aComputed.data();
#pragma omp parallel for schedule(static)
  for (int i = 0; i < aComputed.size(); i++)
    values[i] = static_cast<float>(std::sqrt(static_cast<double>(values[i])) + 1.0);
}

void CUtility::dt(const CVector<float>& f, CVector<float>& d, int n) {
  d.setSize(std::max(n, 0));
  if (n < 1) return;
  std::vector<int> v(static_cast<size_t>(n));
  std::vector<float> z(static_cast<size_t>(n) + 1);
  int k = 0;
  v[0] = 0;
  z[0] = -mInfinity;
  z[1] = mInfinity;
  // Abscissa where the parabola of q meets the one of v[k].
  const auto meet = [&](int q) {
    const int p = v[k];
    return ((f(q) + squareOf(q)) - (f(p) + squareOf(p))) / static_cast<float>(2 * q - 2 * p);
  };
  for (int q = 1; q < n; q++) {
    float s = meet(q);
    // Values beyond the 1e21 "infinity" can put s below z[0]; the parabola of
    // q then replaces the first one instead of stepping before the start.
    while (s <= z[k]) {
      if (--k < 0) break;
      s = meet(q);
    }
    k++;
    v[k] = q;
    z[k] = s;
    z[k + 1] = mInfinity;
  }
  k = 0;
  for (int q = 0; q < n; q++) {
    while (z[k + 1] < static_cast<float>(q)) k++;
    d(q) = squareOf(q - v[k]) + f(v[k]);
  }
}

void CUtility::plotOverlayColor(CTensor<float>& aInOut, const CTensor<float>& aLabelFunction,
                                const std::vector<CVector<int>>& mapLabelToColor, float ratio) {
  overlay(aInOut, aLabelFunction, colorsOf(mapLabelToColor, aLabelFunction.zSize()), ratio);
}

void CUtility::plotOverlayColor(CTensor<float>& aInOut, const CTensor<float>& aLabelFunction, float ratio) {
  overlay(aInOut, aLabelFunction, paletteColors(aLabelFunction.zSize()), ratio);
}

void CUtility::labelFunction2confidenceMask(const CTensor<float>& aLabelFunction, CMatrix<float>& aConfidenceMask) {
  const int width = aLabelFunction.xSize();
  const int height = aLabelFunction.ySize();
  const int labels = aLabelFunction.zSize();
  if (labels == 0) return;
  requireCovers(aConfidenceMask.xSize(), aConfidenceMask.ySize(), width, height);
#pragma omp parallel for schedule(static)
  for (int x = 0; x < width; x++)
    for (int y = 0; y < height; y++) {
      bool certain = false;
      for (int k = 0; k < labels && !certain; k++) certain = aLabelFunction(x, y, k) == 1.0f;
      aConfidenceMask(x, y) = certain ? 1.0f : 0.0f;
    }
}

void CUtility::plotSparseLabels(CTensor<float>& aInOut, const CTensor<float>& aLabelFunction,
                                const CMatrix<float>& aConfidenceMask,
                                const std::vector<CVector<int>>& mapLabelToColor) {
  requireLayers(aInOut, 3);
  requireCovers(aLabelFunction.xSize(), aLabelFunction.ySize(), aInOut.xSize(), aInOut.ySize());
  requireCovers(aConfidenceMask.xSize(), aConfidenceMask.ySize(), aInOut.xSize(), aInOut.ySize());
  const CColorTable colors = colorsOf(mapLabelToColor, aLabelFunction.zSize());
  const int width = aInOut.xSize();
  const int height = aInOut.ySize();
#pragma omp parallel for schedule(static)
  for (int y = 0; y < height; y++)
    for (int x = 0; x < width; x++) {
      if (aConfidenceMask(x, y) != 1.0f) continue;
      float sum[3];
      colorSums(aLabelFunction, x, y, colors, sum);
      for (int c = 0; c < 3; c++) aInOut(x, y, c) = sum[c];
    }
}

void CUtility::putRectangle(CTensor<float>& aTensor, int ix, int iy, int mr, int mg, int mb, int r) {
  requireLayers(aTensor, 3);
  // 64-bit bounds: a huge half side must not overflow.
  const int xl = static_cast<int>(std::max(static_cast<long long>(ix) - r, 0LL));
  const int xr = static_cast<int>(std::min(static_cast<long long>(ix) + r, aTensor.xSize() - 1LL));
  const int yu = static_cast<int>(std::max(static_cast<long long>(iy) - r, 0LL));
  const int yd = static_cast<int>(std::min(static_cast<long long>(iy) + r, aTensor.ySize() - 1LL));
  const float color[3] = {static_cast<float>(mr), static_cast<float>(mg), static_cast<float>(mb)};
#pragma omp parallel for schedule(static)
  for (int x = xl; x <= xr; x++)
    for (int y = yu; y <= yd; y++)
      for (int c = 0; c < 3; c++) aTensor(x, y, c) = color[c];
}

void CUtility::getEnding(const std::string* in, std::string* end) {
  const size_t dot = in->rfind('.');
  *end = dot == std::string::npos ? std::string() : in->substr(dot);
}

void CUtility::decomposeFileName(const std::string* in, std::string* path, std::string* fileName,
                                 std::string* end) {
  // A copy, because fileName may be the very string being decomposed.
  const std::string input = *in;
  const size_t slash = input.rfind('/');
  *path = slash == std::string::npos ? std::string("./") : input.substr(0, slash + 1);
  getEnding(&input, end);
  const std::string file = slash == std::string::npos ? input : input.substr(slash + 1);
  const size_t dot = file.rfind('.');
  // Thrown explicitly: the library's own erase message carries more text.
  if (dot == std::string::npos) throw std::out_of_range("basic_string::erase");
  *fileName = file.substr(0, dot);
}

void CUtility::downsample_fac(CTensor<float>& aImg, const CTensor<float>& aImg_o, int k) {
  const auto covers = [k](int aSize, int aSourceSize) {
    return aSize <= 0 || (k >= 0 && static_cast<long long>(aSize - 1) * k < aSourceSize);
  };
  if (!covers(aImg.xSize(), aImg_o.xSize()) || !covers(aImg.ySize(), aImg_o.ySize()))
    throw ETensorIncompatibleSize(aImg.xSize(), aImg.ySize(), aImg_o.xSize(), aImg_o.ySize());
  requireLayers(aImg_o, aImg.zSize());
  for (int z = 0; z < aImg.zSize(); z++)
    for (int y = 0; y < aImg.ySize(); y++)
      for (int x = 0; x < aImg.xSize(); x++) aImg(x, y, z) = aImg_o(x * k, y * k, z);
}
