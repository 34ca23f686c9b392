// The WASAPI family: each active render endpoint of the audio engine, once
// shared and once exclusive, as registered drivers under "WASAPI", and the
// one translation of the engine's results into failures.
#ifndef QUILLON_WASAPI_WASAPI_FAMILY_H
#define QUILLON_WASAPI_WASAPI_FAMILY_H

#include <atomic>

#include "driver/registry.h"
#include "wasapi/wasapi_api.h"

namespace NSWasapi {

using NSFerrand::CWideString;

extern const char16_t kWasapiFamilyWord[];

// Raises the failure a result stands for; returns on success codes. A
// device that is gone or in another's hands is the driver's failure to
// open ("audio_driver").
void ThrowOnWasapiResult(HResult result);

CWideString WasapiKey(const SEndpoint& endpoint, EShareMode mode);
CWideString WasapiName(const SEndpoint& endpoint, EShareMode mode);

class CWasapiRegisteredSoundDriver final : public NSFerrand::CABCRegisteredSoundDriver {
 public:
  CWasapiRegisteredSoundDriver(IWasapiApi& api, const SEndpoint& endpoint, EShareMode mode);
  NSFerrand::CABCOpenSoundDriver* OpenWithSettings(const NSFerrand::CSoundDriverSettings& settings,
                                                   NSFerrand::MSoundRenderer* renderer,
                                                   void* hardwareContext) override;
  NSFerrand::CABCOpenSoundDriver* OpenWithDefaults(NSFerrand::MSoundRenderer* renderer,
                                                   void* hardwareContext) override;
  NSFerrand::CRegisteredSoundDriverInfo& GetInfo(
      NSFerrand::CRegisteredSoundDriverInfo& info) override;

  IWasapiApi& Api() const { return api_; }
  const SEndpoint& Endpoint() const { return endpoint_; }
  EShareMode Mode() const { return mode_; }

 private:
  IWasapiApi& api_;
  SEndpoint endpoint_;
  EShareMode mode_;
};

// The family's registration. Endpoint notifications only take note; the
// control thread registers again at its next Refresh.
class CWasapiFamilyScope final : private IEndpointSink {
 public:
  explicit CWasapiFamilyScope(IWasapiApi& api);
  ~CWasapiFamilyScope();
  CWasapiFamilyScope(const CWasapiFamilyScope&) = delete;
  CWasapiFamilyScope& operator=(const CWasapiFamilyScope&) = delete;

  // Control thread: lists and registers again when the endpoints changed
  // since the last time.
  void RefreshIfChanged();
  bool ChangePending() const { return changed_.load(); }

 private:
  void OnEndpointsChanged() override;
  void Register();

  IWasapiApi& api_;
  bool comInitialised_ = false;
  WEnumerator enumerator_ = nullptr;
  WNotification notification_ = nullptr;
  std::atomic<bool> changed_{false};
};

}  // namespace NSWasapi

#endif
