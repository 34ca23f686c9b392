// The table of kernels in use that each instruction path fills.
#ifndef QUILLON_DRIVER_KERNEL_PATHS_H
#define QUILLON_DRIVER_KERNEL_PATHS_H

#include <cstdint>

#include <emmintrin.h>

namespace NSFerrand {

struct SKernelTable {
  void (*floatToInt16)(const float*, int16_t*, int32_t);
  void (*floatToInt24)(const float*, uint8_t*, int32_t);
  void (*floatToInt32)(const float*, int32_t*, int32_t);
  void (*floatToShiftedInt32)(const float*, int32_t*, int32_t, uint32_t, uint32_t);
  void (*int16ToFloat)(const int16_t*, float*, int32_t);
  void (*int24ToFloat)(const uint8_t*, float*, int32_t);
  void (*int32ToFloat)(const int32_t*, float*, int32_t);
  void (*shiftedInt32ToFloat)(const int32_t*, float*, int32_t, uint32_t);
  void (*swapBytes16)(int16_t*, int32_t);
  void (*swapBytes24)(uint8_t*, int32_t);
  void (*swapBytes32)(int32_t*, int32_t);
  void (*floatStereoToInterleaved16)(const float*, const float*, int16_t*, int32_t);
};

extern const SKernelTable kScalarKernels;
extern const SKernelTable kSse2Kernels;
extern const SKernelTable kAvx2Kernels;

// The definitions, sample by sample; the vector paths use them for tails.
// Truncation goes through the conversion instructions, whose answer for
// not-a-number and out-of-range values (0x80000000) is the defined one; a
// C++ cast of such a value would be undefined.
// The helpers have internal linkage: each file compiles its own copy for its
// own instruction set, and the linker can never hand the AVX2 file's copy to
// a path that runs without AVX2.
namespace NSScalar {

namespace {

inline int32_t Truncate(float value) { return _mm_cvttss_si32(_mm_set_ss(value)); }
inline int32_t Truncate(double value) { return _mm_cvttsd_si32(_mm_set_sd(value)); }

inline int16_t FloatSampleToInt16(float s) {
  return static_cast<int16_t>(static_cast<uint16_t>(Truncate(s * 32767.0f)));
}
inline int32_t FloatSampleToInt24(float s) { return Truncate(s * 8388607.0f); }
inline int32_t FloatSampleToInt32(float s) {
  return Truncate(static_cast<double>(s) * 2147483647.0);
}
inline void StoreInt24(uint8_t* d, int32_t v) {
  const uint32_t u = static_cast<uint32_t>(v);
  d[0] = static_cast<uint8_t>(u);
  d[1] = static_cast<uint8_t>(u >> 8);
  d[2] = static_cast<uint8_t>(u >> 16);
}
inline int32_t LoadInt24(const uint8_t* s) {
  const uint32_t u = s[0] | (static_cast<uint32_t>(s[1]) << 8) | (static_cast<uint32_t>(s[2]) << 16);
  return static_cast<int32_t>(u << 8) >> 8;
}
inline uint32_t Swap32(uint32_t v) {
  return (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
}
inline float ShiftedFactor(uint32_t bits) {
  return 1.0f / static_cast<float>(static_cast<uint64_t>(1) << (bits - 1));
}

}  // namespace

void FloatToInt16(const float* s, int16_t* d, int32_t n);
void FloatToInt24(const float* s, uint8_t* d, int32_t n);
void FloatToInt32(const float* s, int32_t* d, int32_t n);
void FloatToShiftedInt32(const float* s, int32_t* d, int32_t n, uint32_t bits, uint32_t order);
void Int16ToFloat(const int16_t* s, float* d, int32_t n);
void Int24ToFloat(const uint8_t* s, float* d, int32_t n);
void Int32ToFloat(const int32_t* s, float* d, int32_t n);
void ShiftedInt32ToFloat(const int32_t* s, float* d, int32_t n, uint32_t bits);
void SwapBytes16(int16_t* s, int32_t n);
void SwapBytes24(uint8_t* s, int32_t n);
void SwapBytes32(int32_t* s, int32_t n);
void FloatStereoToInterleaved16(const float* l, const float* r, int16_t* d, int32_t n);

}  // namespace NSScalar

}  // namespace NSFerrand

#endif
