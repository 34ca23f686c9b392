// The driver layer's one clock, in milliseconds, and its helpers.
#ifndef QUILLON_DRIVER_CLOCK_H
#define QUILLON_DRIVER_CLOCK_H

#include <atomic>
#include <cstdint>

namespace NSFerrand {

// Once per process: asks for the finest system timer (1 ms, or the finest
// below 10 it grants), kept until the process ends. Later calls do nothing.
void TimerStart();
// The period TimerStart obtained; 0 before.
uint32_t TimerStartPeriod();

// Milliseconds since an arbitrary start, wrapping at 2^32.
uint32_t GetTickCount32();
// The same clock at a few nanoseconds a read, for stamps on the audio path:
// it may lag by a scheduler tick, which no comparison of seconds notices.
uint32_t GetCoarseTickCount32();

int64_t TicksToMicroseconds(int64_t ticks);
uint64_t MillisecondsToSixtieths(uint64_t milliseconds);
uint64_t SixtiethsToMilliseconds(uint64_t sixtieths);
uint64_t SixtiethsNow();
void SleepSixtieths(uint64_t sixtieths);
double MicrosecondsFromSeconds(double seconds);
double SecondsFromMicroseconds(double microseconds);
// a - b of two stamps as a signed 32-bit difference.
int32_t TickDifference(uint64_t a, uint64_t b);

// A 64-bit millisecond stamp over the 32-bit clock. Readers take no lock:
// of two slots, an index names the valid one; a reader that finds its slot
// more than 2^31 ms old writes the other and flips the index, if it can take
// the writer's lock at once.
class CMillisecondStamp64 {
 public:
  typedef uint32_t (*TickSource)();
  explicit CMillisecondStamp64(TickSource source = &GetTickCount32);
  uint64_t Now();

 private:
  struct SSlot {
    uint32_t base;
    uint64_t accumulated;
  };
  TickSource source_;
  SSlot slots_[2];
  std::atomic<uint32_t> index_{0};
  std::atomic<bool> writing_{false};
};

}  // namespace NSFerrand

#endif
