// The kernels in use with AVX2; this file alone is compiled for it, and runs
// only where the processor has it.
#include <immintrin.h>

#include "driver/kernel_paths.h"

namespace NSFerrand {

namespace {

using namespace NSScalar;

inline __m256i Low16(__m256i v) { return _mm256_srai_epi32(_mm256_slli_epi32(v, 16), 16); }

inline __m256i TruncateScaled(const float* s, __m256 scale) {
  return _mm256_cvttps_epi32(_mm256_mul_ps(_mm256_loadu_ps(s), scale));
}

// Four samples through the double product of FloatToInt32.
inline __m128i TruncateWide4(const float* s, __m256d scale) {
  return _mm256_cvttpd_epi32(_mm256_mul_pd(_mm256_cvtps_pd(_mm_loadu_ps(s)), scale));
}

// Built where it is used: a constant at namespace scope would run AVX2 code
// at load, on any processor.
inline __m256i Swap32Mask() {
  return _mm256_setr_epi8(3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12, 3, 2, 1, 0, 7, 6,
                          5, 4, 11, 10, 9, 8, 15, 14, 13, 12);
}

// Sixteen 32-bit lanes' low halves, in order.
inline __m256i Pack16(__m256i a, __m256i b) {
  return _mm256_permute4x64_epi64(_mm256_packs_epi32(Low16(a), Low16(b)), 0xD8);
}

void FloatToInt16Avx2(const float* s, int16_t* d, int32_t n) {
  const __m256 scale = _mm256_set1_ps(32767.0f);
  int32_t i = 0;
  for (; i + 16 <= n; i += 16) {
    const __m256i v = Pack16(TruncateScaled(s + i, scale), TruncateScaled(s + i + 8, scale));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + i), v);
  }
  NSScalar::FloatToInt16(s + i, d + i, n - i);
}

// Eight samples' low three bytes, 24 bytes at the bottom of the register.
inline __m256i Pack24x8(__m256i v) {
  const __m256i bytes = _mm256_shuffle_epi8(
      v, _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1, 0, 1, 2, 4, 5,
                          6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1));
  return _mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7));
}

void FloatToInt24Avx2(const float* s, uint8_t* d, int32_t n) {
  const __m256 scale = _mm256_set1_ps(8388607.0f);
  int32_t i = 0;
  // Each 32-byte store carries 24 bytes of samples and 8 that the next
  // store, or the tail, writes over: three samples must follow the block.
  for (; i + 19 <= n; i += 16) {
    uint8_t* out = d + 3 * i;
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), Pack24x8(TruncateScaled(s + i, scale)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 24),
                        Pack24x8(TruncateScaled(s + i + 8, scale)));
  }
  NSScalar::FloatToInt24(s + i, d + 3 * i, n - i);
}

void FloatToInt32Avx2(const float* s, int32_t* d, int32_t n) {
  const __m256d scale = _mm256_set1_pd(2147483647.0);
  int32_t i = 0;
  for (; i + 16 <= n; i += 16) {
    __m128i* out = reinterpret_cast<__m128i*>(d + i);
    _mm_storeu_si128(out, TruncateWide4(s + i, scale));
    _mm_storeu_si128(out + 1, TruncateWide4(s + i + 4, scale));
    _mm_storeu_si128(out + 2, TruncateWide4(s + i + 8, scale));
    _mm_storeu_si128(out + 3, TruncateWide4(s + i + 12, scale));
  }
  NSScalar::FloatToInt32(s + i, d + i, n - i);
}

inline __m256i TruncateWide8(const float* s, __m256d scale) {
  return _mm256_inserti128_si256(_mm256_castsi128_si256(TruncateWide4(s, scale)),
                                 TruncateWide4(s + 4, scale), 1);
}

template <bool kSwap>
void ShiftedBlocks(const float* s, int32_t* d, int32_t& i, int32_t n, uint32_t bits) {
  const __m256d scale = _mm256_set1_pd(2147483647.0);
  const __m128i shift = _mm_cvtsi32_si128(static_cast<int>(32 - bits));
  const __m256i swapMask = Swap32Mask();
  for (; i + 16 <= n; i += 16) {
    __m256i a = _mm256_sra_epi32(TruncateWide8(s + i, scale), shift);
    __m256i b = _mm256_sra_epi32(TruncateWide8(s + i + 8, scale), shift);
    if (kSwap) {
      a = _mm256_shuffle_epi8(a, swapMask);
      b = _mm256_shuffle_epi8(b, swapMask);
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + i), a);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + i + 8), b);
  }
}

void FloatToShiftedInt32Avx2(const float* s, int32_t* d, int32_t n, uint32_t bits,
                             uint32_t order) {
  int32_t i = 0;
  if (order == 92) {
    ShiftedBlocks<true>(s, d, i, n, bits);
  } else {
    ShiftedBlocks<false>(s, d, i, n, bits);
  }
  NSScalar::FloatToShiftedInt32(s + i, d + i, n - i, bits, order);
}

void Int16ToFloatAvx2(const int16_t* s, float* d, int32_t n) {
  const __m256 scale = _mm256_set1_ps(3.0517578125e-05f);
  int32_t i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m256i x =
        _mm256_cvtepi16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i)));
    _mm256_storeu_ps(d + i, _mm256_mul_ps(_mm256_cvtepi32_ps(x), scale));
  }
  NSScalar::Int16ToFloat(s + i, d + i, n - i);
}

// Four 24-bit samples into the top of four lanes, then shifted down with
// their sign. The 16-byte load reaches 4 bytes past the 12 it uses.
inline __m128i Load24x4(const uint8_t* s) {
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
  const __m128i lanes = _mm_shuffle_epi8(
      bytes, _mm_setr_epi8(-1, 0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11));
  return _mm_srai_epi32(lanes, 8);
}

void Int24ToFloatAvx2(const uint8_t* s, float* d, int32_t n) {
  const __m256 scale = _mm256_set1_ps(1.1920928955078125e-07f);
  int32_t i = 0;
  // Two more samples must follow each block, for the loads' last 4 bytes.
  for (; i + 10 <= n; i += 8) {
    const __m256i x = _mm256_inserti128_si256(_mm256_castsi128_si256(Load24x4(s + 3 * i)),
                                              Load24x4(s + 3 * i + 12), 1);
    _mm256_storeu_ps(d + i, _mm256_mul_ps(_mm256_cvtepi32_ps(x), scale));
  }
  NSScalar::Int24ToFloat(s + 3 * i, d + i, n - i);
}

void ConvertScaled(const int32_t* s, float* d, int32_t n, float factor) {
  const __m256 scale = _mm256_set1_ps(factor);
  int32_t i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + i));
    _mm256_storeu_ps(d + i, _mm256_mul_ps(_mm256_cvtepi32_ps(x), scale));
  }
  for (; i < n; ++i) d[i] = static_cast<float>(s[i]) * factor;
}

void Int32ToFloatAvx2(const int32_t* s, float* d, int32_t n) {
  ConvertScaled(s, d, n, 4.656612873077393e-10f);
}

void ShiftedInt32ToFloatAvx2(const int32_t* s, float* d, int32_t n, uint32_t bits) {
  ConvertScaled(s, d, n, ShiftedFactor(bits));
}

void SwapBytes16Avx2(int16_t* s, int32_t n) {
  const __m256i mask = _mm256_setr_epi8(1, 0, 3, 2, 5, 4, 7, 6, 9, 8, 11, 10, 13, 12, 15, 14,
                                        1, 0, 3, 2, 5, 4, 7, 6, 9, 8, 11, 10, 13, 12, 15, 14);
  int32_t i = 0;
  for (; i + 16 <= n; i += 16) {
    __m256i* p = reinterpret_cast<__m256i*>(s + i);
    _mm256_storeu_si256(p, _mm256_shuffle_epi8(_mm256_loadu_si256(p), mask));
  }
  NSScalar::SwapBytes16(s + i, n - i);
}

// A block of sixteen samples is 48 bytes, three registers; output byte j
// comes from input byte j + 2, j or j - 2. Each output register is two
// shuffles of windows that alignr cuts from neighbouring registers, so
// blocks never overlap and no store stands in the way of a later load.
void SwapBytes24Avx2(uint8_t* s, int32_t n) {
  const __m128i m0 = _mm_setr_epi8(2, 1, 0, 5, 4, 3, 8, 7, 6, 11, 10, 9, 14, 13, 12, -1);
  const __m128i n0 = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 1);
  const __m128i m1 = _mm_setr_epi8(1, 0, 5, 4, 3, 8, 7, 6, 11, 10, 9, 14, 13, 12, -1, -1);
  const __m128i n1 = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 1, 0);
  const __m128i m2 = _mm_setr_epi8(0, 5, 4, 3, 8, 7, 6, 11, 10, 9, 14, 13, 12, -1, -1, 15);
  const __m128i n2 = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 15, 14, -1);
  int32_t i = 0;
  for (; i + 16 <= n; i += 16) {
    __m128i* p = reinterpret_cast<__m128i*>(s + 3 * i);
    const __m128i a = _mm_loadu_si128(p);      // bytes 0-15
    const __m128i b = _mm_loadu_si128(p + 1);  // bytes 16-31
    const __m128i c = _mm_loadu_si128(p + 2);  // bytes 32-47
    const __m128i r0 = _mm_or_si128(_mm_shuffle_epi8(a, m0), _mm_shuffle_epi8(b, n0));
    const __m128i r1 = _mm_or_si128(_mm_shuffle_epi8(_mm_alignr_epi8(b, a, 15), m1),
                                    _mm_shuffle_epi8(_mm_alignr_epi8(c, b, 15), n1));
    const __m128i r2 = _mm_or_si128(_mm_shuffle_epi8(_mm_alignr_epi8(c, b, 14), m2),
                                    _mm_shuffle_epi8(c, n2));
    _mm_storeu_si128(p, r0);
    _mm_storeu_si128(p + 1, r1);
    _mm_storeu_si128(p + 2, r2);
  }
  NSScalar::SwapBytes24(s + 3 * i, n - i);
}

void SwapBytes32Avx2(int32_t* s, int32_t n) {
  const __m256i swapMask = Swap32Mask();
  int32_t i = 0;
  for (; i + 8 <= n; i += 8) {
    __m256i* p = reinterpret_cast<__m256i*>(s + i);
    _mm256_storeu_si256(p, _mm256_shuffle_epi8(_mm256_loadu_si256(p), swapMask));
  }
  NSScalar::SwapBytes32(s + i, n - i);
}

void FloatStereoToInterleaved16Avx2(const float* l, const float* r, int16_t* d, int32_t n) {
  const __m256 scale = _mm256_set1_ps(32767.0f);
  // Per lane: four left then four right samples, to be interleaved.
  const __m256i interleave = _mm256_setr_epi8(0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14,
                                              15, 0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7,
                                              14, 15);
  int32_t i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m256i packed = _mm256_packs_epi32(Low16(TruncateScaled(l + i, scale)),
                                              Low16(TruncateScaled(r + i, scale)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + 2 * i),
                        _mm256_shuffle_epi8(packed, interleave));
  }
  NSScalar::FloatStereoToInterleaved16(l + i, r + i, d + 2 * i, n - i);
}

}  // namespace

const SKernelTable kAvx2Kernels = {
    &FloatToInt16Avx2,        &FloatToInt24Avx2,        &FloatToInt32Avx2,
    &FloatToShiftedInt32Avx2, &Int16ToFloatAvx2,        &Int24ToFloatAvx2,
    &Int32ToFloatAvx2,        &ShiftedInt32ToFloatAvx2, &SwapBytes16Avx2,
    &SwapBytes24Avx2,         &SwapBytes32Avx2,         &FloatStereoToInterleaved16Avx2,
};

}  // namespace NSFerrand
