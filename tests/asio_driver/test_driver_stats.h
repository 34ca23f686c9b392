// What the test ASIO driver tells the tests, through an export of its own,
// and the ramp the test host renders for it to check.
#ifndef QUILLON_TESTS_ASIO_DRIVER_STATS_H
#define QUILLON_TESTS_ASIO_DRIVER_STATS_H

#include <cstdint>

struct SQuillonTestDriverStats {
  int64_t liveObjects = 0;
  int64_t mostLiveObjects = 0;
  uint64_t createdObjects = 0;
  uint64_t switches = 0;
  uint64_t outputReadyCalls = 0;
  uint64_t checkedBuffers = 0;
  uint64_t mismatches = 0;
  int64_t timeInfo = -1;  // whether the host took the time info form
};

typedef void (*QuillonTestDriverStatsFunction)(SQuillonTestDriverStats* stats);
typedef void (*QuillonTestDriverResetStatsFunction)();

// Frame f of output channel c: values across the whole range, both ends and
// beyond one included.
inline float QuillonTestRamp(int32_t frame, int32_t channel) {
  const int32_t step = (frame * 37 + channel * 11) % 2101;
  return static_cast<float>(step - 1050) / 1000.0f;
}

#endif
