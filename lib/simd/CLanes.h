// Float lanes of one vector register, one type per width: CLanes4 (128 bits,
// every x86-64 processor), CLanes8 (256 bits, AVX) and CLanes16 (512 bits,
// AVX-512F). The solver's kernels are written once against this interface.
//
// A register is seen as kGroups groups of four lanes ("quads"): one quad
// holds the four label lanes of one node, so a wider register carries several
// nodes side by side and every lane goes through the same operations as with
// CLanes4. Every operation is the one IEEE operation its name says, rounded
// once; nothing is fused or approximated. The member functions of the wider
// types carry their target attribute: kernels using them must carry it too
// (TARNWICK_LANES4/8/16_TARGET).
#pragma once

// GCC 12 takes the deliberately undefined registers inside the AVX-512
// intrinsics for uninitialised variables.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>
#pragma GCC diagnostic pop

#include <cstddef>

#define TARNWICK_LANES4_TARGET "sse2"
#define TARNWICK_LANES8_TARGET "avx"
#define TARNWICK_LANES16_TARGET "avx512f"

#define TARNWICK_LANES4 __attribute__((always_inline)) inline
#define TARNWICK_LANES8 __attribute__((target(TARNWICK_LANES8_TARGET), always_inline)) inline
#define TARNWICK_LANES16 __attribute__((target(TARNWICK_LANES16_TARGET), always_inline)) inline

namespace NSimd {

class CLanes4 {
public:
  static constexpr int kWidth = 4;
  static constexpr int kGroups = 1;
  struct CMask {
    __m128 m;
  };

  CLanes4() = default;
  TARNWICK_LANES4 explicit CLanes4(__m128 aV) : v(aV) {}
  static TARNWICK_LANES4 CLanes4 zero() { return CLanes4(_mm_setzero_ps()); }
  static TARNWICK_LANES4 CLanes4 splat(float a) { return CLanes4(_mm_set1_ps(a)); }
  static TARNWICK_LANES4 CLanes4 load(const float* p) { return CLanes4(_mm_loadu_ps(p)); }
  TARNWICK_LANES4 void store(float* p) const { _mm_storeu_ps(p, v); }
  // Quad g from / to p + g * aStride.
  static TARNWICK_LANES4 CLanes4 loadQuads(const float* p, ptrdiff_t) { return load(p); }
  // Quad g from aQuads[g].
  static TARNWICK_LANES4 CLanes4 gatherQuads(const float* const* aQuads) { return load(aQuads[0]); }
  TARNWICK_LANES4 void storeQuads(float* p, ptrdiff_t) const { store(p); }
  // Quad g all p[g * aStride].
  static TARNWICK_LANES4 CLanes4 splatQuads(const float* p, ptrdiff_t) { return splat(*p); }
  // Lane k of every quad over its whole quad.
  template <int k>
  TARNWICK_LANES4 CLanes4 laneOfQuads() const { return CLanes4(_mm_shuffle_ps(v, v, k * 0x55)); }

  friend TARNWICK_LANES4 CLanes4 operator+(CLanes4 a, CLanes4 b) { return CLanes4(_mm_add_ps(a.v, b.v)); }
  friend TARNWICK_LANES4 CLanes4 operator-(CLanes4 a, CLanes4 b) { return CLanes4(_mm_sub_ps(a.v, b.v)); }
  friend TARNWICK_LANES4 CLanes4 operator*(CLanes4 a, CLanes4 b) { return CLanes4(_mm_mul_ps(a.v, b.v)); }
  friend TARNWICK_LANES4 CLanes4 operator/(CLanes4 a, CLanes4 b) { return CLanes4(_mm_div_ps(a.v, b.v)); }
  // The second operand where either is NaN, as the instructions do.
  static TARNWICK_LANES4 CLanes4 min(CLanes4 a, CLanes4 b) { return CLanes4(_mm_min_ps(a.v, b.v)); }
  static TARNWICK_LANES4 CLanes4 max(CLanes4 a, CLanes4 b) { return CLanes4(_mm_max_ps(a.v, b.v)); }

  friend TARNWICK_LANES4 CMask operator>(CLanes4 a, CLanes4 b) { return {_mm_cmpgt_ps(a.v, b.v)}; }
  friend TARNWICK_LANES4 CMask operator>=(CLanes4 a, CLanes4 b) { return {_mm_cmpge_ps(a.v, b.v)}; }
  friend TARNWICK_LANES4 CMask operator==(CLanes4 a, CLanes4 b) { return {_mm_cmpeq_ps(a.v, b.v)}; }
  friend TARNWICK_LANES4 CMask operator&(CMask a, CMask b) { return {_mm_and_ps(a.m, b.m)}; }
  static TARNWICK_LANES4 bool all(CMask a) { return _mm_movemask_ps(a.m) == 0xf; }
  // a where the mask is set, +0 elsewhere.
  static TARNWICK_LANES4 CLanes4 select(CMask aMask, CLanes4 a) { return CLanes4(_mm_and_ps(aMask.m, a.v)); }
  static TARNWICK_LANES4 bool sameBits(CLanes4 a, CLanes4 b) {
    return _mm_movemask_epi8(_mm_cmpeq_epi32(_mm_castps_si128(a.v), _mm_castps_si128(b.v))) == 0xffff;
  }

  // 4x4 transpose within every quad: lane k of r[q] and lane q of r[k] swap.
  static TARNWICK_LANES4 void transposeQuads(CLanes4& r0, CLanes4& r1, CLanes4& r2, CLanes4& r3) {
    _MM_TRANSPOSE4_PS(r0.v, r1.v, r2.v, r3.v);
  }
  // float(1.0 / sqrt(double(a))) per lane.
  static TARNWICK_LANES4 CLanes4 reciprocalRootInDouble(CLanes4 a) {
    const __m128d one = _mm_set1_pd(1.0);
    const __m128d low = _mm_div_pd(one, _mm_sqrt_pd(_mm_cvtps_pd(a.v)));
    const __m128d high = _mm_div_pd(one, _mm_sqrt_pd(_mm_cvtps_pd(_mm_movehl_ps(a.v, a.v))));
    return CLanes4(_mm_movelh_ps(_mm_cvtpd_ps(low), _mm_cvtpd_ps(high)));
  }

  __m128 v;
};

class CLanes8 {
public:
  static constexpr int kWidth = 8;
  static constexpr int kGroups = 2;
  struct CMask {
    __m256 m;
  };

  CLanes8() = default;
  TARNWICK_LANES8 explicit CLanes8(__m256 aV) : v(aV) {}
  static TARNWICK_LANES8 CLanes8 zero() { return CLanes8(_mm256_setzero_ps()); }
  static TARNWICK_LANES8 CLanes8 splat(float a) { return CLanes8(_mm256_set1_ps(a)); }
  static TARNWICK_LANES8 CLanes8 load(const float* p) { return CLanes8(_mm256_loadu_ps(p)); }
  TARNWICK_LANES8 void store(float* p) const { _mm256_storeu_ps(p, v); }
  static TARNWICK_LANES8 CLanes8 loadQuads(const float* p, ptrdiff_t aStride) {
    return CLanes8(_mm256_loadu2_m128(p + aStride, p));
  }
  static TARNWICK_LANES8 CLanes8 gatherQuads(const float* const* aQuads) {
    return CLanes8(_mm256_loadu2_m128(aQuads[1], aQuads[0]));
  }
  TARNWICK_LANES8 void storeQuads(float* p, ptrdiff_t aStride) const { _mm256_storeu2_m128(p + aStride, p, v); }
  static TARNWICK_LANES8 CLanes8 splatQuads(const float* p, ptrdiff_t aStride) {
    return CLanes8(_mm256_set_m128(_mm_set1_ps(p[aStride]), _mm_set1_ps(p[0])));
  }
  template <int k>
  TARNWICK_LANES8 CLanes8 laneOfQuads() const { return CLanes8(_mm256_shuffle_ps(v, v, k * 0x55)); }

  friend TARNWICK_LANES8 CLanes8 operator+(CLanes8 a, CLanes8 b) { return CLanes8(_mm256_add_ps(a.v, b.v)); }
  friend TARNWICK_LANES8 CLanes8 operator-(CLanes8 a, CLanes8 b) { return CLanes8(_mm256_sub_ps(a.v, b.v)); }
  friend TARNWICK_LANES8 CLanes8 operator*(CLanes8 a, CLanes8 b) { return CLanes8(_mm256_mul_ps(a.v, b.v)); }
  friend TARNWICK_LANES8 CLanes8 operator/(CLanes8 a, CLanes8 b) { return CLanes8(_mm256_div_ps(a.v, b.v)); }
  static TARNWICK_LANES8 CLanes8 min(CLanes8 a, CLanes8 b) { return CLanes8(_mm256_min_ps(a.v, b.v)); }
  static TARNWICK_LANES8 CLanes8 max(CLanes8 a, CLanes8 b) { return CLanes8(_mm256_max_ps(a.v, b.v)); }

  friend TARNWICK_LANES8 CMask operator>(CLanes8 a, CLanes8 b) { return {_mm256_cmp_ps(a.v, b.v, _CMP_GT_OS)}; }
  friend TARNWICK_LANES8 CMask operator>=(CLanes8 a, CLanes8 b) { return {_mm256_cmp_ps(a.v, b.v, _CMP_GE_OS)}; }
  friend TARNWICK_LANES8 CMask operator==(CLanes8 a, CLanes8 b) { return {_mm256_cmp_ps(a.v, b.v, _CMP_EQ_OQ)}; }
  friend TARNWICK_LANES8 CMask operator&(CMask a, CMask b) { return {_mm256_and_ps(a.m, b.m)}; }
  static TARNWICK_LANES8 bool all(CMask a) { return _mm256_movemask_ps(a.m) == 0xff; }
  static TARNWICK_LANES8 CLanes8 select(CMask aMask, CLanes8 a) { return CLanes8(_mm256_and_ps(aMask.m, a.v)); }
  static TARNWICK_LANES8 bool sameBits(CLanes8 a, CLanes8 b) {
    const __m256i change = _mm256_castps_si256(_mm256_xor_ps(a.v, b.v));
    return _mm256_testz_si256(change, change);
  }

  static TARNWICK_LANES8 void transposeQuads(CLanes8& r0, CLanes8& r1, CLanes8& r2, CLanes8& r3) {
    const __m256 t0 = _mm256_unpacklo_ps(r0.v, r1.v);
    const __m256 t1 = _mm256_unpackhi_ps(r0.v, r1.v);
    const __m256 t2 = _mm256_unpacklo_ps(r2.v, r3.v);
    const __m256 t3 = _mm256_unpackhi_ps(r2.v, r3.v);
    r0.v = _mm256_shuffle_ps(t0, t2, 0x44);
    r1.v = _mm256_shuffle_ps(t0, t2, 0xee);
    r2.v = _mm256_shuffle_ps(t1, t3, 0x44);
    r3.v = _mm256_shuffle_ps(t1, t3, 0xee);
  }
  static TARNWICK_LANES8 CLanes8 reciprocalRootInDouble(CLanes8 a) {
    const __m256d one = _mm256_set1_pd(1.0);
    const __m256d low = _mm256_div_pd(one, _mm256_sqrt_pd(_mm256_cvtps_pd(_mm256_castps256_ps128(a.v))));
    const __m256d high = _mm256_div_pd(one, _mm256_sqrt_pd(_mm256_cvtps_pd(_mm256_extractf128_ps(a.v, 1))));
    return CLanes8(_mm256_set_m128(_mm256_cvtpd_ps(high), _mm256_cvtpd_ps(low)));
  }

  __m256 v;
};

class CLanes16 {
public:
  static constexpr int kWidth = 16;
  static constexpr int kGroups = 4;
  struct CMask {
    __mmask16 m;
  };

  CLanes16() = default;
  TARNWICK_LANES16 explicit CLanes16(__m512 aV) : v(aV) {}
  static TARNWICK_LANES16 CLanes16 zero() { return CLanes16(_mm512_setzero_ps()); }
  static TARNWICK_LANES16 CLanes16 splat(float a) { return CLanes16(_mm512_set1_ps(a)); }
  static TARNWICK_LANES16 CLanes16 load(const float* p) { return CLanes16(_mm512_loadu_ps(p)); }
  TARNWICK_LANES16 void store(float* p) const { _mm512_storeu_ps(p, v); }
  static TARNWICK_LANES16 CLanes16 loadQuads(const float* p, ptrdiff_t aStride) {
    __m512 r = _mm512_castps128_ps512(_mm_loadu_ps(p));
    r = _mm512_insertf32x4(r, _mm_loadu_ps(p + aStride), 1);
    r = _mm512_insertf32x4(r, _mm_loadu_ps(p + 2 * aStride), 2);
    return CLanes16(_mm512_insertf32x4(r, _mm_loadu_ps(p + 3 * aStride), 3));
  }
  static TARNWICK_LANES16 CLanes16 gatherQuads(const float* const* aQuads) {
    __m512 r = _mm512_castps128_ps512(_mm_loadu_ps(aQuads[0]));
    r = _mm512_insertf32x4(r, _mm_loadu_ps(aQuads[1]), 1);
    r = _mm512_insertf32x4(r, _mm_loadu_ps(aQuads[2]), 2);
    return CLanes16(_mm512_insertf32x4(r, _mm_loadu_ps(aQuads[3]), 3));
  }
  TARNWICK_LANES16 void storeQuads(float* p, ptrdiff_t aStride) const {
    _mm_storeu_ps(p, _mm512_castps512_ps128(v));
    _mm_storeu_ps(p + aStride, _mm512_extractf32x4_ps(v, 1));
    _mm_storeu_ps(p + 2 * aStride, _mm512_extractf32x4_ps(v, 2));
    _mm_storeu_ps(p + 3 * aStride, _mm512_extractf32x4_ps(v, 3));
  }
  static TARNWICK_LANES16 CLanes16 splatQuads(const float* p, ptrdiff_t aStride) {
    const __m512i quadOfLane = _mm512_set_epi32(3, 3, 3, 3, 2, 2, 2, 2, 1, 1, 1, 1, 0, 0, 0, 0);
    const __m128 values = _mm_setr_ps(p[0], p[aStride], p[2 * aStride], p[3 * aStride]);
    return CLanes16(_mm512_permutexvar_ps(quadOfLane, _mm512_castps128_ps512(values)));
  }
  template <int k>
  TARNWICK_LANES16 CLanes16 laneOfQuads() const { return CLanes16(_mm512_shuffle_ps(v, v, k * 0x55)); }

  friend TARNWICK_LANES16 CLanes16 operator+(CLanes16 a, CLanes16 b) { return CLanes16(_mm512_add_ps(a.v, b.v)); }
  friend TARNWICK_LANES16 CLanes16 operator-(CLanes16 a, CLanes16 b) { return CLanes16(_mm512_sub_ps(a.v, b.v)); }
  friend TARNWICK_LANES16 CLanes16 operator*(CLanes16 a, CLanes16 b) { return CLanes16(_mm512_mul_ps(a.v, b.v)); }
  friend TARNWICK_LANES16 CLanes16 operator/(CLanes16 a, CLanes16 b) { return CLanes16(_mm512_div_ps(a.v, b.v)); }
  static TARNWICK_LANES16 CLanes16 min(CLanes16 a, CLanes16 b) { return CLanes16(_mm512_min_ps(a.v, b.v)); }
  static TARNWICK_LANES16 CLanes16 max(CLanes16 a, CLanes16 b) { return CLanes16(_mm512_max_ps(a.v, b.v)); }

  friend TARNWICK_LANES16 CMask operator>(CLanes16 a, CLanes16 b) { return {_mm512_cmp_ps_mask(a.v, b.v, _CMP_GT_OS)}; }
  friend TARNWICK_LANES16 CMask operator>=(CLanes16 a, CLanes16 b) { return {_mm512_cmp_ps_mask(a.v, b.v, _CMP_GE_OS)}; }
  friend TARNWICK_LANES16 CMask operator==(CLanes16 a, CLanes16 b) { return {_mm512_cmp_ps_mask(a.v, b.v, _CMP_EQ_OQ)}; }
  friend TARNWICK_LANES16 CMask operator&(CMask a, CMask b) { return {static_cast<__mmask16>(a.m & b.m)}; }
  static TARNWICK_LANES16 bool all(CMask a) { return a.m == 0xffff; }
  static TARNWICK_LANES16 CLanes16 select(CMask aMask, CLanes16 a) { return CLanes16(_mm512_maskz_mov_ps(aMask.m, a.v)); }
  static TARNWICK_LANES16 bool sameBits(CLanes16 a, CLanes16 b) {
    return _mm512_cmpeq_epi32_mask(_mm512_castps_si512(a.v), _mm512_castps_si512(b.v)) == 0xffff;
  }

  static TARNWICK_LANES16 void transposeQuads(CLanes16& r0, CLanes16& r1, CLanes16& r2, CLanes16& r3) {
    const __m512 t0 = _mm512_unpacklo_ps(r0.v, r1.v);
    const __m512 t1 = _mm512_unpackhi_ps(r0.v, r1.v);
    const __m512 t2 = _mm512_unpacklo_ps(r2.v, r3.v);
    const __m512 t3 = _mm512_unpackhi_ps(r2.v, r3.v);
    r0.v = _mm512_shuffle_ps(t0, t2, 0x44);
    r1.v = _mm512_shuffle_ps(t0, t2, 0xee);
    r2.v = _mm512_shuffle_ps(t1, t3, 0x44);
    r3.v = _mm512_shuffle_ps(t1, t3, 0xee);
  }
  static TARNWICK_LANES16 CLanes16 reciprocalRootInDouble(CLanes16 a) {
    const __m512d one = _mm512_set1_pd(1.0);
    const __m512d low = _mm512_div_pd(one, _mm512_sqrt_pd(_mm512_cvtps_pd(_mm512_castps512_ps256(a.v))));
    const __m512d high = _mm512_div_pd(
        one, _mm512_sqrt_pd(_mm512_cvtps_pd(_mm256_castpd_ps(_mm512_extractf64x4_pd(_mm512_castps_pd(a.v), 1)))));
    const __m512d lowHalf = _mm512_castps_pd(_mm512_castps256_ps512(_mm512_cvtpd_ps(low)));
    return CLanes16(_mm512_castpd_ps(_mm512_insertf64x4(lowHalf, _mm256_castps_pd(_mm512_cvtpd_ps(high)), 1)));
  }

  __m512 v;
};

}  // namespace NSimd
