// Sample conversion kernels: plain functions over pointers and counts. No
// state (but the test sine's phase), no allocation, no failure; safe on a
// real-time thread. A count of 0 or below does nothing. Out-of-range input
// wraps rather than clips in the unclipped forms, by definition.
#ifndef QUILLON_DRIVER_KERNELS_H
#define QUILLON_DRIVER_KERNELS_H

#include <cstdint>
#include <vector>

namespace NSFerrand {

// The `order` of FloatToShiftedInt32.
enum : uint32_t { kByteOrderSwap = 92, kByteOrderKeep = 93 };

// Kernels in use. 24-bit samples are three bytes, low first, packed.
void FloatToInt16(const float* source, int16_t* destination, int32_t count);
void FloatToInt24(const float* source, uint8_t* destination, int32_t count);
void FloatToInt32(const float* source, int32_t* destination, int32_t count);
// `bits` 1 to 32 (16, 18, 20 or 24 in use); others do nothing.
void FloatToShiftedInt32(const float* source, int32_t* destination, int32_t count,
                         uint32_t bits, uint32_t order);
void FloatCopy(const float* source, float* destination, int32_t count);
void Int16ToFloat(const int16_t* source, float* destination, int32_t count);
void Int24ToFloat(const uint8_t* source, float* destination, int32_t count);
void Int32ToFloat(const int32_t* source, float* destination, int32_t count);
// `bits` 1 to 32; others do nothing.
void ShiftedInt32ToFloat(const int32_t* source, float* destination, int32_t count,
                         uint32_t bits);
void SwapBytes16(int16_t* samples, int32_t count);
void SwapBytes24(uint8_t* samples, int32_t count);
void SwapBytes32(int32_t* samples, int32_t count);
void FloatStereoToInterleaved16(const float* left, const float* right, int16_t* destination,
                                int32_t frames);

// The instruction paths of the kernels in use; each gives the same results.
enum EKernelPath : uint32_t { kKernelPathScalar = 0, kKernelPathSse2 = 1, kKernelPathAvx2 = 2 };
bool KernelPathAvailable(EKernelPath path);
EKernelPath ActiveKernelPath();
// The best path of this processor is chosen at load; tests force others.
// False, changing nothing, when the processor lacks the path.
bool SelectKernelPath(EKernelPath path);

// Kernels of the same collection that nothing in the library calls.
void FloatStereoPairToInterleaved16(const float* left, const float* right,
                                    int16_t* destination, int32_t count);
void Interleaved16ToFloatStereoPair(const int16_t* source, float* left, float* right,
                                    int32_t count);
bool FloatStereoToInterleaved16Clipped(const float* left, const float* right,
                                       int16_t* destination, int32_t frames);
bool FloatToInt16Clipped(const float* source, int16_t* destination, int32_t count);
bool FloatToInt24Clipped(const float* source, uint8_t* destination, int32_t count);
int32_t FloatSampleToInt32Clipped(float sample, uint8_t* clipped);
bool FloatToInt32Clipped(const float* source, int32_t* destination, int32_t count);
void FlipSign16(int16_t* samples, int32_t count);
void Int16ToUnsigned8(const int16_t* source, uint8_t* destination, int32_t count);
void ScaleInt16(int16_t* samples, int32_t count, int32_t factor);
uint32_t PeakInt16(const int16_t* samples, int32_t count);
void NormaliseInt16(int16_t* samples, int32_t count);
void ClearInt32Buffer(int32_t* samples, int32_t count);
void ClearInt16Buffer(int16_t* samples, int32_t count);
void FillTestRamp16(int16_t* samples, int32_t count);
float FillTestRampFloat(float* samples, int32_t count);
void FillTestSaw16(int16_t* samples, int32_t count, int32_t amplitude, int32_t period);
void FillTestConstant16(int16_t* frames, int32_t frameCount);
void FillTestImpulse16(int16_t* samples, int32_t count);
// Stereo frames of a test tone; the phase goes on from call to call.
void FillTestSine16(int16_t* frames, int32_t frameCount);
void ResetTestSinePhase();
// One period of the test tone's sine, amplitude 127.
extern const int8_t kTestSineTable[256];

// Number helpers of the same collection.
double RateRatioSemitones(double a, double b);
int32_t RateRatioCents(double a, double b);
double TempoFromLength(double beats, double seconds);
double TempoFromFrames(double beats, double frames, double sampleRate);
bool IndexOfRate(uint32_t rate, const uint32_t* list, int32_t count, int32_t& index);
// The exact entry, else the least above `rate`, else the greatest; -1 for none.
int32_t FindBestRateIndex(uint32_t rate, const uint32_t* list, int32_t count);
// `extended` becomes a copy of `list`, with the best match of `rate` in
// `offered` appended when it is missing; gives that match's index in it.
int32_t ExtendRateList(uint32_t rate, const uint32_t* offered, int32_t offeredCount,
                       const uint32_t* list, int32_t count, std::vector<uint32_t>& extended);

}  // namespace NSFerrand

#endif
