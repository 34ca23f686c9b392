// Kernels and number helpers of the collection that the library itself does
// not call; plain scalar forms of their definitions.
#include <cmath>
#include <cstring>

#include "driver/kernel_paths.h"
#include "driver/kernels.h"

namespace NSFerrand {

using NSScalar::FloatSampleToInt24;
using NSScalar::FloatSampleToInt32;
using NSScalar::StoreInt24;
using NSScalar::Truncate;

namespace {

int16_t Clip16(int32_t value, bool& clipped) {
  if (value > 32767) {
    clipped = true;
    return 32767;
  }
  if (value < -32768) {
    clipped = true;
    return -32768;
  }
  return static_cast<int16_t>(value);
}

// Shared by every caller, as the tone is meant to go on from call to call.
uint16_t gSinePhase = 0;

}  // namespace

// One period of a sine of amplitude 127, each value cut towards zero.
const int8_t kTestSineTable[256] = {
    0, 3, 6, 9, 12, 15, 18, 21, 24, 27, 30, 33, 36, 39, 42, 45,
    48, 51, 54, 57, 59, 62, 65, 67, 70, 73, 75, 78, 80, 82, 85, 87,
    89, 91, 94, 96, 98, 100, 102, 103, 105, 107, 108, 110, 112, 113, 114, 116,
    117, 118, 119, 120, 121, 122, 123, 123, 124, 125, 125, 126, 126, 126, 126, 126,
    127, 126, 126, 126, 126, 126, 125, 125, 124, 123, 123, 122, 121, 120, 119, 118,
    117, 116, 114, 113, 112, 110, 108, 107, 105, 103, 102, 100, 98, 96, 94, 91,
    89, 87, 85, 82, 80, 78, 75, 73, 70, 67, 65, 62, 59, 57, 54, 51,
    48, 45, 42, 39, 36, 33, 30, 27, 24, 21, 18, 15, 12, 9, 6, 3,
    0, -3, -6, -9, -12, -15, -18, -21, -24, -27, -30, -33, -36, -39, -42, -45,
    -48, -51, -54, -57, -59, -62, -65, -67, -70, -73, -75, -78, -80, -82, -85, -87,
    -89, -91, -94, -96, -98, -100, -102, -103, -105, -107, -108, -110, -112, -113, -114, -116,
    -117, -118, -119, -120, -121, -122, -123, -123, -124, -125, -125, -126, -126, -126, -126, -126,
    -127, -126, -126, -126, -126, -126, -125, -125, -124, -123, -123, -122, -121, -120, -119, -118,
    -117, -116, -114, -113, -112, -110, -108, -107, -105, -103, -102, -100, -98, -96, -94, -91,
    -89, -87, -85, -82, -80, -78, -75, -73, -70, -67, -65, -62, -59, -57, -54, -51,
    -48, -45, -42, -39, -36, -33, -30, -27, -24, -21, -18, -15, -12, -9, -6, -3,};

void FloatStereoPairToInterleaved16(const float* left, const float* right,
                                    int16_t* destination, int32_t count) {
  // Works in units of two frames: an odd last frame is dropped.
  const int32_t frames = (count / 2) * 2;
  if (frames > 0) FloatStereoToInterleaved16(left, right, destination, frames);
}

void Interleaved16ToFloatStereoPair(const int16_t* source, float* left, float* right,
                                    int32_t count) {
  const int32_t frames = (count / 2) * 2;
  for (int32_t i = 0; i < frames; ++i) {
    left[i] = static_cast<float>(source[2 * i]) * 3.0518509447574615e-05f;
    right[i] = static_cast<float>(source[2 * i + 1]) * 3.0518509447574615e-05f;
  }
}

bool FloatStereoToInterleaved16Clipped(const float* left, const float* right,
                                       int16_t* destination, int32_t frames) {
  if (frames < 1) return false;
  bool clipped = false;
  for (int32_t i = 0; i < frames; ++i) {
    destination[2 * i] = Clip16(Truncate(left[i] * 32767.0f), clipped);
    destination[2 * i + 1] = Clip16(Truncate(right[i] * 32767.0f), clipped);
  }
  return true;
}

bool FloatToInt16Clipped(const float* source, int16_t* destination, int32_t count) {
  bool clipped = false;
  for (int32_t i = 0; i < count; ++i) {
    destination[i] = Clip16(Truncate(source[i] * 32767.0f), clipped);
  }
  return clipped;
}

bool FloatToInt24Clipped(const float* source, uint8_t* destination, int32_t count) {
  bool clipped = false;
  for (int32_t i = 0; i < count; ++i) {
    float s = source[i];
    if (s > 1.0f) {
      s = 1.0f;
      clipped = true;
    } else if (!(s >= -1.0f)) {
      s = -1.0f;
      clipped = true;
    }
    StoreInt24(destination + 3 * i, FloatSampleToInt24(s));
  }
  return clipped;
}

int32_t FloatSampleToInt32Clipped(float sample, uint8_t* clipped) {
  if (sample >= 1.0f) return 2147483647;
  if (sample >= -1.0f) return FloatSampleToInt32(sample);
  if (clipped != nullptr) *clipped = 1;
  return static_cast<int32_t>(0x80000000u);
}

bool FloatToInt32Clipped(const float* source, int32_t* destination, int32_t count) {
  // Only the negative side reports: the flag is that of the single sample.
  uint8_t clipped = 0;
  for (int32_t i = 0; i < count; ++i) {
    destination[i] = FloatSampleToInt32Clipped(source[i], &clipped);
  }
  return clipped != 0;
}

void FlipSign16(int16_t* samples, int32_t count) {
  for (int32_t i = 0; i < count; ++i) {
    samples[i] = static_cast<int16_t>(static_cast<uint16_t>(samples[i]) ^ 0x8000u);
  }
}

void Int16ToUnsigned8(const int16_t* source, uint8_t* destination, int32_t count) {
  for (int32_t i = 0; i < count; ++i) {
    destination[i] = static_cast<uint8_t>((static_cast<uint16_t>(source[i]) >> 8) ^ 0x80u);
  }
}

void ScaleInt16(int16_t* samples, int32_t count, int32_t factor) {
  if (factor == 32768) return;
  for (int32_t i = 0; i < count; ++i) {
    const uint32_t product = static_cast<uint32_t>(samples[i]) * static_cast<uint32_t>(factor);
    samples[i] = static_cast<int16_t>(static_cast<int32_t>(product) >> 15);
  }
}

uint32_t PeakInt16(const int16_t* samples, int32_t count) {
  uint32_t peak = 0;
  for (int32_t i = 0; i < count; ++i) {
    const int32_t s = samples[i];
    const uint32_t magnitude = static_cast<uint32_t>(s < 0 ? -s : s);
    if (magnitude > peak) peak = magnitude;
  }
  return peak;
}

void NormaliseInt16(int16_t* samples, int32_t count) {
  const uint32_t peak = PeakInt16(samples, count);
  if (peak != 0) ScaleInt16(samples, count, static_cast<int32_t>(1073709056u / peak));
}

void ClearInt32Buffer(int32_t* samples, int32_t count) {
  if (count > 0) std::memset(samples, 0, static_cast<size_t>(count) * sizeof(int32_t));
}

void ClearInt16Buffer(int16_t* samples, int32_t count) {
  int32_t i = 0;
  for (; i + 2 <= count; i += 2) {
    samples[i] = 0;
    samples[i + 1] = 0;
  }
  if (i < count) samples[i] = 0;
}

void FillTestRamp16(int16_t* samples, int32_t count) {
  for (int32_t i = 0; i < count; ++i) {
    samples[i] = static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(i) * 10000u));
  }
}

float FillTestRampFloat(float* samples, int32_t count) {
  float value = -0.9f;
  for (int32_t i = 0; i < count; ++i) {
    samples[i] = value;
    value += 0.1f;
    if (value > 0.9f) value = -0.9f;
  }
  return value;
}

void FillTestSaw16(int16_t* samples, int32_t count, int32_t amplitude, int32_t period) {
  if (period == 0) return;
  const int32_t step = static_cast<int32_t>(static_cast<uint32_t>(amplitude) << 16) / period;
  uint16_t accumulator = 0;
  for (int32_t i = 0; i < count; ++i) {
    samples[i] = static_cast<int16_t>(accumulator);
    accumulator = static_cast<uint16_t>(accumulator + static_cast<uint32_t>(step));
  }
}

void FillTestConstant16(int16_t* frames, int32_t frameCount) {
  for (int32_t i = 0; i < frameCount; ++i) {
    frames[2 * i] = i == 0 ? 0 : 32767;
    frames[2 * i + 1] = i == 0 ? 0 : 16383;
  }
}

void FillTestImpulse16(int16_t* samples, int32_t count) {
  for (int32_t i = 0; i < count; ++i) samples[i] = i == 1 ? 32767 : 0;
}

void FillTestSine16(int16_t* frames, int32_t frameCount) {
  for (int32_t i = 0; i < frameCount; ++i) {
    const int16_t value = static_cast<int16_t>(kTestSineTable[gSinePhase >> 8] * 256);
    frames[2 * i] = value;
    frames[2 * i + 1] = value;
    gSinePhase = static_cast<uint16_t>(gSinePhase + 400);
  }
}

void ResetTestSinePhase() { gSinePhase = 0; }

double RateRatioSemitones(double a, double b) {
  const float logRatio = std::log(static_cast<float>(a / b));
  return 12.0 * static_cast<double>(logRatio) / static_cast<double>(std::log(2.0f));
}

int32_t RateRatioCents(double a, double b) {
  return static_cast<int32_t>(RateRatioSemitones(a, b) * 100.0);
}

double TempoFromLength(double beats, double seconds) { return beats * 60.0 / seconds; }

double TempoFromFrames(double beats, double frames, double sampleRate) {
  return beats * 60.0 / (frames / sampleRate);
}

bool IndexOfRate(uint32_t rate, const uint32_t* list, int32_t count, int32_t& index) {
  for (int32_t i = 0; i < count; ++i) {
    if (list[i] == rate) {
      index = i;
      return true;
    }
  }
  return false;
}

int32_t FindBestRateIndex(uint32_t rate, const uint32_t* list, int32_t count) {
  int32_t exact = -1;
  if (IndexOfRate(rate, list, count, exact)) return exact;
  int32_t above = -1;
  int32_t greatest = -1;
  for (int32_t i = 0; i < count; ++i) {
    if (list[i] > rate && (above < 0 || list[i] < list[above])) above = i;
    if (greatest < 0 || list[i] > list[greatest]) greatest = i;
  }
  return above >= 0 ? above : greatest;
}

int32_t ExtendRateList(uint32_t rate, const uint32_t* offered, int32_t offeredCount,
                       const uint32_t* list, int32_t count, std::vector<uint32_t>& extended) {
  extended.assign(list, list + (count > 0 ? count : 0));
  const int32_t best = FindBestRateIndex(rate, offered, offeredCount);
  if (best < 0) return -1;
  int32_t index = -1;
  if (IndexOfRate(offered[best], extended.data(), static_cast<int32_t>(extended.size()), index)) {
    return index;
  }
  extended.push_back(offered[best]);
  return static_cast<int32_t>(extended.size()) - 1;
}

}  // namespace NSFerrand
