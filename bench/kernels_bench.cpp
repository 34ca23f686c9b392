// The kernels in use beside memcpy of the same bytes and the plain scalar
// loop, in ns per sample ("ns_per_sample"), at 64, 512, 4096 and 65536 samples.
#include <benchmark/benchmark.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "driver/kernels.h"

using namespace NSFerrand;

namespace {

struct SBuffers {
  explicit SBuffers(size_t n)
      : floats(n), floats2(n), out16(2 * n), out32(n), out24(3 * n), outFloat(n), copy(16 * n) {
    std::mt19937 random(1);
    std::uniform_real_distribution<float> audio(-1.0f, 1.0f);
    for (float& f : floats) f = audio(random);
    for (float& f : floats2) f = audio(random);
    for (int32_t& i : out32) i = static_cast<int32_t>(random());
    for (int16_t& i : out16) i = static_cast<int16_t>(random());
    for (uint8_t& b : out24) b = static_cast<uint8_t>(random());
  }
  std::vector<float> floats, floats2;
  std::vector<int16_t> out16;
  std::vector<int32_t> out32;
  std::vector<uint8_t> out24;
  std::vector<float> outFloat;
  std::vector<uint8_t> copy;
};

struct SKernel {
  const char* name;
  size_t bytesPerSample;  // the larger side
  std::function<void(SBuffers&, int32_t)> run;
};

const std::vector<SKernel>& Kernels() {
  static const std::vector<SKernel> kernels = {
      {"FloatToInt16", 4, [](SBuffers& b, int32_t n) { FloatToInt16(b.floats.data(), b.out16.data(), n); }},
      {"FloatToInt24", 4, [](SBuffers& b, int32_t n) { FloatToInt24(b.floats.data(), b.out24.data(), n); }},
      {"FloatToInt32", 4, [](SBuffers& b, int32_t n) { FloatToInt32(b.floats.data(), b.out32.data(), n); }},
      {"FloatToShiftedInt32", 4,
       [](SBuffers& b, int32_t n) { FloatToShiftedInt32(b.floats.data(), b.out32.data(), n, 24, kByteOrderSwap); }},
      {"FloatCopy", 4, [](SBuffers& b, int32_t n) { FloatCopy(b.floats.data(), b.outFloat.data(), n); }},
      {"Int16ToFloat", 4, [](SBuffers& b, int32_t n) { Int16ToFloat(b.out16.data(), b.outFloat.data(), n); }},
      {"Int24ToFloat", 4, [](SBuffers& b, int32_t n) { Int24ToFloat(b.out24.data(), b.outFloat.data(), n); }},
      {"Int32ToFloat", 4, [](SBuffers& b, int32_t n) { Int32ToFloat(b.out32.data(), b.outFloat.data(), n); }},
      {"ShiftedInt32ToFloat", 4,
       [](SBuffers& b, int32_t n) { ShiftedInt32ToFloat(b.out32.data(), b.outFloat.data(), n, 20); }},
      {"SwapBytes16", 2, [](SBuffers& b, int32_t n) { SwapBytes16(b.out16.data(), n); }},
      {"SwapBytes24", 3, [](SBuffers& b, int32_t n) { SwapBytes24(b.out24.data(), n); }},
      {"SwapBytes32", 4, [](SBuffers& b, int32_t n) { SwapBytes32(b.out32.data(), n); }},
      {"FloatStereoToInterleaved16", 8,
       [](SBuffers& b, int32_t n) {
         FloatStereoToInterleaved16(b.floats.data(), b.floats2.data(), b.out16.data(), n);
       }},
  };
  return kernels;
}

void SetCounter(benchmark::State& state, int64_t samples) {
  state.counters["ns_per_sample"] = benchmark::Counter(
      static_cast<double>(samples) * 1e-9,
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void RunKernel(benchmark::State& state, const SKernel& kernel, EKernelPath path) {
  const int32_t n = static_cast<int32_t>(state.range(0));
  SBuffers buffers(static_cast<size_t>(n));
  const EKernelPath previous = ActiveKernelPath();
  if (!SelectKernelPath(path)) {
    state.SkipWithError("path not available");
    return;
  }
  for (auto _ : state) {
    kernel.run(buffers, n);
    benchmark::ClobberMemory();
  }
  SelectKernelPath(previous);
  SetCounter(state, n);
}

void RunMemcpy(benchmark::State& state, size_t bytesPerSample) {
  const int32_t n = static_cast<int32_t>(state.range(0));
  SBuffers buffers(static_cast<size_t>(n));
  std::vector<uint8_t> source(bytesPerSample * static_cast<size_t>(n), 1);
  for (auto _ : state) {
    std::memcpy(buffers.copy.data(), source.data(), source.size());
    benchmark::ClobberMemory();
  }
  SetCounter(state, n);
}

const bool kRegistered = [] {
  const char* paths[] = {"scalar", "sse2", "avx2"};
  for (const SKernel& kernel : Kernels()) {
    for (uint32_t p = 0; p < 3; ++p) {
      benchmark::RegisterBenchmark(
          (std::string(kernel.name) + "/" + paths[p]).c_str(),
          [&kernel, p](benchmark::State& state) {
            RunKernel(state, kernel, static_cast<EKernelPath>(p));
          })
          ->Arg(64)->Arg(512)->Arg(4096)->Arg(65536);
    }
    benchmark::RegisterBenchmark((std::string(kernel.name) + "/memcpy").c_str(),
                                 [&kernel](benchmark::State& state) {
                                   RunMemcpy(state, kernel.bytesPerSample);
                                 })
        ->Arg(64)->Arg(512)->Arg(4096)->Arg(65536);
  }
  return true;
}();

}  // namespace
