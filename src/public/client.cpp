#include "public/client.h"

#include <stdexcept>

#include "driver/clock.h"
#include "failure/builder.h"
#include "failure/scope.h"
#include "public/client_settings.h"
#include "public/driver_spec.h"
#include "public/globals.h"
#include "public/library.h"
#include "public/status.h"
#include "public/vectors.h"
#include "public/zep_handler.h"

namespace NSQuillon2 {

using NSFerrand::CRegisteredDriverPtr;
using NSFerrand::CSoundDriverSettings;

namespace {

constexpr int32_t kWatchdogMs = 5000;

// A driver that failed to start is no failed call: the host learns of it
// from `running`. Any other failure passes on.
template <class Call>
void SwallowingLostDriver(Call call) {
  try {
    call();
  } catch (const NSMarlet::XNotReady& e) {
    if (!NSMarlet::TargetObjectTypeIs(NSMarlet::BodyFromException(&e, NSMarlet::CSourcePosition()),
                                      NSMarlet::TargetWordAudioDriver())) {
      throw;
    }
  }
}

[[noreturn]] void RaiseNoDevice() {
  throw NSMarlet::XNotFound("GetRequiredZEPDeviceFromOpenSoundDriverHandle()");
}

[[noreturn]] void RaiseInvalidArgument() { throw std::invalid_argument(""); }

}  // namespace

CQuillonClient::CQuillonClient(CQuillonImpl* library, IClientHost* host,
                               const CRegisteredDriverPtr& driver,
                               const CSoundDriverSettings* settings)
    : library_(library), host_(host), lastRenderTime_(NSFerrand::GetTickCount32()),
      watchdogArmedTime_(lastRenderTime_.load()) {
  ++guardCount_;
  void* context = HardwareContext();
  handle_ = settings != nullptr
                ? new NSFerrand::COpenSoundDriverHandle(driver, *settings, this, context)
                : new NSFerrand::COpenSoundDriverHandle(driver, this, context);
  lostReported_ = handle_->IsDriverLost() ? 1 : 0;
  if (!handle_->IsDriverLost() && library_->HardwareHandler() != nullptr) {
    try {
      library_->HardwareHandler()->SetBoundDevice(handle_->GetHardwareDevice());
    } catch (...) {
      // No client, so no audio either.
      delete handle_;
      handle_ = nullptr;
      throw;
    }
  }
  ++gClientCount;
  // The first Idle reports no change older than the client.
  NSFerrand::CRegistryRef registry;
  NSFerrand::TakeDriverListChanged();
  --guardCount_;
}

CQuillonClient::~CQuillonClient() {
  NSMarlet::COptionalFailureScope scope;
  // A button event between two clients goes nowhere.
  if (CZEPLibHandler* handler = library_->HardwareHandler()) {
    try {
      handler->SetBoundDevice(nullptr);
      handler->SetButtonContext(nullptr);
    } catch (...) {
    }
  }
  delete handle_;
  handle_ = nullptr;
  library_ = nullptr;
  host_ = nullptr;
  --gClientCount;
}

template <class Work>
uint32_t CQuillonClient::Guarded(Work work) {
  if (guardCount_ != 0) return kStatusNotReady;
  uint32_t status = kStatusOk;
  try {
    NSMarlet::CFailureScope scope;
    ++guardCount_;
    try {
      work();
    } catch (...) {
      --guardCount_;
      throw;
    }
    --guardCount_;
  } catch (...) {
    status = StatusFromCurrentFailure();
  }
  FollowDevice();
  return status;
}

template <class Result, class Work>
Result* CQuillonClient::GuardedResult(uint32_t* status, Work work) {
  Result* result = nullptr;
  const uint32_t answer = Guarded([&] { result = work(); });
  Put(status, answer);
  return answer == kStatusOk ? result : nullptr;
}

template <class Work>
uint32_t CQuillonClient::Unguarded(Work work) {
  uint32_t status = kStatusOk;
  try {
    NSMarlet::CFailureScope scope;
    work();
  } catch (...) {
    status = StatusFromCurrentFailure();
  }
  FollowDevice();
  return status;
}

void CQuillonClient::FollowDevice() {
  CZEPLibHandler* handler = library_->HardwareHandler();
  if (handler == nullptr || handle_ == nullptr) return;
  try {
    NSMarlet::COptionalFailureScope scope;
    handler->SetBoundDevice(handle_->GetHardwareDevice());
  } catch (...) {
    // The binding stays as it was; the client's next call tries again.
  }
}

void* CQuillonClient::HardwareContext() const {
  CZEPLibHandler* handler = library_->HardwareHandler();
  return handler != nullptr ? handler->GetGlue() : nullptr;
}

void CQuillonClient::ReportRunning(uint32_t* running) {
  if (handle_->IsDriverLost()) {
    Put(running, 0u);
    lostReported_ = 1;
  } else {
    Put(running, 1u);
    lostReported_ = 0;
  }
}

uint32_t CQuillonClient::SetDriver(const IDriverSpec* spec, uint32_t* running) {
  return Guarded([&] {
    uint32_t status = kStatusRuntimeError;
    const CRegisteredDriverPtr driver = library_->ResolveDriverSpec(spec, &status);
    if (status != kStatusOk) ThrowFromStatus(status);
    lostReported_ = 0;
    SwallowingLostDriver([&] { handle_->SwitchDriver(driver, HardwareContext()); });
    ReportRunning(running);
  });
}

uint32_t CQuillonClient::SetDriverWithSettings(const IDriverSpec* spec,
                                               const SClientSettings* settings,
                                               uint32_t* running) {
  return Guarded([&] {
    if (settings == nullptr) RaiseInvalidArgument();
    uint32_t status = kStatusRuntimeError;
    const CRegisteredDriverPtr driver = library_->ResolveDriverSpec(spec, &status);
    if (status != kStatusOk) ThrowFromStatus(status);
    lostReported_ = 0;
    const CSoundDriverSettings wanted = MakeDriverSettings(*settings);
    SwallowingLostDriver(
        [&] { handle_->SwitchDriverWithSettings(driver, wanted, HardwareContext()); });
    ReportRunning(running);
  });
}

IDriverSpec* CQuillonClient::GetDriverSpec(uint32_t* status) {
  return GuardedResult<IDriverSpec>(status, [&]() -> IDriverSpec* {
    CRegisteredDriverPtr driver;
    handle_->GetRegisteredDriver(driver);
    if (!driver) NSMarlet::RaiseFailure(NSMarlet::XNotFound(), NSMarlet::TargetWordAudioDriver());
    NSFerrand::CRegisteredSoundDriverInfo info;
    driver->GetInfo(info);
    return new CDriverSpecImpl(info.key, MakeDriverSpecKey(info));
  });
}

template <class Interface, class Vector, class Values>
Interface* CQuillonClient::InfoList(uint32_t* status,
                                    Values NSFerrand::COpenSoundDriverInfo::*field) {
  return GuardedResult<Interface>(status, [&]() -> Interface* {
    NSFerrand::COpenSoundDriverInfo info;
    handle_->ReadDriverInfo(info);
    return new Vector(info.*field);
  });
}

IVector<QuillonULong>* CQuillonClient::GetSampleRates(uint32_t* status) {
  return InfoList<IVector<QuillonULong>, CVector>(status, &NSFerrand::COpenSoundDriverInfo::sampleRates);
}

IVector<const unsigned short*>* CQuillonClient::GetInputNames(uint32_t* status) {
  return InfoList<IVector<const unsigned short*>, CStringVector>(
      status, &NSFerrand::COpenSoundDriverInfo::inputNames);
}

IVector<const unsigned short*>* CQuillonClient::GetOutputNames(uint32_t* status) {
  return InfoList<IVector<const unsigned short*>, CStringVector>(
      status, &NSFerrand::COpenSoundDriverInfo::outputNames);
}

IVector<QuillonULong>* CQuillonClient::GetBufferSizes(uint32_t* status) {
  return InfoList<IVector<QuillonULong>, CVector>(status, &NSFerrand::COpenSoundDriverInfo::bufferSizes);
}

IVector<const unsigned short*>* CQuillonClient::GetClockSourceNames(uint32_t* status) {
  return InfoList<IVector<const unsigned short*>, CStringVector>(
      status, &NSFerrand::COpenSoundDriverInfo::clockSourceNames);
}

uint32_t CQuillonClient::ApplyClientSettings(const SClientSettings* settings, uint32_t* running) {
  return Guarded([&] {
    // The same test as at creation: a record no client could be made with
    // changes nothing here either.
    if (settings == nullptr || !IsSoundRecord(*settings)) RaiseInvalidArgument();
    CSoundDriverSettings inForce;
    handle_->ReadDriverSettings(inForce);
    MergeClientSettings(*settings, inForce);
    lostReported_ = 0;
    SwallowingLostDriver([&] { handle_->ApplyDriverSettings(inForce); });
    ReportRunning(running);
  });
}

uint32_t CQuillonClient::GetClientSettings(SClientSettings* settings) {
  return Guarded([&] {
    if (settings == nullptr) RaiseInvalidArgument();
    CSoundDriverSettings inForce;
    handle_->ReadDriverSettings(inForce);
    MakeFlatSettings(inForce, *settings);
  });
}

uint32_t CQuillonClient::GetInputLatency(uint64_t* microseconds) {
  return Guarded([&] {
    if (microseconds == nullptr) RaiseInvalidArgument();
    *microseconds = static_cast<uint64_t>(handle_->GetInputLatency());
  });
}

uint32_t CQuillonClient::GetOutputLatency(uint64_t* microseconds) {
  return Guarded([&] {
    if (microseconds == nullptr) RaiseInvalidArgument();
    *microseconds = static_cast<uint64_t>(handle_->GetOutputLatency());
  });
}

uint32_t CQuillonClient::CanMonitorInputs(uint8_t* can) {
  return Guarded([&] {
    if (can == nullptr) RaiseInvalidArgument();
    *can = handle_->CanMonitorInputs() ? 1 : 0;
  });
}

uint32_t CQuillonClient::HasHardwareDevice(uint8_t* has) {
  return Unguarded([&] {
    if (has == nullptr) RaiseInvalidArgument();
    *has = handle_->HasHardwareDevice() ? 1 : 0;
  });
}

NSZEPGlue::CSharedDeviceImpl& CQuillonClient::RequiredDevice() {
  NSZEPGlue::CSharedDeviceImpl* device = handle_->GetHardwareDevice();
  if (device == nullptr) RaiseNoDevice();
  return *device;
}

NSZEPGlue::CSharedDeviceImpl& CQuillonClient::DeviceForChannel(uint32_t channel,
                                                               uint32_t& mapped) {
  RequiredDevice();
  mapped = MapActiveChannel(channel);
  return RequiredDevice();
}

uint32_t CQuillonClient::MapActiveChannel(uint32_t channel) {
  CSoundDriverSettings inForce;
  handle_->ReadDriverSettings(inForce);
  const uint32_t wanted = channel / 2;
  uint32_t seen = 0;
  for (uint64_t pair = 0; pair < inForce.inputPairs.Count(); ++pair) {
    if (!inForce.inputPairs.Get(pair)) continue;
    if (seen == wanted) return static_cast<uint32_t>(2 * pair + channel % 2);
    ++seen;
  }
  RaiseInvalidArgument();
}

uint32_t CQuillonClient::GetGainSafePaddedChannel(uint32_t channel, int32_t* padded) {
  return Unguarded([&] {
    if (padded == nullptr) RaiseInvalidArgument();
    uint32_t mapped = 0;
    NSZEPGlue::CSharedDeviceImpl& device = DeviceForChannel(channel, mapped);
    *padded = static_cast<int32_t>(device.GetGainSafePaddedChannel(mapped));
  });
}

uint32_t CQuillonClient::GetGainSafePaddingDb(uint32_t channel, float* paddingDb) {
  return Unguarded([&] {
    if (paddingDb == nullptr) RaiseInvalidArgument();
    uint32_t mapped = 0;
    NSZEPGlue::CSharedDeviceImpl& device = DeviceForChannel(channel, mapped);
    *paddingDb = device.GetGainSafePaddingDb(mapped);
  });
}

uint32_t CQuillonClient::SetGainSafeRoutingEnable(uint32_t channel, uint32_t enable) {
  return Unguarded([&] {
    uint32_t mapped = 0;
    NSZEPGlue::CSharedDeviceImpl& device = DeviceForChannel(channel, mapped);
    device.SetGainSafeRoutingEnable(mapped, enable != 0);
  });
}

uint32_t CQuillonClient::SetGainSafeIndicator(uint32_t selector) {
  return Unguarded([&] {
    NSZEPGlue::CSharedDeviceImpl& device = RequiredDevice();
    if (selector < kGainSafeIndicatorState0 || selector > kGainSafeIndicatorState2) {
      RaiseInvalidArgument();
    }
    device.SetGainSafeIndicator(selector - kGainSafeIndicatorState0);
  });
}

uint32_t CQuillonClient::SetChannelActiveIndicator(uint32_t channel, uint32_t active) {
  return Unguarded([&] {
    uint32_t mapped = 0;
    NSZEPGlue::CSharedDeviceImpl& device = DeviceForChannel(channel, mapped);
    device.SetChannelActiveIndicator(mapped, active != 0);
  });
}

uint32_t CQuillonClient::ClearDirectMonitoring() {
  return Unguarded([&] { RequiredDevice().SetDirectMonitoring(false); });
}

uint32_t CQuillonClient::SuspendDriver() {
  return Guarded([&] { handle_->SuspendDriver(); });
}

uint32_t CQuillonClient::ResumeDriver(uint32_t* running) {
  return Guarded([&] {
    handle_->ResumeDriver(HardwareContext());
    ReportRunning(running);
  });
}

uint32_t CQuillonClient::ShowControlPanel() {
  return Guarded([&] { handle_->ShowControlPanel(); });
}

uint32_t CQuillonClient::HasControlPanel(uint32_t* has) {
  return Guarded([&] {
    if (has == nullptr) RaiseInvalidArgument();
    *has = handle_->HasControlPanel() ? 1 : 0;
  });
}

void CQuillonClient::RunWatchdog() {
  const uint32_t last = lastRenderTime_.load();
  const uint32_t now = NSFerrand::GetTickCount32();
  const int32_t silence = static_cast<int32_t>(now - last);
  if (watchdogArmed_ == 0) {
    if (silence > kWatchdogMs) {
      watchdogArmed_ = 1;
      watchdogArmedTime_ = now;
    }
    return;
  }
  if (silence <= kWatchdogMs) {
    watchdogArmed_ = 0;
    return;
  }
  if (static_cast<int32_t>(now - watchdogArmedTime_) > kWatchdogMs) {
    if (!handle_->IsDriverLost()) handle_->EnterSilentMode();
    watchdogArmed_ = 0;
  }
}

void CQuillonClient::WorkOffConnectionChange() {
  CZEPLibHandler* handler = library_->HardwareHandler();
  if (handler == nullptr || !handler->TakeConnectionChange()) return;
  library_->RescanASIO();
  NSZEPGlue::CSharedDeviceImpl* device = handle_->GetHardwareDevice();
  NSZEPGlue::CGluePtr* glue = handler->GetGlue();
  if (device == nullptr || !*glue) return;
  std::vector<std::string> present;
  try {
    (*glue)->GetCurrentDeviceNames(present);
  } catch (...) {
    // Cut off by the question itself: the device has gone with the library.
    if (NSZEPGlue::HardwareCutOff()) return;
    throw;
  }
  for (const std::string& name : present) {
    if (name == device->GetDeviceName()) return;
  }
  // Unplugged: its driver stops here, on the host's thread.
  if (!handle_->IsDriverLost()) handle_->EnterSilentMode();
}

uint32_t CQuillonClient::Idle() {
  if (guardCount_ != 0) return kStatusNotReady;
  try {
    NSMarlet::CFailureScope scope;
    bool settingsChanged = false;
    bool listChanged = false;
    SClientSettings settings;
    ++guardCount_;
    try {
      SwallowingLostDriver([&] { handle_->PollDriver(); });
      RunWatchdog();
      WorkOffConnectionChange();
      // Endpoints the audio engine told of since the last call.
      library_->RefreshWasapi();
      if (handle_->TakeHandleSettingsChanged()) {
        CSoundDriverSettings inForce;
        handle_->ReadDriverSettings(inForce);
        MakeFlatSettings(inForce, settings);
        settingsChanged = true;
      }
      NSFerrand::CRegistryRef registry;
      listChanged = NSFerrand::TakeDriverListChanged();
    } catch (...) {
      --guardCount_;
      throw;
    }
    --guardCount_;
    FollowDevice();
    // Outside the guard: the host may call back into the client from here.
    if (settingsChanged) host_->OnSettingsChanged(this, &settings);
    if (listChanged) host_->OnDriverListChanged(this);
    if (lostReported_ == 0 && handle_->IsDriverLost()) {
      lostReported_ = 1;
      host_->OnDriverLost(this);
    }
    return kStatusOk;
  } catch (...) {
    const uint32_t status = StatusFromCurrentFailure();
    FollowDevice();
    return status;
  }
}

uint32_t CQuillonClient::Render(uint32_t frames, const NSFerrand::CChannelPointers& inputs,
                                NSFerrand::CChannelPointers& outputs, uint64_t inputSystemTime,
                                uint64_t inputSamplePosition, uint64_t outputSystemTime,
                                uint64_t outputSamplePosition) {
  lastRenderTime_.exchange(NSFerrand::GetCoarseTickCount32());
  const int32_t inputCount = static_cast<int32_t>(inputs.size());
  const int32_t outputCount = static_cast<int32_t>(outputs.size());
  const SRenderTiming inputTiming = {inputSamplePosition, inputSystemTime};
  const SRenderTiming outputTiming = {outputSamplePosition, outputSystemTime};
  return host_->Render(this, frames, inputCount > 0 ? inputs.data() : nullptr, inputCount,
                       &inputTiming, outputCount > 0 ? outputs.data() : nullptr, outputCount,
                       &outputTiming);
}

}  // namespace NSQuillon2
