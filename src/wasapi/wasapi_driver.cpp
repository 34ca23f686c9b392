#include "wasapi/wasapi_driver.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "driver/aligned_floats.h"
#include "driver/com_result.h"
#include "driver/kernels.h"
#include "driver/registry.h"
#include "failure/builder.h"
#include "failure/scope.h"
#include "platform/threads.h"
#include "platform/wait_notice.h"
#include "wasapi/wasapi_family.h"

namespace NSWasapi {

using NSFerrand::CSoundDriverSettings;
using NSMarlet::RaiseFailure;

namespace {

constexpr uint32_t kOfferedRates[] = {44100, 48000, 88200, 96000, 192000};
constexpr uint32_t kDefaultRate = 48000;
constexpr uint32_t kEventWaitMs = 200;
constexpr uint32_t kSilentFlag = 2;
constexpr uint32_t kMaxSharedSizes = 64;


std::u16string ChannelName(uint32_t channel) {
  if (channel == 0) return u"Left";
  if (channel == 1) return u"Right";
  std::u16string digits;
  for (uint32_t n = channel + 1; n != 0; n /= 10) {
    digits.insert(digits.begin(), static_cast<char16_t>(u'0' + n % 10));
  }
  return u"Out " + digits;
}

// A record whose frame is its channels' samples, side by side: anything
// else would have the pump write past the engine's buffer.
bool FramesAreWhole(const SWaveFormat& format) {
  return format.channels != 0 && format.channels <= kWasapiMaxChannels &&
         format.bitsPerSample % 8 == 0 &&
         format.blockAlign == format.channels * (format.bitsPerSample / 8);
}

[[noreturn]] void RaiseCannotOpen() {
  RaiseFailure(NSMarlet::XOpen(""), NSMarlet::TargetWordAudioDriver());
}

}  // namespace

uint32_t FramesOfDuration(int64_t duration, uint32_t sampleRate) {
  if (duration <= 0) return 0;
  const uint64_t frames = (static_cast<uint64_t>(duration) * sampleRate + kHundredNsPerSecond / 2) /
                          kHundredNsPerSecond;
  return frames > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(frames);
}

uint32_t FramesOfDurationUp(int64_t duration, uint32_t sampleRate) {
  if (duration <= 0) return 0;
  const uint64_t frames = (static_cast<uint64_t>(duration) * sampleRate + kHundredNsPerSecond - 1) /
                          kHundredNsPerSecond;
  return frames > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(frames);
}

int64_t DurationOfFrames(uint32_t frames, uint32_t sampleRate) {
  if (sampleRate == 0) return 0;
  return static_cast<int64_t>((static_cast<uint64_t>(frames) * kHundredNsPerSecond +
                               sampleRate - 1) /
                              sampleRate);
}

std::vector<uint32_t> SharedSizes(uint32_t minimum, uint32_t maximum, uint32_t fundamental) {
  std::vector<uint32_t> sizes;
  if (minimum == 0) return sizes;
  if (fundamental == 0 || maximum < minimum) return {minimum};
  for (uint64_t size = minimum; size <= maximum && sizes.size() < kMaxSharedSizes;
       size += fundamental) {
    sizes.push_back(static_cast<uint32_t>(size));
  }
  return sizes;
}

uint32_t NearestSize(const std::vector<uint32_t>& sizes, uint32_t requested) {
  return sizes.empty() ? requested : NSFerrand::FindNearestValue(sizes, requested);
}

uint32_t SharedPeriodFor(const std::vector<uint32_t>& sizes, uint32_t defaultFrames,
                         uint32_t requested) {
  if (requested == 0 || requested >= defaultFrames || sizes.empty()) return defaultFrames;
  for (uint32_t size : sizes) {
    if (size >= requested) return std::min(size, defaultFrames);
  }
  return defaultFrames;
}

void OfferSize(std::vector<uint32_t>& sizes, uint32_t size) {
  const auto at = std::lower_bound(sizes.begin(), sizes.end(), size);
  if (at == sizes.end() || *at != size) sizes.insert(at, size);
}

std::vector<uint32_t> HostSizes(uint32_t enginePeriod) {
  std::vector<uint32_t> sizes;
  for (uint32_t size = 64; size <= 4096; size *= 2) sizes.push_back(size);
  if (enginePeriod != 0 && enginePeriod <= kWasapiMaxBlockFrames) OfferSize(sizes, enginePeriod);
  return sizes;
}

uint32_t FramesToWrite(uint32_t bufferFrames, uint32_t padding, uint32_t block) {
  if (block == 0 || padding >= bufferFrames) return 0;
  return (bufferFrames - padding) / block * block;
}

void InterleaveInto(const float* const* channels, uint32_t channelCount, uint32_t frames,
                    ESampleFormat format, uint8_t* destination, int32_t* staging) {
  const int32_t count = static_cast<int32_t>(frames);
  for (uint32_t c = 0; c < channelCount; ++c) {
    const float* source = channels[c];
    if (format == kSampleFloat32) {
      float* out = reinterpret_cast<float*>(destination);
      for (uint32_t f = 0; f < frames; ++f) out[f * channelCount + c] = source[f];
      continue;
    }
    if (format == kSampleInt16) {
      int16_t* planar = reinterpret_cast<int16_t*>(staging);
      NSFerrand::FloatToInt16(source, planar, count);
      int16_t* out = reinterpret_cast<int16_t*>(destination);
      for (uint32_t f = 0; f < frames; ++f) out[f * channelCount + c] = planar[f];
      continue;
    }
    NSFerrand::FloatToInt32(source, staging, count);
    if (format == kSampleInt24Packed) {
      // The top three bytes of each, least significant first.
      uint8_t* out = destination + 3 * c;
      for (uint32_t f = 0; f < frames; ++f) {
        const uint32_t value = static_cast<uint32_t>(staging[f]);
        uint8_t* sample = out + static_cast<size_t>(f) * 3 * channelCount;
        sample[0] = static_cast<uint8_t>(value >> 8);
        sample[1] = static_cast<uint8_t>(value >> 16);
        sample[2] = static_cast<uint8_t>(value >> 24);
      }
      continue;
    }
    // 24 valid bits sit at the top of their 32: the low byte is zero.
    const int32_t mask = format == kSampleInt24In32 ? ~0xFF : ~0;
    int32_t* out = reinterpret_cast<int32_t*>(destination);
    for (uint32_t f = 0; f < frames; ++f) out[f * channelCount + c] = staging[f] & mask;
  }
}

COpenWasapiSoundDriver::COpenWasapiSoundDriver(const CWasapiRegisteredSoundDriver& registered,
                                               NSFerrand::MSoundRenderer* renderer,
                                               const CSoundDriverSettings* settings)
    : registered_(registered),
      control_(registered.SharedApi()),
      api_(*control_),
      stream_(registered.StreamApi()),
      renderer_(renderer) {
  try {
    ThrowOnWasapiResult(api_.CreateEnumerator(&enumerator_));
    followsDefault_ = registered_.Endpoint().id.empty();
    if (followsDefault_) {
      defaultGeneration_ = DefaultEndpointGeneration();
      ThrowOnWasapiResult(api_.GetDefaultRenderEndpoint(enumerator_, &endpointId_));
      if (endpointId_.empty()) RaiseCannotOpen();
    } else {
      endpointId_ = registered_.Endpoint().id;
    }
    if (registered_.Mode() == kShareModeExclusive) FindExclusiveFormats();
    const uint32_t rate = settings != nullptr ? settings->sampleRate : 0;
    const uint32_t frames = settings != nullptr ? settings->bufferFrames : 0;
    OpenStream(rate, frames);
    settingsChanged_ = true;
  } catch (...) {
    CloseStream();
    if (enumerator_ != nullptr) api_.ReleaseEnumerator(enumerator_);
    throw;
  }
}

COpenWasapiSoundDriver::~COpenWasapiSoundDriver() {
  NSMarlet::COptionalFailureScope scope;
  CloseStream();
  if (enumerator_ != nullptr) api_.ReleaseEnumerator(enumerator_);
}

void COpenWasapiSoundDriver::Activate() {
  bool client3 = false;
  ThrowOnWasapiResult(api_.ActivateClient(enumerator_, endpointId_, &client_, &client3));
  if (client_ == nullptr) RaiseCannotOpen();
  client3_ = client3;
}

void COpenWasapiSoundDriver::Reactivate() {
  api_.ReleaseClient(client_);
  client_ = nullptr;
  Activate();
}

void COpenWasapiSoundDriver::FindExclusiveFormats() {
  // The device's own format, where the engine tells it, is tried first, and
  // its channels and speakers shape the trials at the other rates.
  SWaveFormat device;
  ESampleFormat deviceSample = kSampleFloat32;
  const bool known = api_.GetDeviceFormat(enumerator_, endpointId_, &device) >= 0 &&
                     SampleFormatOf(device, deviceSample) && FramesAreWhole(device) &&
                     device.samplesPerSecond != 0;
  const uint16_t channels = known ? device.channels : 2;
  const uint32_t mask =
      known && device.formatTag == kFormatTagExtensible ? device.channelMask : (channels == 2 ? 3 : 0);
  Activate();
  if (known && api_.IsFormatSupported(client_, kShareModeExclusive, device) == kHResultOk) {
    rates_.push_back(device.samplesPerSecond);
    rateFormats_.push_back(device);
  }
  for (uint32_t rate : kOfferedRates) {
    if (std::find(rates_.begin(), rates_.end(), rate) != rates_.end()) continue;
    for (uint32_t f = 0; f < kSampleFormatCount; ++f) {
      const SWaveFormat trial =
          DeviceShapedFormat(rate, static_cast<ESampleFormat>(f), channels, mask);
      if (api_.IsFormatSupported(client_, kShareModeExclusive, trial) == kHResultOk) {
        rates_.push_back(rate);
        rateFormats_.push_back(trial);
        break;
      }
    }
  }
  // In order of rate, each with its format.
  for (size_t i = 1; i < rates_.size(); ++i) {
    for (size_t j = i; j > 0 && rates_[j - 1] > rates_[j]; --j) {
      std::swap(rates_[j - 1], rates_[j]);
      std::swap(rateFormats_[j - 1], rateFormats_[j]);
    }
  }
  api_.ReleaseClient(client_);
  client_ = nullptr;
  // No format the device takes: it cannot be opened exclusively.
  if (rates_.empty()) RaiseCannotOpen();
}

void COpenWasapiSoundDriver::OpenStream(uint32_t sampleRate, uint32_t frames) {
  if (registered_.Mode() == kShareModeShared) {
    OpenShared(sampleRate, frames);
  } else {
    OpenExclusive(sampleRate, frames);
    enginePeriod_ = blockFrames_;
  }
  // Straight into the engine, blocks must fit it; through the carry, any
  // block does.
  if (channels_ == 0 || channels_ > kWasapiMaxChannels || blockFrames_ == 0 ||
      blockFrames_ > kWasapiMaxBlockFrames || enginePeriod_ == 0 || engineFrames_ < enginePeriod_ ||
      (enginePeriod_ % blockFrames_ == 0 && engineFrames_ < blockFrames_)) {
    RaiseCannotOpen();
  }
  if (sampleRate != 0 && sampleRate != sampleRate_) settingsChanged_ = true;
  if (frames != 0 && frames != blockFrames_) settingsChanged_ = true;
  StartStream();
}

void COpenWasapiSoundDriver::OpenShared(uint32_t sampleRate, uint32_t frames) {
  Activate();
  SWaveFormat mix;
  ThrowOnWasapiResult(api_.GetMixFormat(client_, &mix));
  ESampleFormat sample = kSampleFloat32;
  if (!SampleFormatOf(mix, sample) || mix.samplesPerSecond == 0 || !FramesAreWhole(mix)) {
    RaiseCannotOpen();
  }
  sample_ = sample;
  channels_ = mix.channels;
  rates_.assign(std::begin(kOfferedRates), std::end(kOfferedRates));
  OfferSize(rates_, mix.samplesPerSecond);
  // The engine's own rate unless the host asks for another.
  sampleRate_ = sampleRate != 0 ? NSFerrand::FindNearestValue(rates_, sampleRate)
                                : mix.samplesPerSecond;
  engineSizes_.clear();
  defaultFrames_ = 0;
  if (sampleRate_ == mix.samplesPerSecond) {
    // The mix rate keeps the low-latency periods.
    if (!client3_ || !InitialiseLowLatency(mix, frames)) {
      int64_t defaultPeriod = 0;
      int64_t minimumPeriod = 0;
      ThrowOnWasapiResult(api_.GetDevicePeriod(client_, &defaultPeriod, &minimumPeriod));
      ThrowOnWasapiResult(
          api_.Initialize(client_, kShareModeShared, kStreamFlagEventCallback, 0, 0, mix));
      enginePeriod_ = FramesOfDuration(defaultPeriod, sampleRate_);
    }
  } else {
    SWaveFormat format = mix;
    format.samplesPerSecond = sampleRate_;
    format.averageBytesPerSecond = sampleRate_ * mix.blockAlign;
    int64_t defaultPeriod = 0;
    int64_t minimumPeriod = 0;
    ThrowOnWasapiResult(api_.GetDevicePeriod(client_, &defaultPeriod, &minimumPeriod));
    ThrowOnWasapiResult(api_.Initialize(
        client_, kShareModeShared,
        kStreamFlagEventCallback | kStreamFlagAutoConvertPcm | kStreamFlagSrcDefaultQuality, 0, 0,
        format));
    enginePeriod_ = FramesOfDuration(defaultPeriod, sampleRate_);
  }
  if (defaultFrames_ == 0) defaultFrames_ = enginePeriod_;
  ThrowOnWasapiResult(api_.GetBufferSize(client_, &engineFrames_));
  sizes_ = HostSizes(enginePeriod_);
  // The host's own size; the engine's period when it asks for none.
  blockFrames_ = frames != 0 ? NearestSize(sizes_, frames) : enginePeriod_;
}

bool COpenWasapiSoundDriver::InitialiseLowLatency(const SWaveFormat& mix, uint32_t frames) {
  uint32_t defaultFrames = 0;
  uint32_t fundamental = 0;
  uint32_t minimum = 0;
  uint32_t maximum = 0;
  if (!NSFerrand::ComSucceeded(api_.GetSharedModeEnginePeriod(client_, mix, &defaultFrames,
                                                             &fundamental, &minimum, &maximum)) ||
      defaultFrames == 0) {
    return false;
  }
  engineSizes_ = SharedSizes(minimum, maximum, fundamental);
  OfferSize(engineSizes_, defaultFrames);
  // The engine's period is the machine's: it is lowered only for a host
  // that asks for less than the default.
  uint32_t period = SharedPeriodFor(engineSizes_, defaultFrames, frames);
  HResult result = api_.InitializeSharedAudioStream(client_, kStreamFlagEventCallback, period, mix);
  if (result == kAudioEnginePeriodicityLocked) {
    // Another application holds the engine at its own period: join it.
    uint32_t current = 0;
    if (NSFerrand::ComSucceeded(api_.GetCurrentSharedModeEnginePeriod(client_, &current)) &&
        current != 0) {
      Reactivate();
      period = current;
      result = api_.InitializeSharedAudioStream(client_, kStreamFlagEventCallback, period, mix);
    }
  }
  if (!NSFerrand::ComSucceeded(result)) {
    Reactivate();
    engineSizes_.clear();
    return false;
  }
  defaultFrames_ = defaultFrames;
  enginePeriod_ = period;
  return true;
}

void COpenWasapiSoundDriver::OpenExclusive(uint32_t sampleRate, uint32_t frames) {
  // The nearest rate that plays; the default one when none is asked for.
  sampleRate_ = NSFerrand::FindNearestValue(rates_, sampleRate != 0 ? sampleRate : kDefaultRate);
  const size_t chosen =
      static_cast<size_t>(std::find(rates_.begin(), rates_.end(), sampleRate_) - rates_.begin());
  const SWaveFormat format = rateFormats_[chosen];
  if (!SampleFormatOf(format, sample_)) RaiseCannotOpen();
  channels_ = format.channels;
  Activate();
  int64_t defaultPeriod = 0;
  int64_t minimumPeriod = 0;
  ThrowOnWasapiResult(api_.GetDevicePeriod(client_, &defaultPeriod, &minimumPeriod));
  // Rounded up: a period a frame short of the minimum is refused.
  const uint32_t minimumFrames = std::max(FramesOfDurationUp(minimumPeriod, sampleRate_), 16u);
  const uint32_t defaultFrames = std::max(FramesOfDuration(defaultPeriod, sampleRate_), minimumFrames);
  sizes_.clear();
  for (uint32_t size = minimumFrames; size <= 8 * defaultFrames && size <= kWasapiMaxBlockFrames;
       size *= 2) {
    sizes_.push_back(size);
  }
  if (defaultFrames <= kWasapiMaxBlockFrames) OfferSize(sizes_, defaultFrames);
  defaultFrames_ = defaultFrames;
  const uint32_t size = NearestSize(sizes_, frames != 0 ? frames : defaultFrames);
  ThrowOnWasapiResult(InitialiseExclusive(format, size, minimumPeriod, defaultPeriod));
  ThrowOnWasapiResult(api_.GetBufferSize(client_, &engineFrames_));
  blockFrames_ = engineFrames_;
  // The size the device settled on is one the host may ask for again.
  if (blockFrames_ != 0 && blockFrames_ <= kWasapiMaxBlockFrames) OfferSize(sizes_, blockFrames_);
}

HResult COpenWasapiSoundDriver::InitialiseExclusive(const SWaveFormat& format, uint32_t frames,
                                                    int64_t minimumPeriod, int64_t defaultPeriod) {
  int64_t period = std::max(DurationOfFrames(frames, sampleRate_), minimumPeriod);
  HResult result = kHResultFail;
  // Each refusal names what to ask for next; a few tries settle it.
  for (int attempt = 0; attempt < 4; ++attempt) {
    result = api_.Initialize(client_, kShareModeExclusive, kStreamFlagEventCallback, period,
                             period, format);
    if (result >= 0) return result;
    int64_t next = 0;
    if (result == kAudioBufferSizeNotAligned) {
      // The engine tells the aligned size.
      uint32_t aligned = 0;
      if (api_.GetBufferSize(client_, &aligned) < 0 || aligned == 0) return result;
      next = DurationOfFrames(aligned, sampleRate_);
    } else if (result == kAudioInvalidDevicePeriod) {
      next = period < minimumPeriod ? minimumPeriod : std::max(defaultPeriod, minimumPeriod);
    } else if (result == kAudioBufferSizeError) {
      next = std::max(defaultPeriod, minimumPeriod);
    } else {
      return result;
    }
    if (next <= 0 || next == period) return result;
    period = next;
    Reactivate();
  }
  return result;
}

uint32_t COpenWasapiSoundDriver::KeptFrames(uint32_t requested) const {
  if (registered_.Mode() == kShareModeShared && requested == 0) return enginePeriod_;
  return NearestSize(sizes_, requested);
}

void COpenWasapiSoundDriver::StartStream() {
  event_ = api_.CreateEngineEvent();
  if (event_ == nullptr) RaiseFailure(std::runtime_error(""), NSMarlet::TargetWordAudioDriver());
  ThrowOnWasapiResult(api_.SetEventHandle(client_, event_));
  ThrowOnWasapiResult(api_.GetRenderClient(client_, &render_));
  if (api_.GetClock(client_, &clock_) < 0 || clock_ == nullptr ||
      api_.GetClockFrequency(clock_, &clockFrequency_) < 0) {
    if (clock_ != nullptr) api_.ReleaseClock(clock_);
    clock_ = nullptr;
    clockFrequency_ = 0;
  }
  // Channels come in pairs: an odd last channel has a partner that is
  // rendered and never played.
  NSFerrand::AddAlignedFloats(outputs_, (channels_ + 1) / 2 * 2, blockFrames_);
  staging_.assign(std::max(blockFrames_, engineFrames_), 0);
  // Blocks that do not divide the engine's period go through the carry,
  // which holds at most a room and a block.
  carried_ = 0;
  carryCapacity_ = 0;
  if (enginePeriod_ % blockFrames_ != 0) {
    carryCapacity_ = engineFrames_ + blockFrames_;
    NSFerrand::AddAlignedFloats(carry_, channels_, carryCapacity_);
  }
  framesWritten_ = 0;
  framesRendered_ = 0;
  aheadFrames_ = 0;
  prerollFrames_ = 0;
  // An exclusive buffer starts out silent, so that its first period plays
  // nothing stale; the host's first frame follows that silence.
  if (registered_.Mode() == kShareModeExclusive) {
    uint8_t* data = nullptr;
    ThrowOnWasapiResult(api_.GetBuffer(render_, engineFrames_, &data));
    ThrowOnWasapiResult(api_.ReleaseBuffer(render_, engineFrames_, kSilentFlag));
    prerollFrames_ = engineFrames_;
  }
  ThrowOnWasapiResult(api_.Start(client_));
  try {
    stopMutex_ = new NSFerrand::CLockableMutex(true);
    thread_ = new NSFerrand::CTimedThread(this, NSFerrand::kPriorityTimeCritical,
                                          "COpenWasapiSoundDriver");
  } catch (...) {
    delete stopMutex_;
    stopMutex_ = nullptr;
    api_.Stop(client_);
    throw;
  }
}

void COpenWasapiSoundDriver::CloseStream() {
  if (thread_ != nullptr) {
    NSFerrand::StopStreamingThread(thread_, stopMutex_);
    api_.Stop(client_);
  }
  if (clock_ != nullptr) api_.ReleaseClock(clock_);
  clock_ = nullptr;
  if (render_ != nullptr) api_.ReleaseRender(render_);
  render_ = nullptr;
  if (client_ != nullptr) api_.ReleaseClient(client_);
  client_ = nullptr;
  if (event_ != nullptr) api_.CloseEngineEvent(event_);
  event_ = nullptr;
  for (float* buffer : outputs_) NSFerrand::FreeAlignedFloats(buffer);
  outputs_.clear();
  for (float* buffer : carry_) NSFerrand::FreeAlignedFloats(buffer);
  carry_.clear();
  carried_ = 0;
}

void COpenWasapiSoundDriver::Run() {
  // The engine's objects are free-threaded; COM wants to know this thread.
  const bool com = stream_.CoInitialize() >= 0;
  // "Pro Audio" where the system has it; without it the thread goes on.
  NSPlatform::SRealtimeClass realtime;
  NSPlatform::EnterRealtimeClass(realtime);
  for (;;) {
    NSPlatform::EWaitResult woken;
    {
      NSPlatform::CPeriodWait period;
      woken = stream_.WaitEngineEvent(event_, kEventWaitMs);
    }
    if (woken == NSPlatform::kWaitFailed) failed_ = true;
    if (woken == NSPlatform::kWaitObject) StreamPump();
    if (woken == NSPlatform::kWaitTimeout) ProbeStalledStream();
    // The opener's release of the stop mutex is the signal to end.
    const NSFerrand::EStopWaitStep step = stopMutex_->WaitForStop(0);
    if (step == NSFerrand::kStopAsked) break;
    if (step == NSFerrand::kWaitBroken || failed_) {
      failed_ = true;
      break;
    }
  }
  NSPlatform::LeaveRealtimeClass(realtime);
  if (com) stream_.CoUninitialize();
}

void COpenWasapiSoundDriver::ProbeStalledStream() {
  if (failed_) return;
  uint32_t padding = 0;
  if (stream_.GetCurrentPadding(client_, &padding) < 0) failed_ = true;
}

// A failure here only sets the flag: the audio thread neither raises nor
// allocates, and the control thread tells the host.
void COpenWasapiSoundDriver::StreamPump() {
  if (failed_) return;
  const bool exclusive = registered_.Mode() == kShareModeExclusive;
  // Frames in the stream so far, the silence before the host's included.
  const uint64_t queued = framesWritten_.load() + prerollFrames_;
  uint32_t room = 0;
  uint64_t played = 0;
  if (exclusive) {
    // An exclusive stream takes a whole buffer on every event, whatever the
    // padding says; the engine plays the one before meanwhile.
    room = engineFrames_;
    played = queued > engineFrames_ ? queued - engineFrames_ : 0;
  } else {
    uint32_t padding = 0;
    if (stream_.GetCurrentPadding(client_, &padding) < 0) {
      failed_ = true;
      return;
    }
    // Straight blocks take the room in whole blocks; the carry takes it all.
    room = !carry_.empty() ? (padding < engineFrames_ ? engineFrames_ - padding : 0)
                           : FramesToWrite(engineFrames_, padding, blockFrames_);
    played = queued > padding ? queued - padding : 0;
  }
  uint64_t systemTime = 0;
  if (clock_ != nullptr && clockFrequency_ != 0) {
    uint64_t position = 0;
    uint64_t time = 0;
    if (stream_.GetClockPosition(clock_, &position, &time) >= 0) {
      played = static_cast<uint64_t>(static_cast<double>(position) * sampleRate_ /
                                     static_cast<double>(clockFrequency_));
      systemTime = time * 100;
    }
  }
  if (!carry_.empty()) {
    PumpThroughCarry(room, played, systemTime);
    return;
  }
  while (room >= blockFrames_) {
    const uint64_t first = framesWritten_.load();
    // When the block's first frame will sound.
    const uint64_t at = first + prerollFrames_;
    const uint64_t ahead = at > played ? at - played : 0;
    const uint64_t when = systemTime != 0 ? systemTime + ahead * 1000000000ull / sampleRate_ : 0;
    if (systemTime != 0) NoteAhead(ahead);
    uint8_t* data = nullptr;
    if (stream_.GetBuffer(render_, blockFrames_, &data) < 0 || data == nullptr) {
      failed_ = true;
      return;
    }
    bool rendered = true;
    try {
      renderer_->Render(blockFrames_, inputs_, outputs_, 0, 0, when, HostPosition(first));
    } catch (...) {
      rendered = false;
      rendererFailed_ = true;
    }
    if (rendered) {
      InterleaveInto(outputs_.data(), channels_, blockFrames_, sample_, data, staging_.data());
    }
    const bool released =
        stream_.ReleaseBuffer(render_, blockFrames_, rendered ? 0 : kSilentFlag) >= 0;
    framesWritten_ = first + blockFrames_;
    framesRendered_ = first + blockFrames_;
    // A renderer that raised has failed, like an engine that refuses: the
    // host hears of it.
    if (!rendered || !released) {
      failed_ = true;
      return;
    }
    room -= blockFrames_;
  }
}

bool COpenWasapiSoundDriver::RenderBlock(uint64_t played, uint64_t systemTime) {
  const uint64_t first = framesRendered_.load();
  const uint64_t at = first + prerollFrames_;
  const uint64_t ahead = at > played ? at - played : 0;
  const uint64_t when = systemTime != 0 ? systemTime + ahead * 1000000000ull / sampleRate_ : 0;
  if (systemTime != 0) NoteAhead(ahead);
  try {
    renderer_->Render(blockFrames_, inputs_, outputs_, 0, 0, when, HostPosition(first));
  } catch (...) {
    rendererFailed_ = true;
    return false;
  }
  for (uint32_t c = 0; c < channels_; ++c) {
    std::memcpy(carry_[c] + carried_, outputs_[c], sizeof(float) * blockFrames_);
  }
  carried_ += blockFrames_;
  framesRendered_ = first + blockFrames_;
  return true;
}

void COpenWasapiSoundDriver::PumpThroughCarry(uint32_t room, uint64_t played,
                                              uint64_t systemTime) {
  if (room == 0) return;
  // Whole blocks until the room can be filled; what it cannot take waits
  // for the next period.
  bool rendered = true;
  while (rendered && carried_ < room && carried_ + blockFrames_ <= carryCapacity_) {
    rendered = RenderBlock(played, systemTime);
  }
  const uint32_t frames = rendered ? std::min(room, carried_) : room;
  if (frames == 0) return;
  uint8_t* data = nullptr;
  if (stream_.GetBuffer(render_, frames, &data) < 0 || data == nullptr) {
    failed_ = true;
    return;
  }
  if (rendered) {
    const float* views[kWasapiMaxChannels];
    for (uint32_t c = 0; c < channels_; ++c) views[c] = carry_[c];
    InterleaveInto(views, channels_, frames, sample_, data, staging_.data());
  }
  const bool released = stream_.ReleaseBuffer(render_, frames, rendered ? 0 : kSilentFlag) >= 0;
  framesWritten_ = framesWritten_.load() + frames;
  if (!rendered || !released) {
    failed_ = true;
    return;
  }
  carried_ -= frames;
  for (uint32_t c = 0; c < channels_; ++c) {
    std::memmove(carry_[c], carry_[c] + frames, sizeof(float) * carried_);
  }
}

CSoundDriverSettings& COpenWasapiSoundDriver::GetSettings(CSoundDriverSettings& settings) {
  settings.sampleRate = sampleRate_;
  settings.bufferFrames = blockFrames_;
  settings.inputPairs = NSFerrand::CChannelBitVector(0);
  settings.outputPairs = NSFerrand::CChannelBitVector((channels_ + 1) / 2);
  for (uint64_t p = 0; p < settings.outputPairs.Count(); ++p) settings.outputPairs.Set(p, true);
  settings.clockSource = 0;
  settings.monitorsValid = false;
  settings.monitors.clear();
  return settings;
}

void COpenWasapiSoundDriver::ApplySettings(const CSoundDriverSettings& settings) {
  const uint32_t rate = settings.sampleRate != 0 && !rates_.empty()
                            ? NSFerrand::FindNearestValue(rates_, settings.sampleRate)
                            : sampleRate_;
  if (settings.sampleRate != rate) settingsChanged_ = true;
  const uint32_t frames = KeptFrames(settings.bufferFrames);
  if (frames != settings.bufferFrames) settingsChanged_ = true;
  if (rate == sampleRate_ && frames == blockFrames_) return;
  CloseStream();
  streamOrigin_ = 0;
  OpenStream(rate, frames);
  settingsChanged_ = true;
}

bool COpenWasapiSoundDriver::TakeSettingsChanged() {
  const bool changed = settingsChanged_;
  settingsChanged_ = false;
  return changed;
}

NSFerrand::COpenSoundDriverInfo& COpenWasapiSoundDriver::GetDriverInfo(
    NSFerrand::COpenSoundDriverInfo& info) {
  info.sampleRates = rates_;
  info.inputNames.clear();
  info.outputNames.clear();
  for (uint32_t c = 0; c < channels_; ++c) {
    info.outputNames.push_back(ChannelName(c));
  }
  info.bufferSizes = sizes_;
  info.clockSourceNames = {u"Internal"};
  return info;
}

int64_t COpenWasapiSoundDriver::GetOutputLatency() {
  // Where the engine has a clock, what the stream showed: the most frames
  // a rendered block waited behind the clock's position.
  const uint32_t measured = aheadFrames_.load();
  if (measured != 0) return NSFerrand::LatencyMicroseconds(measured, sampleRate_);
  int64_t latency = 0;
  // What the carry holds waits up to a block longer.
  const uint32_t carried = carry_.empty() ? 0 : blockFrames_;
  const int64_t buffer = NSFerrand::LatencyMicroseconds(engineFrames_ + carried, sampleRate_);
  if (client_ != nullptr && api_.GetStreamLatency(client_, &latency) >= 0 && latency > 0) {
    return buffer + latency / 10;
  }
  return buffer;
}

void COpenWasapiSoundDriver::CheckAlive() {
  if (followsDefault_ && !rendererFailed_ &&
      (failed_ || defaultGeneration_ != DefaultEndpointGeneration())) {
    FollowDefault();
  }
  if (failed_) RaiseFailure(NSMarlet::XNotReady(""), NSMarlet::TargetWordAudioDriver());
}

void COpenWasapiSoundDriver::FollowDefault() {
  defaultGeneration_ = DefaultEndpointGeneration();
  std::u16string id;
  // No default now: a failed stream stays failed, a playing one plays on.
  if (api_.GetDefaultRenderEndpoint(enumerator_, &id) < 0 || id.empty()) return;
  if (id == endpointId_ && !failed_) return;
  const uint64_t origin = HostPosition(framesRendered_.load());
  const uint32_t rate = sampleRate_;
  const uint32_t frames = blockFrames_;
  CloseStream();
  endpointId_ = id;
  failed_ = false;
  try {
    // The rate and size in force, where the new endpoint keeps them; the
    // host hears of a change only when it does not.
    OpenStream(rate, frames);
    streamOrigin_ = origin;
  } catch (...) {
    CloseStream();
    failed_ = true;
  }
}

}  // namespace NSWasapi
