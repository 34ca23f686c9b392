// CQuillonClient: one stream of audio through one driver, for the host.
#ifndef QUILLON_PUBLIC_CLIENT_H
#define QUILLON_PUBLIC_CLIENT_H

#include <atomic>
#include <cstdint>

#include "driver/handle.h"
#include "public/boundary_object.h"
#include "quillon/quillon.h"

namespace NSQuillon2 {

class CQuillonImpl;

class CQuillonClient final : public TBoundaryObject<CQuillonClient, IClient>,
                             public NSFerrand::MSoundRenderer {
 public:
  // `settings` null: the driver's defaults. A driver that fails does not
  // fail the construction: the client comes up silent.
  CQuillonClient(CQuillonImpl* library, IClientHost* host,
                 const NSFerrand::CRegisteredDriverPtr& driver,
                 const NSFerrand::CSoundDriverSettings* settings);
  ~CQuillonClient();
  CQuillonClient(const CQuillonClient&) = delete;
  CQuillonClient& operator=(const CQuillonClient&) = delete;

  uint32_t SetDriver(const IDriverSpec* spec, uint32_t* running) override;
  uint32_t SetDriverWithSettings(const IDriverSpec* spec, const SClientSettings* settings,
                                 uint32_t* running) override;
  IDriverSpec* GetDriverSpec(uint32_t* status) override;
  IVector<QuillonULong>* GetSampleRates(uint32_t* status) override;
  IVector<const unsigned short*>* GetInputNames(uint32_t* status) override;
  IVector<const unsigned short*>* GetOutputNames(uint32_t* status) override;
  IVector<QuillonULong>* GetBufferSizes(uint32_t* status) override;
  IVector<const unsigned short*>* GetClockSourceNames(uint32_t* status) override;
  uint32_t ApplyClientSettings(const SClientSettings* settings, uint32_t* running) override;
  uint32_t GetClientSettings(SClientSettings* settings) override;
  uint32_t GetInputLatency(uint64_t* microseconds) override;
  uint32_t GetOutputLatency(uint64_t* microseconds) override;
  uint32_t CanMonitorInputs(uint8_t* can) override;
  uint32_t HasHardwareDevice(uint8_t* has) override;
  uint32_t GetGainSafePaddedChannel(uint32_t channel, int32_t* padded) override;
  uint32_t GetGainSafePaddingDb(uint32_t channel, float* paddingDb) override;
  uint32_t SetGainSafeRoutingEnable(uint32_t channel, uint32_t enable) override;
  uint32_t SetGainSafeIndicator(uint32_t selector) override;
  uint32_t SetChannelActiveIndicator(uint32_t channel, uint32_t active) override;
  uint32_t ClearDirectMonitoring() override;
  uint32_t SuspendDriver() override;
  uint32_t ResumeDriver(uint32_t* running) override;
  uint32_t Idle() override;
  uint32_t ShowControlPanel() override;
  uint32_t HasControlPanel(uint32_t* has) override;
  uint32_t IsValid() override { return 1; }

  // The render bridge, on the audio thread: stamps the clock of the
  // watchdog and hands the block to the host. No lock, no allocation.
  uint32_t Render(uint32_t frames, const NSFerrand::CChannelPointers& inputs,
                  NSFerrand::CChannelPointers& outputs, uint64_t inputSystemTime,
                  uint64_t inputSamplePosition, uint64_t outputSystemTime,
                  uint64_t outputSamplePosition) override;

  // For tests of the library itself.
  const NSFerrand::COpenSoundDriverHandle& Handle() const { return *handle_; }
  bool WatchdogArmed() const { return watchdogArmed_ != 0; }

 private:
  // Re-entry guard, failure scope, and status, around the work.
  template <class Work>
  uint32_t Guarded(Work work);
  template <class Result, class Work>
  Result* GuardedResult(uint32_t* status, Work work);
  // A new list of one field of the driver's description.
  template <class Interface, class Vector, class Values>
  Interface* InfoList(uint32_t* status, Values NSFerrand::COpenSoundDriverInfo::*field);
  // A failure scope and status, without the guard.
  template <class Work>
  uint32_t Unguarded(Work work);
  // Reports a driver (re)start in `running` and lostReported.
  void ReportRunning(uint32_t* running);
  // Binds the device of the driver in use, or none while the client is
  // silent, so that buttons reach the host only from a device that plays.
  // Called after every operation; a refusal leaves the binding until the next.
  void FollowDevice();
  // The hardware context for opening a driver: the handler's glue, or null.
  void* HardwareContext() const;
  // Idle's share of the hardware: one connection change per call.
  void WorkOffConnectionChange();
  // The host's input channel number as the device counts its channels.
  uint32_t MapActiveChannel(uint32_t channel);
  NSZEPGlue::CSharedDeviceImpl& RequiredDevice();
  // The device, checked first, and the mapped channel: the device is asked
  // for again after the mapping, which can lose the driver and its device.
  NSZEPGlue::CSharedDeviceImpl& DeviceForChannel(uint32_t channel, uint32_t& mapped);
  void RunWatchdog();

  CQuillonImpl* library_;
  IClientHost* host_;
  uint8_t lostReported_ = 0;
  NSFerrand::COpenSoundDriverHandle* handle_ = nullptr;
  std::atomic<uint32_t> lastRenderTime_;
  uint32_t watchdogArmedTime_;
  uint8_t watchdogArmed_ = 0;
  uint32_t guardCount_ = 0;
  [[maybe_unused]] uint64_t reserved_ = 0;
};

}  // namespace NSQuillon2

#endif
