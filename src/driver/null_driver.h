// The null driver: plays nothing and records nothing, but renders at the
// pace of a timer like a real device. Always entry 0 of the registry.
#ifndef QUILLON_DRIVER_NULL_DRIVER_H
#define QUILLON_DRIVER_NULL_DRIVER_H

#include <cstdint>
#include <vector>

#include "driver/driver_contract.h"
#include "driver/periodic_thread.h"

namespace NSFerrand {

class CNullRegisteredDriver final : public CABCRegisteredSoundDriver {
 public:
  CABCOpenSoundDriver* OpenWithSettings(const CSoundDriverSettings& settings,
                                        MSoundRenderer* renderer, void* hardwareContext) override;
  CABCOpenSoundDriver* OpenWithDefaults(MSoundRenderer* renderer, void* hardwareContext) override;
  CRegisteredSoundDriverInfo& GetInfo(CRegisteredSoundDriverInfo& info) override;
};

// All active channels share one silent input array and one scratch output
// array, so memory does not grow with the channel count.
struct CNullChannelBuffers {
  CNullChannelBuffers(uint32_t frameCount, const CChannelBitVector& inputPairs,
                      const CChannelBitVector& outputPairs);

  uint32_t frames;
  std::vector<float> silence;
  std::vector<float> scratch;
  CChannelPointers inputs;
  CChannelPointers outputs;
};

class CNullOpenSoundDriver final : public CPlainOpenSoundDriver {
 public:
  // A requested rate snaps to the nearest of the five; defaults are 44100.
  CNullOpenSoundDriver(const CSoundDriverSettings* settings, MSoundRenderer* renderer);
  ~CNullOpenSoundDriver() override;
  CNullOpenSoundDriver(const CNullOpenSoundDriver&) = delete;
  CNullOpenSoundDriver& operator=(const CNullOpenSoundDriver&) = delete;

  CSoundDriverSettings& GetSettings(CSoundDriverSettings& settings) override;
  void ApplySettings(const CSoundDriverSettings& settings) override;
  bool TakeSettingsChanged() override;
  COpenSoundDriverInfo& GetDriverInfo(COpenSoundDriverInfo& info) override;
  int64_t GetInputLatency() override;
  int64_t GetOutputLatency() override;
  void CheckAlive() override;

  // The render period in force, in milliseconds.
  uint32_t PeriodMs() const;

 private:
  static void Tick(CPeriodicCallbackThread* thread);
  void Close();
  // Stops renders and wins the buffer mutex, within one render; false when
  // a render held it past the time-out.
  bool PauseRendering();
  // Starts the timer thread for the buffers in force; a thread that cannot
  // be made leaves the driver dead.
  void StartThread();

  CLockableMutex bufferMutex_;
  uint32_t sampleRate_ = 44100;
  uint32_t clockSource_ = 0;
  MSoundRenderer* renderer_;
  CNullChannelBuffers* buffers_ = nullptr;
  std::atomic<bool> dead_{false};
  // Set while the control thread wants the buffers: the timer renders not.
  std::atomic<bool> pausing_{false};
  bool settingsChanged_ = false;
  CPeriodicCallbackThread* thread_ = nullptr;
};

extern const uint32_t kStandardSampleRates[5];
constexpr uint32_t kNullDriverFrames = 4096;
// The sizes the driver keeps: a period of at least 1 ms at 192000 Hz, and of
// at most 743 ms at 44100 Hz.
constexpr uint32_t kNullDriverMinFrames = 192;
constexpr uint32_t kNullDriverMaxFrames = 32768;
// A requested size, limited to those the driver keeps.
uint32_t NullDriverFramesFor(uint32_t requested);

}  // namespace NSFerrand

#endif
