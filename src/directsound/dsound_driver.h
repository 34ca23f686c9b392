// An open DirectSound driver: one looping secondary buffer of 16384 frames
// of 16-bit stereo, kept filled to the target latency by a time-critical
// thread that sleeps until the play cursor leaves room for its next write.
#ifndef QUILLON_DIRECTSOUND_DSOUND_DRIVER_H
#define QUILLON_DIRECTSOUND_DSOUND_DRIVER_H

#include <atomic>
#include <cstdint>
#include <vector>

#include "directsound/dsound_api.h"
#include "driver/driver_contract.h"
#include "driver/threading.h"

namespace NSDirectSound {

class CDirectSoundRegisteredSoundDriver;

constexpr int32_t kDirectSoundRingFrames = 16384;
constexpr uint32_t kDirectSoundRingBytes = 65536;
constexpr uint32_t kDirectSoundDefaultFrames = 4096;
// The sizes offered: 256 to 8192 in steps of 64.
constexpr uint32_t kDirectSoundMinFrames = 256;
constexpr uint32_t kDirectSoundMaxFrames = 8192;
constexpr uint32_t kDirectSoundFrameStep = 64;
// A buffer that no Restore brings back for this long counts as gone: the
// driver fails, so that the host hears of it, rather than render into
// nothing for ever.
constexpr uint32_t kDirectSoundLostForGoodMs = 2000;

// A requested size, replaced by the nearest one offered.
uint32_t DirectSoundFramesFor(uint32_t requested);
// The frames of room the pump writes: 0 below 0, else masked with
// 0xFFFFFF40, which clears bit 7 as well as bits 0 to 5.
int32_t WritableRoom(int32_t targetLatency, int32_t queued);
// The smallest write worth a block: the target shifted by 8, at least 64.
int32_t MinimumWrite(int32_t targetLatency);
// The play cursor in frames from its byte position; the end counts as 0.
int32_t CursorFrames(uint32_t bytePosition);
// Frames the cursor moved, across the wrap of the ring.
int32_t CursorDelta(int32_t cursor, int32_t lastCursor);
// The room the pump waits for between writes: a quarter of the target, in
// steps of 64, at least the minimum write.
int32_t WriteQuantum(int32_t targetLatency);
// How long the pump waits with that much queued: until a write quantum of
// room is due at the rate, at least 1 ms and at most a quarter of the
// target. A cursor that moves in steps only delays a write by one wait.
uint32_t PumpWaitMs(int32_t targetLatency, int32_t queued, uint32_t sampleRate);

class COpenDirectSoundDriver final : public NSFerrand::CPlainOpenSoundDriver,
                                     private NSFerrand::IThreadFunction {
 public:
  // `settings` null: the rate nearest 44100 and 4096 frames.
  COpenDirectSoundDriver(const CDirectSoundRegisteredSoundDriver& registered,
                         NSFerrand::MSoundRenderer* renderer,
                         const NSFerrand::CSoundDriverSettings* settings);
  ~COpenDirectSoundDriver() override;
  COpenDirectSoundDriver(const COpenDirectSoundDriver&) = delete;
  COpenDirectSoundDriver& operator=(const COpenDirectSoundDriver&) = delete;

  NSFerrand::CSoundDriverSettings& GetSettings(NSFerrand::CSoundDriverSettings& settings) override;
  void ApplySettings(const NSFerrand::CSoundDriverSettings& settings) override;
  bool TakeSettingsChanged() override;
  NSFerrand::COpenSoundDriverInfo& GetDriverInfo(NSFerrand::COpenSoundDriverInfo& info) override;
  int64_t GetOutputLatency() override;
  void CheckAlive() override;

  // For tests of the family.
  const std::vector<uint32_t>& SupportedRates() const { return supportedRates_; }
  uint32_t UnderrunCount() const { return underruns_.load(); }
  bool BufferLost() const { return bufferLost_.load(); }
  bool Failed() const { return failed_.load(); }
  int32_t FramesWritten() const { return framesWritten_.load(); }
  int32_t LastWrite() const { return lastWrite_.load(); }
  // One pass of the pump, as the streaming thread makes it; the time to
  // wait before the next, in milliseconds.
  uint32_t StreamPump();

 private:
  void Run() override;
  uint32_t KeptRate(uint32_t requested) const;
  std::vector<uint32_t> FindSupportedRates();
  void OpenStream(uint32_t sampleRate, uint32_t frames);
  void OpenStreamSteps(uint32_t sampleRate, uint32_t frames);
  void CloseStream();
  void WriteSilence();
  void WriteBlock(int32_t position, int32_t count);
  // Written and not yet played; below 0 when the cursor passed the writing.
  int32_t QueuedFrames() const;

  const CDirectSoundRegisteredSoundDriver& registered_;
  IDirectSoundApi& api_;
  NSFerrand::MSoundRenderer* renderer_;
  std::vector<uint32_t> supportedRates_;
  uint32_t sampleRate_ = 0;
  std::atomic<int32_t> targetLatency_{0};
  std::atomic<int32_t> minimumWrite_{64};
  bool settingsChanged_ = false;
  NSFerrand::CTimedThread* thread_ = nullptr;
  NSFerrand::CLockableMutex* stopMutex_ = nullptr;
  int32_t lastCursor_ = 0;
  std::atomic<int32_t> framesWritten_{0};
  int32_t framesPlayed_ = 0;
  std::atomic<int32_t> lastWrite_{0};
  DSDevice device_ = nullptr;
  DSBuffer primary_ = nullptr;
  DSBuffer secondary_ = nullptr;
  std::atomic<uint32_t> underruns_{0};
  std::atomic<bool> bufferLost_{false};
  uint32_t lostSince_ = 0;  // the clock when the buffer was lost
  std::atomic<bool> failed_{false};
  NSFerrand::CChannelPointers inputs_;
  NSFerrand::CChannelPointers outputs_;
  int16_t staging_[kDirectSoundRingBytes / 2];
};

}  // namespace NSDirectSound

#endif
