// The kernels in use dispatch to the best instruction path of the
// processor, chosen once at load.
#include "driver/kernels.h"

#include <atomic>
#include <cstring>

#include "driver/kernel_paths.h"

namespace NSFerrand {

namespace {

bool ProcessorHasAvx2() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") != 0;
}

const SKernelTable* TableOf(EKernelPath path) {
  switch (path) {
    case kKernelPathScalar: return &kScalarKernels;
    case kKernelPathSse2: return &kSse2Kernels;
    case kKernelPathAvx2: return ProcessorHasAvx2() ? &kAvx2Kernels : nullptr;
  }
  return nullptr;
}

EKernelPath BestPath() { return ProcessorHasAvx2() ? kKernelPathAvx2 : kKernelPathSse2; }

// Read on audio threads: a plain atomic load, no lock, set before any use.
std::atomic<EKernelPath> gPath{BestPath()};
std::atomic<const SKernelTable*> gKernels{TableOf(gPath.load())};

inline const SKernelTable& Kernels() { return *gKernels.load(std::memory_order_relaxed); }

inline bool ValidBits(uint32_t bits) { return bits >= 1 && bits <= 32; }

}  // namespace

bool KernelPathAvailable(EKernelPath path) { return TableOf(path) != nullptr; }

EKernelPath ActiveKernelPath() { return gPath.load(); }

bool SelectKernelPath(EKernelPath path) {
  const SKernelTable* table = TableOf(path);
  if (table == nullptr) return false;
  gKernels.store(table);
  gPath.store(path);
  return true;
}

void FloatToInt16(const float* source, int16_t* destination, int32_t count) {
  if (count > 0) Kernels().floatToInt16(source, destination, count);
}

void FloatToInt24(const float* source, uint8_t* destination, int32_t count) {
  if (count > 0) Kernels().floatToInt24(source, destination, count);
}

void FloatToInt32(const float* source, int32_t* destination, int32_t count) {
  if (count > 0) Kernels().floatToInt32(source, destination, count);
}

void FloatToShiftedInt32(const float* source, int32_t* destination, int32_t count,
                         uint32_t bits, uint32_t order) {
  if (count > 0 && ValidBits(bits)) {
    Kernels().floatToShiftedInt32(source, destination, count, bits, order);
  }
}

void FloatCopy(const float* source, float* destination, int32_t count) {
  // Words, not floats: signalling values pass untouched.
  if (count > 0) std::memcpy(destination, source, static_cast<size_t>(count) * sizeof(float));
}

void Int16ToFloat(const int16_t* source, float* destination, int32_t count) {
  if (count > 0) Kernels().int16ToFloat(source, destination, count);
}

void Int24ToFloat(const uint8_t* source, float* destination, int32_t count) {
  if (count > 0) Kernels().int24ToFloat(source, destination, count);
}

void Int32ToFloat(const int32_t* source, float* destination, int32_t count) {
  if (count > 0) Kernels().int32ToFloat(source, destination, count);
}

void ShiftedInt32ToFloat(const int32_t* source, float* destination, int32_t count,
                         uint32_t bits) {
  if (count > 0 && ValidBits(bits)) Kernels().shiftedInt32ToFloat(source, destination, count, bits);
}

void SwapBytes16(int16_t* samples, int32_t count) {
  if (count > 0) Kernels().swapBytes16(samples, count);
}

void SwapBytes24(uint8_t* samples, int32_t count) {
  if (count > 0) Kernels().swapBytes24(samples, count);
}

void SwapBytes32(int32_t* samples, int32_t count) {
  if (count > 0) Kernels().swapBytes32(samples, count);
}

void FloatStereoToInterleaved16(const float* left, const float* right, int16_t* destination,
                                int32_t frames) {
  if (frames > 0) Kernels().floatStereoToInterleaved16(left, right, destination, frames);
}

}  // namespace NSFerrand
