#include "directsound/dsound_driver.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "directsound/dsound_family.h"
#include "driver/aligned_floats.h"
#include "driver/clock.h"
#include "driver/com_result.h"
#include "driver/kernels.h"
#include "driver/registry.h"
#include "failure/builder.h"

namespace NSDirectSound {

using NSMarlet::RaiseFailure;

namespace {

constexpr HResult kBufferLost = static_cast<HResult>(0x88780096u);
constexpr HResult kInvalidArgument = static_cast<HResult>(0x80070057u);
const uint32_t kCandidateRates[5] = {44100, 48000, 88200, 96000, 192000};

// Holds a device object and its primary buffer for the rate trial, and
// gives both back however the trial ends.
class CTrialDevice {
 public:
  explicit CTrialDevice(IDirectSoundApi& api) : api_(api) {}
  ~CTrialDevice() {
    if (primary_ != nullptr) api_.ReleaseBuffer(primary_);
    if (device_ != nullptr) api_.ReleaseDevice(device_);
  }
  CTrialDevice(const CTrialDevice&) = delete;
  CTrialDevice& operator=(const CTrialDevice&) = delete;
  DSDevice device_ = nullptr;
  DSBuffer primary_ = nullptr;

 private:
  IDirectSoundApi& api_;
};

void CreateDevice(IDirectSoundApi& api, const SGuid* guid, DSDevice* device) {
  ThrowOnDirectSoundResult(api.DirectSoundCreate(DirectSoundEntries().create, guid, device));
  if (*device == nullptr) RaiseFailure(std::invalid_argument(""));
}

SDSBufferDesc PrimaryDesc() {
  SDSBufferDesc desc;
  desc.flags = kBufferPrimary | kBufferGetCurrentPosition2;
  return desc;
}

// A failure of the device itself, as the trial meets it when the device is
// in use: the rates found so far stand.
bool IsDeviceFailure(const std::runtime_error& failure) {
  return NSMarlet::TargetObjectTypeIs(
      NSMarlet::BodyFromException(&failure, NSMarlet::CSourcePosition()),
      NSMarlet::TargetWordAudioDriver());
}

}  // namespace

uint32_t DirectSoundFramesFor(uint32_t requested) {
  const uint32_t kept = std::clamp(requested, kDirectSoundMinFrames, kDirectSoundMaxFrames);
  return (kept + kDirectSoundFrameStep / 2) / kDirectSoundFrameStep * kDirectSoundFrameStep;
}

int32_t WritableRoom(int32_t targetLatency, int32_t queued) {
  const int32_t room = targetLatency - queued;
  if (room < 0) return 0;
  return static_cast<int32_t>(static_cast<uint32_t>(room) & 0xFFFFFF40u);
}

int32_t MinimumWrite(int32_t targetLatency) { return std::max(targetLatency >> 8, 64); }

int32_t CursorFrames(uint32_t bytePosition) {
  const int32_t frames = static_cast<int32_t>(bytePosition / 4);
  return frames == kDirectSoundRingFrames ? 0 : frames;
}

int32_t CursorDelta(int32_t cursor, int32_t lastCursor) {
  const int32_t delta = cursor - lastCursor;
  return delta < 0 ? delta + kDirectSoundRingFrames : delta;
}

COpenDirectSoundDriver::COpenDirectSoundDriver(const CDirectSoundRegisteredSoundDriver& registered,
                                               NSFerrand::MSoundRenderer* renderer,
                                               const NSFerrand::CSoundDriverSettings* settings)
    : registered_(registered), api_(DirectSoundApi()), renderer_(renderer) {
  try {
    supportedRates_ = FindSupportedRates();
    if (supportedRates_.empty()) {
      RaiseFailure(NSMarlet::XOpen(), NSMarlet::TargetWordAudioDriver());
    }
    if (settings != nullptr) {
      OpenStream(KeptRate(settings->sampleRate), DirectSoundFramesFor(settings->bufferFrames));
    } else {
      OpenStream(KeptRate(44100), kDirectSoundDefaultFrames);
    }
  } catch (...) {
    CloseStream();
    if (device_ != nullptr) api_.ReleaseDevice(device_);
    device_ = nullptr;
    throw;
  }
}

COpenDirectSoundDriver::~COpenDirectSoundDriver() {
  CloseStream();
  if (device_ != nullptr) api_.ReleaseDevice(device_);
}

uint32_t COpenDirectSoundDriver::KeptRate(uint32_t requested) const {
  return NSFerrand::FindNearestValue(supportedRates_, requested);
}

std::vector<uint32_t> COpenDirectSoundDriver::FindSupportedRates() {
  std::vector<uint32_t> rates;
  try {
    CTrialDevice trial(api_);
    CreateDevice(api_, registered_.Guid(), &trial.device_);
    ThrowOnDirectSoundResult(
        api_.SetCooperativeLevel(trial.device_, DirectSoundWindow(), kCooperativePriority));
    SDSCaps caps;
    std::memset(&caps, 0, sizeof caps);
    caps.size = sizeof caps;
    ThrowOnDirectSoundResult(api_.GetCaps(trial.device_, &caps));
    ThrowOnDirectSoundResult(api_.CreateSoundBuffer(trial.device_, PrimaryDesc(), &trial.primary_));
    for (uint32_t rate : kCandidateRates) {
      if ((caps.flags & kCapsContinuousRate) != 0 &&
          (rate < caps.minSecondarySampleRate || rate > caps.maxSecondarySampleRate)) {
        continue;
      }
      SPcmFormat format = NSFerrand::Stereo16Format(rate);
      if (NSFerrand::ComFailed(api_.SetFormat(trial.primary_, format))) continue;
      if (NSFerrand::ComSucceeded(api_.GetFormat(trial.primary_, &format, 18)) &&
          format.samplesPerSecond == rate) {
        rates.push_back(rate);
      }
    }
  } catch (const std::runtime_error& failure) {
    if (!IsDeviceFailure(failure)) throw;
  }
  return rates;
}

void COpenDirectSoundDriver::OpenStream(uint32_t sampleRate, uint32_t frames) {
  try {
    OpenStreamSteps(sampleRate, frames);
  } catch (...) {
    CloseStream();
    throw;
  }
}

void COpenDirectSoundDriver::OpenStreamSteps(uint32_t sampleRate, uint32_t frames) {
  settingsChanged_ = true;
  if (std::find(supportedRates_.begin(), supportedRates_.end(), sampleRate) ==
      supportedRates_.end()) {
    RaiseFailure(std::invalid_argument(""));
  }
  SPcmFormat format = NSFerrand::Stereo16Format(sampleRate);
  // A device object from an earlier open stays behind, as it always has.
  CreateDevice(api_, registered_.Guid(), &device_);
  ThrowOnDirectSoundResult(api_.SetCooperativeLevel(device_, DirectSoundWindow(),
                                                    kCooperativePriority));
  ThrowOnDirectSoundResult(api_.CreateSoundBuffer(device_, PrimaryDesc(), &primary_));
  ThrowOnDirectSoundResult(api_.SetFormat(primary_, format));
  uint32_t rate = sampleRate;
  if (api_.GetFormat(primary_, &format, 18) == 0) rate = format.samplesPerSecond;
  SDSBufferDesc desc;
  desc.flags = kBufferStatic | kBufferGlobalFocus | kBufferGetCurrentPosition2;
  desc.bufferBytes = kDirectSoundRingBytes;
  desc.format = &format;
  HResult created = api_.CreateSoundBuffer(device_, desc, &secondary_);
  if (created == kInvalidArgument) {
    desc.flags &= ~kBufferGlobalFocus;
    created = api_.CreateSoundBuffer(device_, desc, &secondary_);
  }
  ThrowOnDirectSoundResult(created);
  NSFerrand::AddAlignedFloats(outputs_, 2, kDirectSoundRingFrames);
  lastCursor_ = 0;
  framesWritten_ = 0;
  framesPlayed_ = 0;
  WriteSilence();
  ThrowOnDirectSoundResult(api_.Play(secondary_, kPlayLooping));
  try {
    stopMutex_ = new NSFerrand::CLockableMutex(true);
    sampleRate_ = rate;
    targetLatency_ = static_cast<int32_t>(frames);
    minimumWrite_ = MinimumWrite(static_cast<int32_t>(frames));
    thread_ = new NSFerrand::CTimedThread(this, NSFerrand::kPriorityTimeCritical,
                                          "COpenDirectSoundDriver");
  } catch (...) {
    delete stopMutex_;
    stopMutex_ = nullptr;
    api_.Stop(secondary_);
    throw;
  }
}

void COpenDirectSoundDriver::WriteSilence() {
  void* first = nullptr;
  void* second = nullptr;
  uint32_t firstBytes = 0;
  uint32_t secondBytes = 0;
  HResult locked = api_.Lock(secondary_, 0, kDirectSoundRingBytes, &first, &firstBytes, &second,
                             &secondBytes, 0);
  if (locked == kBufferLost) {
    ThrowOnDirectSoundResult(api_.Restore(secondary_));
    locked = api_.Lock(secondary_, 0, kDirectSoundRingBytes, &first, &firstBytes, &second,
                       &secondBytes, 0);
  }
  ThrowOnDirectSoundResult(locked);
  if (first != nullptr && firstBytes >= 4) std::memset(first, 0, firstBytes / 4 * 4);
  if (second != nullptr && secondBytes >= 4) std::memset(second, 0, secondBytes / 4 * 4);
  ThrowOnDirectSoundResult(api_.Unlock(secondary_, first, firstBytes, second, secondBytes));
}

void COpenDirectSoundDriver::Run() {
  for (;;) {
    const uint32_t waitMs = StreamPump();
    // The opener's release of the stop mutex is the signal to end.
    switch (stopMutex_->WaitForStop(waitMs)) {
      case NSFerrand::kPumpAgain: continue;
      case NSFerrand::kStopAsked: return;
      case NSFerrand::kWaitBroken: failed_ = true; return;
    }
  }
}

int32_t WriteQuantum(int32_t targetLatency) {
  return std::max(MinimumWrite(targetLatency),
                  static_cast<int32_t>(static_cast<uint32_t>(targetLatency / 4) & ~63u));
}

uint32_t PumpWaitMs(int32_t targetLatency, int32_t queued, uint32_t sampleRate) {
  const uint32_t rate = std::max(sampleRate, 1u);
  const int64_t longest =
      std::max<int64_t>(1, static_cast<int64_t>(targetLatency / 4) * 1000 / rate);
  const int64_t room = std::max(0, targetLatency - std::max(queued, 0));
  const int64_t frames = std::max<int64_t>(1, WriteQuantum(targetLatency) - room);
  const int64_t due = (frames * 1000 + rate - 1) / rate;
  return static_cast<uint32_t>(std::clamp<int64_t>(due, 1, longest));
}

// A failure here only sets the flag, for good: the audio thread neither
// raises nor allocates, and the buffer loops what it holds until the driver
// closes.
uint32_t COpenDirectSoundDriver::StreamPump() {
  const int32_t target = targetLatency_.load();
  if (failed_) return PumpWaitMs(target, target, sampleRate_);
  uint32_t playByte = 0;
  uint32_t writeByte = 0;
  if (NSFerrand::ComFailed(api_.GetCurrentPosition(secondary_, &playByte, &writeByte))) {
    failed_ = true;
    return PumpWaitMs(target, target, sampleRate_);
  }
  const int32_t cursor = CursorFrames(playByte);
  framesPlayed_ = static_cast<int32_t>(static_cast<uint32_t>(framesPlayed_) +
                                       static_cast<uint32_t>(CursorDelta(cursor, lastCursor_)));
  lastCursor_ = cursor;
  int32_t queued = QueuedFrames();
  if (queued < 0) {
    ++underruns_;
    queued = 0;
  }
  const int32_t room = WritableRoom(target, queued);
  if (room >= minimumWrite_.load()) {
    WriteBlock(framesWritten_.load() & (kDirectSoundRingFrames - 1), room);
  }
  return PumpWaitMs(target, QueuedFrames(), sampleRate_);
}

int32_t COpenDirectSoundDriver::QueuedFrames() const {
  return static_cast<int32_t>(static_cast<uint32_t>(framesWritten_.load()) -
                              static_cast<uint32_t>(framesPlayed_));
}

void COpenDirectSoundDriver::WriteBlock(int32_t position, int32_t count) {
  const int32_t n = std::min(count, kDirectSoundRingFrames);
  framesWritten_ = static_cast<int32_t>(static_cast<uint32_t>(framesWritten_.load()) +
                                        static_cast<uint32_t>(n));
  lastWrite_ = n;
  try {
    renderer_->Render(static_cast<uint32_t>(n), inputs_, outputs_, 0, 0, 0, 0);
  } catch (...) {
    failed_ = true;
    return;
  }
  NSFerrand::FloatStereoToInterleaved16(outputs_[0], outputs_[1], staging_, n);
  if (bufferLost_) {
    if (NSFerrand::ComFailed(api_.Restore(secondary_))) {
      if (NSFerrand::GetCoarseTickCount32() - lostSince_ >= kDirectSoundLostForGoodMs) {
        failed_ = true;
      }
      return;
    }
    bufferLost_ = false;
  }
  void* first = nullptr;
  void* second = nullptr;
  uint32_t firstBytes = 0;
  uint32_t secondBytes = 0;
  const uint32_t offset = static_cast<uint32_t>(position) * 4;
  const uint32_t bytes = static_cast<uint32_t>(n) * 4;
  HResult locked =
      api_.Lock(secondary_, offset, bytes, &first, &firstBytes, &second, &secondBytes, 0);
  if (locked == kBufferLost) {
    if (NSFerrand::ComFailed(api_.Restore(secondary_))) {
      bufferLost_ = true;
      lostSince_ = NSFerrand::GetCoarseTickCount32();
      return;
    }
    locked = api_.Lock(secondary_, offset, bytes, &first, &firstBytes, &second, &secondBytes, 0);
  }
  if (NSFerrand::ComFailed(locked)) {
    failed_ = true;
    return;
  }
  // The regions never hold more than was asked for; a driver that says so
  // is not believed beyond the staging area.
  const uint32_t firstCopy = std::min(firstBytes, bytes);
  if (first != nullptr && firstCopy >= 4) std::memcpy(first, staging_, firstCopy);
  const uint32_t secondCopy = std::min(secondBytes, bytes - firstCopy);
  if (second != nullptr && secondCopy >= 4) {
    std::memcpy(second, reinterpret_cast<const uint8_t*>(staging_) + firstCopy, secondCopy);
  }
  if (NSFerrand::ComFailed(api_.Unlock(secondary_, first, firstBytes, second, secondBytes))) {
    failed_ = true;
  }
}

void COpenDirectSoundDriver::CloseStream() {
  if (thread_ != nullptr) {
    NSFerrand::StopStreamingThread(thread_, stopMutex_);
    api_.Stop(secondary_);
  }
  if (secondary_ != nullptr) api_.ReleaseBuffer(secondary_);
  secondary_ = nullptr;
  if (primary_ != nullptr) api_.ReleaseBuffer(primary_);
  primary_ = nullptr;
  for (float* buffer : outputs_) NSFerrand::FreeAlignedFloats(buffer);
  for (float* buffer : inputs_) NSFerrand::FreeAlignedFloats(buffer);
  outputs_.clear();
  inputs_.clear();
}

NSFerrand::CSoundDriverSettings& COpenDirectSoundDriver::GetSettings(
    NSFerrand::CSoundDriverSettings& settings) {
  settings = NSFerrand::CSoundDriverSettings();
  settings.sampleRate = sampleRate_;
  settings.bufferFrames = static_cast<uint32_t>(targetLatency_.load());
  settings.outputPairs.Resize(1);
  settings.outputPairs.Set(0, true);
  return settings;
}

void COpenDirectSoundDriver::ApplySettings(const NSFerrand::CSoundDriverSettings& settings) {
  settingsChanged_ = true;
  // The driver keeps the sizes it offers and the rates the device took.
  const uint32_t rate = KeptRate(settings.sampleRate);
  const int32_t frames = static_cast<int32_t>(DirectSoundFramesFor(settings.bufferFrames));
  if (rate == sampleRate_) {
    // No gap: the pump moves to the new target at its next pass.
    targetLatency_ = frames;
    minimumWrite_ = MinimumWrite(frames);
    return;
  }
  CloseStream();
  try {
    OpenStream(rate, static_cast<uint32_t>(frames));
  } catch (...) {
    // Closed for good: the next check finds the driver lost.
    failed_ = true;
    throw;
  }
}

bool COpenDirectSoundDriver::TakeSettingsChanged() {
  const bool changed = settingsChanged_;
  settingsChanged_ = false;
  return changed;
}

NSFerrand::COpenSoundDriverInfo& COpenDirectSoundDriver::GetDriverInfo(
    NSFerrand::COpenSoundDriverInfo& info) {
  info.sampleRates = supportedRates_;
  info.inputNames.clear();
  info.outputNames = {u"Left", u"Right"};
  info.bufferSizes.clear();
  for (uint32_t frames = kDirectSoundMinFrames; frames <= kDirectSoundMaxFrames;
       frames += kDirectSoundFrameStep) {
    info.bufferSizes.push_back(frames);
  }
  info.clockSourceNames = {u"Internal"};
  return info;
}

int64_t COpenDirectSoundDriver::GetOutputLatency() {
  NSFerrand::CSoundDriverSettings settings;
  GetSettings(settings);
  return NSFerrand::LatencyMicroseconds(settings.bufferFrames, settings.sampleRate);
}

void COpenDirectSoundDriver::CheckAlive() {
  if (failed_) RaiseFailure(NSMarlet::XNotReady(), NSMarlet::TargetWordAudioDriver());
}

}  // namespace NSDirectSound
