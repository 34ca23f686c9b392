// Where the hardware library's events meet the client. The library calls
// in on a thread of its own at any moment; the client works on the host's
// control thread.
#ifndef QUILLON_PUBLIC_ZEP_HANDLER_H
#define QUILLON_PUBLIC_ZEP_HANDLER_H

#include <atomic>
#include <cstdint>

#include "driver/threading.h"
#include "hardware/glue.h"
#include "quillon/quillon.h"

namespace NSQuillon2 {

class CZEPLibHandler final : public NSZEPGlue::IConnectionHandler,
                             public NSZEPGlue::IButtonHandler {
 public:
  // Loads the library and connects; XAlreadyExists when the library says
  // it is connected already.
  explicit CZEPLibHandler(NSZEPGlue::IZEPPlatform& platform);
  ~CZEPLibHandler() override;
  CZEPLibHandler(const CZEPLibHandler&) = delete;
  CZEPLibHandler& operator=(const CZEPLibHandler&) = delete;

  // The hardware context of the drivers: the address of the glue.
  NSZEPGlue::CGluePtr* GetGlue() { return &glue_; }

  // Control thread.
  void SetButtonContext(IHardwareEventSink* context);
  void SetBoundDevice(NSZEPGlue::CSharedDeviceImpl* device);
  // One connection change, if one is pending.
  bool TakeConnectionChange();

  // The library's thread. A connection event only counts; a button event
  // goes to the host when it comes from the bound device, and is dropped
  // when the lock cannot be had within 50 ms.
  void OnConnectionChanged() override;
  void OnButton(NSZEPGlue::ZEPDevice device, uint32_t button) override;

 private:
  // Made before the glue and ended after it: events come from the moment
  // the library is created until it is disposed of.
  NSFerrand::CLockableMutex lock_;
  std::atomic<int32_t> pendingConnectionChanges_{0};
  IHardwareEventSink* context_ = nullptr;
  NSZEPGlue::ZEPDevice boundDevice_ = 0;
  NSZEPGlue::CGluePtr glue_;
};

}  // namespace NSQuillon2

#endif
