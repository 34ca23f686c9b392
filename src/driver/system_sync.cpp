#include "driver/system_sync.h"

#include "failure/builder.h"

namespace NSFerrand {

namespace {

[[noreturn]] void RaiseSystemFailure() { NSMarlet::RaiseFailure(std::exception()); }
[[noreturn]] void RaiseCreate() { NSMarlet::RaiseFailure(NSMarlet::XCreate()); }

// True for taken or signalled, false for a time-out; anything else raises.
bool Taken(NSPlatform::EWaitResult result) {
  switch (result) {
    case NSPlatform::kWaitObject:
    case NSPlatform::kWaitAbandoned: return true;
    case NSPlatform::kWaitTimeout: return false;
    default: RaiseSystemFailure();
  }
}

}  // namespace

CSystemMutex::CSystemMutex() : mutex_(NSPlatform::NewMutex(false)) {
  if (mutex_ == nullptr) RaiseCreate();
}

CSystemMutex::~CSystemMutex() { NSPlatform::DestroyMutex(mutex_); }

void CSystemMutex::Lock() {
  if (Taken(NSPlatform::WaitMutex(mutex_, 5000))) return;
  if (!Taken(NSPlatform::WaitMutex(mutex_, NSPlatform::kWaitInfinite))) RaiseSystemFailure();
}

bool CSystemMutex::TryLock() { return Taken(NSPlatform::WaitMutex(mutex_, 0)); }

bool CSystemMutex::TimedLock(uint32_t milliseconds) {
  return Taken(NSPlatform::WaitMutex(mutex_, milliseconds));
}

void CSystemMutex::Unlock() {
  if (NSPlatform::ReleaseMutex(mutex_) != 0) RaiseSystemFailure();
}

CSystemEvent::CSystemEvent() : event_(NSPlatform::NewEvent(false, false)) {
  if (event_ == nullptr) RaiseCreate();
}

CSystemEvent::~CSystemEvent() { NSPlatform::DestroyEvent(event_); }

void CSystemEvent::Set() {
  if (!NSPlatform::SetEvent(event_)) RaiseSystemFailure();
}

bool CSystemEvent::TryWait() { return Taken(NSPlatform::WaitEvent(event_, 0)); }

bool CSystemEvent::TimedWait(uint32_t milliseconds) {
  return Taken(NSPlatform::WaitEvent(event_, milliseconds));
}

void CSystemEvent::Wait() {
  if (!Taken(NSPlatform::WaitEvent(event_, NSPlatform::kWaitInfinite))) RaiseSystemFailure();
}

uint64_t CThreadAffinity::EffectiveMask(uint64_t processMask) const {
  if (!maskGiven) return processMask;
  if ((mask & ~processMask) == 0) return mask;
  if ((mask & processMask) != 0) return mask & processMask;
  return processMask;
}

bool CSystemThread::ApplyAffinity(const CThreadAffinity& affinity) {
  return NSPlatform::SetThreadAffinity(SystemThread(), affinity.idealProcessor,
                                       affinity.EffectiveMask(NSPlatform::ProcessAffinityMask()));
}

}  // namespace NSFerrand
