#include "driver/aligned_floats.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace NSFerrand {

float* NewAlignedFloats(size_t count) {
  void* memory = nullptr;
  const size_t bytes = count * sizeof(float);
#if defined(_WIN32)
  memory = _aligned_malloc(bytes, 16);
#else
  if (posix_memalign(&memory, 16, bytes) != 0) memory = nullptr;
#endif
  if (memory == nullptr) throw std::bad_alloc();
  std::memset(memory, 0, bytes);
  return static_cast<float*>(memory);
}

void FreeAlignedFloats(float* buffer) {
#if defined(_WIN32)
  _aligned_free(buffer);
#else
  std::free(buffer);
#endif
}

void AddAlignedFloats(std::vector<float*>& buffers, size_t channels, size_t count) {
  for (size_t c = 0; c < channels; ++c) {
    float* buffer = NewAlignedFloats(count);
    try {
      buffers.push_back(buffer);
    } catch (...) {
      FreeAlignedFloats(buffer);
      throw;
    }
  }
}

}  // namespace NSFerrand
