// A fake driver family: every operation can be told to succeed, to raise
// any failure, or to block for a while; it counts every call; its open
// driver renders on its own thread at a chosen pace, or stops on demand.
#ifndef QUILLON_TESTS_FAKES_FAKE_DRIVER_H
#define QUILLON_TESTS_FAKES_FAKE_DRIVER_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "driver/driver_contract.h"
#include "hardware/glue.h"

namespace Fakes {

using NSFerrand::CWideString;

enum EOperation : uint32_t {
  kOpenWithSettings,
  kOpenWithDefaults,
  kGetSettings,
  kApplySettings,
  kTakeSettingsChanged,
  kGetDriverInfo,
  kGetInputLatency,
  kGetOutputLatency,
  kCanMonitorInputs,
  kGetInputMonitor,
  kSetInputMonitor,
  kHasControlPanel,
  kShowControlPanel,
  kHasHardwareDevice,
  kGetHardwareDevice,
  kCheckAlive,
  kGetInfo,
  kOperationCount
};

const char* OperationName(EOperation operation);

// What an operation does when called.
struct SBehaviour {
  // 0: succeed. A failure code of the framework: raise that failure with the
  // word below; 5 raises the int 5; 1 raises a std::runtime_error.
  std::atomic<uint32_t> raiseCode{0};
  std::atomic<bool> audioDriverWord{true};
  // Raise only this many more times (-1: every time).
  std::atomic<int32_t> raiseTimes{-1};
  std::atomic<uint32_t> blockMs{0};
  std::atomic<uint64_t> calls{0};
};

// The state a registered fake shares with the drivers it opens; a test
// keeps it to steer and to watch.
class CFakeDriverControl {
 public:
  CFakeDriverControl();

  SBehaviour& Of(EOperation operation) { return behaviours_[operation]; }
  void Raise(EOperation operation, uint32_t failureCode, int32_t times = -1);
  void Succeed(EOperation operation);
  uint64_t Calls(EOperation operation) const { return behaviours_[operation].calls.load(); }

  // Whatever the open driver describes itself with.
  std::mutex lock;
  NSFerrand::CSoundDriverSettings settings;
  NSFerrand::COpenSoundDriverInfo info;
  int64_t inputLatency = 1000;
  int64_t outputLatency = 2000;
  bool canMonitor = false;
  bool hasPanel = false;
  bool settingsChanged = false;
  // The hardware device an open driver names, when the host asked for the
  // hardware library: opened through the glue as a real family opens it.
  std::string hardwareDevice;

  // Rendering: pace in ms per block, and a switch that stops the thread's
  // calls while it runs on.
  std::atomic<uint32_t> renderPeriodMs{5};
  std::atomic<bool> rendering{true};
  std::atomic<uint64_t> renders{0};
  std::atomic<bool> renderRaised{false};
  // Open drivers alive now, and ever opened.
  std::atomic<int> openDrivers{0};
  std::atomic<int> opened{0};

  // Runs the behaviour of an operation: counts, calls the hook, blocks,
  // raises.
  void Enter(EOperation operation);
  // Called on entry to every operation; set before the driver is used.
  std::function<void(EOperation)> onEnter;

 private:
  SBehaviour behaviours_[kOperationCount];
};

class CFakeRegisteredDriver final : public NSFerrand::CABCRegisteredSoundDriver {
 public:
  CFakeRegisteredDriver(std::shared_ptr<CFakeDriverControl> control, const CWideString& key,
                        const CWideString& family, const CWideString& name,
                        const CWideString& manufacturer = u"Fake Works",
                        const CWideString& version = u"1.0");
  NSFerrand::CABCOpenSoundDriver* OpenWithSettings(const NSFerrand::CSoundDriverSettings& settings,
                                                   NSFerrand::MSoundRenderer* renderer,
                                                   void* hardwareContext) override;
  NSFerrand::CABCOpenSoundDriver* OpenWithDefaults(NSFerrand::MSoundRenderer* renderer,
                                                   void* hardwareContext) override;
  NSFerrand::CRegisteredSoundDriverInfo& GetInfo(
      NSFerrand::CRegisteredSoundDriverInfo& info) override;

  uint8_t flags[4] = {1, 1, 0, 0};
  void* lastHardwareContext = nullptr;

 private:
  std::shared_ptr<CFakeDriverControl> control_;
  CWideString key_, family_, name_, manufacturer_, version_;
};

class CFakeOpenSoundDriver final : public NSFerrand::CABCOpenSoundDriver {
 public:
  CFakeOpenSoundDriver(std::shared_ptr<CFakeDriverControl> control,
                       NSFerrand::MSoundRenderer* renderer, void* hardwareContext = nullptr);
  ~CFakeOpenSoundDriver() override;

  NSFerrand::CSoundDriverSettings& GetSettings(NSFerrand::CSoundDriverSettings& settings) override;
  void ApplySettings(const NSFerrand::CSoundDriverSettings& settings) override;
  bool TakeSettingsChanged() override;
  NSFerrand::COpenSoundDriverInfo& GetDriverInfo(NSFerrand::COpenSoundDriverInfo& info) override;
  int64_t GetInputLatency() override;
  int64_t GetOutputLatency() override;
  bool CanMonitorInputs() override;
  void GetInputMonitor(uint32_t input, NSFerrand::CInputMonitorSetting& setting) override;
  void SetInputMonitor(uint32_t input, const NSFerrand::CInputMonitorSetting& setting) override;
  bool HasControlPanel() override;
  bool HasHardwareDevice() override;
  NSFerrand::CHardwareDevice* GetHardwareDevice() override;
  bool ShowControlPanel() override;
  void CheckAlive() override;

 private:
  void RenderLoop();
  void BuildBuffers();

  std::shared_ptr<CFakeDriverControl> control_;
  NSFerrand::MSoundRenderer* renderer_;
  NSZEPGlue::CSharedDevicePtr device_;
  std::vector<std::vector<float>> buffers_;
  NSFerrand::CChannelPointers inputs_;
  NSFerrand::CChannelPointers outputs_;
  std::vector<NSFerrand::CInputMonitorSetting> monitors_;
  std::atomic<bool> stop_{false};
  std::atomic<bool> dead_{false};
  std::mutex buffersLock_;
  std::thread thread_;
};

}  // namespace Fakes

#endif
