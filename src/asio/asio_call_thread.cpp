#include "asio/asio_call_thread.h"

#include <cstring>

#include "failure/builder.h"
#include "platform/clock.h"
#include "platform/fault_guard.h"

namespace NSASIO {

namespace {

// A callback table per load. ASIO's callbacks carry no context, so each slot
// has functions of its own, which pass a call on only while their load is
// live: a quarantined driver's thread that calls on reaches nobody.
struct SSlot {
  std::atomic<bool> live{false};
  std::atomic<bool> retired{false};  // quarantined: never used again
  std::atomic<void (*)(int32_t, ASIOBool)> bufferSwitch{nullptr};
  std::atomic<void (*)(ASIOSampleRate)> sampleRateDidChange{nullptr};
  std::atomic<int32_t (*)(int32_t, int32_t, void*, double*)> asioMessage{nullptr};
  std::atomic<ASIOTime* (*)(ASIOTime*, int32_t, ASIOBool)> bufferSwitchTimeInfo{nullptr};
  ASIOCallbacks table = {};
};

SSlot slots[kCallbackSlots];

// How often the thread looks for a call whose signal was lost.
constexpr uint32_t kRequestLookMs = 50;

template <uint32_t S>
struct SThunks {
  static void BufferSwitch(int32_t index, ASIOBool direct) {
    if (!slots[S].live.load()) return;
    const auto target = slots[S].bufferSwitch.load();
    const NSPlatform::CForeignCall foreign;
    if (target != nullptr) target(index, direct);
  }
  static void SampleRateDidChange(ASIOSampleRate rate) {
    if (!slots[S].live.load()) return;
    const auto target = slots[S].sampleRateDidChange.load();
    const NSPlatform::CForeignCall foreign;
    if (target != nullptr) target(rate);
  }
  static int32_t AsioMessage(int32_t selector, int32_t value, void* message, double* opt) {
    if (!slots[S].live.load()) return 0;
    const auto target = slots[S].asioMessage.load();
    const NSPlatform::CForeignCall foreign;
    return target != nullptr ? target(selector, value, message, opt) : 0;
  }
  static ASIOTime* BufferSwitchTimeInfo(ASIOTime* time, int32_t index, ASIOBool direct) {
    if (!slots[S].live.load()) return nullptr;
    const auto target = slots[S].bufferSwitchTimeInfo.load();
    const NSPlatform::CForeignCall foreign;
    return target != nullptr ? target(time, index, direct) : nullptr;
  }
};

template <uint32_t... S>
struct SSlotTables {
  static void Fill() {
    ((slots[S].table = ASIOCallbacks{&SThunks<S>::BufferSwitch, &SThunks<S>::SampleRateDidChange,
                                     &SThunks<S>::AsioMessage,
                                     &SThunks<S>::BufferSwitchTimeInfo}),
     ...);
  }
};

template <uint32_t N, uint32_t... S>
struct SMakeTables : SMakeTables<N - 1, N - 1, S...> {};
template <uint32_t... S>
struct SMakeTables<0, S...> : SSlotTables<S...> {};

bool tablesFilled = false;
std::atomic<CASIOCallThread*> slotOwners[kCallbackSlots];

// A fault nobody took in a driver's code, on one of its own threads.
void OnDriverCrashed(uint32_t slot) {
  if (slot >= kCallbackSlots) return;
  CASIOCallThread* owner = slotOwners[slot].load();
  if (owner != nullptr) owner->QuarantineCrashed();
}

// Slots are taken and given back by control threads only, which the
// library's boundary runs one at a time.
uint32_t TakeSlot() {
  if (!tablesFilled) {
    SMakeTables<kCallbackSlots>::Fill();
    tablesFilled = true;
  }
  for (uint32_t s = 0; s < kCallbackSlots; ++s) {
    if (slots[s].retired.load() || slots[s].live.load()) continue;
    slots[s].bufferSwitch = nullptr;
    slots[s].sampleRateDidChange = nullptr;
    slots[s].asioMessage = nullptr;
    slots[s].bufferSwitchTimeInfo = nullptr;
    slots[s].live = true;
    return s;
  }
  return kCallbackSlots;
}

// Quarantined classes, and the threads abandoned with their drivers: kept
// here for the life of the process, where they stay reachable.
SGuid quarantined[kCallbackSlots];
std::atomic<uint32_t> quarantinedCount{0};
CASIOCallThread* abandoned[kCallbackSlots];
std::atomic<uint32_t> abandonedCount{0};

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

// A driver call that raises a C++ exception across the interface has broken
// it as surely as a fault: the call ends as crashed.
void RunCall(void* context) {
  auto* call = static_cast<CASIOCallThread::CCall*>(context);
  try {
    call->Invoke();
  } catch (...) {
    call->threw = true;
  }
}

}  // namespace

bool IsQuarantined(const SGuid& clsid) {
  const uint32_t count = quarantinedCount.load();
  for (uint32_t i = 0; i < count && i < kCallbackSlots; ++i) {
    if (quarantined[i] == clsid) return true;
  }
  return false;
}

uint32_t QuarantinedCount() { return quarantinedCount.load(); }

CASIOCallThread::CASIOCallThread(IASIOPlatform& platform, const SGuid& clsid)
    : platform_(platform), clsid_(clsid) {
  slot_ = TakeSlot();
  request_ = NSPlatform::NewEvent(false, false);
  answer_ = NSPlatform::NewEvent(false, false);
  if (slot_ < kCallbackSlots && request_ != nullptr && answer_ != nullptr) {
    slotOwners[slot_] = this;
    NSPlatform::WatchDriverFaults(&OnDriverCrashed);
    thread_ = NSPlatform::StartThread(&Entry, this, 0);
  }
  if (thread_ == nullptr) {
    if (slot_ < kCallbackSlots) slots[slot_].live = false;
    NSPlatform::DestroyEvent(request_);
    NSPlatform::DestroyEvent(answer_);
    NSMarlet::RaiseFailure(NSMarlet::XCreate(), NSMarlet::TargetWordAudioDriver());
  }
}

CASIOCallThread::~CASIOCallThread() {
  NSPlatform::ReleaseThread(thread_);
  NSPlatform::DestroyEvent(request_);
  NSPlatform::DestroyEvent(answer_);
}

ASIOCallbacks* CASIOCallThread::CallbacksFor(const ASIOCallbacks* target) {
  if (target == nullptr) return nullptr;
  SSlot& slot = slots[slot_];
  slot.bufferSwitch = target->bufferSwitch;
  slot.sampleRateDidChange = target->sampleRateDidChange;
  slot.asioMessage = target->asioMessage;
  slot.bufferSwitchTimeInfo = target->bufferSwitchTimeInfo;
  return &slot.table;
}

void CASIOCallThread::Entry(void* self) { static_cast<CASIOCallThread*>(self)->Serve(); }

void CASIOCallThread::Serve() {
  // The apartment is this thread's own; a refusal leaves the driver to
  // answer as it can, and is not undone.
  const HResult com = platform_.CoInitialize();
  for (;;) {
    CCall* call = pending_.exchange(nullptr);
    if (call != nullptr) {
      uint32_t waiting = CCall::kWaiting;
      if (call->state.compare_exchange_strong(waiting, CCall::kRunning)) {
        const bool returned = NSPlatform::RunGuarded(&RunCall, call) && !call->threw;
        call->state = returned ? CCall::kDone : CCall::kFaulted;
        NSPlatform::SetEvent(answer_);
        call->Drop();
        // After a fault the driver's state is unknown: nothing more runs here.
        if (!returned) return;
      } else {
        call->Drop();
      }
      continue;
    }
    if (quit_.load()) break;
    // Messages of the driver's windows are dispatched while it waits. The
    // wait is short, so that a signal the system refused is not missed for
    // long; a wait it refuses is tried again a millisecond later.
    if (NSPlatform::WaitEventPumping(request_, kRequestLookMs) == NSPlatform::kWaitFailed) {
      NSPlatform::SleepMilliseconds(1);
    }
  }
  if (!quarantined_.load() && (com == 0 || com == 1)) platform_.CoUninitialize();
}

ECallEnd CASIOCallThread::Submit(CCall* call, uint32_t deadlineMs) {
  const bool panel = deadlineMs == kPanelCallMs;
  if (panel) busy_ = true;
  pending_.store(call);
  // A signal the system refuses is made up for by the thread's own retry.
  NSPlatform::SetEvent(request_);
  const uint32_t started = NSPlatform::MillisecondTicks();
  for (;;) {
    const uint32_t state = call->state.load();
    if (state == CCall::kDone || state == CCall::kFaulted) break;
    const uint32_t spent = NSPlatform::MillisecondTicks() - started;
    if (!panel && spent >= deadlineMs) break;
    // The panel is modal: the host's own windows are kept alive meanwhile.
    const NSPlatform::EWaitResult wait =
        panel ? NSPlatform::WaitEventPumping(answer_, NSPlatform::kWaitInfinite)
              : NSPlatform::WaitEvent(answer_, deadlineMs - spent);
    if (wait == NSPlatform::kWaitFailed) {
      NSPlatform::SleepMilliseconds(1);
    }
  }
  if (panel) busy_ = false;
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

void CASIOCallThread::Quarantine() {
  if (quarantined_.exchange(true)) return;
  if (slot_ < kCallbackSlots) {
    slots[slot_].retired = true;
    slots[slot_].live = false;
    NSPlatform::PinDriverModules(slot_);
  }
  if (!IsQuarantined(clsid_)) {
    const uint32_t index = quarantinedCount.load();
    if (index < kCallbackSlots) {
      quarantined[index] = clsid_;
      quarantinedCount = index + 1;
    }
  }
}

void CASIOCallThread::QuarantineCrashed() {
  crashed_ = true;
  Quarantine();
}

void CASIOCallThread::ClaimModules(const void* object, const NSPlatform::ModuleSnapshot& before) {
  NSPlatform::ClaimDriverModules(object, before, slot_);
}

void CASIOCallThread::Finish(CASIOCallThread* thread) {
  if (thread == nullptr) return;
  if (!thread->quarantined_.load()) {
    thread->quit_ = true;
    NSPlatform::SetEvent(thread->request_);
    if (EndsWithin(thread->thread_, kStreamCallMs)) {
      if (thread->slot_ < kCallbackSlots) {
        NSPlatform::ForgetDriverModules(thread->slot_);
        slotOwners[thread->slot_] = nullptr;
        slots[thread->slot_].live = false;
      }
      delete thread;
      return;
    }
    // Its apartment's end never came back: the driver is lost with it.
    thread->Quarantine();
  }
  const uint32_t index = abandonedCount.fetch_add(1);
  if (index < kCallbackSlots) abandoned[index] = thread;
}

}  // namespace NSASIO
