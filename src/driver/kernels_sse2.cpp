// The kernels in use with SSE2, the baseline of every 64-bit x86 processor.
#include <emmintrin.h>

#include <cstring>

#include "driver/kernel_paths.h"

namespace NSFerrand {

namespace {

using namespace NSScalar;

// The low 16 bits of each 32-bit lane, sign-extended, so that the signed
// saturating pack keeps them exactly: a plain pack would clip, not wrap.
inline __m128i Low16(__m128i v) { return _mm_srai_epi32(_mm_slli_epi32(v, 16), 16); }

inline __m128i TruncateScaled(const float* s, __m128 scale) {
  return _mm_cvttps_epi32(_mm_mul_ps(_mm_loadu_ps(s), scale));
}

// Two samples in double precision: the product of FloatToInt32.
inline __m128i TruncateWide2(const float* s, __m128d scale) {
  const __m128 pair = _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(s)));
  return _mm_cvttpd_epi32(_mm_mul_pd(_mm_cvtps_pd(pair), scale));
}

inline __m128i TruncateWide4(const float* s, __m128d scale) {
  return _mm_unpacklo_epi64(TruncateWide2(s, scale), TruncateWide2(s + 2, scale));
}

inline __m128i Swap32(__m128i v) {
  const __m128i mask = _mm_set1_epi32(0xFF00);
  return _mm_or_si128(
      _mm_or_si128(_mm_srli_epi32(v, 24), _mm_and_si128(_mm_srli_epi32(v, 8), mask)),
      _mm_or_si128(_mm_slli_epi32(_mm_and_si128(v, mask), 8), _mm_slli_epi32(v, 24)));
}

void FloatToInt16Sse2(const float* s, int16_t* d, int32_t n) {
  const __m128 scale = _mm_set1_ps(32767.0f);
  int32_t i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m128i a = Low16(TruncateScaled(s + i, scale));
    const __m128i b = Low16(TruncateScaled(s + i + 4, scale));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), _mm_packs_epi32(a, b));
  }
  NSScalar::FloatToInt16(s + i, d + i, n - i);
}

void FloatToInt32Sse2(const float* s, int32_t* d, int32_t n) {
  const __m128d scale = _mm_set1_pd(2147483647.0);
  int32_t i = 0;
  for (; i + 4 <= n; i += 4) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), TruncateWide4(s + i, scale));
  }
  NSScalar::FloatToInt32(s + i, d + i, n - i);
}

void FloatToShiftedInt32Sse2(const float* s, int32_t* d, int32_t n, uint32_t bits,
                             uint32_t order) {
  const __m128d scale = _mm_set1_pd(2147483647.0);
  const __m128i shift = _mm_cvtsi32_si128(static_cast<int>(32 - bits));
  const bool swap = order == 92;
  int32_t i = 0;
  for (; i + 4 <= n; i += 4) {
    __m128i v = _mm_sra_epi32(TruncateWide4(s + i, scale), shift);
    if (swap) v = Swap32(v);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), v);
  }
  NSScalar::FloatToShiftedInt32(s + i, d + i, n - i, bits, order);
}

void Int16ToFloatSse2(const int16_t* s, float* d, int32_t n) {
  const __m128 scale = _mm_set1_ps(3.0517578125e-05f);
  int32_t i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i));
    const __m128i lo = _mm_srai_epi32(_mm_unpacklo_epi16(x, x), 16);
    const __m128i hi = _mm_srai_epi32(_mm_unpackhi_epi16(x, x), 16);
    _mm_storeu_ps(d + i, _mm_mul_ps(_mm_cvtepi32_ps(lo), scale));
    _mm_storeu_ps(d + i + 4, _mm_mul_ps(_mm_cvtepi32_ps(hi), scale));
  }
  NSScalar::Int16ToFloat(s + i, d + i, n - i);
}

void ConvertScaled(const int32_t* s, float* d, int32_t n, float factor) {
  const __m128 scale = _mm_set1_ps(factor);
  int32_t i = 0;
  for (; i + 4 <= n; i += 4) {
    const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i));
    _mm_storeu_ps(d + i, _mm_mul_ps(_mm_cvtepi32_ps(x), scale));
  }
  for (; i < n; ++i) d[i] = static_cast<float>(s[i]) * factor;
}

void Int32ToFloatSse2(const int32_t* s, float* d, int32_t n) {
  ConvertScaled(s, d, n, 4.656612873077393e-10f);
}

void ShiftedInt32ToFloatSse2(const int32_t* s, float* d, int32_t n, uint32_t bits) {
  ConvertScaled(s, d, n, ShiftedFactor(bits));
}

void SwapBytes16Sse2(int16_t* s, int32_t n) {
  int32_t i = 0;
  for (; i + 8 <= n; i += 8) {
    __m128i* p = reinterpret_cast<__m128i*>(s + i);
    const __m128i x = _mm_loadu_si128(p);
    _mm_storeu_si128(p, _mm_or_si128(_mm_srli_epi16(x, 8), _mm_slli_epi16(x, 8)));
  }
  NSScalar::SwapBytes16(s + i, n - i);
}

void SwapBytes32Sse2(int32_t* s, int32_t n) {
  int32_t i = 0;
  for (; i + 4 <= n; i += 4) {
    __m128i* p = reinterpret_cast<__m128i*>(s + i);
    _mm_storeu_si128(p, Swap32(_mm_loadu_si128(p)));
  }
  NSScalar::SwapBytes32(s + i, n - i);
}

void FloatStereoToInterleaved16Sse2(const float* l, const float* r, int16_t* d, int32_t n) {
  const __m128 scale = _mm_set1_ps(32767.0f);
  int32_t i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m128i left = _mm_packs_epi32(Low16(TruncateScaled(l + i, scale)),
                                         Low16(TruncateScaled(l + i + 4, scale)));
    const __m128i right = _mm_packs_epi32(Low16(TruncateScaled(r + i, scale)),
                                          Low16(TruncateScaled(r + i + 4, scale)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 2 * i), _mm_unpacklo_epi16(left, right));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 2 * i + 8), _mm_unpackhi_epi16(left, right));
  }
  NSScalar::FloatStereoToInterleaved16(l + i, r + i, d + 2 * i, n - i);
}

}  // namespace

// Packed 24-bit samples gain nothing from SSE2's four lanes, whose values
// must be packed and unpacked one by one: those entries are the scalar loops,
// which measured faster.
const SKernelTable kSse2Kernels = {
    &FloatToInt16Sse2,        &NSScalar::FloatToInt24,  &FloatToInt32Sse2,
    &FloatToShiftedInt32Sse2, &Int16ToFloatSse2,        &NSScalar::Int24ToFloat,
    &Int32ToFloatSse2,        &ShiftedInt32ToFloatSse2, &SwapBytes16Sse2,
    &NSScalar::SwapBytes24,   &SwapBytes32Sse2,         &FloatStereoToInterleaved16Sse2,
};

}  // namespace NSFerrand
