#include "support/realtime_watch.h"

#include "platform/wait_notice.h"

namespace {

thread_local uint64_t tWaits = 0;
thread_local uint32_t tPeriodDepth = 0;

void Observe(NSPlatform::EWaitNotice notice) {
  switch (notice) {
    case NSPlatform::kNoticeBlockingWait:
      if (tPeriodDepth == 0) ++tWaits;
      break;
    case NSPlatform::kNoticePeriodBegins: ++tPeriodDepth; break;
    case NSPlatform::kNoticePeriodEnds: --tPeriodDepth; break;
  }
}

}  // namespace

void RealtimeWatch::Install() { NSPlatform::SetWaitObserver(&Observe); }

uint64_t RealtimeWatch::BlockingWaitsOnThisThread() { return tWaits; }
