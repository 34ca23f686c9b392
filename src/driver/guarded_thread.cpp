#include "driver/guarded_thread.h"

#include "failure/builder.h"
#include "platform/clock.h"

namespace NSFerrand {

namespace {

std::atomic<uint32_t> deadlineScale{100};

// How often the thread looks for a call whose signal was lost.
constexpr uint32_t kRequestLookMs = 50;
// How long a thread has to end once its last call has run.
constexpr uint32_t kEndWaitMs = 5000;

// The threads by owner number, which names their modules to the fault
// watch; and the abandoned ones, kept for the life of the process, where
// they and what they hold stay reachable. Owners are taken and given back by
// control threads only, which the library's boundary runs one at a time.
std::atomic<CGuardedThread*> owners[kGuardedThreads];
std::atomic<bool> ownerTaken[kGuardedThreads];
CGuardedThread* abandoned[kGuardedThreads];
std::atomic<uint32_t> abandonedCount{0};

void OnCrash(uint32_t owner) {
  if (owner >= kGuardedThreads) return;
  CGuardedThread* thread = owners[owner].load();
  if (thread != nullptr) thread->QuarantineCrashed();
}

// Code that raises a C++ exception across a call has broken it as surely as
// a fault: the call ends as crashed.
void RunCall(void* context) {
  auto* call = static_cast<CGuardedThread::CCall*>(context);
  try {
    call->Invoke();
  } catch (...) {
    call->threw = true;
  }
}

// A join the system refuses is made up for by looking, until the deadline.
bool EndsWithin(NSPlatform::SThread* thread, uint32_t milliseconds) {
  const uint32_t started = NSPlatform::MillisecondTicks();
  for (;;) {
    const uint32_t spent = NSPlatform::MillisecondTicks() - started;
    if (NSPlatform::JoinThreadFor(thread, spent >= milliseconds ? 0 : milliseconds - spent)) {
      return true;
    }
    if (NSPlatform::ThreadHasEnded(thread)) return true;
    if (NSPlatform::MillisecondTicks() - started >= milliseconds) return false;
    NSPlatform::SleepMilliseconds(1);
  }
}

}  // namespace

void SetCallDeadlineScale(uint32_t percent) { deadlineScale = percent == 0 ? 1 : percent; }

CGuardedThread::CGuardedThread() {
  for (uint32_t o = 0; o < kGuardedThreads; ++o) {
    bool free = false;
    if (ownerTaken[o].compare_exchange_strong(free, true)) {
      owner_ = o;
      break;
    }
  }
}

CGuardedThread::~CGuardedThread() {
  NSPlatform::ReleaseThread(thread_);
  NSPlatform::DestroyEvent(request_);
  NSPlatform::DestroyEvent(answer_);
  if (owner_ < kGuardedThreads) {
    owners[owner_] = nullptr;
    ownerTaken[owner_] = false;
  }
}

void CGuardedThread::Start() {
  request_ = NSPlatform::NewEvent(false, false);
  answer_ = NSPlatform::NewEvent(false, false);
  if (owner_ < kGuardedThreads && request_ != nullptr && answer_ != nullptr) {
    owners[owner_] = this;
    NSPlatform::WatchDriverFaults(&OnCrash);
    thread_ = NSPlatform::StartThread(&Entry, this, 0);
  }
  if (thread_ == nullptr) NSMarlet::RaiseFailure(NSMarlet::XCreate(), NSMarlet::TargetWordAudioDriver());
}

void CGuardedThread::Entry(void* self) { static_cast<CGuardedThread*>(self)->Serve(); }

void CGuardedThread::Serve() {
  Begin();
  for (;;) {
    CCall* call = pending_.exchange(nullptr);
    if (call != nullptr) {
      uint32_t waiting = CCall::kWaiting;
      if (call->state.compare_exchange_strong(waiting, CCall::kRunning)) {
        const bool returned = NSPlatform::RunGuarded(&RunCall, call) && !call->threw;
        call->state = returned ? CCall::kDone : CCall::kFaulted;
        NSPlatform::SetEvent(answer_);
        call->Drop();
        // After a fault the code's state is unknown: nothing more runs here.
        if (!returned) return;
      } else {
        call->Drop();
      }
      continue;
    }
    if (quit_.load()) break;
    // Messages of the code's windows are dispatched while it waits. The wait
    // is short, so that a signal the system refused is not missed for long;
    // a wait it refuses is tried again a millisecond later.
    if (NSPlatform::WaitEventPumping(request_, kRequestLookMs) == NSPlatform::kWaitFailed) {
      NSPlatform::SleepMilliseconds(1);
    }
  }
  if (!quarantined_.load()) End();
}

ECallEnd CGuardedThread::Submit(CCall* call, uint32_t deadlineMs) {
  const bool unlimited = deadlineMs == kNoDeadline;
  if (unlimited) {
    busy_ = true;
  } else {
    deadlineMs = static_cast<uint32_t>(uint64_t{deadlineMs} * deadlineScale.load() / 100);
  }
  pending_.store(call);
  // A signal the system refuses is made up for by the thread's own look.
  NSPlatform::SetEvent(request_);
  const uint32_t started = NSPlatform::MillisecondTicks();
  for (;;) {
    const uint32_t state = call->state.load();
    if (state == CCall::kDone || state == CCall::kFaulted) break;
    const uint32_t spent = NSPlatform::MillisecondTicks() - started;
    if (!unlimited && spent >= deadlineMs) break;
    // A call without deadline may show a modal window: the caller's own
    // windows are kept alive meanwhile.
    const NSPlatform::EWaitResult wait =
        unlimited ? NSPlatform::WaitEventPumping(answer_, NSPlatform::kWaitInfinite)
                  : NSPlatform::WaitEvent(answer_, deadlineMs - spent);
    if (wait == NSPlatform::kWaitFailed) NSPlatform::SleepMilliseconds(1);
  }
  if (unlimited) busy_ = false;
  uint32_t state = CCall::kWaiting;
  // Not taken up yet: it never will be.
  if (call->state.compare_exchange_strong(state, CCall::kCancelled)) {
    CCall* expected = call;
    if (pending_.compare_exchange_strong(expected, nullptr)) call->Drop();
    Quarantine();
    return kCallTimedOut;
  }
  if (state == CCall::kDone) return kCallAnswered;
  if (state == CCall::kFaulted) {
    QuarantineCrashed();
    return kCallCrashed;
  }
  Quarantine();
  return kCallTimedOut;
}

void CGuardedThread::Quarantine() {
  if (quarantined_.exchange(true)) return;
  if (owner_ < kGuardedThreads) NSPlatform::PinDriverModules(owner_);
  OnQuarantined();
}

void CGuardedThread::QuarantineCrashed() { Quarantine(); }

void CGuardedThread::ClaimModules(const void* address, const NSPlatform::ModuleSnapshot& before) {
  if (owner_ < kGuardedThreads) NSPlatform::ClaimDriverModules(address, before, owner_);
}

void CGuardedThread::Finish(CGuardedThread* thread) {
  if (thread == nullptr) return;
  if (!thread->quarantined_.load()) {
    thread->quit_ = true;
    NSPlatform::SetEvent(thread->request_);
    if (EndsWithin(thread->thread_, kEndWaitMs)) {
      if (thread->owner_ < kGuardedThreads) NSPlatform::ForgetDriverModules(thread->owner_);
      thread->OnFinished();
      delete thread;
      return;
    }
    // The end of its thread never came back: what it held is lost with it.
    thread->Quarantine();
  }
  // The system's hold on the thread goes (an ended one is joined, a hung one
  // let go); the object stays, for a thread that may still be inside a call.
  NSPlatform::ReleaseThread(thread->thread_);
  thread->thread_ = nullptr;
  const uint32_t index = abandonedCount.fetch_add(1);
  if (index < kGuardedThreads) abandoned[index] = thread;
}

}  // namespace NSFerrand
