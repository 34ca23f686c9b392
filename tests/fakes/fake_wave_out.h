// A fake of the wave-out functions: devices with chosen capabilities and
// rates, a device in use, streams whose headers are played at real-time
// pace or completed on demand, and any result on any call.
#ifndef QUILLON_TESTS_FAKES_FAKE_WAVE_OUT_H
#define QUILLON_TESTS_FAKES_FAKE_WAVE_OUT_H

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "mme/wave_out.h"

namespace Fakes {

enum EWaveCall : uint32_t {
  kWaveGetNumDevs,
  kWaveGetDevCaps,
  kWaveOpen,
  kWaveQuery,
  kWavePrepare,
  kWaveUnprepare,
  kWaveWrite,
  kWavePause,
  kWaveRestart,
  kWaveReset,
  kWaveClose,
  kWaveCallCount
};

struct SFakeWaveDevice {
  NSMME::SWaveOutCaps caps;
  std::set<uint32_t> rates;  // accepted by the format trial
  bool inUse = false;
};

class CFakeWaveOut final : public NSMME::IWaveOut {
 public:
  ~CFakeWaveOut() override;

  // Devices, in the order of their ids.
  std::vector<SFakeWaveDevice> devices;
  // Real time: each header plays for 512 frames at the stream's rate.
  // Otherwise headers wait for Complete.
  std::atomic<bool> realTime{true};
  // A stuck device keeps its headers whatever Reset says.
  std::atomic<bool> stuck{false};
  // In real time, a header is given back no sooner than this long after it
  // was written: a device that holds that much in its own pipeline, and
  // plays short while the queue holds less.
  std::atomic<uint32_t> pipelineMs{0};
  // False: a device that never sets the stream's event.
  std::atomic<bool> tells{true};

  // Answer `result` on the next `times` calls of that kind (-1: always).
  void Fail(EWaveCall call, uint32_t result, int32_t times = -1);
  uint64_t Calls(EWaveCall call) const { return calls_[call].load(); }
  // Headers the device said it was done with through the stream's event.
  uint64_t DoneEventsSet() const { return doneEventsSet_.load(); }
  // Marks the oldest `count` queued headers of the open stream played.
  void Complete(size_t count);
  size_t Queued();
  uint32_t OpenStreams() const { return openStreams_.load(); }
  uint32_t LastOpenRate() const { return lastRate_.load(); }

  uint32_t GetNumDevs() override;
  uint32_t GetDevCaps(uint32_t device, NSMME::SWaveOutCaps& caps) override;
  uint32_t Open(NSMME::WaveOutHandle* handle, uint32_t device, const NSMME::SWaveFormat& format,
                uint32_t flags, NSPlatform::SEvent* doneEvent) override;
  uint32_t PrepareHeader(NSMME::WaveOutHandle handle, NSMME::SWaveHeader* header) override;
  uint32_t UnprepareHeader(NSMME::WaveOutHandle handle, NSMME::SWaveHeader* header) override;
  uint32_t Write(NSMME::WaveOutHandle handle, NSMME::SWaveHeader* header) override;
  uint32_t Pause(NSMME::WaveOutHandle handle) override;
  uint32_t Restart(NSMME::WaveOutHandle handle) override;
  uint32_t Reset(NSMME::WaveOutHandle handle) override;
  uint32_t Close(NSMME::WaveOutHandle handle) override;

 private:
  // The device's queue: a fixed ring, so that the fake allocates nothing on
  // the driver's streaming thread either.
  class CQueue {
   public:
    bool empty() const { return count_ == 0; }
    size_t size() const { return count_; }
    NSMME::SWaveHeader* front() const { return ring_[head_]; }
    std::chrono::steady_clock::time_point frontWritten() const { return written_[head_]; }
    void pop_front() {
      head_ = (head_ + 1) % kCapacity;
      --count_;
    }
    void push_back(NSMME::SWaveHeader* header) {
      ring_[(head_ + count_) % kCapacity] = header;
      written_[(head_ + count_) % kCapacity] = std::chrono::steady_clock::now();
      ++count_;
    }
    void clear() { count_ = 0; }
    template <class F>
    void ForEach(F f) const {
      for (size_t i = 0; i < count_; ++i) f(ring_[(head_ + i) % kCapacity]);
    }

   private:
    static constexpr size_t kCapacity = 64;
    NSMME::SWaveHeader* ring_[kCapacity] = {};
    std::chrono::steady_clock::time_point written_[kCapacity] = {};
    size_t head_ = 0;
    size_t count_ = 0;
  };
  struct SStream {
    uint32_t rate = 0;
    bool paused = false;
    // Set as the device is done with each header, when the stream asked.
    NSPlatform::SEvent* doneEvent = nullptr;
    CQueue queue;
    std::atomic<bool> stop{false};
    std::thread clock;
  };
  uint32_t Enter(EWaveCall call);
  void Play(SStream* stream);
  // Marks the header played and tells the stream, as the device does.
  void Done(SStream* stream, NSMME::SWaveHeader* header);
  void Tell(SStream* stream);

  std::atomic<uint64_t> calls_[kWaveCallCount] = {};
  std::atomic<uint32_t> failResult_[kWaveCallCount] = {};
  std::atomic<int32_t> failTimes_[kWaveCallCount] = {};
  std::mutex lock_;
  std::vector<std::unique_ptr<SStream>> streams_;
  std::atomic<uint32_t> openStreams_{0};
  std::atomic<uint32_t> lastRate_{0};
  std::atomic<uint64_t> doneEventsSet_{0};
};

// A device that plays 16-bit stereo at the given rates.
SFakeWaveDevice StereoDevice(const char16_t* name, std::set<uint32_t> rates,
                             uint32_t version = 0x0601);

}  // namespace Fakes

#endif
