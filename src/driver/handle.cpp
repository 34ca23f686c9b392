#include "driver/handle.h"

#include "driver/clock.h"
#include "failure/builder.h"
#include "failure/scope.h"

namespace NSFerrand {

namespace {

constexpr uint32_t kLockTimeoutMs = 5000;

// Both channel lists of every silent block: shared, so a tick allocates nothing.
CChannelPointers gNoInputs;
CChannelPointers gNoOutputs;

CSoundDriverSettings StartingSettings() {
  CSoundDriverSettings settings;
  settings.bufferFrames = kSilentBlockFrames;
  return settings;
}

[[noreturn]] void RaiseLockTimeout() {
  NSMarlet::RaiseFailure(NSMarlet::NSMarletDetails::XStdRuntimeError(""),
                         NSMarlet::TargetWordAudioDriver());
}

}  // namespace

COpenSoundDriverHandle::COpenSoundDriverHandle(const CRegisteredDriverPtr& registered,
                                               MSoundRenderer* renderer, void* hardwareContext)
    : silentMutex_(true), registered_(registered), renderer_(renderer),
      settings_(StartingSettings()) {
  Construct(nullptr, hardwareContext);
}

COpenSoundDriverHandle::COpenSoundDriverHandle(const CRegisteredDriverPtr& registered,
                                               const CSoundDriverSettings& settings,
                                               MSoundRenderer* renderer, void* hardwareContext)
    : silentMutex_(true), registered_(registered), renderer_(renderer), settings_(settings) {
  Construct(&settings, hardwareContext);
}

COpenSoundDriverHandle::COpenSoundDriverHandle(MSoundRenderer* renderer, void* hardwareContext)
    : silentMutex_(true), renderer_(renderer), settings_(StartingSettings()) {
  CRegisteredDriverList drivers;
  GetRegisteredDrivers(drivers);
  if (!drivers.empty()) registered_ = drivers.front();
  Construct(nullptr, hardwareContext);
}

void COpenSoundDriverHandle::Construct(const CSoundDriverSettings* settings,
                                       void* hardwareContext) {
  try {
    NSMarlet::COptionalFailureScope scope;
    OpenAndRefresh(settings, hardwareContext);
    state_ = kDriverOpen;
  } catch (...) {
    EnterSilentMode();
  }
}

COpenSoundDriverHandle::~COpenSoundDriverHandle() {
  try {
    NSMarlet::COptionalFailureScope scope;
    WinSilenceBack(kLockTimeoutMs);
  } catch (...) {
  }
  // Whatever the mutex did, the thread goes before the mutex it tries.
  EndSilentThread();
  delete driver_;
  driver_ = nullptr;
  registered_.reset();
  state_ = kNoDriver;
  ReleaseSilentMutex();
}

void COpenSoundDriverHandle::OpenAndRefresh(const CSoundDriverSettings* settings,
                                            void* hardwareContext) {
  if (!registered_) NSMarlet::RaiseFailure(NSMarlet::XNotFound(), NSMarlet::TargetWordAudioDriver());
  driver_ = settings != nullptr
                ? registered_->OpenWithSettings(*settings, renderer_, hardwareContext)
                : registered_->OpenWithDefaults(renderer_, hardwareContext);
  // A family whose allocation failed answers with no driver at all.
  if (driver_ == nullptr) NSMarlet::RaiseFailure(NSMarlet::XOpen(), NSMarlet::TargetWordAudioDriver());
  Refresh();
}

void COpenSoundDriverHandle::Refresh() {
  driver_->GetSettings(settings_);
  inputLatency_ = driver_->GetInputLatency();
  outputLatency_ = driver_->GetOutputLatency();
  driver_->GetDriverInfo(info_);
}

template <class Call>
bool COpenSoundDriverHandle::Guarded(Call call) {
  if (driver_ == nullptr) return false;
  try {
    NSMarlet::COptionalFailureScope scope;
    call(*driver_);
    return true;
  } catch (...) {
    EnterSilentMode();
    return false;
  }
}

void COpenSoundDriverHandle::EnterSilentMode() {
  changed_ = true;
  GoSilent(kDriverLost);
}

void COpenSoundDriverHandle::GoSilent(EHandleState state) {
  // A silent thread already paying ends before its fields are touched again.
  if (silentThread_ != nullptr) {
    WinSilenceBack(kLockTimeoutMs);
    EndSilentThread();
  }
  // The driver's thread stops before the silent one starts: the two sources
  // of Render never meet.
  delete driver_;
  driver_ = nullptr;
  silentLastTick_ = GetTickCount32();
  silentThread_ = new CPeriodicCallbackThread(kSilentTickMs, &SilentTick, this);
  state_ = state;
  ReleaseSilentMutex();
}

bool COpenSoundDriverHandle::TakeSilentMutexFor(uint32_t milliseconds) {
  if (silentMutexHeld_) return true;
  silentMutexHeld_ = silentMutex_.TimedLock(milliseconds);
  return silentMutexHeld_;
}

bool COpenSoundDriverHandle::WinSilenceBack(uint32_t milliseconds) {
  if (silentThread_ == nullptr) return TakeSilentMutexFor(milliseconds);
  // A pay-out in progress stops after the block it is in, so the mutex is
  // free within one Render.
  silentStopRequested_.store(true, std::memory_order_relaxed);
  const bool held = TakeSilentMutexFor(milliseconds);
  if (held) EndSilentThread();
  silentStopRequested_.store(false, std::memory_order_relaxed);
  return held;
}

void COpenSoundDriverHandle::EndSilentThread() {
  if (silentThread_ == nullptr) return;
  silentStopRequested_.store(true, std::memory_order_relaxed);
  delete silentThread_;
  silentThread_ = nullptr;
  silentStopRequested_.store(false, std::memory_order_relaxed);
}

void COpenSoundDriverHandle::ReleaseSilentMutex() {
  if (!silentMutexHeld_) return;
  silentMutexHeld_ = false;
  silentMutex_.Unlock();
}

void COpenSoundDriverHandle::SilentTick(CPeriodicCallbackThread* thread) {
  auto* self = static_cast<COpenSoundDriverHandle*>(thread->UserData());
  CTryScopedLock lock(&self->silentMutex_);
  if (!lock.Locked()) return;
  PaySilence(self->silentLastTick_, GetTickCount32(), self->renderer_,
             &self->silentStopRequested_);
}

uint32_t COpenSoundDriverHandle::PaySilence(uint64_t& lastTick, uint64_t now,
                                            MSoundRenderer* renderer,
                                            const std::atomic<bool>* stop) {
  // The clock is 32 bits wide: the difference is taken as it wraps.
  const uint32_t ticks = static_cast<uint32_t>(now - lastTick);
  const int64_t elapsed = TicksToMicroseconds(ticks);
  const uint64_t samples = static_cast<uint64_t>(static_cast<double>(elapsed) * 44100.0 * 1e-6);
  const uint32_t blocks = static_cast<uint32_t>(samples / kSilentBlockFrames);
  if (blocks == 0) return 0;
  uint32_t paid = 0;
  for (; paid < blocks; ++paid) {
    // The control thread wants the mutex back: the rest of the debt goes
    // with the thread.
    if (stop != nullptr && stop->load(std::memory_order_relaxed)) break;
    try {
      NSMarlet::COptionalFailureScope scope;
      renderer->Render(kSilentBlockFrames, gNoInputs, gNoOutputs, 0, 0, 0, 0);
    } catch (...) {
    }
  }
  lastTick = now;
  return paid;
}

void COpenSoundDriverHandle::ReadDriverSettings(CSoundDriverSettings& settings) {
  Guarded([this](CABCOpenSoundDriver& d) { d.GetSettings(settings_); });
  settings = settings_;
}

void COpenSoundDriverHandle::ReadDriverInfo(COpenSoundDriverInfo& info) {
  Guarded([this](CABCOpenSoundDriver& d) { d.GetDriverInfo(info_); });
  info = info_;
}

int64_t COpenSoundDriverHandle::GetInputLatency() {
  Guarded([this](CABCOpenSoundDriver& d) { inputLatency_ = d.GetInputLatency(); });
  return inputLatency_;
}

int64_t COpenSoundDriverHandle::GetOutputLatency() {
  Guarded([this](CABCOpenSoundDriver& d) { outputLatency_ = d.GetOutputLatency(); });
  return outputLatency_;
}

bool COpenSoundDriverHandle::CanMonitorInputs() {
  bool can = false;
  Guarded([&can](CABCOpenSoundDriver& d) { can = d.CanMonitorInputs(); });
  return can;
}

bool COpenSoundDriverHandle::HasControlPanel() {
  bool has = false;
  Guarded([&has](CABCOpenSoundDriver& d) { has = d.HasControlPanel(); });
  return has;
}

void COpenSoundDriverHandle::ShowControlPanel() {
  Guarded([](CABCOpenSoundDriver& d) { d.ShowControlPanel(); });
}

bool COpenSoundDriverHandle::HasHardwareDevice() {
  return driver_ != nullptr && driver_->HasHardwareDevice();
}

CHardwareDevice* COpenSoundDriverHandle::GetHardwareDevice() {
  return driver_ != nullptr ? driver_->GetHardwareDevice() : nullptr;
}

void COpenSoundDriverHandle::ApplyDriverSettings(const CSoundDriverSettings& settings) {
  Guarded([&settings](CABCOpenSoundDriver& d) {
    CSoundDriverSettings present;
    d.GetSettings(present);
    d.ApplySettings(settings);
  });
}

bool COpenSoundDriverHandle::TakeHandleSettingsChanged() {
  bool driverChanged = false;
  Guarded([&driverChanged](CABCOpenSoundDriver& d) { driverChanged = d.TakeSettingsChanged(); });
  if (driverChanged) {
    changed_ = false;
    return true;
  }
  if (!changed_) return false;
  changed_ = false;
  return true;
}

void COpenSoundDriverHandle::PollDriver() {
  if (driver_ == nullptr) return;
  try {
    NSMarlet::COptionalFailureScope scope;
    driver_->CheckAlive();
  } catch (const std::exception& e) {
    EnterSilentMode();
    NSMarlet::CFailureBuilder builder{NSMarlet::CSourcePosition()};
    builder.SetFromException(NSMarlet::XNotReady(""));
    builder.SetTargetWord(NSMarlet::TargetWordAudioDriver());
    builder.AddErrorString(e.what());
    NSMarlet::RaiseBody(builder);
  } catch (...) {
    EnterSilentMode();
    NSMarlet::RaiseFailure(NSMarlet::XNotReady(""), NSMarlet::TargetWordAudioDriver());
  }
}

void COpenSoundDriverHandle::SuspendDriver() {
  if (state_ == kDriverOpen) {
    Refresh();  // not guarded: a failure here is the caller's
    GoSilent(kDriverSuspended);
  }
  ++suspendCount_;
}

void COpenSoundDriverHandle::ResumeDriver(void* hardwareContext) {
  if (state_ != kDriverSuspended || suspendCount_ != 1) {
    --suspendCount_;
    return;
  }
  if (!WinSilenceBack(kLockTimeoutMs)) RaiseLockTimeout();
  --suspendCount_;
  state_ = kNoDriver;
  const CRegisteredDriverPtr registered = registered_;
  const CSoundDriverSettings settings = settings_;
  registered_.reset();
  settings_ = CSoundDriverSettings();
  info_ = COpenSoundDriverInfo();
  registered_ = registered;
  try {
    OpenAndRefresh(&settings, hardwareContext);
    state_ = kDriverOpen;
  } catch (...) {
    EnterSilentMode();
    throw;
  }
}

void COpenSoundDriverHandle::SwitchDriver(const CRegisteredDriverPtr& registered,
                                          void* hardwareContext) {
  Switch(registered, nullptr, hardwareContext);
}

void COpenSoundDriverHandle::SwitchDriverWithSettings(const CRegisteredDriverPtr& registered,
                                                      const CSoundDriverSettings& settings,
                                                      void* hardwareContext) {
  Switch(registered, &settings, hardwareContext);
}

void COpenSoundDriverHandle::Switch(const CRegisteredDriverPtr& registered,
                                    const CSoundDriverSettings* settings, void* hardwareContext) {
  changed_ = true;
  // From either silent state, lost or suspended, the silent thread ends
  // before the new driver opens: it never pays beside a driver.
  if (!WinSilenceBack(kLockTimeoutMs)) RaiseLockTimeout();
  try {
    NSMarlet::COptionalFailureScope scope;
    state_ = kNoDriver;
    delete driver_;
    driver_ = nullptr;
    registered_.reset();
    settings_ = CSoundDriverSettings();
    info_ = COpenSoundDriverInfo();
    registered_ = registered;
    OpenAndRefresh(settings, hardwareContext);
    state_ = kDriverOpen;
  } catch (...) {
    EnterSilentMode();
  }
}

}  // namespace NSFerrand
