// Every wait of the system that may hold up the calling thread is told to
// an observer, which only tests install: it is how they prove that audio
// threads never wait for a lock, an event or another thread. A streaming
// thread's wait for its next period is the one wait an audio thread makes,
// and it is told apart.
#ifndef QUILLON_PLATFORM_WAIT_NOTICE_H
#define QUILLON_PLATFORM_WAIT_NOTICE_H

#include <atomic>
#include <cstdint>

namespace NSPlatform {

enum EWaitNotice : uint32_t {
  kNoticeBlockingWait,  // a wait of any length but 0 begins
  kNoticePeriodBegins,  // a streaming thread waits for its next period
  kNoticePeriodEnds
};
typedef void (*WaitObserver)(EWaitNotice notice);

extern std::atomic<WaitObserver> waitObserver;

// Null removes it. Set before the threads to watch start.
void SetWaitObserver(WaitObserver observer);

// One relaxed load while nobody watches.
inline void NoticeWait(EWaitNotice notice) {
  const WaitObserver observer = waitObserver.load(std::memory_order_relaxed);
  if (observer != nullptr) observer(notice);
}

// Brackets a streaming thread's wait for its next period.
class CPeriodWait {
 public:
  CPeriodWait() { NoticeWait(kNoticePeriodBegins); }
  ~CPeriodWait() { NoticeWait(kNoticePeriodEnds); }
  CPeriodWait(const CPeriodWait&) = delete;
  CPeriodWait& operator=(const CPeriodWait&) = delete;
};

}  // namespace NSPlatform

#endif
