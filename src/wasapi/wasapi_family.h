// The WASAPI family: each active render endpoint of the audio engine, once
// shared and once exclusive, as registered drivers under "WASAPI", and the
// one translation of the engine's results into failures.
#ifndef QUILLON_WASAPI_WASAPI_FAMILY_H
#define QUILLON_WASAPI_WASAPI_FAMILY_H

#include <atomic>
#include <memory>
#include <vector>

#include "driver/registry.h"
#include "wasapi/wasapi_api.h"

namespace NSWasapi {

using NSFerrand::CWideString;

extern const char16_t kWasapiFamilyWord[];
// The shared entry that follows the system's default render endpoint: its
// endpoint has no id.
extern const char16_t kDefaultOutputName[];
SEndpoint DefaultOutputEndpoint();
// Counts the changes of the system's default render endpoint in the process.
uint32_t DefaultEndpointGeneration();

// Raises the failure a result stands for; returns on success codes. A
// device that is gone or in another's hands is the driver's failure to
// open ("audio_driver").
void ThrowOnWasapiResult(HResult result);

CWideString WasapiKey(const SEndpoint& endpoint, EShareMode mode);
CWideString WasapiName(const SEndpoint& endpoint, EShareMode mode);

class CWasapiApartment;

class CWasapiRegisteredSoundDriver final : public NSFerrand::CABCRegisteredSoundDriver {
 public:
  // Control calls go to `control`, which the driver keeps alive; the stream
  // thread calls `stream` itself.
  CWasapiRegisteredSoundDriver(std::shared_ptr<IWasapiApi> control, IWasapiApi& stream,
                               const SEndpoint& endpoint, EShareMode mode);
  // One set of operations for both, which the caller keeps alive.
  CWasapiRegisteredSoundDriver(IWasapiApi& api, const SEndpoint& endpoint, EShareMode mode);
  NSFerrand::CABCOpenSoundDriver* OpenWithSettings(const NSFerrand::CSoundDriverSettings& settings,
                                                   NSFerrand::MSoundRenderer* renderer,
                                                   void* hardwareContext) override;
  NSFerrand::CABCOpenSoundDriver* OpenWithDefaults(NSFerrand::MSoundRenderer* renderer,
                                                   void* hardwareContext) override;
  NSFerrand::CRegisteredSoundDriverInfo& GetInfo(
      NSFerrand::CRegisteredSoundDriverInfo& info) override;

  IWasapiApi& StreamApi() const { return stream_; }
  const std::shared_ptr<IWasapiApi>& SharedApi() const { return control_; }
  const SEndpoint& Endpoint() const { return endpoint_; }
  EShareMode Mode() const { return mode_; }

 private:
  std::shared_ptr<IWasapiApi> control_;
  IWasapiApi& stream_;
  SEndpoint endpoint_;
  EShareMode mode_;
};

// The family's registration, through a COM thread of its own: "Default
// output" first, when there is any endpoint, then each endpoint. Endpoint
// notifications only take note; the control thread registers again at its
// next Refresh.
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
  void OnDefaultEndpointChanged() override;
  void Register();
  // Registers one entry and notes its key among the living; a failure
  // leaves it out.
  void Add(const SEndpoint& endpoint, EShareMode mode, std::vector<CWideString>& alive);

  std::shared_ptr<CWasapiApartment> apartment_;
  WEnumerator enumerator_ = nullptr;
  WNotification notification_ = nullptr;
  std::atomic<bool> changed_{false};
};

}  // namespace NSWasapi

#endif
