#include "fakes/fake_wave_out.h"

#include <algorithm>
#include <chrono>

namespace Fakes {

using namespace NSMME;

SFakeWaveDevice StereoDevice(const char16_t* name, std::set<uint32_t> rates, uint32_t version) {
  SFakeWaveDevice device;
  device.caps.productName = name;
  device.caps.formats = 0xFFF;
  device.caps.channels = 2;
  device.caps.driverVersion = version;
  device.rates = std::move(rates);
  return device;
}

CFakeWaveOut::~CFakeWaveOut() {
  for (auto& stream : streams_) {
    stream->stop = true;
    if (stream->clock.joinable()) stream->clock.join();
  }
}

void CFakeWaveOut::Fail(EWaveCall call, uint32_t result, int32_t times) {
  failTimes_[call] = times;
  failResult_[call] = result;
}

uint32_t CFakeWaveOut::Enter(EWaveCall call) {
  ++calls_[call];
  const uint32_t result = failResult_[call].load();
  if (result == 0) return 0;
  const int32_t times = failTimes_[call].load();
  if (times == 0) return 0;
  if (times > 0) --failTimes_[call];
  return result;
}

void CFakeWaveOut::Done(SStream* stream, SWaveHeader* header) {
  __atomic_fetch_or(&header->flags, kHeaderDone, __ATOMIC_ACQ_REL);
  __atomic_fetch_and(&header->flags, ~kHeaderInQueue, __ATOMIC_ACQ_REL);
  Tell(stream);
}

void CFakeWaveOut::Tell(SStream* stream) {
  if (!tells) return;
  if (stream->doneEvent != nullptr && NSPlatform::SetEvent(stream->doneEvent)) ++doneEventsSet_;
}

void CFakeWaveOut::Play(SStream* stream) {
  auto next = std::chrono::steady_clock::now();
  while (!stream->stop) {
    std::this_thread::sleep_for(std::chrono::microseconds(500));
    if (!realTime) {
      next = std::chrono::steady_clock::now();
      continue;
    }
    std::lock_guard<std::mutex> guard(lock_);
    if (stream->paused || stream->queue.empty()) {
      next = std::chrono::steady_clock::now();
      continue;
    }
    const auto now = std::chrono::steady_clock::now();
    const auto block = std::chrono::microseconds(512ll * 1000000 / stream->rate);
    const auto pipeline = std::chrono::milliseconds(pipelineMs.load());
    while (!stream->queue.empty()) {
      // Played a block after the one before, and not before it got through.
      const auto due = std::max(next + block, stream->queue.frontWritten() + pipeline);
      if (now < due) break;
      Done(stream, stream->queue.front());
      stream->queue.pop_front();
      next = due;
    }
  }
}

// All of them before the stream hears of any, as a device that gives back a
// burst of headers at once.
void CFakeWaveOut::Complete(size_t count) {
  std::lock_guard<std::mutex> guard(lock_);
  for (auto& stream : streams_) {
    size_t done = 0;
    for (; done < count && !stream->queue.empty(); ++done) {
      SWaveHeader* header = stream->queue.front();
      __atomic_fetch_or(&header->flags, kHeaderDone, __ATOMIC_ACQ_REL);
      __atomic_fetch_and(&header->flags, ~kHeaderInQueue, __ATOMIC_ACQ_REL);
      stream->queue.pop_front();
    }
    for (size_t i = 0; i < done; ++i) Tell(stream.get());
  }
}

size_t CFakeWaveOut::Queued() {
  std::lock_guard<std::mutex> guard(lock_);
  size_t queued = 0;
  for (auto& stream : streams_) queued += stream->queue.size();
  return queued;
}

uint32_t CFakeWaveOut::GetNumDevs() {
  Enter(kWaveGetNumDevs);
  return static_cast<uint32_t>(devices.size());
}

uint32_t CFakeWaveOut::GetDevCaps(uint32_t device, SWaveOutCaps& caps) {
  if (const uint32_t forced = Enter(kWaveGetDevCaps)) return forced;
  if (device >= devices.size()) return kMMSysErrBadDeviceId;
  caps = devices[device].caps;
  return kMMSysErrNoError;
}

uint32_t CFakeWaveOut::Open(WaveOutHandle* handle, uint32_t device, const SWaveFormat& format,
                            uint32_t flags, NSPlatform::SEvent* doneEvent) {
  if ((flags & kWaveFormatQuery) != 0) {
    if (const uint32_t forced = Enter(kWaveQuery)) return forced;
    if (device >= devices.size()) return kMMSysErrBadDeviceId;
    if (devices[device].inUse) return kMMSysErrAllocated;
    return devices[device].rates.count(format.samplesPerSecond) != 0 ? kMMSysErrNoError
                                                                     : kWaveErrBadFormat;
  }
  if (const uint32_t forced = Enter(kWaveOpen)) return forced;
  if (device >= devices.size()) return kMMSysErrBadDeviceId;
  if (devices[device].inUse) return kMMSysErrAllocated;
  if (devices[device].rates.count(format.samplesPerSecond) == 0) return kWaveErrBadFormat;
  auto stream = std::make_unique<SStream>();
  stream->rate = format.samplesPerSecond;
  if ((flags & kWaveCallbackEvent) == kWaveCallbackEvent) stream->doneEvent = doneEvent;
  SStream* raw = stream.get();
  stream->clock = std::thread([this, raw] { Play(raw); });
  {
    std::lock_guard<std::mutex> guard(lock_);
    streams_.push_back(std::move(stream));
  }
  ++openStreams_;
  lastRate_ = format.samplesPerSecond;
  *handle = raw;
  return kMMSysErrNoError;
}

uint32_t CFakeWaveOut::PrepareHeader(WaveOutHandle, SWaveHeader* header) {
  if (const uint32_t forced = Enter(kWavePrepare)) return forced;
  __atomic_fetch_or(&header->flags, kHeaderPrepared, __ATOMIC_ACQ_REL);
  return kMMSysErrNoError;
}

uint32_t CFakeWaveOut::UnprepareHeader(WaveOutHandle, SWaveHeader* header) {
  if (const uint32_t forced = Enter(kWaveUnprepare)) return forced;
  if ((HeaderFlags(*header) & kHeaderInQueue) != 0) return kWaveErrStillPlaying;
  __atomic_fetch_and(&header->flags, ~kHeaderPrepared, __ATOMIC_ACQ_REL);
  return kMMSysErrNoError;
}

uint32_t CFakeWaveOut::Write(WaveOutHandle handle, SWaveHeader* header) {
  if (const uint32_t forced = Enter(kWaveWrite)) return forced;
  if ((HeaderFlags(*header) & kHeaderPrepared) == 0) return kWaveErrUnprepared;
  std::lock_guard<std::mutex> guard(lock_);
  __atomic_fetch_or(&header->flags, kHeaderInQueue, __ATOMIC_ACQ_REL);
  __atomic_fetch_and(&header->flags, ~kHeaderDone, __ATOMIC_ACQ_REL);
  static_cast<SStream*>(handle)->queue.push_back(header);
  return kMMSysErrNoError;
}

uint32_t CFakeWaveOut::Pause(WaveOutHandle handle) {
  if (const uint32_t forced = Enter(kWavePause)) return forced;
  std::lock_guard<std::mutex> guard(lock_);
  static_cast<SStream*>(handle)->paused = true;
  return kMMSysErrNoError;
}

uint32_t CFakeWaveOut::Restart(WaveOutHandle handle) {
  if (const uint32_t forced = Enter(kWaveRestart)) return forced;
  std::lock_guard<std::mutex> guard(lock_);
  static_cast<SStream*>(handle)->paused = false;
  return kMMSysErrNoError;
}

uint32_t CFakeWaveOut::Reset(WaveOutHandle handle) {
  if (const uint32_t forced = Enter(kWaveReset)) return forced;
  if (stuck) return kMMSysErrNoError;
  std::lock_guard<std::mutex> guard(lock_);
  SStream* stream = static_cast<SStream*>(handle);
  stream->queue.ForEach([this, stream](SWaveHeader* header) { Done(stream, header); });
  stream->queue.clear();
  return kMMSysErrNoError;
}

uint32_t CFakeWaveOut::Close(WaveOutHandle handle) {
  if (const uint32_t forced = Enter(kWaveClose)) return forced;
  std::unique_ptr<SStream> closing;
  {
    std::lock_guard<std::mutex> guard(lock_);
    SStream* stream = static_cast<SStream*>(handle);
    if (!stream->queue.empty()) return kWaveErrStillPlaying;
    for (auto it = streams_.begin(); it != streams_.end(); ++it) {
      if (it->get() == stream) {
        closing = std::move(*it);
        streams_.erase(it);
        break;
      }
    }
  }
  if (closing) {
    closing->stop = true;
    closing->clock.join();
    --openStreams_;
  }
  return kMMSysErrNoError;
}

}  // namespace Fakes
