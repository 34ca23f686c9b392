#include "driver/periodic_thread.h"

#include "driver/clock.h"
#include "failure/builder.h"
#include "platform/clock.h"

namespace NSFerrand {

CPeriodicCallbackThread::CPeriodicCallbackThread(uint32_t periodMs, Callback callback,
                                                 void* userData)
    : stopMutex_(true),
      lastTick_(GetTickCount32() - periodMs),
      periodMs_(periodMs),
      userData_(userData),
      callback_(callback) {
  thread_ = new CTimedThread(this, kPriorityTimeCritical, "CPeriodicCallbackThread");
}

CPeriodicCallbackThread::~CPeriodicCallbackThread() {
  try {
    stopMutex_.Unlock();
  } catch (...) {
  }
  thread_->Join();
  delete thread_;
}

void CPeriodicCallbackThread::Run() {
  NSPlatform::SRealtimeClass realtime;
  if (NSPlatform::EnterRealtimeClass(realtime) == NSPlatform::kRealtimeFailed) {
    NSPlatform::LeaveRealtimeClass(realtime);
    NSMarlet::RaiseFailure(std::exception());
  }
  try {
    Loop();
  } catch (...) {
    // A raising callback ends the thread, quietly.
  }
  NSPlatform::LeaveRealtimeClass(realtime);
}

void CPeriodicCallbackThread::Loop() {
  for (;;) {
    const uint32_t due = lastTick_ + periodMs_;
    const uint32_t now = GetTickCount32();
    if (static_cast<int32_t>(due - now) <= 0) {
      // Overdue: call at once. Lost time is not caught up, and no stop is
      // seen while calls are overdue.
      lastTick_ = now;
      callback_(this);
      continue;
    }
    if (stopMutex_.TryLock()) {
      stopMutex_.Unlock();
      return;
    }
    NSPlatform::SleepMilliseconds(due - now);
  }
}

}  // namespace NSFerrand
