// A fake of DirectSound: a library that loads or not, entries that are
// there or not, devices with chosen GUIDs, names, capabilities and rates,
// a play cursor that moves at real-time pace or on demand, a buffer that
// gets lost, and any result on any call.
#ifndef QUILLON_TESTS_FAKES_FAKE_DSOUND_H
#define QUILLON_TESTS_FAKES_FAKE_DSOUND_H

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "directsound/dsound_api.h"
#include "fakes/failure_plan.h"

namespace Fakes {

enum EDSCall : uint32_t {
  kDSEnumerate,
  kDSCreate,
  kDSCooperativeLevel,
  kDSCreateBuffer,
  kDSGetCaps,
  kDSSetFormat,
  kDSGetFormat,
  kDSLock,
  kDSUnlock,
  kDSPlay,
  kDSStop,
  kDSGetPosition,
  kDSRestore,
  kDSCallCount
};

struct SFakeDSDevice {
  bool hasGuid = true;
  NSDirectSound::SGuid guid = {};
  std::u16string description = u"Fake Sound";
  std::u16string module = u"fake.drv";
  uint32_t capsFlags = NSDirectSound::kCapsPrimary16Bit | NSDirectSound::kCapsPrimaryStereo;
  uint32_t minRate = 0;
  uint32_t maxRate = 0;
  // Rates SetFormat accepts; GetFormat then reports `changes[rate]` when set.
  std::set<uint32_t> rates = {44100, 48000, 88200, 96000, 192000};
  std::map<uint32_t, uint32_t> changes;
  bool inUse = false;  // DirectSoundCreate answers DSERR_ALLOCATED
};

class CFakeDirectSound final : public NSDirectSound::IDirectSoundApi {
 public:
  CFakeDirectSound();
  ~CFakeDirectSound() override;

  bool libraryPresent = true;
  std::set<std::string> missingEntries;
  std::atomic<uint64_t> libraryLoads{0};
  std::atomic<uint64_t> entryLookups{0};
  std::vector<SFakeDSDevice> devices;
  // The cursor moves with the clock at the stream's rate; otherwise only
  // by Advance and SetCursor.
  std::atomic<bool> realTime{false};
  std::atomic<bool> refuseGlobalFocus{false};

  // Answer `result` on the next `times` calls of that kind (-1: always).
  void Fail(EDSCall call, NSDirectSound::HResult result, int32_t times = -1);
  // Frees the device objects released by now: long runs measure their memory.
  void ForgetReleasedDevices();
  uint64_t Calls(EDSCall call) const { return calls_[call].load(); }
  // The open secondary buffer's cursor, in frames.
  void Advance(int32_t frames);
  void SetCursorBytes(uint32_t bytes);
  // Lock answers "lost" from now on; Restore refuses `refusals` times (-1:
  // for good) and then brings the buffer back.
  void LoseBuffer(int32_t refusals);
  // The sizes in frames of the block writes while playing, each counted once
  // its bytes are in the ring.
  std::vector<uint32_t> Writes();
  int32_t LiveDevices() const { return liveDevices_.load(); }
  int32_t LiveBuffers() const { return liveBuffers_.load(); }
  uint32_t LastBufferFlags() const { return lastBufferFlags_.load(); }
  // The flags of the latest CreateSoundBuffer calls (up to 64), in order, and
  // the window and level of the last SetCooperativeLevel.
  std::vector<uint32_t> BufferFlagsAsked();
  void* CooperativeWindow() const { return cooperativeWindow_.load(); }
  uint32_t CooperativeLevel() const { return cooperativeLevel_.load(); }
  // 16-bit samples of the ring at a frame, left then right.
  std::pair<int16_t, int16_t> RingFrame(int32_t frame);
  bool Playing() const { return playing_.load(); }

  NSDirectSound::DSModule LoadLibrary(const char* name) override;
  NSDirectSound::DSEntry GetProcAddress(NSDirectSound::DSModule module, const char* name) override;
  void FreeLibrary(NSDirectSound::DSModule module) override;
  NSDirectSound::HResult DirectSoundEnumerate(NSDirectSound::DSEntry entry,
                                              NSDirectSound::DSEnumerateCallback callback,
                                              void* context) override;
  NSDirectSound::HResult DirectSoundCreate(NSDirectSound::DSEntry entry,
                                           const NSDirectSound::SGuid* guid,
                                           NSDirectSound::DSDevice* device) override;
  NSDirectSound::HResult SetCooperativeLevel(NSDirectSound::DSDevice device, void* window,
                                             uint32_t level) override;
  NSDirectSound::HResult CreateSoundBuffer(NSDirectSound::DSDevice device,
                                           const NSDirectSound::SDSBufferDesc& desc,
                                           NSDirectSound::DSBuffer* buffer) override;
  NSDirectSound::HResult GetCaps(NSDirectSound::DSDevice device,
                                 NSDirectSound::SDSCaps* caps) override;
  uint32_t ReleaseDevice(NSDirectSound::DSDevice device) override;
  NSDirectSound::HResult SetFormat(NSDirectSound::DSBuffer buffer,
                                   const NSDirectSound::SPcmFormat& format) override;
  NSDirectSound::HResult GetFormat(NSDirectSound::DSBuffer buffer,
                                   NSDirectSound::SPcmFormat* format, uint32_t bytes) override;
  NSDirectSound::HResult Lock(NSDirectSound::DSBuffer buffer, uint32_t offset, uint32_t bytes,
                              void** first, uint32_t* firstBytes, void** second,
                              uint32_t* secondBytes, uint32_t flags) override;
  NSDirectSound::HResult Unlock(NSDirectSound::DSBuffer buffer, void* first, uint32_t firstBytes,
                                void* second, uint32_t secondBytes) override;
  NSDirectSound::HResult Play(NSDirectSound::DSBuffer buffer, uint32_t flags) override;
  NSDirectSound::HResult Stop(NSDirectSound::DSBuffer buffer) override;
  NSDirectSound::HResult GetCurrentPosition(NSDirectSound::DSBuffer buffer, uint32_t* play,
                                            uint32_t* write) override;
  NSDirectSound::HResult Restore(NSDirectSound::DSBuffer buffer) override;
  uint32_t ReleaseBuffer(NSDirectSound::DSBuffer buffer) override;

 private:
  struct SDeviceObject {
    size_t index;
    bool released = false;
  };
  struct SBufferObject {
    size_t device = 0;
    bool primary = false;
    uint32_t rate = 0;
    std::vector<uint8_t> ring;
  };
  bool TakeFailure(EDSCall call, NSDirectSound::HResult& result);
  uint32_t CursorBytes();

  std::mutex lock_;
  // Device objects live as long as the fake: a reference the library never
  // gives back is counted, not lost.
  std::vector<std::unique_ptr<SDeviceObject>> deviceObjects_;
  CFailurePlan failures_;
  std::atomic<uint64_t> calls_[kDSCallCount] = {};
  std::atomic<int32_t> liveDevices_{0};
  std::atomic<int32_t> liveBuffers_{0};
  std::atomic<uint32_t> lastBufferFlags_{0};
  static constexpr size_t kKeptBufferFlags = 64;
  std::vector<uint32_t> bufferFlags_;
  std::atomic<void*> cooperativeWindow_{nullptr};
  std::atomic<uint32_t> cooperativeLevel_{0};
  std::atomic<SBufferObject*> secondary_{nullptr};
  std::atomic<bool> playing_{false};
  std::atomic<uint32_t> cursorBytes_{0};
  std::chrono::steady_clock::time_point playStart_;
  std::atomic<bool> lost_{false};
  std::atomic<int32_t> restoreRefusals_{0};
  // Block writes, in a fixed ring: the pump's thread must not allocate here.
  std::atomic<uint32_t> writes_[1024] = {};
  std::atomic<uint32_t> writeCount_{0};
  std::atomic<bool> silenceWritten_{false};
};

}  // namespace Fakes

#endif
