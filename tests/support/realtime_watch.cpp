#include "support/realtime_watch.h"

#include "platform/wait_notice.h"

namespace {

thread_local uint64_t tWaits = 0;
thread_local uint32_t tPeriodDepth = 0;
std::atomic<uint64_t> gPeriodWaits{0};
std::atomic<uint64_t> gAllocationsAtPeriod{0};

void Observe(NSPlatform::EWaitNotice notice) {
  switch (notice) {
    case NSPlatform::kNoticeBlockingWait:
      if (tPeriodDepth == 0) ++tWaits;
      break;
    case NSPlatform::kNoticePeriodBegins:
      ++tPeriodDepth;
      gAllocationsAtPeriod.store(AllocationCounter::OnThisThread());
      gPeriodWaits.fetch_add(1);
      break;
    case NSPlatform::kNoticePeriodEnds: --tPeriodDepth; break;
  }
}

}  // namespace

void RealtimeWatch::Install() { NSPlatform::SetWaitObserver(&Observe); }

uint64_t RealtimeWatch::BlockingWaitsOnThisThread() { return tWaits; }

uint64_t RealtimeWatch::PeriodWaitsBegun() { return gPeriodWaits.load(); }

uint64_t RealtimeWatch::AllocationsAtLatestPeriodWait() { return gAllocationsAtPeriod.load(); }
