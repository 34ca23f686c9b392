#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "driver/kernels.h"
#include "kernels/reference.h"

using namespace NSFerrand;

TEST(ClippedKernels, FloatToInt32ClippedReportsOnlyTheNegativeSide) {
  const float in[] = {2.0f, 1.0f, -2.0f, 0.5f};
  int32_t out[4];
  EXPECT_FALSE(FloatToInt32Clipped(in, out, 2));
  EXPECT_EQ(out[0], 2147483647);
  EXPECT_EQ(out[1], 2147483647);
  EXPECT_TRUE(FloatToInt32Clipped(in + 2, out, 2));
  EXPECT_EQ(out[0], INT32_MIN);
  EXPECT_EQ(out[1], Reference::FloatToInt32(0.5f));
  uint8_t flag = 0;
  EXPECT_EQ(FloatSampleToInt32Clipped(-1.0f, &flag), -2147483647);
  EXPECT_EQ(flag, 0);
  EXPECT_EQ(FloatSampleToInt32Clipped(std::nanf(""), &flag), INT32_MIN);
  EXPECT_EQ(flag, 1);
}

TEST(ClippedKernels, Int16AndStereoLimits) {
  const float in[] = {2.0f, -2.0f, 0.5f, std::numeric_limits<float>::infinity()};
  int16_t out[8];
  EXPECT_TRUE(FloatToInt16Clipped(in, out, 2));
  EXPECT_EQ(out[0], 32767);
  EXPECT_EQ(out[1], -32768);
  EXPECT_FALSE(FloatToInt16Clipped(in + 2, out, 1));
  EXPECT_EQ(out[0], 16383);
  EXPECT_FALSE(FloatStereoToInterleaved16Clipped(in, in, out, 0));
  EXPECT_TRUE(FloatStereoToInterleaved16Clipped(in, in + 1, out, 2));
  EXPECT_EQ(out[0], 32767);
  EXPECT_EQ(out[1], -32768);
  EXPECT_EQ(out[2], -32768);
  EXPECT_EQ(out[3], 16383);
}

TEST(ClippedKernels, Int24LimitsTheFloatFirst) {
  const float in[] = {1.5f, -1.5f, std::nanf(""), 0.25f};
  uint8_t out[12];
  EXPECT_TRUE(FloatToInt24Clipped(in, out, 3));
  EXPECT_EQ(std::vector<uint8_t>(out, out + 9),
            (std::vector<uint8_t>{0xFF, 0xFF, 0x7F, 0x01, 0x00, 0x80, 0x01, 0x00, 0x80}));
  EXPECT_FALSE(FloatToInt24Clipped(in + 3, out, 1));
}

TEST(PairKernels, WorkInUnitsOfTwoFrames) {
  const float left[] = {1.0f, -1.0f, 0.5f};
  const float right[] = {0.0f, 0.25f, 0.75f};
  int16_t out[6] = {1, 1, 1, 1, 7, 7};
  FloatStereoPairToInterleaved16(left, right, out, 3);
  EXPECT_EQ(out[0], 32767);
  EXPECT_EQ(out[1], 0);
  EXPECT_EQ(out[2], -32767);
  EXPECT_EQ(out[3], 8191);
  EXPECT_EQ(out[4], 7);  // the odd last frame is dropped
  float l[3] = {9, 9, 9};
  float r[3] = {9, 9, 9};
  const int16_t frames[] = {32767, -32767, 0, 16384, 5, 5};
  Interleaved16ToFloatStereoPair(frames, l, r, 3);
  EXPECT_EQ(l[0], 32767.0f * 3.0518509447574615e-05f);
  EXPECT_EQ(r[0], -32767.0f * 3.0518509447574615e-05f);
  EXPECT_EQ(l[1], 0.0f);
  EXPECT_EQ(l[2], 9.0f);
}

TEST(IntegerKernels, SignsBytesScalesAndPeaks) {
  int16_t s[] = {0, -32768, 32767, 0x1234};
  FlipSign16(s, 4);
  EXPECT_EQ(static_cast<uint16_t>(s[0]), 0x8000);
  EXPECT_EQ(s[1], 0);
  EXPECT_EQ(s[2], -1);
  uint8_t bytes[4];
  const int16_t source[] = {0, -32768, 32767, 0x1234};
  Int16ToUnsigned8(source, bytes, 4);
  EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 4), (std::vector<uint8_t>{0x80, 0x00, 0xFF, 0x92}));

  int16_t scaled[] = {1000, -1000, 32767};
  ScaleInt16(scaled, 3, 32768);
  EXPECT_EQ(scaled[0], 1000);
  ScaleInt16(scaled, 3, 16384);
  EXPECT_EQ(scaled[0], 500);
  EXPECT_EQ(scaled[1], -500);
  EXPECT_EQ(scaled[2], 16383);

  EXPECT_EQ(PeakInt16(source, 4), 32768u);
  EXPECT_EQ(PeakInt16(source, 0), 0u);
  int16_t zeros[3] = {0, 0, 0};
  NormaliseInt16(zeros, 3);
  EXPECT_EQ(zeros[0], 0);
  int16_t quiet[] = {100, -200};
  NormaliseInt16(quiet, 2);
  // Scaled by 1073709056 / 200 = 5368545; the shift rounds -200 down to -32767.
  EXPECT_EQ(quiet[1], -32767);
  EXPECT_EQ(quiet[0], 16383);
}

TEST(IntegerKernels, Clearing) {
  int32_t words[3] = {1, 2, 3};
  ClearInt32Buffer(words, 2);
  EXPECT_EQ(words[1], 0);
  EXPECT_EQ(words[2], 3);
  int16_t halves[4] = {1, 2, 3, 4};
  ClearInt16Buffer(halves, 3);
  EXPECT_EQ(halves[2], 0);
  EXPECT_EQ(halves[3], 4);
}

TEST(TestSignals, RampsSawConstantImpulse) {
  int16_t ramp[5];
  FillTestRamp16(ramp, 5);
  EXPECT_EQ(ramp[3], 30000);
  EXPECT_EQ(ramp[4], static_cast<int16_t>(40000 - 65536));
  float fr[20];
  const float next = FillTestRampFloat(fr, 20);
  EXPECT_EQ(fr[0], -0.9f);
  EXPECT_EQ(fr[1], -0.9f + 0.1f);
  int back = -1;
  for (int i = 1; i < 20; ++i) {
    if (fr[i] == -0.9f) {
      back = i;
      break;
    }
  }
  EXPECT_GT(back, 15);
  EXPECT_LT(back, 20);
  EXPECT_GE(next, -0.9f);

  int16_t saw[4];
  FillTestSaw16(saw, 4, 1, 4);  // step (1 << 16) / 4 = 16384
  EXPECT_EQ(saw[0], 0);
  EXPECT_EQ(saw[1], 16384);
  EXPECT_EQ(saw[2], -32768);
  EXPECT_EQ(saw[3], -16384);

  int16_t constant[6];
  FillTestConstant16(constant, 3);
  EXPECT_EQ(std::vector<int16_t>(constant, constant + 6),
            (std::vector<int16_t>{0, 0, 32767, 16383, 32767, 16383}));
  int16_t impulse[3] = {5, 5, 5};
  FillTestImpulse16(impulse, 3);
  EXPECT_EQ(std::vector<int16_t>(impulse, impulse + 3), (std::vector<int16_t>{0, 32767, 0}));
}

TEST(TestSignals, SineTableAndItsSharedPhase) {
  EXPECT_EQ(std::vector<int>(kTestSineTable, kTestSineTable + 8),
            (std::vector<int>{0, 3, 6, 9, 12, 15, 18, 21}));
  EXPECT_EQ(kTestSineTable[64], 127);
  EXPECT_EQ(kTestSineTable[192], -127);
  ResetTestSinePhase();
  int16_t frames[4];
  FillTestSine16(frames, 2);
  EXPECT_EQ(frames[0], 0);
  EXPECT_EQ(frames[1], 0);
  EXPECT_EQ(frames[2], 3 * 256);  // phase 400: entry 1
  EXPECT_EQ(frames[3], 3 * 256);
  FillTestSine16(frames, 1);  // phase 800: entry 3
  EXPECT_EQ(frames[0], 9 * 256);
  ResetTestSinePhase();
}

TEST(NumberHelpers, RatesAndTempo) {
  EXPECT_DOUBLE_EQ(RateRatioSemitones(88200, 44100), 12.0);
  EXPECT_EQ(RateRatioCents(88200, 44100), 1200);
  EXPECT_EQ(RateRatioCents(44100, 48000), static_cast<int32_t>(RateRatioSemitones(44100, 48000) * 100));
  EXPECT_EQ(RateRatioCents(44100, 48000), -146);  // -1.467 semitones
  EXPECT_DOUBLE_EQ(TempoFromLength(8, 4.0), 120.0);
  EXPECT_DOUBLE_EQ(TempoFromFrames(4, 88200, 44100), 120.0);

  const uint32_t rates[] = {48000, 44100, 96000, 88200};
  int32_t index = -1;
  EXPECT_TRUE(IndexOfRate(96000, rates, 4, index));
  EXPECT_EQ(index, 2);
  EXPECT_FALSE(IndexOfRate(22050, rates, 4, index));
  EXPECT_EQ(FindBestRateIndex(44100, rates, 4), 1);
  EXPECT_EQ(FindBestRateIndex(50000, rates, 4), 3);   // least above
  EXPECT_EQ(FindBestRateIndex(192000, rates, 4), 2);  // greatest
  EXPECT_EQ(FindBestRateIndex(44100, rates, 0), -1);

  std::vector<uint32_t> extended;
  const uint32_t own[] = {44100, 48000};
  EXPECT_EQ(ExtendRateList(90000, rates, 4, own, 2, extended), 2);
  EXPECT_EQ(extended, (std::vector<uint32_t>{44100, 48000, 96000}));
  EXPECT_EQ(ExtendRateList(48000, rates, 4, own, 2, extended), 1);
  EXPECT_EQ(extended, (std::vector<uint32_t>{44100, 48000}));
}
