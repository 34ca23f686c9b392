#include "driver/periodic_thread.h"

#include "driver/clock.h"
#include "failure/builder.h"
#include "platform/clock.h"
#include "platform/wait_notice.h"

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
  stopMutex_.SignalStop();
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
    // The stop is seen between any two calls, also when they are overdue:
    // a callback slower than the period delays a stop by one call at most.
    if (stopMutex_.WaitForStop(0) == kStopAsked) return;
    const uint32_t due = lastTick_ + periodMs_;
    const uint32_t now = GetTickCount32();
    if (static_cast<int32_t>(due - now) <= 0) {
      // Overdue: call at once. Lost time is not caught up.
      lastTick_ = now;
      callback_(this);
      continue;
    }
    // The wait for the next call is a wait for the stop signal: a stop
    // never waits for a sleep to run out.
    const EStopWaitStep step = stopMutex_.WaitForStop(due - now);
    if (step == kStopAsked) return;
    // A wait that failed must not turn the loop into a spin.
    if (step == kWaitBroken) {
      NSPlatform::CPeriodWait period;
      NSPlatform::SleepMilliseconds(due - now);
    }
  }
}

}  // namespace NSFerrand
