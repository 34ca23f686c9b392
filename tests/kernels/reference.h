// The kernels' definitions written out plainly, without the conversion
// instructions the library uses: the reference every path is held to.
#ifndef QUILLON_TESTS_KERNELS_REFERENCE_H
#define QUILLON_TESTS_KERNELS_REFERENCE_H

#include <cmath>
#include <cstdint>

namespace Reference {

// Truncation toward zero; outside the 32-bit range, and for not-a-number,
// the value 0x80000000.
inline int32_t Truncate(double product) {
  if (!(product > -2147483649.0 && product < 2147483648.0)) return INT32_MIN;
  return static_cast<int32_t>(product);
}

inline int32_t ShiftRight(int32_t v, int s) { return v < 0 ? ~(~v >> s) : v >> s; }

inline uint32_t Swap32(uint32_t v) {
  return ((v & 0xFF) << 24) | ((v & 0xFF00) << 8) | ((v >> 8) & 0xFF00) | (v >> 24);
}

inline int16_t FloatToInt16(float s) {
  const float product = s * 32767.0f;
  return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(Truncate(product))));
}

inline int32_t FloatToInt24Value(float s) { return Truncate(s * 8388607.0f); }

inline int32_t FloatToInt32(float s) { return Truncate(static_cast<double>(s) * 2147483647.0); }

inline int32_t FloatToShiftedInt32(float s, uint32_t bits, uint32_t order) {
  const uint32_t v = static_cast<uint32_t>(ShiftRight(FloatToInt32(s), static_cast<int>(32 - bits)));
  return static_cast<int32_t>(order == 92 ? Swap32(v) : v);
}

inline float Int16ToFloat(int16_t s) { return static_cast<float>(s) * 3.0517578125e-05f; }

inline float Int24ToFloat(const uint8_t* b) {
  int32_t v = b[0] | (b[1] << 8) | (b[2] << 16);
  if (v & 0x800000) v -= 0x1000000;
  return static_cast<float>(v) * 1.1920928955078125e-07f;
}

inline float Int32ToFloat(int32_t s) {
  return static_cast<float>(static_cast<double>(s) * std::ldexp(1.0, -31));
}

inline float ShiftedInt32ToFloat(int32_t s, uint32_t bits) {
  const float factor = 1.0f / static_cast<float>(std::ldexp(1.0, static_cast<int>(bits) - 1));
  return static_cast<float>(s) * factor;
}

}  // namespace Reference

#endif
