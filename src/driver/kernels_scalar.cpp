// The kernels as defined, one sample at a time.
#include <cstring>

#include "driver/kernel_paths.h"

namespace NSFerrand {
namespace NSScalar {

void FloatToInt16(const float* s, int16_t* d, int32_t n) {
  for (int32_t i = 0; i < n; ++i) d[i] = FloatSampleToInt16(s[i]);
}

void FloatToInt24(const float* s, uint8_t* d, int32_t n) {
  for (int32_t i = 0; i < n; ++i) StoreInt24(d + 3 * i, FloatSampleToInt24(s[i]));
}

void FloatToInt32(const float* s, int32_t* d, int32_t n) {
  for (int32_t i = 0; i < n; ++i) d[i] = FloatSampleToInt32(s[i]);
}

void FloatToShiftedInt32(const float* s, int32_t* d, int32_t n, uint32_t bits, uint32_t order) {
  const int shift = static_cast<int>(32 - bits);
  for (int32_t i = 0; i < n; ++i) {
    const uint32_t v = static_cast<uint32_t>(FloatSampleToInt32(s[i]) >> shift);
    d[i] = static_cast<int32_t>(order == 92 ? Swap32(v) : v);
  }
}

void Int16ToFloat(const int16_t* s, float* d, int32_t n) {
  for (int32_t i = 0; i < n; ++i) d[i] = static_cast<float>(s[i]) * 3.0517578125e-05f;
}

void Int24ToFloat(const uint8_t* s, float* d, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    d[i] = static_cast<float>(LoadInt24(s + 3 * i)) * 1.1920928955078125e-07f;
  }
}

void Int32ToFloat(const int32_t* s, float* d, int32_t n) {
  // The same as the double product rounded to single: the scale is a power
  // of two, exact either way.
  for (int32_t i = 0; i < n; ++i) d[i] = static_cast<float>(s[i]) * 4.656612873077393e-10f;
}

void ShiftedInt32ToFloat(const int32_t* s, float* d, int32_t n, uint32_t bits) {
  const float factor = ShiftedFactor(bits);
  for (int32_t i = 0; i < n; ++i) d[i] = static_cast<float>(s[i]) * factor;
}

void SwapBytes16(int16_t* s, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    const uint16_t v = static_cast<uint16_t>(s[i]);
    s[i] = static_cast<int16_t>(static_cast<uint16_t>((v >> 8) | (v << 8)));
  }
}

void SwapBytes24(uint8_t* s, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    const uint8_t first = s[3 * i];
    s[3 * i] = s[3 * i + 2];
    s[3 * i + 2] = first;
  }
}

void SwapBytes32(int32_t* s, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    s[i] = static_cast<int32_t>(Swap32(static_cast<uint32_t>(s[i])));
  }
}

void FloatStereoToInterleaved16(const float* l, const float* r, int16_t* d, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    d[2 * i] = FloatSampleToInt16(l[i]);
    d[2 * i + 1] = FloatSampleToInt16(r[i]);
  }
}

}  // namespace NSScalar

const SKernelTable kScalarKernels = {
    &NSScalar::FloatToInt16,        &NSScalar::FloatToInt24,
    &NSScalar::FloatToInt32,        &NSScalar::FloatToShiftedInt32,
    &NSScalar::Int16ToFloat,        &NSScalar::Int24ToFloat,
    &NSScalar::Int32ToFloat,        &NSScalar::ShiftedInt32ToFloat,
    &NSScalar::SwapBytes16,         &NSScalar::SwapBytes24,
    &NSScalar::SwapBytes32,         &NSScalar::FloatStereoToInterleaved16,
};

}  // namespace NSFerrand
