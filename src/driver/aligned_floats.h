// Zeroed float buffers aligned to 16 bytes, for the conversion kernels.
#ifndef QUILLON_DRIVER_ALIGNED_FLOATS_H
#define QUILLON_DRIVER_ALIGNED_FLOATS_H

#include <cstddef>
#include <vector>

namespace NSFerrand {

// Raises std::bad_alloc when there is no memory.
float* NewAlignedFloats(size_t count);
void FreeAlignedFloats(float* buffer);
// Adds `channels` buffers of `count` floats each; a buffer that cannot be
// kept is freed before the failure goes on.
void AddAlignedFloats(std::vector<float*>& buffers, size_t channels, size_t count);

}  // namespace NSFerrand

#endif
