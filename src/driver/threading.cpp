#include "driver/threading.h"

#include "failure/builder.h"
#include "platform/clock.h"
#include "platform/wait_notice.h"

namespace NSFerrand {

namespace {

constexpr uint32_t kErrorSuccess = 0;

[[noreturn]] void RaiseSystemFailure() { NSMarlet::RaiseFailure(std::exception()); }

}  // namespace

CLockableMutex::CLockableMutex(bool initiallyOwned)
    : mutex_(NSPlatform::NewMutex(initiallyOwned)) {
  if (mutex_ == nullptr) RaiseSystemFailure();
}

// The system mutex is given back too: a driver made and closed again and
// again would otherwise leak one each time.
CLockableMutex::~CLockableMutex() { NSPlatform::DestroyMutex(mutex_); }

bool CLockableMutex::TryLock() {
  const NSPlatform::EWaitResult result = NSPlatform::WaitMutex(mutex_, 0);
  return result == NSPlatform::kWaitObject || result == NSPlatform::kWaitAbandoned;
}

void CLockableMutex::Lock() { NSPlatform::WaitMutex(mutex_, NSPlatform::kWaitInfinite); }

bool CLockableMutex::TimedLock(uint32_t milliseconds) {
  return TryFor(milliseconds, [this] { return TryLock(); });
}

EStopWaitStep StopWaitStep(NSPlatform::EWaitResult result) {
  switch (result) {
    case NSPlatform::kWaitTimeout: return kPumpAgain;
    case NSPlatform::kWaitObject:
    case NSPlatform::kWaitAbandoned: return kStopAsked;
    default: return kWaitBroken;
  }
}

NSPlatform::EWaitResult CLockableMutex::WaitResult(uint32_t milliseconds) {
  return NSPlatform::WaitMutex(mutex_, milliseconds);
}

NSPlatform::EWaitResult CLockableMutex::WaitForPeriod(uint32_t milliseconds) {
  NSPlatform::CPeriodWait period;
  return NSPlatform::WaitMutex(mutex_, milliseconds);
}

void CLockableMutex::SignalStop() {
  stopSignalled_.store(true, std::memory_order_release);
  try {
    Unlock();
  } catch (...) {
  }
}

EStopWaitStep CLockableMutex::WaitForStop(uint32_t milliseconds) {
  if (stopSignalled_.load(std::memory_order_acquire)) {
    if (TryLock()) {
      try {
        Unlock();
      } catch (...) {
      }
    }
    return kStopAsked;
  }
  const EStopWaitStep step = StopWaitStep(WaitForPeriod(milliseconds));
  if (step == kStopAsked) {
    try {
      Unlock();
    } catch (...) {
    }
    return kStopAsked;
  }
  // The flag without the mutex: its release was refused.
  return stopSignalled_.load(std::memory_order_acquire) ? kStopAsked : step;
}

void CLockableMutex::Unlock() {
  const uint32_t error = NSPlatform::ReleaseMutex(mutex_);
  if (error != kErrorSuccess) RaiseSystemFailure();
}

int32_t SystemPriorityOf(uint32_t priorityCode) {
  switch (priorityCode) {
    case kPriorityLowest: return -2;
    case kPriorityBelowNormal: return -1;
    case kPriorityNormal: return 0;
    case kPriorityAboveNormal: return 1;
    case kPriorityTimeCritical: return NSPlatform::kThreadPriorityTimeCritical;
    default: return 0;
  }
}

CTimedThread::CTimedThread(IThreadFunction* function, uint32_t priorityCode, const char* name)
    : CTimedThread(function, priorityCode, name, false) {}

CTimedThread::CTimedThread(IThreadFunction* function, uint32_t priorityCode, const char* name,
                           bool createFailure)
    : function_(function), priorityCode_(priorityCode), name_(name != nullptr ? name : "") {
  auto fail = [createFailure]() {
    if (createFailure) NSMarlet::RaiseFailure(NSMarlet::XCreate());
    RaiseSystemFailure();
  };
  // The new thread's failure table is made here, on the creating thread:
  // an audio thread allocates none, not even in its first block.
  if (NSMarlet::IExceptionBodyStorage* storage = NSMarlet::GetExceptionBodyStorageUnchecked()) {
    storage->ReserveThreadTable();
  }
  stopEvent_ = NSPlatform::NewEvent(true, false);
  if (stopEvent_ == nullptr) fail();
  thread_ = NSPlatform::StartThread(&CTimedThread::Entry, this, SystemPriorityOf(priorityCode));
  if (thread_ == nullptr) {
    NSPlatform::DestroyEvent(stopEvent_);
    fail();
  }
}

CTimedThread::~CTimedThread() {
  if (!NSPlatform::ThreadHasEnded(thread_)) {
    NSPlatform::SetEvent(stopEvent_);
    NSPlatform::JoinThread(thread_);
  }
  NSPlatform::ReleaseThread(thread_);
  NSPlatform::DestroyEvent(stopEvent_);
}

void CTimedThread::Entry(void* self) {
  CTimedThread* thread = static_cast<CTimedThread*>(self);
  thread->running_.store(true, std::memory_order_release);
  // The thread takes its failure table before any work, and gives it back
  // as it ends, so tables do not pile up with threads come and gone.
  NSMarlet::IExceptionBodyStorage* storage = NSMarlet::GetExceptionBodyStorageUnchecked();
  try {
    if (storage != nullptr) storage->GetScopeDepth();
    thread->function_->Run();
  } catch (...) {
  }
  if (storage != nullptr && storage == NSMarlet::GetExceptionBodyStorageUnchecked()) {
    storage->ReleaseThreadTable();
  }
  thread->running_.store(false, std::memory_order_release);
}

void CTimedThread::Join() { NSPlatform::JoinThread(thread_); }

bool CTimedThread::JoinFor(uint32_t milliseconds) {
  return NSPlatform::JoinThreadFor(thread_, milliseconds);
}

void CTimedThread::Terminate() {
  NSPlatform::TerminateThread(thread_);
  running_.store(false, std::memory_order_release);
}

bool CTimedThread::Ended() const { return NSPlatform::ThreadHasEnded(thread_); }

void StopStreamingThread(CTimedThread*& thread, CLockableMutex*& stopMutex,
                         NSPlatform::SEvent* wake) {
  if (stopMutex != nullptr) stopMutex->SignalStop();
  // Refused, the thread still ends, at the end of its period's wait.
  if (wake != nullptr) NSPlatform::SetEvent(wake);
  if (thread != nullptr) {
    // A wait the system refuses at once is asked again: only a thread that
    // has had its time is ended by force.
    if (!TryFor(kStreamingStopWaitMs, [thread] { return thread->JoinFor(kStreamingStopWaitMs); })) {
      thread->Terminate();
    }
    delete thread;
    thread = nullptr;
  }
  delete stopMutex;
  stopMutex = nullptr;
}

}  // namespace NSFerrand
