#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "driver/kernel_paths.h"
#include "driver/kernels.h"
#include "kernels/reference.h"

using namespace NSFerrand;

namespace {

float Bits(uint32_t bits) {
  float f;
  std::memcpy(&f, &bits, 4);
  return f;
}

uint32_t BitsOf(float f) {
  uint32_t bits;
  std::memcpy(&bits, &f, 4);
  return bits;
}

// Not-a-number, infinities, denormals, the edges of every wrap, and then
// random values of every kind.
std::vector<float> TestFloats(size_t randomCount) {
  std::vector<float> v = {0.0f, -0.0f, 1.0f, -1.0f, 1.5f, -1.5f, 0.5f, -0.5f, 0.99999f,
                          std::numeric_limits<float>::quiet_NaN(),
                          -std::numeric_limits<float>::quiet_NaN(), Bits(0x7FA00000u),
                          std::numeric_limits<float>::infinity(),
                          -std::numeric_limits<float>::infinity(),
                          std::numeric_limits<float>::denorm_min(),
                          -std::numeric_limits<float>::denorm_min(),
                          std::numeric_limits<float>::min(), std::numeric_limits<float>::max(),
                          -std::numeric_limits<float>::max()};
  const float edges[] = {1.0f,
                         -1.0f,
                         32768.0f / 32767.0f,
                         -32769.0f / 32767.0f,
                         65536.0f / 32767.0f,
                         8388608.0f / 8388607.0f,
                         -8388609.0f / 8388607.0f,
                         2147483648.0f / 32767.0f,
                         -2147483648.0f / 32767.0f,
                         2147483648.0f / 8388607.0f,
                         -2147483648.0f / 8388607.0f,
                         256.0f,
                         -256.0f};
  for (float edge : edges) {
    float below = edge;
    float above = edge;
    for (int k = 0; k < 8; ++k) {
      v.push_back(below);
      v.push_back(above);
      below = std::nextafter(below, -INFINITY);
      above = std::nextafter(above, INFINITY);
    }
  }
  std::mt19937 random(20261122);
  std::uniform_real_distribution<float> audio(-1.6f, 1.6f);
  for (size_t i = 0; i < randomCount; ++i) {
    v.push_back(i % 2 == 0 ? audio(random) : Bits(static_cast<uint32_t>(random())));
  }
  return v;
}

const int32_t kCounts[] = {0, 1, 3, 4, 15, 16, 17, 31, 33, 100};

class KernelPathTest : public ::testing::TestWithParam<EKernelPath> {
 protected:
  void SetUp() override {
    if (!KernelPathAvailable(GetParam())) GTEST_SKIP() << "this processor lacks the path";
    previous = ActiveKernelPath();
    ASSERT_TRUE(SelectKernelPath(GetParam()));
  }
  void TearDown() override { SelectKernelPath(previous); }
  EKernelPath previous = kKernelPathScalar;
};

// Runs `kernel` over `input` into a destination of `T` with guard bytes on
// both sides, for every count and odd offsets into both buffers, and checks
// each element against `expected`.
template <class S, class T, class Kernel, class Expected>
void CheckElementwise(const std::vector<S>& input, int perSample, Kernel kernel,
                      Expected expected) {
  constexpr unsigned char kGuard = 0xA5;
  const size_t guard = 64;
  // Whole runs over the large input.
  {
    std::vector<T> out(input.size() * perSample);
    kernel(input.data(), out.data(), static_cast<int32_t>(input.size()));
    size_t wrong = 0;
    for (size_t i = 0; i < input.size() && wrong < 5; ++i) {
      if (!expected(input[i], &out[i * perSample])) {
        ++wrong;
        ADD_FAILURE() << "sample " << i << " (input bits " << std::hex
                      << (sizeof(S) == 4 ? BitsOf(static_cast<float>(input[i])) : 0) << ")";
      }
    }
  }
  // Every count, at odd element offsets into both buffers, with the bytes
  // around the destination untouched.
  for (int32_t count : kCounts) {
    for (size_t offset : {0u, 1u, 3u}) {
      std::vector<S> source(offset);
      source.insert(source.end(), input.begin(), input.begin() + count);
      const size_t used = static_cast<size_t>(count) * perSample * sizeof(T);
      std::vector<unsigned char> raw(guard * 2 + used + offset * sizeof(T), kGuard);
      T* destination = reinterpret_cast<T*>(raw.data() + guard) + offset;
      kernel(source.data() + offset, destination, count);
      for (int32_t i = 0; i < count; ++i) {
        T element[4];
        std::memcpy(element, destination + i * perSample, sizeof(T) * perSample);
        EXPECT_TRUE(expected(input[i], element)) << "count " << count << " at " << i;
      }
      const size_t first = guard + offset * sizeof(T);
      for (size_t b = 0; b < raw.size(); ++b) {
        if (b < first || b >= first + used) {
          ASSERT_EQ(raw[b], kGuard) << "count " << count << " byte " << b;
        }
      }
    }
  }
}

}  // namespace

TEST_P(KernelPathTest, FloatToInt16) {
  CheckElementwise<float, int16_t>(
      TestFloats(2000000), 1, [](const float* s, int16_t* d, int32_t n) { FloatToInt16(s, d, n); },
      [](float s, const int16_t* d) { return d[0] == Reference::FloatToInt16(s); });
}

TEST_P(KernelPathTest, FloatToInt24) {
  CheckElementwise<float, uint8_t>(
      TestFloats(2000000), 3, [](const float* s, uint8_t* d, int32_t n) { FloatToInt24(s, d, n); },
      [](float s, const uint8_t* d) {
        const uint32_t v = static_cast<uint32_t>(Reference::FloatToInt24Value(s));
        return d[0] == (v & 0xFF) && d[1] == ((v >> 8) & 0xFF) && d[2] == ((v >> 16) & 0xFF);
      });
}

TEST_P(KernelPathTest, FloatToInt32) {
  CheckElementwise<float, int32_t>(
      TestFloats(2000000), 1, [](const float* s, int32_t* d, int32_t n) { FloatToInt32(s, d, n); },
      [](float s, const int32_t* d) { return d[0] == Reference::FloatToInt32(s); });
}

TEST_P(KernelPathTest, FloatToShiftedInt32) {
  const std::vector<float> input = TestFloats(300000);
  for (uint32_t bits : {16u, 18u, 20u, 24u, 32u, 1u}) {
    for (uint32_t order : {92u, 93u}) {
      CheckElementwise<float, int32_t>(
          input, 1,
          [&](const float* s, int32_t* d, int32_t n) { FloatToShiftedInt32(s, d, n, bits, order); },
          [&](float s, const int32_t* d) {
            return d[0] == Reference::FloatToShiftedInt32(s, bits, order);
          });
    }
  }
}

TEST_P(KernelPathTest, FloatCopyKeepsEveryBit) {
  CheckElementwise<float, float>(
      TestFloats(100000), 1, [](const float* s, float* d, int32_t n) { FloatCopy(s, d, n); },
      [](float s, const float* d) { return BitsOf(s) == BitsOf(d[0]); });
}

TEST_P(KernelPathTest, Int16ToFloatForEveryValue) {
  std::vector<int16_t> all;
  for (int v = -32768; v <= 32767; ++v) all.push_back(static_cast<int16_t>(v));
  CheckElementwise<int16_t, float>(
      all, 1, [](const int16_t* s, float* d, int32_t n) { Int16ToFloat(s, d, n); },
      [](int16_t s, const float* d) { return BitsOf(d[0]) == BitsOf(Reference::Int16ToFloat(s)); });
}

TEST_P(KernelPathTest, SwapBytes16ForEveryValue) {
  std::vector<int16_t> all;
  for (int v = -32768; v <= 32767; ++v) all.push_back(static_cast<int16_t>(v));
  for (int32_t count : {65536, 0, 1, 7, 15, 16, 17, 33}) {
    std::vector<int16_t> samples(all.begin(), all.begin() + count);
    samples.push_back(0x1234);
    SwapBytes16(samples.data(), count);
    for (int32_t i = 0; i < count; ++i) {
      const uint16_t v = static_cast<uint16_t>(all[i]);
      ASSERT_EQ(static_cast<uint16_t>(samples[i]), static_cast<uint16_t>((v >> 8) | (v << 8)));
    }
    EXPECT_EQ(samples[count], 0x1234);
  }
}

TEST_P(KernelPathTest, Int24ToFloat) {
  std::mt19937 random(7);
  std::vector<uint8_t> bytes(3 * 200003);
  for (uint8_t& b : bytes) b = static_cast<uint8_t>(random());
  const uint8_t edges[][3] = {{0, 0, 0x80}, {0xFF, 0xFF, 0x7F}, {0xFF, 0xFF, 0xFF}, {1, 0, 0}};
  std::memcpy(bytes.data(), edges, sizeof edges);
  for (int32_t count : {200003, 0, 1, 3, 4, 9, 10, 11, 15, 16, 17, 31, 33}) {
    // Exactly the bytes of `count` samples: nothing beyond may be read.
    std::vector<uint8_t> source(bytes.begin(), bytes.begin() + 3 * count);
    std::vector<float> out(static_cast<size_t>(count) + 2, 7.0f);
    Int24ToFloat(source.data(), out.data(), count);
    for (int32_t i = 0; i < count; ++i) {
      ASSERT_EQ(BitsOf(out[i]), BitsOf(Reference::Int24ToFloat(&source[3 * i]))) << i;
    }
    EXPECT_EQ(out[count], 7.0f);
  }
}

TEST_P(KernelPathTest, Int32AndShiftedInt32ToFloat) {
  std::mt19937 random(11);
  std::vector<int32_t> input = {0, 1, -1, INT32_MAX, INT32_MIN, 0x7FFFFFC0, 0x00FFFFFF, 16777217};
  for (int i = 0; i < 1000000; ++i) input.push_back(static_cast<int32_t>(random()));
  CheckElementwise<int32_t, float>(
      input, 1, [](const int32_t* s, float* d, int32_t n) { Int32ToFloat(s, d, n); },
      [](int32_t s, const float* d) { return BitsOf(d[0]) == BitsOf(Reference::Int32ToFloat(s)); });
  for (uint32_t bits : {16u, 18u, 20u, 24u, 32u}) {
    CheckElementwise<int32_t, float>(
        input, 1,
        [&](const int32_t* s, float* d, int32_t n) { ShiftedInt32ToFloat(s, d, n, bits); },
        [&](int32_t s, const float* d) {
          return BitsOf(d[0]) == BitsOf(Reference::ShiftedInt32ToFloat(s, bits));
        });
  }
}

TEST_P(KernelPathTest, SwapBytes24And32InPlace) {
  std::mt19937 random(3);
  for (int32_t count : {0, 1, 3, 4, 5, 6, 7, 15, 16, 17, 31, 33, 1001}) {
    std::vector<uint8_t> bytes(3 * count + 4);
    for (uint8_t& b : bytes) b = static_cast<uint8_t>(random());
    const std::vector<uint8_t> before = bytes;
    SwapBytes24(bytes.data(), count);
    for (int32_t i = 0; i < count; ++i) {
      ASSERT_EQ(bytes[3 * i], before[3 * i + 2]);
      ASSERT_EQ(bytes[3 * i + 1], before[3 * i + 1]);
      ASSERT_EQ(bytes[3 * i + 2], before[3 * i]);
    }
    for (size_t b = 3 * static_cast<size_t>(count); b < bytes.size(); ++b) {
      ASSERT_EQ(bytes[b], before[b]);
    }
    std::vector<int32_t> words(static_cast<size_t>(count) + 1);
    for (int32_t& w : words) w = static_cast<int32_t>(random());
    const std::vector<int32_t> original = words;
    SwapBytes32(words.data(), count);
    for (int32_t i = 0; i < count; ++i) {
      ASSERT_EQ(static_cast<uint32_t>(words[i]),
                Reference::Swap32(static_cast<uint32_t>(original[i])));
    }
    EXPECT_EQ(words[count], original[count]);
  }
}

TEST_P(KernelPathTest, FloatStereoToInterleaved16) {
  const std::vector<float> input = TestFloats(1000000);
  const std::vector<float> right(input.rbegin(), input.rend());
  for (int32_t count : {static_cast<int32_t>(input.size()), 0, 1, 3, 4, 7, 8, 9, 15, 16, 17, 33}) {
    std::vector<int16_t> out(2 * static_cast<size_t>(count) + 2, 0x5A5A);
    FloatStereoToInterleaved16(input.data(), right.data(), out.data(), count);
    for (int32_t i = 0; i < count; ++i) {
      ASSERT_EQ(out[2 * i], Reference::FloatToInt16(input[i])) << i;
      ASSERT_EQ(out[2 * i + 1], Reference::FloatToInt16(right[i])) << i;
    }
    EXPECT_EQ(out[2 * count], 0x5A5A);
    EXPECT_EQ(out[2 * count + 1], 0x5A5A);
  }
}

TEST_P(KernelPathTest, CountsBelowOneDoNothing) {
  float in[4] = {0.5f, 0.5f, 0.5f, 0.5f};
  int16_t out[4] = {9, 9, 9, 9};
  FloatToInt16(in, out, 0);
  FloatToInt16(in, out, -5);
  FloatStereoToInterleaved16(in, in, out, -1);
  EXPECT_EQ(out[0], 9);
  int32_t words[2] = {1, 2};
  FloatToShiftedInt32(in, words, 2, 0, 93);
  FloatToShiftedInt32(in, words, 2, 33, 93);
  EXPECT_EQ(words[0], 1);
}

std::string PathName(const ::testing::TestParamInfo<EKernelPath>& path) {
  static const char* const kNames[] = {"Scalar", "Sse2", "Avx2"};
  return kNames[path.param];
}

INSTANTIATE_TEST_SUITE_P(Paths, KernelPathTest,
                         ::testing::Values(kKernelPathScalar, kKernelPathSse2, kKernelPathAvx2),
                         PathName);

TEST(KernelDispatch, TheBestPathIsChosenAndEveryOtherCanBeForced) {
  const EKernelPath best = ActiveKernelPath();
  EXPECT_EQ(best, KernelPathAvailable(kKernelPathAvx2) ? kKernelPathAvx2 : kKernelPathSse2);
  EXPECT_TRUE(KernelPathAvailable(kKernelPathScalar));
  EXPECT_TRUE(KernelPathAvailable(kKernelPathSse2));
  EXPECT_TRUE(SelectKernelPath(kKernelPathScalar));
  EXPECT_EQ(ActiveKernelPath(), kKernelPathScalar);
  EXPECT_FALSE(SelectKernelPath(static_cast<EKernelPath>(7)));
  EXPECT_EQ(ActiveKernelPath(), kKernelPathScalar);
  EXPECT_TRUE(SelectKernelPath(best));
}

TEST(KernelEdges, TheDefinedValues) {
  const float in[] = {1.0f, -1.0f, 0.99999f, 1.5f};
  int16_t s16[4];
  FloatToInt16(in, s16, 4);
  EXPECT_EQ(s16[0], 32767);
  EXPECT_EQ(s16[1], -32767);
  EXPECT_EQ(s16[2], 32766);
  EXPECT_EQ(s16[3], -16386);

  const int16_t ints[] = {-32768, 32767};
  float f[2];
  Int16ToFloat(ints, f, 2);
  EXPECT_EQ(f[0], -1.0f);
  EXPECT_EQ(f[1], 0.999969482421875f);

  uint8_t b24[6];
  FloatToInt24(in, b24, 2);
  EXPECT_EQ(std::vector<uint8_t>(b24, b24 + 6), (std::vector<uint8_t>{0xFF, 0xFF, 0x7F, 0x01, 0x00, 0x80}));
  const uint8_t minus[3] = {0x00, 0x00, 0x80};
  Int24ToFloat(minus, f, 1);
  EXPECT_EQ(f[0], -1.0f);

  int32_t s32[4];
  FloatToInt32(in, s32, 4);
  EXPECT_EQ(s32[0], 2147483647);
  EXPECT_EQ(static_cast<uint32_t>(s32[3]), 0x80000000u);

  FloatToShiftedInt32(in, s32, 2, 16, kByteOrderKeep);
  EXPECT_EQ(static_cast<uint32_t>(s32[0]), 0x00007FFFu);
  EXPECT_EQ(static_cast<uint32_t>(s32[1]), 0xFFFF8000u);
  FloatToShiftedInt32(in, s32, 2, 16, kByteOrderSwap);
  EXPECT_EQ(static_cast<uint32_t>(s32[1]), 0x0080FFFFu);
  FloatToShiftedInt32(in, s32, 1, 24, kByteOrderKeep);
  EXPECT_EQ(static_cast<uint32_t>(s32[0]), 0x007FFFFFu);

  // Out at 32767, back by the power of two: not the same value.
  Int16ToFloat(s16, f, 1);
  EXPECT_EQ(f[0], 0.999969482421875f);
}

TEST(KernelEdges, ShiftedFactorsAreComputedOnce) {
  const int32_t in[] = {1 << 15, -(1 << 17), 1 << 19, -(1 << 23)};
  float out[4];
  ShiftedInt32ToFloat(in, out, 1, 16);
  EXPECT_EQ(out[0], 1.0f);
  ShiftedInt32ToFloat(in + 1, out, 1, 18);
  EXPECT_EQ(out[0], -1.0f);
  ShiftedInt32ToFloat(in + 2, out, 1, 20);
  EXPECT_EQ(out[0], 1.0f);
  ShiftedInt32ToFloat(in + 3, out, 1, 24);
  EXPECT_EQ(out[0], -1.0f);
  // The input word is not masked.
  const int32_t wide = 1 << 20;
  ShiftedInt32ToFloat(&wide, out, 1, 16);
  EXPECT_EQ(out[0], 32.0f);
}

TEST(KernelDispatch, NoPathUsesAKernelSlowerThanTheScalarLoop) {
  // Packed 24-bit samples measured slower with SSE2 than with the scalar
  // loop: that path takes the scalar loops for them.
  EXPECT_EQ(kSse2Kernels.floatToInt24, kScalarKernels.floatToInt24);
  EXPECT_EQ(kSse2Kernels.int24ToFloat, kScalarKernels.int24ToFloat);
}
