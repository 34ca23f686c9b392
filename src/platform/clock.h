// The millisecond clock and sleeping.
#ifndef QUILLON_PLATFORM_CLOCK_H
#define QUILLON_PLATFORM_CLOCK_H

#include <cstdint>

namespace NSPlatform {

// Milliseconds since an arbitrary start, wrapping at 2^32 (timeGetTime).
uint32_t MillisecondTicks();
// The same clock, read as cheaply as the system allows: it may lag behind
// MillisecondTicks by up to one scheduler tick, never run ahead of it.
uint32_t CoarseMillisecondTicks();
void SleepMilliseconds(uint32_t milliseconds);
// Processor time the whole process has used, in seconds.
double ProcessCpuSeconds();

}  // namespace NSPlatform

#endif
