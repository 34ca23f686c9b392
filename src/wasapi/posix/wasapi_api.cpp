#include "wasapi/wasapi_api.h"

namespace NSWasapi {

namespace {

// No audio engine here: COM cannot start, so the family lists nothing.
class CNoWasapi final : public IWasapiApi {
 public:
  HResult CoInitialize() override { return kAudioServiceNotRunning; }
  void CoUninitialize() override {}
  HResult CreateEnumerator(WEnumerator* enumerator) override {
    *enumerator = nullptr;
    return kAudioServiceNotRunning;
  }
  void ReleaseEnumerator(WEnumerator) override {}
  HResult ListRenderEndpoints(WEnumerator, std::vector<SEndpoint>& endpoints) override {
    endpoints.clear();
    return kAudioServiceNotRunning;
  }
  HResult RegisterNotification(WEnumerator, IEndpointSink*, WNotification* notification) override {
    *notification = nullptr;
    return kAudioServiceNotRunning;
  }
  void UnregisterNotification(WEnumerator, WNotification) override {}
  HResult ActivateClient(WEnumerator, const std::u16string&, WClient* client, bool* client3) override {
    *client = nullptr;
    *client3 = false;
    return kAudioServiceNotRunning;
  }
  void ReleaseClient(WClient) override {}
  HResult GetMixFormat(WClient, SWaveFormat*) override { return kAudioServiceNotRunning; }
  HResult GetDevicePeriod(WClient, int64_t*, int64_t*) override { return kAudioServiceNotRunning; }
  HResult GetSharedModeEnginePeriod(WClient, const SWaveFormat&, uint32_t*, uint32_t*, uint32_t*,
                                    uint32_t*) override {
    return kHResultNoInterface;
  }
  HResult GetDeviceFormat(WEnumerator, const std::u16string&, SWaveFormat*) override {
    return kAudioServiceNotRunning;
  }
  HResult GetDefaultRenderEndpoint(WEnumerator, std::u16string*) override {
    return kAudioServiceNotRunning;
  }
  HResult GetCurrentSharedModeEnginePeriod(WClient, uint32_t*) override {
    return kHResultNoInterface;
  }
  HResult InitializeSharedAudioStream(WClient, uint32_t, uint32_t, const SWaveFormat&) override {
    return kHResultNoInterface;
  }
  HResult IsFormatSupported(WClient, EShareMode, const SWaveFormat&) override {
    return kAudioServiceNotRunning;
  }
  HResult Initialize(WClient, EShareMode, uint32_t, int64_t, int64_t, const SWaveFormat&) override {
    return kAudioServiceNotRunning;
  }
  HResult GetBufferSize(WClient, uint32_t*) override { return kAudioServiceNotRunning; }
  HResult GetStreamLatency(WClient, int64_t*) override { return kAudioServiceNotRunning; }
  HResult GetCurrentPadding(WClient, uint32_t*) override { return kAudioServiceNotRunning; }
  HResult SetEventHandle(WClient, WEvent) override { return kAudioServiceNotRunning; }
  HResult Start(WClient) override { return kAudioServiceNotRunning; }
  HResult Stop(WClient) override { return kAudioServiceNotRunning; }
  HResult GetRenderClient(WClient, WRender* render) override {
    *render = nullptr;
    return kAudioServiceNotRunning;
  }
  void ReleaseRender(WRender) override {}
  HResult GetBuffer(WRender, uint32_t, uint8_t** data) override {
    *data = nullptr;
    return kAudioServiceNotRunning;
  }
  HResult ReleaseBuffer(WRender, uint32_t, uint32_t) override { return kAudioServiceNotRunning; }
  HResult GetClock(WClient, WClock* clock) override {
    *clock = nullptr;
    return kAudioServiceNotRunning;
  }
  void ReleaseClock(WClock) override {}
  HResult GetClockFrequency(WClock, uint64_t*) override { return kAudioServiceNotRunning; }
  HResult GetClockPosition(WClock, uint64_t*, uint64_t*) override {
    return kAudioServiceNotRunning;
  }
  WEvent CreateEngineEvent() override { return nullptr; }
  void CloseEngineEvent(WEvent) override {}
  NSPlatform::EWaitResult WaitEngineEvent(WEvent, uint32_t) override {
    return NSPlatform::kWaitFailed;
  }
};

}  // namespace

IWasapiApi& SystemWasapiApi() {
  static CNoWasapi api;
  return api;
}

}  // namespace NSWasapi
