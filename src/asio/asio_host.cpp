#include "asio/asio_host.h"

#include <algorithm>
#include <cstring>
#include <exception>

#include "asio/asio_driver_list.h"
#include "asio/asio_rules.h"
#include "driver/clock.h"
#include "driver/com_result.h"
#include "failure/builder.h"
#include "failure/scope.h"
#include "text/code_conversions.h"
#include "text/number_text.h"

namespace NSASIO {

using NSMarlet::RaiseFailure;

std::atomic<CASIODriverHost*> activeHost{nullptr};
std::atomic<uint32_t> startCounter{0};
const uint32_t kOfferedRates[5] = {44100, 48000, 88200, 96000, 192000};

namespace {

constexpr int32_t kMaxClockSources = 100;
constexpr uint32_t kRateCheckMs = 3000;
// How long a refused wait for the run lock is asked again, as any handover.
constexpr uint32_t kRunLockRetryMs = 5000;
// How long a render already inside may take to leave before it counts as
// stuck: far beyond any buffer's time.
constexpr uint32_t kRenderLeaveMs = 2000;

// One render's passage through the host's gate, counted while inside so that
// the control thread can wait for it to leave. Sequentially consistent on
// both sides: a render either sees the gate shut or is seen inside.
class CRenderPass {
 public:
  CRenderPass(const std::atomic<bool>& open, std::atomic<int32_t>& inside) : inside_(inside) {
    inside_.fetch_add(1);
    entered_ = open.load();
    if (!entered_) inside_.fetch_sub(1);
  }
  ~CRenderPass() {
    if (entered_) inside_.fetch_sub(1);
  }
  CRenderPass(const CRenderPass&) = delete;
  CRenderPass& operator=(const CRenderPass&) = delete;
  bool Entered() const { return entered_; }

 private:
  std::atomic<int32_t>& inside_;
  bool entered_ = false;
};

[[noreturn]] void RaiseOpen() { RaiseFailure(NSMarlet::XOpen(), NSMarlet::TargetWordAudioDriver()); }
// A plain failure with no text of its own.
[[noreturn]] void RaiseException() { RaiseFailure(NSMarlet::NSMarletDetails::XStdException()); }

// Up to 32 bytes of a driver's name, in the system's ANSI code page.
CWideString DecodeName(const char (&name)[32]) {
  char copy[33] = {};
  std::memcpy(copy, name, sizeof name);
  return NSTextPackage::SystemCodePageToWide(std::string(copy));
}

bool PairSet(const CChannelBitVector& pairs, uint64_t pair) {
  return pair < pairs.Count() && pairs.Get(pair);
}

}  // namespace

uint32_t ReadSampleRate() {
  double rate = 666.0;
  const ASIOError result = CASIOCallLayer::getSampleRate(&rate);
  if (!(rate >= 0.0) || rate > 200000.0) rate = 0.0;
  if (result == ASE_NoClock) return 0;
  if (result != ASE_OK) RaiseFailure(std::runtime_error(""));
  return static_cast<uint32_t>(rate);
}

uint32_t WriteSampleRate(uint32_t rate) {
  if (ReadSampleRate() != rate) {
    const ASIOError result = CASIOCallLayer::setSampleRate(rate);
    if (result != ASE_OK && result != ASE_NoClock && result != ASE_InvalidMode) RaiseException();
  }
  return ReadSampleRate();
}

std::vector<uint32_t> ListSampleRates() {
  uint32_t current = 0;
  try {
    current = ReadSampleRate();
  } catch (...) {
    current = 0;
  }
  std::vector<uint32_t> rates;
  for (uint32_t rate : kOfferedRates) {
    if (rate == current) continue;
    if (CASIOCallLayer::canSampleRate(rate) == ASE_OK) rates.push_back(rate);
  }
  if (current != 0 && !Holds(rates, current)) {
    rates.push_back(current);
    std::sort(rates.begin(), rates.end());
  }
  if (rates.empty()) rates.push_back(44100);
  return rates;
}

std::vector<uint32_t> ListBufferSizes() {
  int32_t minimum = 666, maximum = 666, preferred = 666, granularity = 666;
  if (CASIOCallLayer::getBufferSize(&minimum, &maximum, &preferred, &granularity) != ASE_OK) {
    RaiseException();
  }
  return BufferSizesFrom(minimum, maximum, preferred, granularity);
}

std::vector<ASIOClockSource> ListClockSources() {
  std::vector<ASIOClockSource> clocks(kMaxClockSources);
  std::memset(clocks.data(), 0, clocks.size() * sizeof(ASIOClockSource));
  int32_t count = kMaxClockSources;
  const ASIOError result = CASIOCallLayer::getClockSources(clocks.data(), &count);
  if (result != 0 && result != 1) RaiseException();
  if (count > kMaxClockSources) count = 1;
  if (count < 0) count = 0;
  if (count == 1 && clocks[0].isCurrentSource == 0) clocks[0].isCurrentSource = 1;
  clocks.resize(static_cast<size_t>(count));
  return clocks;
}

bool AskHardwareIdentity(IASIO* driver, IASIOPlatform& platform, std::string& identity) {
  identity.clear();
  void* object = nullptr;
  if (NSFerrand::ComFailed(driver->QueryInterface(kIIDHardwareIdentity, &object)) ||
      object == nullptr) {
    return false;
  }
  auto* named = static_cast<IASIOHardwareIdentity*>(object);
  char16_t* text = nullptr;
  const HResult answer = named->GetHardwareIdentity(&text);
  // A string handed out is freed whatever the answer; only a success names.
  if (text != nullptr) {
    try {
      if (NSFerrand::ComSucceeded(answer)) {
        const CWideString wide(text, platform.SysStringLen(text));
        if (!wide.empty()) identity = NSTextPackage::WideToUtf8(wide);
      }
    } catch (...) {
      identity.clear();
    }
    platform.SysFreeString(text);
  }
  named->Release();
  return true;
}

CASIODriverHost::CASIODriverHost(const CWideString& driverName,
                                 NSFerrand::MSoundRenderer* renderer, void* hardwareContext,
                                 const CSoundDriverSettings* settings)
    : callbacks_{&OnBufferSwitch, &OnSampleRateDidChange, &OnAsioMessage, &OnBufferSwitchTimeInfo},
      driverName_(driverName),
      renderer_(renderer),
      hardwareContext_(hardwareContext) {
  if (settings != nullptr) {
    ConfigureFromSettings(*settings);
  } else {
    try {
      LoadAndInitDriver();
    } catch (...) {
      StopAndRelease();
      throw;
    }
    BuildStreaming(0, CChannelBitVector(), CChannelBitVector(), true);
  }
}

CASIODriverHost::~CASIODriverHost() {
  NSMarlet::COptionalFailureScope scope;
  StopAndRelease();
}

void CASIODriverHost::Close() {
  NSMarlet::COptionalFailureScope scope;
  StopAndRelease();
}

void CASIODriverHost::LoadAndInitDriver() {
  if (driverList == nullptr || !driverList->LoadDriverByName(driverName_)) RaiseOpen();
  std::string identity;
  try {
    IASIO* driver = currentDriver.load();
    if (hardwareContext_ != nullptr && driver != nullptr && currentCalls != nullptr) {
      IASIOPlatform* platform = &driverList->Platform();
      currentCalls->Call(kCreateCallMs, [driver, platform] {
        std::string named;
        AskHardwareIdentity(driver, *platform, named);
        return named;
      }, identity);
    }
    ASIODriverInfo info;
    std::memset(&info, 0, sizeof info);
    info.asioVersion = 2;
    info.sysRef = hostWindow;
    if (ASIOInit(info) != ASE_OK) RaiseOpen();
    asioState = kASIOStateInitialised;
    identity_ = identity;
  } catch (...) {
    driverList->CloseCurrentDriver();
    currentDriver.store(nullptr);
    asioState = kASIOStateLoaded;
    throw;
  }
}

std::vector<CWideString> CASIODriverHost::BuildChannelNames(bool inputs, int32_t count) {
  std::vector<CWideString> names;
  names.reserve(static_cast<size_t>(count));
  for (int32_t c = 0; c < count; ++c) {
    ASIOChannelInfo info;
    std::memset(&info, 0, sizeof info);
    info.channel = c;
    info.isInput = inputs ? 1 : 0;
    if (CASIOCallLayer::getChannelInfo(&info) != ASE_OK) RaiseException();
    try {
      names.push_back(DecodeName(info.name));
    } catch (...) {
      names.push_back((inputs ? CWideString(u"Input ") : CWideString(u"Output ")) +
                      NSTextPackage::IntegerToText(c));
    }
  }
  return names;
}

std::vector<CWideString> CASIODriverHost::ClockSourceNames() const {
  std::vector<CWideString> names;
  for (size_t i = 0; i < clockSources_.size(); ++i) {
    CWideString name;
    try {
      name = DecodeName(clockSources_[i].name);
    } catch (...) {
    }
    if (name.empty()) name = u"Clock Source " + NSTextPackage::IntegerToText(i);
    names.push_back(name);
  }
  return names;
}

uint32_t CASIODriverHost::CurrentClockSource() const {
  for (size_t i = 0; i < clockSources_.size(); ++i) {
    if (clockSources_[i].isCurrentSource != 0) return static_cast<uint32_t>(i);
  }
  return 0;
}

void CASIODriverHost::BuildStreaming(uint32_t requestedFrames, const CChannelBitVector& inputs,
                                     const CChannelBitVector& outputs, bool startNow) {
  try {
    BuildStreamingSteps(requestedFrames, inputs, outputs, startNow);
  } catch (...) {
    StopAndRelease();
    throw;
  }
}

void CASIODriverHost::BuildStreamingSteps(uint32_t requestedFrames,
                                          const CChannelBitVector& inputs,
                                          const CChannelBitVector& outputs, bool startNow) {
  settingsChanged_ = true;
  std::vector<uint32_t> rates = ListSampleRates();
  if (rates.empty()) RaiseFailure(NSMarlet::XNotReady(), NSMarlet::TargetWordAudioDriver());
  uint32_t rate = ReadSampleRate();
  if (rate == 0) {
    WriteSampleRate(PickDefaultRate(rates));
    rate = ReadSampleRate();
  }
  std::vector<ASIOClockSource> clocks = ListClockSources();
  std::vector<uint32_t> sizes = ListBufferSizes();
  int32_t inputCount = 0;
  int32_t outputCount = 0;
  ReadChannelCounts(inputCount, outputCount);
  if (outputCount < 2) RaiseOpen();
  CChannelBitVector inputPairs = CopyPairs(inputs, static_cast<uint64_t>(inputCount / 2));
  CChannelBitVector outputPairs = CopyPairs(outputs, static_cast<uint64_t>(outputCount / 2));
  NormaliseInputPairs(inputPairs);
  NormaliseOutputPairs(outputPairs);
  std::vector<CWideString> inputNames = BuildChannelNames(true, inputCount);
  std::vector<CWideString> outputNames = BuildChannelNames(false, outputCount);
  uint32_t frames = requestedFrames;
  if (frames == 0 || !Holds(sizes, frames)) {
    int32_t minimum = 0, maximum = 0, preferred = 0, granularity = 0;
    if (CASIOCallLayer::getBufferSize(&minimum, &maximum, &preferred, &granularity) != ASE_OK) {
      RaiseException();
    }
    frames = static_cast<uint32_t>(preferred);
  }
  bufferSet_ = new CASIOBufferSet(&callbacks_, static_cast<int32_t>(frames), inputPairs,
                                  outputPairs);
  sampleRates_ = rates;
  bufferSizes_ = sizes;
  reportedRate_ = rate;
  effectiveRate_ = rate != 0 ? rate : PickDefaultRate(sampleRates_);
  PublishRates();
  bufferFrames_ = frames;
  inputNames_ = inputNames;
  outputNames_ = outputNames;
  inputPairs_ = inputPairs;
  outputPairs_ = outputPairs;
  int32_t first = 0, second = 0;
  if (CASIOCallLayer::getLatencies(&first, &second) != ASE_OK) RaiseException();
  inputLatency_ = first;
  if (CASIOCallLayer::getLatencies(&first, &second) != ASE_OK) RaiseException();
  outputLatency_ = second;
  clockSources_ = clocks;

  const size_t monitorCount = static_cast<size_t>(inputCount);
  if (!monitorsValid_) {
    monitors_.resize(monitorCount);
  } else if (monitors_.size() != monitorCount) {
    monitors_.resize(monitorCount);
    for (size_t i = 0; i < monitors_.size(); ++i) {
      if (PairSet(inputPairs_, i / 2) && PairSet(outputPairs_, monitors_[i].outputPair)) {
        SetInputMonitor(static_cast<uint32_t>(i), monitors_[i]);
      }
    }
  }
  if (startNow) StartStreaming();
}

void CASIODriverHost::ConfigureFromSettings(const CSoundDriverSettings& settings) {
  try {
    ConfigureSteps(settings);
  } catch (...) {
    StopAndRelease();
    throw;
  }
}

void CASIODriverHost::ConfigureSteps(const CSoundDriverSettings& settings) {
  LoadAndInitDriver();
  const std::vector<uint32_t> rates = ListSampleRates();
  if (rates.empty()) RaiseOpen();
  const uint32_t rate = Holds(rates, settings.sampleRate) ? settings.sampleRate : rates.front();
  WriteSampleRate(rate);
  ReadSampleRate();
  const std::vector<ASIOClockSource> clocks = ListClockSources();
  // A driver that reports no clock source has none to choose.
  if (!clocks.empty()) {
    const size_t index = settings.clockSource < clocks.size() ? settings.clockSource : 0;
    if (clocks[index].isCurrentSource == 0 &&
        CASIOCallLayer::setClockSource(clocks[index].index) != ASE_OK) {
      RaiseException();
    }
  }
  int32_t inputCount = 0;
  int32_t outputCount = 0;
  ReadChannelCounts(inputCount, outputCount);
  CChannelBitVector inputPairs = CopyPairs(settings.inputPairs, static_cast<uint64_t>(inputCount / 2));
  CChannelBitVector outputPairs =
      CopyPairs(settings.outputPairs, static_cast<uint64_t>(outputCount / 2));
  if (outputCount < 2) RaiseOpen();
  NormaliseInputPairs(inputPairs);
  NormaliseOutputPairs(outputPairs);
  BuildStreamingSteps(settings.bufferFrames, inputPairs, outputPairs, false);
  if (settings.monitorsValid) {
    for (size_t i = 0; i < settings.monitors.size(); ++i) {
      const CInputMonitorSetting& record = settings.monitors[i];
      if (PairSet(inputPairs_, i / 2) && PairSet(outputPairs_, record.outputPair)) {
        SetInputMonitor(static_cast<uint32_t>(i), record);
      }
    }
    monitorsValid_ = true;
  }
  StartStreaming();
}

void CASIODriverHost::StartStreaming() {
  try {
    bufferSet_->FillOutputSilence();
    RenderOneBuffer(1, 0, 0, true);
    if (CASIOCallLayer::start() != ASE_OK) RaiseOpen();
    asioState = kASIOStateRunning;
    activeHost.store(this);
    startCounter.fetch_add(1);
    if (runLockHeld_) {
      runLock_.Unlock();
      runLockHeld_ = false;
    }
    renderGateOpen_.store(true);
    stopped_ = false;
  } catch (...) {
    StopAndRelease();
    throw;
  }
}

void CASIODriverHost::StopAndRelease() {
  resetRequested_ = false;
  bool rendersOut = true;
  if (!stopped_) {
    renderGateOpen_.store(false);
    // A driver's thread inside a render holds the lock until it returns. A
    // wait the system refuses is asked again; a render that has not come back
    // within a render's limit never will.
    bool stuck = false;
    runLockHeld_ = NSFerrand::TryFor(kRunLockRetryMs, [this, &stuck] {
      const NSPlatform::EWaitResult wait = runLock_.WaitResult(kRenderLeaveMs);
      stuck = wait == NSPlatform::kWaitTimeout;
      return stuck || wait == NSPlatform::kWaitObject || wait == NSPlatform::kWaitAbandoned;
    }) && !stuck;
    if (stuck) renderStuck_ = true;
    // Stuck inside the driver's own outputReady: the driver hangs, and is
    // asked nothing more. Stuck in the host's render: the host's own doing.
    if (stuck && inOutputReady_.load()) CASIOCallLayer::QuarantineCurrent();
    // Without the lock the shut gate keeps new renders out; one already past
    // it is waited for as long again, unless it is the one that is stuck.
    rendersOut = runLockHeld_ || (!stuck && NSFerrand::TryFor(kRunLockRetryMs, [this] {
                   return rendersInside_.load() == 0;
                 }));
    stopped_ = true;
  }
  CASIODriverHost* self = this;
  activeHost.compare_exchange_strong(self, nullptr);
  try {
    StopIfRunning();
  } catch (...) {
  }
  // A render that never came back still writes into its buffers: they are
  // left to it, never freed.
  try {
    if (rendersOut) delete bufferSet_;
  } catch (...) {
  }
  bufferSet_ = nullptr;
  try {
    ExitIfInitialised();
  } catch (...) {
  }
}

CSoundDriverSettings CASIODriverHost::ReadCurrentSettings() const {
  CSoundDriverSettings settings;
  settings.sampleRate = effectiveRate_;
  settings.bufferFrames = bufferFrames_;
  settings.inputPairs = inputPairs_;
  settings.outputPairs = outputPairs_;
  settings.clockSource = CurrentClockSource();
  settings.monitorsValid = monitorsValid_;
  settings.monitors = monitors_;
  return settings;
}

void CASIODriverHost::ApplyNewSettings(const CSoundDriverSettings& settings) {
  const CSoundDriverSettings snapshot = ReadCurrentSettings();
  StopAndRelease();
  try {
    ConfigureFromSettings(settings);
    return;
  } catch (...) {
  }
  try {
    ConfigureFromSettings(snapshot);
  } catch (...) {
    StopAndRelease();
    throw;
  }
}

void CASIODriverHost::RestartDriver() {
  settingsChanged_ = true;
  StopAndRelease();
  try {
    LoadAndInitDriver();
    const CChannelBitVector inputs = inputPairs_;
    const CChannelBitVector outputs = outputPairs_;
    BuildStreaming(0, inputs, outputs, true);
  } catch (...) {
    StopAndRelease();
    throw;
  }
}

bool CASIODriverHost::ShowPanel() {
  const uint32_t starts = startCounter.load();
  CASIOCallLayer::controlPanel();
  if (activeHost.load() == nullptr || startCounter.load() != starts) return false;
  RestartDriver();
  return true;
}

void CASIODriverHost::PeriodicCheck() {
  // A driver that missed a deadline or crashed is lost; one whose panel is
  // open is healthy and is asked nothing until it closes.
  if (CASIOCallLayer::Quarantined()) {
    RaiseFailure(NSMarlet::XNotReady(), NSMarlet::TargetWordAudioDriver());
  }
  if (CASIOCallLayer::Busy()) return;
  if (resetRequested_.exchange(false) && asioState == kASIOStateRunning) RestartDriver();
  if (renderFailed_) RaiseFailure(NSMarlet::XNotReady(), NSMarlet::TargetWordAudioDriver());
  const int32_t now = static_cast<int32_t>(ticks_());
  // Wrap-safe: the clock's sign says nothing about the time of the check.
  if (!rateChecked_ || static_cast<int32_t>(static_cast<uint32_t>(now) -
                                            static_cast<uint32_t>(nextRateCheck_)) > 0) {
    rateChecked_ = true;
    nextRateCheck_ = static_cast<int32_t>(static_cast<uint32_t>(now) + kRateCheckMs);
    NoteSampleRate(ReadSampleRate());
  }
}

void CASIODriverHost::PublishRates() {
  const size_t count = std::min(sampleRates_.size(), sizeof rateTable_ / sizeof rateTable_[0]);
  for (size_t i = 0; i < count; ++i) rateTable_[i].store(sampleRates_[i]);
  rateCount_.store(static_cast<uint32_t>(count));
}

void CASIODriverHost::NoteSampleRate(uint32_t rate) {
  if (rate == reportedRate_.load()) return;
  settingsChanged_ = true;
  reportedRate_ = rate;
  if (rate == 0) return;
  // The nearest offered rate, the earlier on a tie; no allocation, since
  // the driver's thread comes here too.
  const uint32_t count = rateCount_.load();
  uint32_t best = rate;
  uint64_t bestDistance = UINT64_MAX;
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t entry = rateTable_[i].load();
    const uint64_t distance = entry > rate ? entry - rate : rate - entry;
    if (distance < bestDistance) {
      best = entry;
      bestDistance = distance;
    }
  }
  effectiveRate_ = best;
}

void CASIODriverHost::SetInputMonitor(uint32_t channel, const CInputMonitorSetting& record) {
  ASIOInputMonitor monitor;
  monitor.state = record.enabled ? 1 : 0;
  monitor.pan = MonitorPan(record.pan);
  const std::vector<uint16_t>* slots = bufferSet_ != nullptr ? &bufferSet_->InputSlots() : nullptr;
  const uint16_t slot =
      slots != nullptr && channel < slots->size() ? (*slots)[channel] : kNoSlot;
  monitor.input = static_cast<int16_t>(slot);
  const uint16_t output = bufferSet_ != nullptr
                              ? bufferSet_->MapMonitorOutput(record.outputPair * 2)
                              : kNoSlot;
  monitor.output = static_cast<int16_t>(output);
  monitor.gain = MonitorGain(record.gainDb);
  if (CASIOCallLayer::future(kAsioSetInputMonitor, &monitor) != ASE_SUCCESS) return;
  if (channel < monitors_.size()) monitors_[channel] = record;
}

bool CASIODriverHost::CanMonitorInputs() {
  uint32_t answer = 0;
  return CASIOCallLayer::future(kAsioCanInputMonitor, &answer) == ASE_SUCCESS && answer == 1;
}

void CASIODriverHost::RenderOneBuffer(int32_t index, uint64_t systemTime,
                                      uint64_t samplePosition, bool priming) {
  if (renderFailed_.load(std::memory_order_relaxed)) return;
  try {
    const int32_t frames = bufferSet_->Frames();
    bufferSet_->ConvertInputs(index, frames);
    const double rate = static_cast<double>(effectiveRate_.load(std::memory_order_relaxed));
    const uint64_t inputNs = rate > 0 ? TruncateToU64(inputLatency_ / rate * 1e9) : 0;
    const uint64_t outputNs = rate > 0 ? TruncateToU64(outputLatency_ / rate * 1e9) : 0;
    const uint64_t inputFrames = static_cast<uint64_t>(static_cast<int64_t>(inputLatency_));
    const uint64_t outputFrames = static_cast<uint64_t>(static_cast<int64_t>(outputLatency_));
    renderer_->Render(static_cast<uint32_t>(frames), bufferSet_->InputChannels(),
                      bufferSet_->OutputChannels(), systemTime - inputNs,
                      samplePosition - inputFrames, systemTime + outputNs,
                      samplePosition + outputFrames);
    bufferSet_->ConvertOutputs(index, frames);
    if (priming) {
      // On the control thread, before the start: through the driver's thread.
      CASIOCallLayer::outputReadyBeforeStart();
    } else {
      inOutputReady_.store(true);
      CASIOCallLayer::outputReady();
      inOutputReady_.store(false);
    }
    outputReadyPending_.store(false, std::memory_order_relaxed);
  } catch (...) {
    renderFailed_ = true;
  }
}

void CASIODriverHost::OnBufferSwitch(int32_t index, ASIOBool) {
  try {
    CASIODriverHost* host = activeHost.load();
    if (host == nullptr) return;
    ASIOSamples position = {};
    ASIOTimeStamp stamp = {};
    CASIOCallLayer::getSamplePosition(&position, &stamp);
    host->outputReadyPending_.store(true, std::memory_order_relaxed);
    NSFerrand::CTryScopedLock lock(&host->runLock_);
    if (lock.Locked()) {
      const CRenderPass pass(host->renderGateOpen_, host->rendersInside_);
      if (pass.Entered()) {
        host->RenderOneBuffer(index, Join64(stamp.hi, stamp.lo),
                              Join64(position.hi, position.lo));
      }
    }
    // A skipped or failed buffer still tells the driver its output is ready.
    if (host->outputReadyPending_.exchange(false, std::memory_order_relaxed)) {
      CASIOCallLayer::outputReady();
    }
  } catch (...) {
  }
}

ASIOTime* CASIODriverHost::OnBufferSwitchTimeInfo(ASIOTime* time, int32_t index, ASIOBool) {
  try {
    CASIODriverHost* host = activeHost.load();
    if (host == nullptr) return nullptr;
    NSFerrand::CTryScopedLock lock(&host->runLock_);
    if (!lock.Locked()) return nullptr;
    const CRenderPass pass(host->renderGateOpen_, host->rendersInside_);
    if (!pass.Entered()) return nullptr;
    uint64_t systemTime = 0;
    uint64_t samplePosition = 0;
    if (time != nullptr) {
      const AsioTimeInfo& info = time->timeInfo;
      if ((info.flags & (kSampleRateValid | kSampleRateChanged)) != 0) {
        host->NoteSampleRate(TruncateRate(info.sampleRate));
      }
      systemTime = Join64(info.systemTime.hi, info.systemTime.lo);
      samplePosition = Join64(info.samplePosition.hi, info.samplePosition.lo);
    }
    host->RenderOneBuffer(index, systemTime, samplePosition);
  } catch (...) {
  }
  return nullptr;
}

void CASIODriverHost::OnSampleRateDidChange(ASIOSampleRate rate) {
  try {
    CASIODriverHost* host = activeHost.load();
    if (host != nullptr) host->NoteSampleRate(TruncateRate(rate));
  } catch (...) {
  }
}

int32_t CASIODriverHost::OnAsioMessage(int32_t selector, int32_t value, void*, double*) {
  CASIODriverHost* host = activeHost.load();
  if (host == nullptr) return 0;
  switch (selector) {
    case kAsioSelectorSupported:
      return value == kAsioEngineVersion || value == kAsioResetRequest ||
                     value == kAsioResyncRequest || value == kAsioLatenciesChanged
                 ? 1
                 : 0;
    case kAsioEngineVersion: return 2;
    case kAsioResetRequest: host->resetRequested_ = true; return 1;
    case kAsioSupportsTimeInfo: return 1;
    default: return 0;
  }
}

}  // namespace NSASIO
