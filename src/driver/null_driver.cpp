#include "driver/null_driver.h"

#include <algorithm>
#include <exception>
#include <stdexcept>

#include "driver/registry.h"
#include "failure/builder.h"

namespace NSFerrand {

const uint32_t kStandardSampleRates[5] = {44100, 48000, 88200, 96000, 192000};

uint32_t NullDriverFramesFor(uint32_t requested) {
  return std::clamp(requested, kNullDriverMinFrames, kNullDriverMaxFrames);
}

namespace {

constexpr uint32_t kLockTimeoutMs = 5000;

uint32_t PeriodOf(uint32_t frames, uint32_t sampleRate) {
  return sampleRate == 0 ? 0 : static_cast<uint32_t>(uint64_t{frames} * 1000u / sampleRate);
}

uint32_t NearestStandardRate(uint32_t requested) {
  const std::vector<uint32_t> rates(std::begin(kStandardSampleRates),
                                    std::end(kStandardSampleRates));
  return FindNearestValue(rates, requested);
}

CChannelBitVector OnePairActive() {
  CChannelBitVector pairs(1);
  pairs.Set(0, true);
  return pairs;
}

void PointTo(CChannelPointers& pointers, const CChannelBitVector& pairs, float* buffer) {
  pointers.assign(static_cast<size_t>(pairs.Count()) * 2, nullptr);
  for (uint64_t p = 0; p < pairs.Count(); ++p) {
    if (pairs.Get(p)) pointers[2 * p] = pointers[2 * p + 1] = buffer;
  }
}

CChannelBitVector PairsOf(const CChannelPointers& pointers) {
  CChannelBitVector pairs(pointers.size() / 2);
  for (uint64_t p = 0; p < pairs.Count(); ++p) pairs.Set(p, pointers[2 * p] != nullptr);
  return pairs;
}

}  // namespace

CABCOpenSoundDriver* CNullRegisteredDriver::OpenWithSettings(const CSoundDriverSettings& settings,
                                                             MSoundRenderer* renderer, void*) {
  return new CNullOpenSoundDriver(&settings, renderer);
}

CABCOpenSoundDriver* CNullRegisteredDriver::OpenWithDefaults(MSoundRenderer* renderer, void*) {
  return new CNullOpenSoundDriver(nullptr, renderer);
}

CRegisteredSoundDriverInfo& CNullRegisteredDriver::GetInfo(CRegisteredSoundDriverInfo& info) {
  info.key = u"Ferrand Null Driver";
  info.family = u"Off";
  info.name = u"No Sound";
  info.version = u"1";
  info.manufacturer = u"Kestrelwaves";
  info.flags[0] = 1;
  info.flags[1] = 1;
  info.flags[2] = 0;
  info.flags[3] = 0;
  return info;
}

CNullChannelBuffers::CNullChannelBuffers(uint32_t frameCount, const CChannelBitVector& inputPairs,
                                         const CChannelBitVector& outputPairs)
    : frames(frameCount), silence(frameCount, 0.0f), scratch(frameCount) {
  PointTo(inputs, inputPairs, silence.data());
  PointTo(outputs, outputPairs, scratch.data());
}

CNullOpenSoundDriver::CNullOpenSoundDriver(const CSoundDriverSettings* settings,
                                           MSoundRenderer* renderer)
    : bufferMutex_(true), renderer_(renderer) {
  // The mutex is ours until thread and buffers stand: no render meets a
  // half-built driver.
  try {
    if (settings != nullptr) sampleRate_ = NearestStandardRate(settings->sampleRate);
    buffers_ = new CNullChannelBuffers(kNullDriverFrames, OnePairActive(), OnePairActive());
    StartThread();
  } catch (...) {
    Close();
    bufferMutex_.Unlock();
    throw;
  }
  bufferMutex_.Unlock();
  settingsChanged_ = true;
}

CNullOpenSoundDriver::~CNullOpenSoundDriver() { Close(); }

void CNullOpenSoundDriver::Close() {
  bool locked = false;
  if (thread_ != nullptr) {
    locked = PauseRendering();
    delete thread_;
    thread_ = nullptr;
  }
  delete buffers_;
  buffers_ = nullptr;
  if (locked) {
    try {
      bufferMutex_.Unlock();
    } catch (...) {
    }
  }
}

bool CNullOpenSoundDriver::PauseRendering() {
  // The timer thread renders no more from now on, so the mutex is free as
  // soon as the render in progress returns, however slow the host is.
  pausing_.store(true, std::memory_order_relaxed);
  const bool locked = bufferMutex_.TimedLock(kLockTimeoutMs);
  pausing_.store(false, std::memory_order_relaxed);
  return locked;
}

void CNullOpenSoundDriver::StartThread() {
  try {
    thread_ = new CPeriodicCallbackThread(PeriodOf(buffers_->frames, sampleRate_), &Tick, this);
  } catch (...) {
    // Without its thread the driver would be silent for good: the handle
    // must hear of it and take over.
    dead_.store(true, std::memory_order_relaxed);
    throw;
  }
}

void CNullOpenSoundDriver::Tick(CPeriodicCallbackThread* thread) {
  auto* self = static_cast<CNullOpenSoundDriver*>(thread->UserData());
  if (self->pausing_.load(std::memory_order_relaxed)) return;
  // Never waits: a render that meets a rebuild is skipped, not made up.
  CTryScopedLock lock(&self->bufferMutex_);
  if (!lock.Locked()) return;
  if (self->dead_.load(std::memory_order_relaxed)) return;
  CNullChannelBuffers& buffers = *self->buffers_;
  try {
    self->renderer_->Render(buffers.frames, buffers.inputs, buffers.outputs, 0, 0, 0, 0);
  } catch (...) {
    self->dead_.store(true, std::memory_order_relaxed);
  }
}

CSoundDriverSettings& CNullOpenSoundDriver::GetSettings(CSoundDriverSettings& settings) {
  settings.sampleRate = sampleRate_;
  settings.bufferFrames = buffers_->frames;
  settings.inputPairs = PairsOf(buffers_->inputs);
  settings.outputPairs = PairsOf(buffers_->outputs);
  settings.clockSource = clockSource_;
  settings.monitorsValid = false;
  settings.monitors.assign(static_cast<size_t>(settings.inputPairs.Count()) * 2,
                           CInputMonitorSetting());
  return settings;
}

void CNullOpenSoundDriver::ApplySettings(const CSoundDriverSettings& requested) {
  CSoundDriverSettings present;
  GetSettings(present);
  // The driver keeps what it can honour: the nearest of its rates, and a
  // size whose period lies between a millisecond and a second or so. What
  // it kept instead of the request is reported as a change.
  const uint32_t rate = NearestStandardRate(requested.sampleRate);
  const uint32_t frames = NullDriverFramesFor(requested.bufferFrames);
  if (rate != requested.sampleRate || frames != requested.bufferFrames) settingsChanged_ = true;
  if (rate != present.sampleRate) {
    sampleRate_ = rate;
    settingsChanged_ = true;
  }
  if (requested.clockSource != present.clockSource) {
    clockSource_ = requested.clockSource;
    settingsChanged_ = true;
  }
  // A new rate alone keeps the running thread and its period, on purpose.
  if (frames == present.bufferFrames && requested.inputPairs == present.inputPairs &&
      requested.outputPairs == present.outputPairs) {
    return;
  }
  if (!PauseRendering()) {
    NSMarlet::RaiseFailure(NSMarlet::NSMarletDetails::XStdRuntimeError(""),
                           NSMarlet::TargetWordAudioDriver());
  }
  delete thread_;
  thread_ = nullptr;
  std::exception_ptr failure;
  try {
    CNullChannelBuffers* rebuilt =
        new CNullChannelBuffers(frames, requested.inputPairs, requested.outputPairs);
    delete buffers_;
    buffers_ = rebuilt;
    CSoundDriverSettings now;
    GetSettings(now);
    if (now != requested) settingsChanged_ = true;
  } catch (...) {
    failure = std::current_exception();
  }
  // No thread runs now, so the mutex can go before the new one starts and
  // its first call comes at once. Without new buffers the old ones render
  // on, and the failure is told.
  bufferMutex_.Unlock();
  StartThread();
  if (failure) std::rethrow_exception(failure);
}

bool CNullOpenSoundDriver::TakeSettingsChanged() {
  const bool changed = settingsChanged_;
  settingsChanged_ = false;
  return changed;
}

COpenSoundDriverInfo& CNullOpenSoundDriver::GetDriverInfo(COpenSoundDriverInfo& info) {
  info.sampleRates.assign(std::begin(kStandardSampleRates), std::end(kStandardSampleRates));
  info.inputNames = {u"Left In", u"Right In"};
  info.outputNames = {u"Left Out", u"Right Out"};
  info.bufferSizes = {kNullDriverFrames};
  info.clockSourceNames = {u"Built-in"};
  return info;
}

int64_t CNullOpenSoundDriver::GetInputLatency() {
  return LatencyMicroseconds(buffers_->frames, sampleRate_);
}

int64_t CNullOpenSoundDriver::GetOutputLatency() {
  return LatencyMicroseconds(buffers_->frames, sampleRate_);
}

void CNullOpenSoundDriver::CheckAlive() {
  if (dead_.load(std::memory_order_relaxed)) {
    NSMarlet::RaiseFailure(NSMarlet::XNotReady(), NSMarlet::TargetWordAudioDriver());
  }
}

uint32_t CNullOpenSoundDriver::PeriodMs() const {
  return thread_ != nullptr ? thread_->PeriodMs() : 0;
}

}  // namespace NSFerrand
