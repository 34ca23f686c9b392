#include "mme/mme_driver.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "driver/aligned_floats.h"
#include "driver/kernels.h"
#include "driver/registry.h"
#include "failure/builder.h"
#include "mme/mme_family.h"
#include "platform/clock.h"
#include "platform/mutex.h"
#include "platform/wait_notice.h"

namespace NSMME {

namespace {

constexpr uint32_t kStopLookMs = 1000;

}  // namespace

uint32_t MMEFramesFor(uint32_t requested) {
  return std::clamp(requested, kMMEMinFrames, kMMEMaxFrames);
}

int32_t TargetBlocks(uint32_t bufferFrames) {
  return (static_cast<int32_t>(bufferFrames) - 1) / static_cast<int32_t>(kMMEBlockFrames) + 1;
}

COpenMMESoundDriver::COpenMMESoundDriver(const CMMESoundRegisteredSoundDriver& registered,
                                         NSFerrand::MSoundRenderer* renderer,
                                         const NSFerrand::CSoundDriverSettings* settings)
    : registered_(registered), api_(registered.WaveOut()), renderer_(renderer) {
  try {
    supportedRates_ = SupportedRates(api_, registered_.Device());
    if (settings != nullptr) {
      OpenStream(KeptRate(settings->sampleRate), MMEFramesFor(settings->bufferFrames));
    } else {
      OpenStream(KeptRate(44100), kMMEDefaultFrames);
    }
  } catch (...) {
    CloseStream();
    throw;
  }
}

COpenMMESoundDriver::~COpenMMESoundDriver() { CloseStream(); }

uint32_t COpenMMESoundDriver::KeptRate(uint32_t requested) const {
  return NSFerrand::FindNearestValue(supportedRates_, requested);
}

void COpenMMESoundDriver::OpenStream(uint32_t sampleRate, uint32_t bufferFrames) {
  try {
    OpenStreamSteps(sampleRate, bufferFrames);
  } catch (...) {
    // Nothing half-open stays behind: no device held paused without a thread.
    CloseStream();
    throw;
  }
}

void COpenMMESoundDriver::OpenStreamSteps(uint32_t sampleRate, uint32_t bufferFrames) {
  settingsChanged_ = true;
  const int32_t target = TargetBlocks(bufferFrames);
  const SWaveFormat format = Stereo16Format(sampleRate);
  // The device tells when it is done with a header: the pump waits for
  // that rather than look at the headers every millisecond.
  doneEvent_ = NSPlatform::NewEvent(false, false);
  if (doneEvent_ == nullptr) NSMarlet::RaiseFailure(std::exception());
  ThrowOnWaveResult(api_.Open(&waveOut_, registered_.Device(), format,
                              kWaveAllowSync | kWaveCallbackEvent, doneEvent_));
  // Zeroed: a failure halfway through preparing leaves the rest for the
  // closing to read, and stale flags there would hold it in its drain loop.
  headers_ = new SWaveHeader[kMMEHeaderCount]();
  const size_t sampleBytes = static_cast<size_t>(bufferFrames) * 128;
  samples_ = new int16_t[sampleBytes / 2 + 8];
  std::memset(samples_, 0, sampleBytes);
  for (uint32_t i = 0; i < kMMEHeaderCount; ++i) {
    SWaveHeader& h = headers_[i];
    // The stride is the buffer size at opening, not the block size.
    h.data = reinterpret_cast<char*>(samples_) + static_cast<size_t>(i) * bufferFrames * 4;
    h.bufferLength = kMMEBlockBytes;
    h.bytesRecorded = 0;
    h.user = i;
    h.flags = 0;
    h.loops = 0;
    h.next = nullptr;
    h.reserved = 0;
    ThrowOnWaveResult(api_.PrepareHeader(waveOut_, &h));
  }
  blocksWritten_ = 0;
  underruns_ = 0;
  ThrowOnWaveResult(api_.Pause(waveOut_));
  NSFerrand::AddAlignedFloats(outputs_, 2, kMMEMaxFrames);
  const uint32_t firstFrames = static_cast<uint32_t>(target) * kMMEBlockFrames;
  renderer_->Render(firstFrames, inputs_, outputs_, 0, 0, 0, 0);
  for (int32_t i = 0; i < target; ++i) {
    ThrowOnWaveResult(WriteBlock(static_cast<uint32_t>(i), headers_[i]));
  }
  stopMutex_ = new NSFerrand::CLockableMutex(true);
  sampleRate_ = sampleRate;
  askedBlocks_ = target;
  deviceBlocks_ = 0;
  blocksSeenDone_ = 0;
  paceWatch_.Reset();
  bufferFrames_ = bufferFrames;
  running_ = true;
  // The pump polls before the device starts: its first look at the headers
  // does not wait for a thread to be made and scheduled, time in which a
  // device that completes headers early would find the queue empty.
  thread_ = new NSFerrand::CTimedThread(this, NSFerrand::kPriorityTimeCritical,
                                        "COpenMMESoundDriver");
  ThrowOnWaveResult(api_.Restart(waveOut_));
}

uint32_t COpenMMESoundDriver::WriteBlock(uint32_t slice, SWaveHeader& header) {
  NSFerrand::FloatStereoToInterleaved16(outputs_[0] + slice * kMMEBlockFrames,
                                        outputs_[1] + slice * kMMEBlockFrames,
                                        reinterpret_cast<int16_t*>(header.data),
                                        static_cast<int32_t>(kMMEBlockFrames));
  ClearHeaderFlag(header, kHeaderDone);
  writtenAtMs_[blocksWritten_.load() & (kMMEHeaderCount - 1)] = NSPlatform::MillisecondTicks();
  const uint32_t result = api_.Write(waveOut_, &header);
  if (result == kMMSysErrNoError) ++blocksWritten_;
  return result;
}

int32_t COpenMMESoundDriver::QueueTarget() const {
  return std::min(std::max(askedBlocks_.load(), deviceBlocks_.load()),
                  static_cast<int32_t>(kMMEHeaderCount));
}

// At the device's pace a header waits, on average, as long as the queue
// plays; the shortest wait of a run of them cannot exceed that. A run whose
// shortest wait is longer by an eighth shows a device that holds more than
// the queue gives it, and plays short.
bool CDevicePaceWatch::HeaderDone(uint32_t ageMs, int32_t targetBlocks, uint32_t sampleRate) {
  shortestMs_ = std::min(shortestMs_, ageMs);
  if (++aged_ < kPaceWindowBlocks) return false;
  const uint64_t queueMs8 = static_cast<uint64_t>(std::max(targetBlocks, 0)) * kMMEBlockFrames *
                            1000 * 9 / std::max(sampleRate, 1u);
  const bool plays = static_cast<uint64_t>(shortestMs_) * 8 > queueMs8;
  Reset();
  return plays && targetBlocks < static_cast<int32_t>(kMMEHeaderCount);
}

void CDevicePaceWatch::Reset() {
  aged_ = 0;
  shortestMs_ = UINT32_MAX;
}

// Headers come back in the order they went.
void COpenMMESoundDriver::WatchTheDevicesPace(uint32_t queued) {
  const uint32_t done = blocksWritten_.load() - queued;
  if (done - blocksSeenDone_ > kMMEHeaderCount) blocksSeenDone_ = done - kMMEHeaderCount;
  const uint32_t now = NSPlatform::MillisecondTicks();
  for (; blocksSeenDone_ != done; ++blocksSeenDone_) {
    const uint32_t age = now - writtenAtMs_[blocksSeenDone_ & (kMMEHeaderCount - 1)];
    const int32_t target = QueueTarget();
    if (paceWatch_.HeaderDone(age, target, sampleRate_)) deviceBlocks_ = target + 1;
  }
}

uint32_t COpenMMESoundDriver::QueueCount() const {
  uint32_t queued = 0;
  for (uint32_t i = 0; i < kMMEHeaderCount; ++i) {
    const uint32_t flags = HeaderFlags(headers_[i]);
    if ((flags & kHeaderInQueue) != 0 && (flags & kHeaderDone) == 0) ++queued;
  }
  return queued;
}

// A failure here only sets the flag: the audio thread neither raises nor
// allocates, and the control thread tells the host. The device plays out
// what it has; nothing more is sent.
bool COpenMMESoundDriver::StreamPump() {
  if (!running_ || failed_) return false;
  bool wrote = false;
  uint32_t queued = QueueCount();
  WatchTheDevicesPace(queued);
  int32_t passTotal = 0;
  for (;;) {
    const int32_t target = QueueTarget();
    if (static_cast<int32_t>(queued) >= target || passTotal >= 2 * target) return wrote;
    // A closing waits for the Render in progress, not for a second one.
    if (stopping_.load(std::memory_order_relaxed)) return wrote;
    const int32_t need = target - static_cast<int32_t>(queued);
    try {
      renderer_->Render(static_cast<uint32_t>(need) * kMMEBlockFrames, inputs_, outputs_, 0, 0,
                        0, 0);
    } catch (...) {
      failed_ = true;
      return wrote;
    }
    passTotal += need;
    for (int32_t i = 0; i < need; ++i) {
      SWaveHeader& header = headers_[blocksWritten_.load() & (kMMEHeaderCount - 1)];
      if (queued == 0) ++underruns_;
      if (WriteBlock(static_cast<uint32_t>(i), header) != kMMSysErrNoError) {
        failed_ = true;
        return wrote;
      }
      wrote = true;
    }
    queued = QueueCount();
  }
}

uint32_t COpenMMESoundDriver::SafetyWaitMs() const {
  // A quarter of the queue: a device that fails to tell leaves three
  // quarters of it to play while the pump looks by itself.
  const uint64_t frames = static_cast<uint64_t>(QueueTarget()) * kMMEBlockFrames / 4;
  return static_cast<uint32_t>(std::max<uint64_t>(1, frames * 1000 / std::max(sampleRate_, 1u)));
}

void COpenMMESoundDriver::Run() {
  uint32_t lastStopLook = NSPlatform::MillisecondTicks();
  for (;;) {
    StreamPump();
    // The stop signal sets the event as well: a wake-up that finds it given
    // takes the mutex back. Otherwise the mutex itself is asked once a second,
    // for an owner that died without closing.
    const uint32_t now = NSPlatform::MillisecondTicks();
    if (stopMutex_->StopSignalled() || now - lastStopLook >= kStopLookMs) {
      lastStopLook = now;
      switch (stopMutex_->WaitForStop(0)) {
        case kPumpAgain: break;
        case kStopAsked: return;
        case kWaitBroken: failed_ = true; return;
      }
    }
    NSPlatform::EWaitResult woken;
    {
      NSPlatform::CPeriodWait period;
      woken = NSPlatform::WaitEvent(doneEvent_, SafetyWaitMs());
    }
    ++wakes_;
    // An event that cannot be waited on would make the loop spin.
    if (woken == NSPlatform::kWaitFailed) {
      failed_ = true;
      return;
    }
  }
}

void COpenMMESoundDriver::CloseStream() {
  if (waveOut_ == nullptr) {
    NSPlatform::DestroyEvent(doneEvent_);
    doneEvent_ = nullptr;
    return;
  }
  stopping_ = true;
  NSFerrand::StopStreamingThread(thread_, stopMutex_, doneEvent_);
  api_.Reset(waveOut_);
  running_ = false;
  // Headers must not be unprepared while the device still holds one.
  if (headers_ != nullptr) {
    for (;;) {
      bool drained = true;
      for (uint32_t i = 0; i < kMMEHeaderCount; ++i) {
        const uint32_t flags = HeaderFlags(headers_[i]);
        if ((flags & kHeaderInQueue) != 0 && (flags & kHeaderDone) == 0) drained = false;
      }
      NSPlatform::SleepMilliseconds(20);
      if (drained) break;
    }
    for (uint32_t i = 0; i < kMMEHeaderCount; ++i) {
      api_.UnprepareHeader(waveOut_, &headers_[i]);
      headers_[i].data = nullptr;
    }
    delete[] headers_;
    headers_ = nullptr;
  }
  delete[] samples_;
  samples_ = nullptr;
  api_.Close(waveOut_);
  waveOut_ = nullptr;
  NSPlatform::DestroyEvent(doneEvent_);
  doneEvent_ = nullptr;
  for (float* buffer : outputs_) NSFerrand::FreeAlignedFloats(buffer);
  for (float* buffer : inputs_) NSFerrand::FreeAlignedFloats(buffer);
  outputs_.clear();
  inputs_.clear();
  stopping_ = false;
}

NSFerrand::CSoundDriverSettings& COpenMMESoundDriver::GetSettings(
    NSFerrand::CSoundDriverSettings& settings) {
  settings = NSFerrand::CSoundDriverSettings();
  settings.sampleRate = sampleRate_;
  settings.bufferFrames = bufferFrames_.load();
  settings.outputPairs.Resize(1);
  settings.outputPairs.Set(0, true);
  return settings;
}

void COpenMMESoundDriver::ApplySettings(const NSFerrand::CSoundDriverSettings& settings) {
  settingsChanged_ = true;
  // The driver keeps the sizes its ring holds and the rates the device took.
  const uint32_t rate = KeptRate(settings.sampleRate);
  const uint32_t frames = MMEFramesFor(settings.bufferFrames);
  if (rate == sampleRate_) {
    // The stream goes on without a gap; the pump moves to the new target.
    askedBlocks_ = TargetBlocks(frames);
    bufferFrames_ = frames;
    return;
  }
  CloseStream();
  try {
    OpenStream(rate, frames);
  } catch (...) {
    failed_ = true;
    throw;
  }
}

bool COpenMMESoundDriver::TakeSettingsChanged() {
  const bool changed = settingsChanged_;
  settingsChanged_ = false;
  return changed;
}

NSFerrand::COpenSoundDriverInfo& COpenMMESoundDriver::GetDriverInfo(
    NSFerrand::COpenSoundDriverInfo& info) {
  info.sampleRates = supportedRates_;
  info.inputNames.clear();
  info.outputNames = {u"Left", u"Right"};
  info.bufferSizes.clear();
  for (uint32_t frames = kMMEMinFrames; frames <= kMMEMaxFrames; frames += kMMEBlockFrames) {
    info.bufferSizes.push_back(frames);
  }
  info.clockSourceNames = {u"Internal"};
  return info;
}

// The queue as it really is: the asked size in whole blocks, or deeper
// where the device needed more.
int64_t COpenMMESoundDriver::GetOutputLatency() {
  return NSFerrand::LatencyMicroseconds(static_cast<uint32_t>(QueueTarget()) * kMMEBlockFrames,
                                        sampleRate_);
}

void COpenMMESoundDriver::CheckAlive() {
  if (failed_) NSMarlet::RaiseFailure(NSMarlet::XNotReady(), NSMarlet::TargetWordAudioDriver());
}

}  // namespace NSMME
