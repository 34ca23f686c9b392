#include "fakes/fake_driver.h"

#include <chrono>
#include <stdexcept>

#include "failure/builder.h"

namespace Fakes {

using namespace NSFerrand;

const char* OperationName(EOperation operation) {
  static const char* const kNames[kOperationCount] = {
      "OpenWithSettings", "OpenWithDefaults", "GetSettings",      "ApplySettings",
      "TakeSettingsChanged", "GetDriverInfo",  "GetInputLatency",  "GetOutputLatency",
      "CanMonitorInputs",  "GetInputMonitor",  "SetInputMonitor",  "HasControlPanel",
      "ShowControlPanel",  "HasHardwareDevice", "GetHardwareDevice", "CheckAlive",
      "GetInfo"};
  return operation < kOperationCount ? kNames[operation] : "?";
}

CFakeDriverControl::CFakeDriverControl() {
  settings.sampleRate = 48000;
  settings.bufferFrames = 256;
  settings.inputPairs.Resize(1);
  settings.inputPairs.Set(0, true);
  settings.outputPairs.Resize(2);
  settings.outputPairs.Set(0, true);
  settings.outputPairs.Set(1, true);
  settings.monitors.assign(2, CInputMonitorSetting());
  info.sampleRates = {44100, 48000};
  info.inputNames = {u"In 1", u"In 2"};
  info.outputNames = {u"Out 1", u"Out 2", u"Out 3", u"Out 4"};
  info.bufferSizes = {128, 256, 512};
  info.clockSourceNames = {u"Internal", u"Word Clock"};
}

void CFakeDriverControl::Raise(EOperation operation, uint32_t failureCode, int32_t times) {
  behaviours_[operation].raiseTimes = times;
  behaviours_[operation].raiseCode = failureCode;
}

void CFakeDriverControl::Succeed(EOperation operation) { behaviours_[operation].raiseCode = 0; }

void CFakeDriverControl::Enter(EOperation operation) {
  SBehaviour& b = behaviours_[operation];
  ++b.calls;
  if (onEnter) onEnter(operation);
  if (const uint32_t ms = b.blockMs.load()) std::this_thread::sleep_for(std::chrono::milliseconds(ms));
  const uint32_t code = b.raiseCode.load();
  if (code == 0) return;
  const int32_t times = b.raiseTimes.load();
  if (times == 0) return;
  if (times > 0) --b.raiseTimes;
  if (code == 1) throw std::runtime_error("fake");
  NSMarlet::CFailureEntry entry;
  entry.failureCode = code;
  NSMarlet::CFailureBuilder builder{NSMarlet::CSourcePosition()};
  builder.SetEntry(entry);
  if (b.audioDriverWord) builder.SetTargetWord(NSMarlet::TargetWordAudioDriver());
  NSMarlet::RaiseBody(builder);
}

CFakeRegisteredDriver::CFakeRegisteredDriver(std::shared_ptr<CFakeDriverControl> control,
                                             const CWideString& key, const CWideString& family,
                                             const CWideString& name,
                                             const CWideString& manufacturer,
                                             const CWideString& version)
    : control_(std::move(control)), key_(key), family_(family), name_(name),
      manufacturer_(manufacturer), version_(version) {}

CABCOpenSoundDriver* CFakeRegisteredDriver::OpenWithSettings(const CSoundDriverSettings& settings,
                                                             MSoundRenderer* renderer,
                                                             void* hardwareContext) {
  lastHardwareContext = hardwareContext;
  control_->Enter(kOpenWithSettings);
  {
    std::lock_guard<std::mutex> lock(control_->lock);
    control_->settings = settings;
  }
  return new CFakeOpenSoundDriver(control_, renderer, hardwareContext);
}

CABCOpenSoundDriver* CFakeRegisteredDriver::OpenWithDefaults(MSoundRenderer* renderer,
                                                             void* hardwareContext) {
  lastHardwareContext = hardwareContext;
  control_->Enter(kOpenWithDefaults);
  return new CFakeOpenSoundDriver(control_, renderer, hardwareContext);
}

CRegisteredSoundDriverInfo& CFakeRegisteredDriver::GetInfo(CRegisteredSoundDriverInfo& info) {
  control_->Enter(kGetInfo);
  info.key = key_;
  info.family = family_;
  info.name = name_;
  info.version = version_;
  info.manufacturer = manufacturer_;
  for (int i = 0; i < 4; ++i) info.flags[i] = flags[i];
  return info;
}

CFakeOpenSoundDriver::CFakeOpenSoundDriver(std::shared_ptr<CFakeDriverControl> control,
                                           MSoundRenderer* renderer, void* hardwareContext)
    : control_(std::move(control)), renderer_(renderer) {
  if (hardwareContext != nullptr && !control_->hardwareDevice.empty()) {
    const NSZEPGlue::CGluePtr& glue = *static_cast<NSZEPGlue::CGluePtr*>(hardwareContext);
    if (glue) device_.reset(new NSZEPGlue::CSharedDeviceImpl(glue, control_->hardwareDevice));
  }
  BuildBuffers();
  ++control_->openDrivers;
  ++control_->opened;
  thread_ = std::thread([this] { RenderLoop(); });
}

CFakeOpenSoundDriver::~CFakeOpenSoundDriver() {
  stop_ = true;
  thread_.join();
  --control_->openDrivers;
}

void CFakeOpenSoundDriver::BuildBuffers() {
  std::lock_guard<std::mutex> guard(buffersLock_);
  std::lock_guard<std::mutex> lock(control_->lock);
  const CSoundDriverSettings& s = control_->settings;
  buffers_.clear();
  inputs_.assign(static_cast<size_t>(s.inputPairs.Count()) * 2, nullptr);
  outputs_.assign(static_cast<size_t>(s.outputPairs.Count()) * 2, nullptr);
  buffers_.reserve(inputs_.size() + outputs_.size());
  for (size_t c = 0; c < inputs_.size(); ++c) {
    if (!s.inputPairs.Get(c / 2)) continue;
    buffers_.emplace_back(s.bufferFrames, 0.0f);
    inputs_[c] = buffers_.back().data();
  }
  for (size_t c = 0; c < outputs_.size(); ++c) {
    if (!s.outputPairs.Get(c / 2)) continue;
    buffers_.emplace_back(s.bufferFrames, 0.0f);
    outputs_[c] = buffers_.back().data();
  }
  monitors_ = s.monitors;
}

void CFakeOpenSoundDriver::RenderLoop() {
  while (!stop_) {
    if (control_->rendering && !dead_) {
      std::lock_guard<std::mutex> guard(buffersLock_);
      uint32_t frames;
      {
        std::lock_guard<std::mutex> lock(control_->lock);
        frames = control_->settings.bufferFrames;
      }
      try {
        renderer_->Render(frames, inputs_, outputs_, 0, 0, 0, 0);
        ++control_->renders;
      } catch (...) {
        // As every family: a raising renderer marks the driver dead.
        dead_ = true;
        control_->renderRaised = true;
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(control_->renderPeriodMs.load()));
  }
}

CSoundDriverSettings& CFakeOpenSoundDriver::GetSettings(CSoundDriverSettings& settings) {
  control_->Enter(kGetSettings);
  std::lock_guard<std::mutex> lock(control_->lock);
  settings = control_->settings;
  return settings;
}

void CFakeOpenSoundDriver::ApplySettings(const CSoundDriverSettings& settings) {
  control_->Enter(kApplySettings);
  {
    std::lock_guard<std::mutex> lock(control_->lock);
    if (!(control_->settings == settings)) control_->settingsChanged = true;
    control_->settings = settings;
  }
  BuildBuffers();
}

bool CFakeOpenSoundDriver::TakeSettingsChanged() {
  control_->Enter(kTakeSettingsChanged);
  std::lock_guard<std::mutex> lock(control_->lock);
  const bool changed = control_->settingsChanged;
  control_->settingsChanged = false;
  return changed;
}

COpenSoundDriverInfo& CFakeOpenSoundDriver::GetDriverInfo(COpenSoundDriverInfo& info) {
  control_->Enter(kGetDriverInfo);
  std::lock_guard<std::mutex> lock(control_->lock);
  info = control_->info;
  return info;
}

int64_t CFakeOpenSoundDriver::GetInputLatency() {
  control_->Enter(kGetInputLatency);
  return control_->inputLatency;
}

int64_t CFakeOpenSoundDriver::GetOutputLatency() {
  control_->Enter(kGetOutputLatency);
  return control_->outputLatency;
}

bool CFakeOpenSoundDriver::CanMonitorInputs() {
  control_->Enter(kCanMonitorInputs);
  return control_->canMonitor;
}

void CFakeOpenSoundDriver::GetInputMonitor(uint32_t input, CInputMonitorSetting& setting) {
  control_->Enter(kGetInputMonitor);
  if (input < monitors_.size()) setting = monitors_[input];
}

void CFakeOpenSoundDriver::SetInputMonitor(uint32_t input, const CInputMonitorSetting& setting) {
  control_->Enter(kSetInputMonitor);
  if (input < monitors_.size()) monitors_[input] = setting;
}

bool CFakeOpenSoundDriver::HasControlPanel() {
  control_->Enter(kHasControlPanel);
  return control_->hasPanel;
}

bool CFakeOpenSoundDriver::HasHardwareDevice() {
  control_->Enter(kHasHardwareDevice);
  return device_ != nullptr;
}

CHardwareDevice* CFakeOpenSoundDriver::GetHardwareDevice() {
  control_->Enter(kGetHardwareDevice);
  return device_.get();
}

bool CFakeOpenSoundDriver::ShowControlPanel() {
  control_->Enter(kShowControlPanel);
  return true;
}

void CFakeOpenSoundDriver::CheckAlive() {
  control_->Enter(kCheckAlive);
  if (dead_) NSMarlet::RaiseFailure(NSMarlet::XNotReady(), NSMarlet::TargetWordAudioDriver());
}

}  // namespace Fakes
