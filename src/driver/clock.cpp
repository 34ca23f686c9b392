#include "driver/clock.h"

#include <exception>

#include "failure/builder.h"
#include "platform/clock.h"
#include "platform/timer_resolution.h"

namespace NSFerrand {

namespace {

constexpr uint32_t kTimerNotStarted = 99;
constexpr uint32_t kTimerStarted = 100;
uint32_t gTimerState = kTimerNotStarted;

// Gives the finest period back when the process ends.
struct CFinestTimer {
  uint32_t period = 0;
  ~CFinestTimer() {
    if (period != 0) NSPlatform::EndTimerPeriod(period);
  }
};
CFinestTimer gFinestTimer;

}  // namespace

void TimerStart() {
  if (gTimerState != kTimerNotStarted) return;
  uint32_t period = 1;
  uint32_t answer = NSPlatform::BeginTimerPeriod(period);
  while (answer == NSPlatform::kTimerNoCanDo && period < 10) {
    answer = NSPlatform::BeginTimerPeriod(++period);
  }
  if (answer != 0) NSMarlet::RaiseFailure(std::exception());
  gFinestTimer.period = period;
  gTimerState = kTimerStarted;
}

uint32_t TimerStartPeriod() { return gFinestTimer.period; }

uint32_t GetTickCount32() { return NSPlatform::MillisecondTicks(); }

uint32_t GetCoarseTickCount32() { return NSPlatform::CoarseMillisecondTicks(); }

int64_t TicksToMicroseconds(int64_t ticks) {
  return static_cast<int64_t>(static_cast<double>(ticks) * 1000.0);
}

uint64_t MillisecondsToSixtieths(uint64_t milliseconds) { return milliseconds * 6 / 100; }
uint64_t SixtiethsToMilliseconds(uint64_t sixtieths) { return sixtieths * 100 / 6; }
uint64_t SixtiethsNow() { return static_cast<uint64_t>(GetTickCount32()) * 6 / 100; }
void SleepSixtieths(uint64_t sixtieths) {
  NSPlatform::SleepMilliseconds(static_cast<uint32_t>(SixtiethsToMilliseconds(sixtieths)));
}
double MicrosecondsFromSeconds(double seconds) { return seconds * 1e6; }
double SecondsFromMicroseconds(double microseconds) { return microseconds * 1e-6; }

int32_t TickDifference(uint64_t a, uint64_t b) {
  return a >= b ? static_cast<int32_t>(a - b) : -static_cast<int32_t>(b - a);
}

CMillisecondStamp64::CMillisecondStamp64(TickSource source) : source_(source) {
  slots_[0] = SSlot{source_(), 0};
  slots_[1] = slots_[0];
}

uint64_t CMillisecondStamp64::Now() {
  const uint32_t index = index_.load(std::memory_order_acquire);
  const SSlot slot = slots_[index];
  const uint32_t now = source_();
  const uint32_t difference = now - slot.base;
  if (difference > 2147483648u) {
    bool expected = false;
    if (writing_.compare_exchange_strong(expected, true, std::memory_order_acquire)) {
      if (index_.load(std::memory_order_relaxed) == index) {
        const uint32_t base = now - 429496729u;
        slots_[1 - index] = SSlot{base, slot.accumulated + (base - slot.base)};
        index_.store(1 - index, std::memory_order_release);
      }
      writing_.store(false, std::memory_order_release);
    }
  }
  return slot.accumulated + difference;
}

}  // namespace NSFerrand
