#include "asio/asio_call_thread.h"

#include "failure/builder.h"

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

// Each passes the call on marked as the library's: a fault beyond is never
// the driver's.
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

// Quarantined classes, for the life of the process.
SGuid quarantined[kCallbackSlots];
std::atomic<uint32_t> quarantinedCount{0};

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
  if (slot_ >= kCallbackSlots) {
    NSMarlet::RaiseFailure(NSMarlet::XCreate(), NSMarlet::TargetWordAudioDriver());
  }
  try {
    Start();
  } catch (...) {
    slots[slot_].live = false;
    throw;
  }
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

void CASIOCallThread::Begin() {
  // The apartment is this thread's own; a refusal leaves the driver to
  // answer as it can, and is not undone.
  com_ = platform_.CoInitialize();
}

void CASIOCallThread::End() {
  if (com_ == 0 || com_ == 1) platform_.CoUninitialize();
}

void CASIOCallThread::OnQuarantined() {
  slots[slot_].retired = true;
  slots[slot_].live = false;
  if (IsQuarantined(clsid_)) return;
  const uint32_t index = quarantinedCount.load();
  if (index < kCallbackSlots) {
    quarantined[index] = clsid_;
    quarantinedCount = index + 1;
  }
}

void CASIOCallThread::OnFinished() { slots[slot_].live = false; }

}  // namespace NSASIO
