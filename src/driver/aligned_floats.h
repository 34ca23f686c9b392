// Zeroed float buffers aligned to 16 bytes, for the conversion kernels.
#ifndef QUILLON_DRIVER_ALIGNED_FLOATS_H
#define QUILLON_DRIVER_ALIGNED_FLOATS_H

#include <cstddef>

namespace NSFerrand {

// Raises std::bad_alloc when there is no memory.
float* NewAlignedFloats(size_t count);
void FreeAlignedFloats(float* buffer);

}  // namespace NSFerrand

#endif
