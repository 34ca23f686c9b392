// Measures the periodic callback thread: for periods of 1, 5, 25 and 92 ms,
// the mean interval between calls, its error and jitter, the extremes, and
// the processor time the process used while the thread waited.
//   quillon_periodic_timing [--seconds N]   (default 10 for each period)
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "driver/clock.h"
#include "driver/periodic_thread.h"
#include "failure/thread_safe_storage.h"
#include "platform/clock.h"

namespace {

struct SRecord {
  std::vector<std::chrono::steady_clock::time_point> times;
  size_t count = 0;
};

void Record(NSFerrand::CPeriodicCallbackThread* thread) {
  SRecord* record = static_cast<SRecord*>(thread->UserData());
  if (record->count < record->times.size()) {
    record->times[record->count++] = std::chrono::steady_clock::now();
  }
}

void Measure(uint32_t period, double seconds) {
  SRecord record;
  record.times.resize(static_cast<size_t>(seconds * 1000.0 / std::max(period, 1u) * 2 + 100));
  const double cpuBefore = NSPlatform::ProcessCpuSeconds();
  const auto start = std::chrono::steady_clock::now();
  {
    NSFerrand::CPeriodicCallbackThread thread(period, &Record, &record);
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  }
  const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double cpu = NSPlatform::ProcessCpuSeconds() - cpuBefore;
  std::vector<double> intervals;
  for (size_t i = 1; i < record.count; ++i) {
    intervals.push_back(
        std::chrono::duration<double, std::milli>(record.times[i] - record.times[i - 1]).count());
  }
  if (intervals.empty()) {
    std::printf("%6u ms: no calls\n", period);
    return;
  }
  double sum = 0;
  for (double v : intervals) sum += v;
  const double mean = sum / static_cast<double>(intervals.size());
  double squares = 0;
  for (double v : intervals) squares += (v - mean) * (v - mean);
  const double jitter = std::sqrt(squares / static_cast<double>(intervals.size()));
  const auto extremes = std::minmax_element(intervals.begin(), intervals.end());
  std::printf("%6u ms | %6zu calls | mean %8.3f ms | error %+7.3f ms | jitter %6.3f ms | min %7.3f"
              " | max %7.3f | cpu %5.2f %%\n",
              period, record.count, mean, mean - period, jitter, *extremes.first, *extremes.second,
              100.0 * cpu / wall);
}

}  // namespace

int main(int argc, char** argv) {
  double seconds = 10.0;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) seconds = std::atof(argv[++i]);
  }
  NSMarlet::CThreadSafeExceptionBodyStorage storage;
  NSMarlet::SetExceptionBodyStorage(&storage);
  NSFerrand::TimerStart();
  std::printf("periodic callback thread, %.0f s per period, timer period %u ms\n", seconds,
              NSFerrand::TimerStartPeriod());
  for (uint32_t period : {1u, 5u, 25u, 92u}) Measure(period, seconds);
  NSMarlet::SetExceptionBodyStorage(nullptr);
  return 0;
}
