// What a client holds in place of a driver: at most one open driver, copies
// of all last read from it, and a silent timed thread that keeps the
// client's clock running whenever there is no driver to do it.
#ifndef QUILLON_DRIVER_HANDLE_H
#define QUILLON_DRIVER_HANDLE_H

#include <atomic>
#include <cstdint>

#include "driver/driver_contract.h"
#include "driver/periodic_thread.h"
#include "driver/registry.h"

namespace NSFerrand {

enum EHandleState : uint32_t {
  kDriverOpen = 0,
  kDriverLost = 1,
  kDriverSuspended = 2,
  kNoDriver = 3
};

// The silent thread's pace: 5120-frame blocks at a nominal 44100 Hz, paid
// from a 25 ms tick.
constexpr uint32_t kSilentBlockFrames = 5120;
constexpr uint32_t kSilentTickMs = 25;

// Every operation comes from one control thread. Failures of the driver are
// caught, and leave the handle silent in kDriverLost; PollDriver and
// ResumeDriver raise afterwards, SuspendDriver is not guarded, and the
// switches raise only when they cannot win the silent thread's mutex back.
class COpenSoundDriverHandle {
 public:
  COpenSoundDriverHandle(const CRegisteredDriverPtr& registered, MSoundRenderer* renderer,
                         void* hardwareContext);
  COpenSoundDriverHandle(const CRegisteredDriverPtr& registered,
                         const CSoundDriverSettings& settings, MSoundRenderer* renderer,
                         void* hardwareContext);
  // Opens the first driver of the registry.
  COpenSoundDriverHandle(MSoundRenderer* renderer, void* hardwareContext);
  virtual ~COpenSoundDriverHandle();
  COpenSoundDriverHandle(const COpenSoundDriverHandle&) = delete;
  COpenSoundDriverHandle& operator=(const COpenSoundDriverHandle&) = delete;

  bool IsDriverLost() const { return state_ == kDriverLost; }
  EHandleState State() const { return static_cast<EHandleState>(state_); }
  uint32_t SuspendCount() const { return suspendCount_; }
  bool HasSilentThread() const { return silentThread_ != nullptr; }
  // The open driver, or null: for diagnostics and tests of the families.
  const CABCOpenSoundDriver* OpenDriver() const { return driver_; }

  void GetRegisteredDriver(CRegisteredDriverPtr& registered) const { registered = registered_; }
  void ReadDriverSettings(CSoundDriverSettings& settings);
  void ReadDriverInfo(COpenSoundDriverInfo& info);
  int64_t GetInputLatency();
  int64_t GetOutputLatency();
  bool CanMonitorInputs();
  bool HasControlPanel();
  void ShowControlPanel();
  bool HasHardwareDevice();
  CHardwareDevice* GetHardwareDevice();
  void ApplyDriverSettings(const CSoundDriverSettings& settings);
  bool TakeHandleSettingsChanged();
  // Raises XNotReady ("audio_driver") when the driver has died, after going
  // silent.
  void PollDriver();
  void SuspendDriver();
  void ResumeDriver(void* hardwareContext);
  void SwitchDriver(const CRegisteredDriverPtr& registered, void* hardwareContext);
  void SwitchDriverWithSettings(const CRegisteredDriverPtr& registered,
                                const CSoundDriverSettings& settings, void* hardwareContext);
  // Closes the driver and pays silence on a timed thread. Called with the
  // silent mutex held, from kDriverOpen or kNoDriver.
  void EnterSilentMode();

  // The pay-out of a silent tick: as many whole 5120-frame blocks as the
  // time since `lastTick` holds at 44100 Hz; the rest is dropped. `lastTick`
  // moves only when something was paid. Gives the blocks paid.
  // A `stop` that becomes true ends the pay-out between two blocks.
  static uint32_t PaySilence(uint64_t& lastTick, uint64_t now, MSoundRenderer* renderer,
                             const std::atomic<bool>* stop = nullptr);

 private:
  void Construct(const CSoundDriverSettings* settings, void* hardwareContext);
  // Opens `registered_` and reads everything back; raises what the driver raises.
  void OpenAndRefresh(const CSoundDriverSettings* settings, void* hardwareContext);
  void Refresh();
  void Switch(const CRegisteredDriverPtr& registered, const CSoundDriverSettings* settings,
              void* hardwareContext);
  // Runs a driver call; a failure sends the handle silent. False then.
  template <class Call>
  bool Guarded(Call call);
  // Closes the driver and pays silence from now on, in that state.
  void GoSilent(EHandleState state);
  // Wins the silent mutex back within the time; true when the control
  // thread holds it afterwards.
  bool TakeSilentMutexFor(uint32_t milliseconds);
  void ReleaseSilentMutex();
  // Wins the silent mutex back and ends the silent thread, if one runs;
  // true when the control thread holds the mutex afterwards. The thread
  // stays when the mutex could not be had.
  bool WinSilenceBack(uint32_t milliseconds);
  // Ends the silent thread unconditionally: at most one Render long.
  void EndSilentThread();
  static void SilentTick(CPeriodicCallbackThread* thread);

  uint64_t silentLastTick_ = 0;
  CLockableMutex silentMutex_;
  // Whether the control thread holds silentMutex_ now.
  bool silentMutexHeld_ = true;
  CPeriodicCallbackThread* silentThread_ = nullptr;
  // Set by the control thread while it ends the silent thread.
  std::atomic<bool> silentStopRequested_{false};
  CRegistryRef registryRef_;
  CABCOpenSoundDriver* driver_ = nullptr;
  CRegisteredDriverPtr registered_;
  MSoundRenderer* renderer_;
  CSoundDriverSettings settings_;
  int64_t inputLatency_ = 0;
  int64_t outputLatency_ = 0;
  COpenSoundDriverInfo info_;
  uint32_t state_ = kNoDriver;
  uint32_t suspendCount_ = 0;
  bool changed_ = true;
};

}  // namespace NSFerrand

#endif
