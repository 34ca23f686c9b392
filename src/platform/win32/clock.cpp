#include "platform/clock.h"
#include "platform/wait_notice.h"

#include <windows.h>
#include <mmsystem.h>

namespace NSPlatform {

uint32_t MillisecondTicks() { return timeGetTime(); }

// timeGetTime is a read of shared memory already.
uint32_t CoarseMillisecondTicks() { return timeGetTime(); }
void SleepMilliseconds(uint32_t milliseconds) {
  if (milliseconds != 0) NoticeWait(kNoticeBlockingWait);
  Sleep(milliseconds);
}

double ProcessCpuSeconds() {
  FILETIME created, exited, kernel, user;
  if (!GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user)) return 0.0;
  auto seconds = [](const FILETIME& t) {
    return static_cast<double>((static_cast<uint64_t>(t.dwHighDateTime) << 32) | t.dwLowDateTime) *
           1e-7;
  };
  return seconds(kernel) + seconds(user);
}

}  // namespace NSPlatform
