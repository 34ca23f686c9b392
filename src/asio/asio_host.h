// The dialogue with one loaded ASIO driver: rate, clock and size policy, the
// buffers of a run, the four callbacks, and recovery when the driver
// changes under it. The driver's thread only ever tries the run lock;
// whatever it asks that needs more than a flag waits for the control
// thread's periodic check. Teardown runs from any point of a half-done start.
#ifndef QUILLON_ASIO_ASIO_HOST_H
#define QUILLON_ASIO_ASIO_HOST_H

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "asio/asio_buffers.h"
#include "asio/asio_interface.h"
#include "asio/asio_platform.h"
#include "driver/clock.h"
#include "driver/driver_contract.h"
#include "driver/threading.h"

namespace NSASIO {

using NSFerrand::CChannelBitVector;
using NSFerrand::CInputMonitorSetting;
using NSFerrand::CSoundDriverSettings;
using NSTextPackage::CWideString;

class CASIODriverHost;

// The host that receives the driver's callbacks, and the count of starts.
extern std::atomic<CASIODriverHost*> activeHost;
extern std::atomic<uint32_t> startCounter;

// The rates offered wherever a driver accepts them.
extern const uint32_t kOfferedRates[5];

// Rate of the current driver: 0 when it knows no clock; other refusals raise.
uint32_t ReadSampleRate();
// Sets the rate when it differs; gives the rate read back.
uint32_t WriteSampleRate(uint32_t rate);
std::vector<uint32_t> ListSampleRates();
std::vector<uint32_t> ListBufferSizes();
std::vector<ASIOClockSource> ListClockSources();

// Asks a driver object which device it drives: false when it has no such
// interface; true with the identity in UTF-8, empty when it names none.
bool AskHardwareIdentity(IASIO* driver, IASIOPlatform& platform, std::string& identity);

class CASIODriverHost {
 public:
  // `settings` null: the driver's defaults and its preferred size. Ends
  // streaming; a failure tears down what was built and passes on.
  CASIODriverHost(const CWideString& driverName, NSFerrand::MSoundRenderer* renderer,
                  void* hardwareContext, const CSoundDriverSettings* settings);
  ~CASIODriverHost();
  CASIODriverHost(const CASIODriverHost&) = delete;
  CASIODriverHost& operator=(const CASIODriverHost&) = delete;

  // Stops and releases what it can. A host whose render is stuck on the
  // driver's thread must then be kept, never deleted: that thread may still
  // come back into it.
  void Close();
  bool RenderStuck() const { return renderStuck_; }
  // New settings, else the former ones again; raises only when neither holds.
  void ApplyNewSettings(const CSoundDriverSettings& settings);
  CSoundDriverSettings ReadCurrentSettings() const;
  // After a reset request or the panel: the driver's preferred size, its
  // present rate, the same pairs.
  void RestartDriver();
  // True when the stream was restarted after the panel closed.
  bool ShowPanel();
  // Reset first, then a failed render, then the rate every 3000 ms.
  void PeriodicCheck();
  bool TakeSettingsChanged() { return settingsChanged_.exchange(false); }
  // Sends a monitor record; the table keeps it only when the driver agrees.
  void SetInputMonitor(uint32_t channel, const CInputMonitorSetting& record);
  // Asks the driver whether it monitors inputs.
  bool CanMonitorInputs();

  uint32_t EffectiveRate() const { return effectiveRate_.load(); }
  uint32_t ReportedRate() const { return reportedRate_.load(); }
  uint32_t BufferFrames() const { return bufferFrames_; }
  const std::vector<uint32_t>& BufferSizes() const { return bufferSizes_; }
  const std::vector<uint32_t>& SampleRates() const { return sampleRates_; }
  const std::vector<CWideString>& InputNames() const { return inputNames_; }
  const std::vector<CWideString>& OutputNames() const { return outputNames_; }
  const CChannelBitVector& InputPairs() const { return inputPairs_; }
  const CChannelBitVector& OutputPairs() const { return outputPairs_; }
  int32_t InputLatency() const { return inputLatency_; }
  int32_t OutputLatency() const { return outputLatency_; }
  const std::vector<ASIOClockSource>& ClockSources() const { return clockSources_; }
  std::vector<CWideString> ClockSourceNames() const;
  uint32_t CurrentClockSource() const;
  bool MonitorsValid() const { return monitorsValid_; }
  const std::vector<CInputMonitorSetting>& Monitors() const { return monitors_; }
  const std::string& Identity() const { return identity_; }
  bool RenderFailed() const { return renderFailed_.load(); }
  const CASIOBufferSet* BufferSet() const { return bufferSet_; }
  // For tests of the buffer switch while the control thread holds the lock.
  NSFerrand::CLockableMutex& RunLock() { return runLock_; }
  // The millisecond clock of the rate poll; tests give one of their own.
  typedef uint32_t (*TickSource)();
  void SetTickSource(TickSource source) { ticks_ = source; }

  // The driver's callbacks; they find the host through activeHost.
  static void OnBufferSwitch(int32_t index, ASIOBool directProcess);
  static void OnSampleRateDidChange(ASIOSampleRate rate);
  static int32_t OnAsioMessage(int32_t selector, int32_t value, void* message, double* opt);
  static ASIOTime* OnBufferSwitchTimeInfo(ASIOTime* time, int32_t index, ASIOBool directProcess);

 private:
  void LoadAndInitDriver();
  void BuildStreaming(uint32_t requestedFrames, const CChannelBitVector& inputs,
                      const CChannelBitVector& outputs, bool startNow);
  void BuildStreamingSteps(uint32_t requestedFrames, const CChannelBitVector& inputs,
                           const CChannelBitVector& outputs, bool startNow);
  void ConfigureFromSettings(const CSoundDriverSettings& settings);
  void ConfigureSteps(const CSoundDriverSettings& settings);
  void StartStreaming();
  void StopAndRelease();
  void NoteSampleRate(uint32_t rate);
  void PublishRates();
  // `priming`: the block before the start, on the control thread.
  void RenderOneBuffer(int32_t index, uint64_t systemTime, uint64_t samplePosition,
                       bool priming = false);
  std::vector<CWideString> BuildChannelNames(bool inputs, int32_t count);

  ASIOCallbacks callbacks_;  // first: its address goes to the driver
  CWideString driverName_;
  NSFerrand::MSoundRenderer* renderer_;
  CASIOBufferSet* bufferSet_ = nullptr;
  NSFerrand::CLockableMutex runLock_{true};
  bool stopped_ = true;       // no render can start: the gate is shut
  bool runLockHeld_ = true;  // the control thread holds the run lock
  // A render on the driver's thread passes the gate as well as the run lock.
  // The control thread shuts it before it waits for the lock, so that a wait
  // the system refuses still keeps every render out of buffers being freed.
  std::atomic<bool> renderGateOpen_{false};
  std::atomic<int32_t> rendersInside_{0};
  bool renderStuck_ = false;
  // The render's thread is inside the driver's outputReady.
  std::atomic<bool> inOutputReady_{false};
  std::atomic<bool> resetRequested_{false};
  std::atomic<bool> outputReadyPending_{false};
  std::atomic<bool> renderFailed_{false};
  std::atomic<bool> settingsChanged_{false};
  std::atomic<uint32_t> reportedRate_{0};
  std::atomic<uint32_t> effectiveRate_{0};
  uint32_t bufferFrames_ = 0;
  std::vector<uint32_t> bufferSizes_;
  std::vector<uint32_t> sampleRates_;
  // The rate list as the driver's thread reads it: it changes only while
  // no run is active, and a late reader sees old or new entries, whole.
  std::atomic<uint32_t> rateTable_[6] = {};
  std::atomic<uint32_t> rateCount_{0};
  std::vector<CWideString> inputNames_;
  CChannelBitVector inputPairs_;
  std::vector<CWideString> outputNames_;
  CChannelBitVector outputPairs_;
  int32_t inputLatency_ = 0;
  int32_t outputLatency_ = 0;
  std::vector<ASIOClockSource> clockSources_;
  bool monitorsValid_ = false;
  std::vector<CInputMonitorSetting> monitors_;
  TickSource ticks_ = &NSFerrand::GetTickCount32;
  bool rateChecked_ = false;
  int32_t nextRateCheck_ = 0;
  void* hardwareContext_;
  std::string identity_;
};

}  // namespace NSASIO

#endif
