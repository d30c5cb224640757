#include "Superpixels.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

namespace NSegment {

namespace {

// sRGB decoding of every byte value, computed once.
const std::array<float, 256>& linearTable() {
  static const std::array<float, 256> table = [] {
    std::array<float, 256> t{};
    for (int i = 0; i < 256; i++) {
      const double c = i / 255.0;
      t[static_cast<size_t>(i)] =
          static_cast<float>(c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4));
    }
    return t;
  }();
  return table;
}

float linear(float aByte) {
  const float byte = aByte > 0.0f ? std::min(aByte, 255.0f) : 0.0f;  // NaN gives 0 too
  return linearTable()[static_cast<size_t>(byte + 0.5f)];
}

// Cube root of a positive float: a first guess from the bit pattern divided
// by three, refined by three Newton steps. Correct to float rounding over the
// range used here, and much cheaper than std::cbrt.
float cubeRoot(float t) {
  uint32_t bits = 0;
  std::memcpy(&bits, &t, sizeof bits);
  bits = bits / 3 + 709921077u;
  float y = 0;
  std::memcpy(&y, &bits, sizeof y);
  for (int i = 0; i < 3; i++) y = (2.0f * y + t / (y * y)) / 3.0f;
  return y;
}

float labCurve(float t) { return t > 0.008856f ? cubeRoot(t) : 7.787f * t + 16.0f / 116.0f; }

// The binomial kernel (1 4 6 4 1) / 16 over five samples.
float binomial(float a, float b, float c, float d, float e) { return (a + 4.0f * b + 6.0f * c + 4.0f * d + e) / 16.0f; }

struct CCentre {
  float l, a, b, x, y;
};

// Squared colour step between pixels i and j of a three-layer image.
float colourStep2(const float* aL, const float* aA, const float* aB, int i, int j) {
  const float dl = aL[i] - aL[j];
  const float da = aA[i] - aA[j];
  const float db = aB[i] - aB[j];
  return dl * dl + da * da + db * db;
}

// Grid seeds, each moved to the position of smallest colour gradient in its
// 3x3 neighbourhood so that no seed starts on an edge.
std::vector<CCentre> seedCentres(const CTensor<float>& aLab, int nx, int ny) {
  const int w = aLab.xSize();
  const int h = aLab.ySize();
  const float* L = aLab.data();
  const float* A = L + w * h;
  const float* B = A + w * h;
  auto gradient = [&](int x, int y) {
    const int i = x + y * w;
    return colourStep2(L, A, B, i - 1, i + 1) + colourStep2(L, A, B, i - w, i + w);
  };
  std::vector<CCentre> centres;
  centres.reserve(static_cast<size_t>(nx) * ny);
  for (int j = 0; j < ny; j++)
    for (int i = 0; i < nx; i++) {
      int bx = static_cast<int>((i + 0.5) * w / nx);
      int by = static_cast<int>((j + 0.5) * h / ny);
      if (bx > 0 && by > 0 && bx < w - 1 && by < h - 1) {
        float best = gradient(bx, by);
        const int cx = bx;
        const int cy = by;
        for (int y = std::max(cy - 1, 1); y <= std::min(cy + 1, h - 2); y++)
          for (int x = std::max(cx - 1, 1); x <= std::min(cx + 1, w - 2); x++) {
            const float g = gradient(x, y);
            if (g < best) {
              best = g;
              bx = x;
              by = y;
            }
          }
      }
      const int k = bx + by * w;
      centres.push_back({L[k], A[k], B[k], static_cast<float>(bx), static_cast<float>(by)});
    }
  return centres;
}

}  // namespace

CTensor<float> toLab(const CTensor<float>& aRgb) {
  const int w = aRgb.xSize();
  const int h = aRgb.ySize();
  const int n = w * h;
  CTensor<float> lab(w, h, 3);
  const float* R = aRgb.data();
  const float* G = R + n;
  const float* Bl = G + n;
  float* L = lab.data();
  float* A = L + n;
  float* B = A + n;
  for (int i = 0; i < n; i++) {
    const float r = linear(R[i]);
    const float g = linear(G[i]);
    const float b = linear(Bl[i]);
    const float fx = labCurve((0.4124564f * r + 0.3575761f * g + 0.1804375f * b) / 0.95047f);
    const float fy = labCurve(0.2126729f * r + 0.7151522f * g + 0.0721750f * b);
    const float fz = labCurve((0.0193339f * r + 0.1191920f * g + 0.9503041f * b) / 1.08883f);
    L[i] = 116.0f * fy - 16.0f;
    A[i] = 500.0f * (fx - fy);
    B[i] = 200.0f * (fy - fz);
  }
  return lab;
}

CTensor<float> smooth(const CTensor<float>& aImage) {
  const int w = aImage.xSize();
  const int h = aImage.ySize();
  CTensor<float> along(w, h, aImage.zSize());
  CTensor<float> result(w, h, aImage.zSize());
  if (w <= 0 || h <= 0) return result;
  std::vector<float> line(static_cast<size_t>(w) + 4);
  for (int z = 0; z < aImage.zSize(); z++) {
    // Along x through a copy of the row with two repeated samples at each end.
    for (int y = 0; y < h; y++) {
      const float* in = &aImage(0, y, z);
      std::copy(in, in + w, line.begin() + 2);
      line[0] = line[1] = in[0];
      line[static_cast<size_t>(w) + 2] = line[static_cast<size_t>(w) + 3] = in[w - 1];
      float* out = &along(0, y, z);
      for (size_t x = 0; x < static_cast<size_t>(w); x++)
        out[x] = binomial(line[x], line[x + 1], line[x + 2], line[x + 3], line[x + 4]);
    }
    // Along y row by row, which keeps the memory access sequential.
    for (int y = 0; y < h; y++) {
      auto row = [&](int dy) { return &along(0, std::clamp(y + dy, 0, h - 1), z); };
      const float* r0 = row(-2);
      const float* r1 = row(-1);
      const float* r2 = row(0);
      const float* r3 = row(1);
      const float* r4 = row(2);
      float* out = &result(0, y, z);
      for (int x = 0; x < w; x++) out[x] = binomial(r0[x], r1[x], r2[x], r3[x], r4[x]);
    }
  }
  return result;
}

CMatrix<int> slic(const CTensor<float>& aLab, int aSeeds, float aCompactness, int aIterations) {
  const int w = aLab.xSize();
  const int h = aLab.ySize();
  CMatrix<int> labels(w, h, 0);
  if (w <= 0 || h <= 0) return labels;
  const int seeds = std::clamp(aSeeds, 1, w * h);
  const double step = std::sqrt(static_cast<double>(w) * h / seeds);
  const int nx = std::clamp(static_cast<int>(std::lround(w / step)), 1, w);
  const int ny = std::clamp(static_cast<int>(std::lround(h / step)), 1, h);
  std::vector<CCentre> centres = seedCentres(aLab, nx, ny);

  const float cellX = static_cast<float>(w) / nx;
  const float cellY = static_cast<float>(h) / ny;
  // A centre competes for the pixels within one cell of itself.
  const int radiusX = static_cast<int>(std::ceil(cellX));
  const int radiusY = static_cast<int>(std::ceil(cellY));
  const float spatial = aCompactness * aCompactness / (cellX * cellY);

  const float* L = aLab.data();
  const float* A = L + w * h;
  const float* B = A + w * h;
  CMatrix<float> distance(w, h);
  std::vector<double> sums;
  for (int iteration = 0; iteration < aIterations; iteration++) {
    distance.fill(std::numeric_limits<float>::max());
    for (size_t k = 0; k < centres.size(); k++) {
      const CCentre& c = centres[k];
      const int cx = static_cast<int>(c.x);
      const int cy = static_cast<int>(c.y);
      for (int y = std::max(cy - radiusY, 0); y <= std::min(cy + radiusY, h - 1); y++)
        for (int x = std::max(cx - radiusX, 0); x <= std::min(cx + radiusX, w - 1); x++) {
          const int i = x + y * w;
          const float dl = L[i] - c.l;
          const float da = A[i] - c.a;
          const float db = B[i] - c.b;
          const float dx = static_cast<float>(x) - c.x;
          const float dy = static_cast<float>(y) - c.y;
          const float d = dl * dl + da * da + db * db + spatial * (dx * dx + dy * dy);
          if (d < distance(x, y)) {
            distance(x, y) = d;
            labels(x, y) = static_cast<int>(k);
          }
        }
    }
    // Pixels that no centre reached keep their previous cluster.
    sums.assign(centres.size() * 6, 0.0);
    for (int y = 0; y < h; y++)
      for (int x = 0; x < w; x++) {
        const int i = x + y * w;
        double* s = &sums[static_cast<size_t>(labels(x, y)) * 6];
        s[0] += L[i];
        s[1] += A[i];
        s[2] += B[i];
        s[3] += x;
        s[4] += y;
        s[5] += 1.0;
      }
    for (size_t k = 0; k < centres.size(); k++) {
      const double* s = &sums[k * 6];
      if (s[5] > 0)
        centres[k] = {static_cast<float>(s[0] / s[5]), static_cast<float>(s[1] / s[5]),
                      static_cast<float>(s[2] / s[5]), static_cast<float>(s[3] / s[5]),
                      static_cast<float>(s[4] / s[5])};
    }
  }
  return labels;
}

int connectedComponents(const CMatrix<int>& aLabels, CMatrix<int>& aComponents) {
  const int w = aLabels.xSize();
  const int h = aLabels.ySize();
  aComponents.setSize(w, h);
  aComponents.fill(-1);
  int count = 0;
  std::vector<int> stack;
  for (int start = 0; start < w * h; start++) {
    if (aComponents.data()[start] >= 0) continue;
    const int label = aLabels.data()[start];
    aComponents.data()[start] = count;
    stack.push_back(start);
    while (!stack.empty()) {
      const int i = stack.back();
      stack.pop_back();
      const int x = i % w;
      const int y = i / w;
      auto visit = [&](int j) {
        if (aComponents.data()[j] < 0 && aLabels.data()[j] == label) {
          aComponents.data()[j] = count;
          stack.push_back(j);
        }
      };
      if (x > 0) visit(i - 1);
      if (x < w - 1) visit(i + 1);
      if (y > 0) visit(i - w);
      if (y < h - 1) visit(i + w);
    }
    count++;
  }
  return count;
}

}  // namespace NSegment
