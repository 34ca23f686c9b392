#include "platform/clock.h"
#include "platform/wait_notice.h"

#include <time.h>

#include <cerrno>

namespace NSPlatform {

uint32_t MillisecondTicks() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  const uint64_t ms = static_cast<uint64_t>(t.tv_sec) * 1000u + static_cast<uint64_t>(t.tv_nsec) / 1000000u;
  return static_cast<uint32_t>(ms);
}

uint32_t CoarseMillisecondTicks() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &t);
  const uint64_t ms = static_cast<uint64_t>(t.tv_sec) * 1000u + static_cast<uint64_t>(t.tv_nsec) / 1000000u;
  return static_cast<uint32_t>(ms);
}

void SleepMilliseconds(uint32_t milliseconds) {
  if (milliseconds != 0) NoticeWait(kNoticeBlockingWait);
  timespec wait = {static_cast<time_t>(milliseconds / 1000),
                   static_cast<long>(milliseconds % 1000) * 1000000L};
  while (nanosleep(&wait, &wait) != 0 && errno == EINTR) {
  }
}

double ProcessCpuSeconds() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

}  // namespace NSPlatform
