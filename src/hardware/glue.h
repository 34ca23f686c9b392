// The one live connection to the hardware library, and its open devices.
// Both only hold lifetimes in order, turn result codes into failures and
// carry the library's callbacks to the two handler interfaces.
#ifndef QUILLON_HARDWARE_GLUE_H
#define QUILLON_HARDWARE_GLUE_H

#include <cstdint>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "hardware/zep_api.h"
#include "hardware/zep_loader.h"
#include "hardware/zep_platform.h"

namespace NSZEPGlue {

// Called on the library's own thread.
class IConnectionHandler {
 public:
  virtual void OnConnectionChanged() = 0;
  virtual ~IConnectionHandler() = default;
};

// Called on the library's own thread.
class IButtonHandler {
 public:
  virtual void OnButton(ZEPDevice device, uint32_t button) = 0;
  virtual ~IButtonHandler() = default;
};

class CGlueImpl {
 public:
  // Either handler may be null. Callbacks may come as soon as the library
  // is being created, and until the destructor has disposed of it.
  CGlueImpl(IConnectionHandler* connectionHandler, IButtonHandler* buttonHandler,
            IZEPPlatform& platform);
  ~CGlueImpl();
  CGlueImpl(const CGlueImpl&) = delete;
  CGlueImpl& operator=(const CGlueImpl&) = delete;

  // The names of the devices connected now; the former contents go.
  void GetCurrentDeviceNames(std::vector<std::string>& names);

  NSPrivate::CZEPLoader& Loader() const { return loader_->Loader(); }

 private:
  friend struct SGlueTrampolines;
  IConnectionHandler* connectionHandler_;
  IButtonHandler* buttonHandler_;
  boost::shared_ptr<NSPrivate::CScopedZEPLoader> loader_;
};

typedef boost::shared_ptr<CGlueImpl> CGluePtr;

// One open device. Keeps its glue, and so the library, alive.
class CSharedDeviceImpl {
 public:
  // Raises the failure of the library's code when the name does not open.
  CSharedDeviceImpl(const CGluePtr& glue, const std::string& name);
  ~CSharedDeviceImpl();
  CSharedDeviceImpl(const CSharedDeviceImpl&) = delete;
  CSharedDeviceImpl& operator=(const CSharedDeviceImpl&) = delete;

  const std::string& GetDeviceName() const { return name_; }
  ZEPDevice GetDeviceHandle() const { return device_; }

  // Hardware channels count from 0; every answer is the library's own.
  uint32_t GetChannelCount();
  uint32_t GetGainSafePaddedChannel(uint32_t channel);
  float GetGainSafePaddingDb(uint32_t channel);
  void SetGainSafeRoutingEnable(uint32_t channel, bool enable);
  // State 0, 1 or 2.
  void SetGainSafeIndicator(uint32_t state);
  void SetChannelActiveIndicator(uint32_t channel, bool active);
  uint32_t GetPreferredSampleRate();
  uint32_t GetPreferredBufferSize();
  void SetDirectMonitoring(bool enable);
  // Only an answer of exactly 1 is yes.
  bool HasControlPanel();

 private:
  CGluePtr glue_;
  std::string name_;
  ZEPDevice device_;
};

typedef boost::shared_ptr<CSharedDeviceImpl> CSharedDevicePtr;

// Passed through to the library; nothing in the system calls them.
void ZEPTestCommand(CGlueImpl& glue, uint32_t command, uintptr_t first, uintptr_t second,
                    uintptr_t third, int32_t fourth);
void ZEPGetVersion(IZEPPlatform& platform, uintptr_t first, uintptr_t second);

}  // namespace NSZEPGlue

#endif
