// An open MME driver: plays what the renderer gives through a ring of 32
// prepared wave headers of 512 frames, kept filled by a time-critical thread
// that waits for the device to say it is done with a header.
#ifndef QUILLON_MME_MME_DRIVER_H
#define QUILLON_MME_MME_DRIVER_H

#include <atomic>
#include <cstdint>
#include <vector>

#include "driver/driver_contract.h"
#include "driver/threading.h"
#include "mme/wave_out.h"

namespace NSMME {

class CMMESoundRegisteredSoundDriver;

constexpr uint32_t kMMEBlockFrames = 512;
constexpr uint32_t kMMEHeaderCount = 32;
constexpr uint32_t kMMEBlockBytes = kMMEBlockFrames * 4;
constexpr uint32_t kMMEMaxFrames = kMMEBlockFrames * kMMEHeaderCount;
constexpr uint32_t kMMEDefaultFrames = 8192;
// The smallest size whose headers do not overlap in the sample memory.
constexpr uint32_t kMMEMinFrames = 1024;

// A requested size, limited to those the driver offers.
uint32_t MMEFramesFor(uint32_t requested);

using NSFerrand::EStopWaitStep;
using NSFerrand::kPumpAgain;
using NSFerrand::kStopAsked;
using NSFerrand::kWaitBroken;
using NSFerrand::StopWaitStep;

// Blocks the pump keeps queued for a buffer size: whole blocks, rounded up.
int32_t TargetBlocks(uint32_t bufferFrames);

// Headers whose waits are weighed together before the queue grows.
constexpr uint32_t kPaceWindowBlocks = 16;

// Weighs how long the device keeps the headers it gives back, a run of
// kPaceWindowBlocks at a time.
class CDevicePaceWatch {
 public:
  // A header given back `ageMs` after it was written, with a queue of that
  // many blocks: true when the run it ends shows that the device plays short
  // and needs one block more (never beyond the ring).
  bool HeaderDone(uint32_t ageMs, int32_t targetBlocks, uint32_t sampleRate);
  void Reset();

 private:
  uint32_t aged_ = 0;
  uint32_t shortestMs_ = UINT32_MAX;
};

class COpenMMESoundDriver final : public NSFerrand::CPlainOpenSoundDriver,
                                  private NSFerrand::IThreadFunction {
 public:
  // `settings` null: the rate nearest 44100 and 8192 frames.
  COpenMMESoundDriver(const CMMESoundRegisteredSoundDriver& registered,
                      NSFerrand::MSoundRenderer* renderer,
                      const NSFerrand::CSoundDriverSettings* settings);
  ~COpenMMESoundDriver() override;
  COpenMMESoundDriver(const COpenMMESoundDriver&) = delete;
  COpenMMESoundDriver& operator=(const COpenMMESoundDriver&) = delete;

  NSFerrand::CSoundDriverSettings& GetSettings(NSFerrand::CSoundDriverSettings& settings) override;
  void ApplySettings(const NSFerrand::CSoundDriverSettings& settings) override;
  bool TakeSettingsChanged() override;
  NSFerrand::COpenSoundDriverInfo& GetDriverInfo(NSFerrand::COpenSoundDriverInfo& info) override;
  int64_t GetOutputLatency() override;
  void CheckAlive() override;

  // For tests of the family: raised each block written into an empty queue.
  uint32_t UnderrunCount() const { return underruns_.load(); }
  uint32_t BlocksWritten() const { return blocksWritten_.load(); }
  // The pump's wake-ups: the device's events and the waits that timed out.
  uint64_t Wakes() const { return wakes_.load(); }
  // Blocks the pump keeps queued: those the buffer size asks for, or more
  // where the device needs a deeper queue to play at its pace.
  int32_t TargetBlockCount() const { return QueueTarget(); }
  int32_t AskedBlockCount() const { return askedBlocks_.load(); }
  // Blocks with the device now; on the thread that opens and closes.
  uint32_t QueuedBlocks() const { return StreamOpen() ? QueueCount() : 0; }
  bool StreamOpen() const { return waveOut_ != nullptr; }
  // One pass of the pump; true when it wrote something.
  bool StreamPump();

 private:
  void Run() override;
  // The supported rate nearest a request.
  uint32_t KeptRate(uint32_t requested) const;
  // Opens, or closes again whatever was opened and raises.
  void OpenStream(uint32_t sampleRate, uint32_t bufferFrames);
  void OpenStreamSteps(uint32_t sampleRate, uint32_t bufferFrames);
  void CloseStream();
  // The device's result; blocks written counts only what it took.
  uint32_t WriteBlock(uint32_t slice, SWaveHeader& header);
  // The longest the pump waits for the device's event.
  uint32_t SafetyWaitMs() const;
  uint32_t QueueCount() const;
  int32_t QueueTarget() const;
  // Weighs how long the device kept the headers it gave back since the last
  // pass, and deepens the queue when it plays short.
  void WatchTheDevicesPace(uint32_t queued);

  const CMMESoundRegisteredSoundDriver& registered_;
  IWaveOut& api_;
  NSFerrand::MSoundRenderer* renderer_;
  std::vector<uint32_t> supportedRates_;
  uint32_t sampleRate_ = 0;
  std::atomic<uint32_t> bufferFrames_{0};
  bool settingsChanged_ = false;
  NSFerrand::CTimedThread* thread_ = nullptr;
  NSFerrand::CLockableMutex* stopMutex_ = nullptr;
  std::atomic<bool> failed_{false};
  WaveOutHandle waveOut_ = nullptr;
  SWaveHeader* headers_ = nullptr;
  std::atomic<int32_t> askedBlocks_{0};
  std::atomic<int32_t> deviceBlocks_{0};
  // The pace watch, on the streaming thread alone.
  uint32_t writtenAtMs_[kMMEHeaderCount] = {};
  uint32_t blocksSeenDone_ = 0;
  CDevicePaceWatch paceWatch_;
  std::atomic<uint32_t> blocksWritten_{0};
  std::atomic<uint32_t> underruns_{0};
  int16_t* samples_ = nullptr;
  NSFerrand::CChannelPointers inputs_;
  NSFerrand::CChannelPointers outputs_;
  std::atomic<bool> running_{false};
  // Set while the stream closes: the pump renders no further block.
  std::atomic<bool> stopping_{false};
  NSPlatform::SEvent* doneEvent_ = nullptr;
  std::atomic<uint64_t> wakes_{0};
};

}  // namespace NSMME

#endif
