#include "wasapi/wasapi_api.h"

#include "wasapi/win32/wasapi_layout.h"

#include <atomic>
#include <cstring>

namespace NSWasapiLayout {

const GUID kClsidDeviceEnumerator = {0xBCDE0395, 0xE52F, 0x467C,
                                     {0x8E, 0x3D, 0xC4, 0x57, 0x92, 0x91, 0x69, 0x2E}};
const GUID kIidDeviceEnumerator = {0xA95664D2, 0x9614, 0x4F35,
                                   {0xA7, 0x46, 0xDE, 0x8D, 0xB6, 0x36, 0x17, 0xE6}};
const GUID kIidAudioClient = {0x1CB9AD4C, 0xDBFA, 0x4C32,
                              {0xB1, 0x78, 0xC2, 0xF5, 0x68, 0xA7, 0x03, 0xB2}};
const GUID kIidAudioClient3 = {0x7ED4EE07, 0x8E67, 0x4CD4,
                               {0x8C, 0x1A, 0x2B, 0x7A, 0x59, 0x87, 0xAD, 0x42}};
const GUID kIidRenderClient = {0xF294ACFC, 0x3146, 0x4483,
                               {0xA7, 0xBF, 0xAD, 0xDC, 0xA7, 0xC2, 0x60, 0xE2}};
const GUID kIidAudioClock = {0xCD63314F, 0x3FBA, 0x4A1B,
                             {0x81, 0x2C, 0xEF, 0x96, 0x35, 0x87, 0x28, 0xE7}};
const GUID kIidNotificationClient = {0x7991EEC9, 0x7E89, 0x4D85,
                                     {0x83, 0x90, 0x6C, 0x70, 0x3C, 0xEC, 0x60, 0xC0}};
const GUID kIidUnknown = {0x00000000, 0x0000, 0x0000,
                          {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
const PROPERTYKEY kFriendlyName = {
    {0xA45C254E, 0xDF1C, 0x4EFD, {0x80, 0x20, 0x67, 0xD1, 0x46, 0xA8, 0x50, 0xE0}}, 14};
const PROPERTYKEY kDeviceFormat = {
    {0xF19F064D, 0x082C, 0x4E27, {0xBC, 0x73, 0x68, 0x82, 0xA1, 0xBB, 0x8E, 0x4C}}, 0};

constexpr int kRender = 0;
constexpr int kConsole = 0;
constexpr DWORD kStateActive = 1;

// The family's listener: it only passes the news on.
class CNotificationClient final : public IMMNotificationClientLayout {
 public:
  explicit CNotificationClient(NSWasapi::IEndpointSink* sink) : sink_(sink) {}
  HRESULT STDMETHODCALLTYPE QueryInterface(const GUID& iid, void** object) override {
    if (iid == kIidUnknown || iid == kIidNotificationClient) {
      AddRef();
      *object = this;
      return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++count_; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = --count_;
    if (left == 0) delete this;
    return left;
  }
  HRESULT STDMETHODCALLTYPE OnDeviceStateChanged(LPCWSTR, DWORD) override { return Tell(); }
  HRESULT STDMETHODCALLTYPE OnDeviceAdded(LPCWSTR) override { return Tell(); }
  HRESULT STDMETHODCALLTYPE OnDeviceRemoved(LPCWSTR) override { return Tell(); }
  HRESULT STDMETHODCALLTYPE OnDefaultDeviceChanged(int flow, int role, LPCWSTR) override {
    if (flow == kRender && role == kConsole) sink_->OnDefaultEndpointChanged();
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OnPropertyValueChanged(LPCWSTR, PROPERTYKEY) override { return S_OK; }

 private:
  HRESULT Tell() {
    sink_->OnEndpointsChanged();
    return S_OK;
  }
  ~CNotificationClient() = default;

  NSWasapi::IEndpointSink* sink_;
  std::atomic<ULONG> count_{1};
};

}  // namespace NSWasapiLayout

namespace NSWasapi {

namespace {

using namespace NSWasapiLayout;

// The audio client with what the family knows of it.
struct SClient {
  IAudioClientLayout* client;
  IAudioClient3Layout* client3;
};

std::u16string Text(const wchar_t* text) {
  return text != nullptr ? std::u16string(reinterpret_cast<const char16_t*>(text)) : u"";
}

void CopyFormat(const void* source, SWaveFormat* format) {
  const WAVEFORMATEX* from = static_cast<const WAVEFORMATEX*>(source);
  size_t bytes = sizeof(WAVEFORMATEX) + from->cbSize;
  if (bytes > sizeof(SWaveFormat)) bytes = sizeof(SWaveFormat);
  // The record as the engine wrote it; a plain one keeps no extension.
  uint8_t raw[sizeof(SWaveFormat)];
  SWaveFormat blank;
  blank.extraSize = 0;
  std::memcpy(raw, &blank, sizeof raw);
  std::memcpy(raw, from, bytes);
  std::memcpy(static_cast<void*>(format), raw, sizeof raw);
}

class CSystemWasapi final : public IWasapiApi {
 public:
  HResult CoInitialize() override { return CoInitializeEx(nullptr, COINIT_MULTITHREADED); }
  void CoUninitialize() override { ::CoUninitialize(); }

  HResult CreateEnumerator(WEnumerator* enumerator) override {
    *enumerator = nullptr;
    return CoCreateInstance(kClsidDeviceEnumerator, nullptr, CLSCTX_ALL, kIidDeviceEnumerator,
                            enumerator);
  }
  void ReleaseEnumerator(WEnumerator enumerator) override {
    if (enumerator != nullptr) Enumerator(enumerator)->Release();
  }

  HResult ListRenderEndpoints(WEnumerator enumerator, std::vector<SEndpoint>& endpoints) override {
    endpoints.clear();
    IMMDeviceCollectionLayout* devices = nullptr;
    HRESULT result = Enumerator(enumerator)->EnumAudioEndpoints(kRender, kStateActive, &devices);
    if (FAILED(result) || devices == nullptr) return FAILED(result) ? result : E_FAIL;
    UINT count = 0;
    result = devices->GetCount(&count);
    for (UINT i = 0; SUCCEEDED(result) && i < count; ++i) {
      IMMDeviceLayout* device = nullptr;
      if (FAILED(devices->Item(i, &device)) || device == nullptr) continue;
      SEndpoint endpoint;
      LPWSTR id = nullptr;
      if (SUCCEEDED(device->GetId(&id)) && id != nullptr) {
        endpoint.id = Text(id);
        CoTaskMemFree(id);
      }
      IPropertyStoreLayout* store = nullptr;
      if (SUCCEEDED(device->OpenPropertyStore(STGM_READ, &store)) && store != nullptr) {
        PROPVARIANT value;
        PropVariantInit(&value);
        if (SUCCEEDED(store->GetValue(kFriendlyName, &value)) && value.vt == VT_LPWSTR) {
          endpoint.friendlyName = Text(value.pwszVal);
        }
        PropVariantClear(&value);
        store->Release();
      }
      device->Release();
      if (endpoint.id.empty()) continue;
      if (endpoint.friendlyName.empty()) endpoint.friendlyName = endpoint.id;
      endpoints.push_back(endpoint);
    }
    devices->Release();
    return result;
  }

  HResult GetDefaultRenderEndpoint(WEnumerator enumerator, std::u16string* id) override {
    id->clear();
    IMMDeviceLayout* device = nullptr;
    HRESULT result = Enumerator(enumerator)->GetDefaultAudioEndpoint(kRender, kConsole, &device);
    if (FAILED(result) || device == nullptr) return FAILED(result) ? result : E_FAIL;
    LPWSTR text = nullptr;
    result = device->GetId(&text);
    if (SUCCEEDED(result) && text != nullptr) {
      *id = Text(text);
      CoTaskMemFree(text);
    }
    device->Release();
    return id->empty() && SUCCEEDED(result) ? E_FAIL : result;
  }

  HResult RegisterNotification(WEnumerator enumerator, IEndpointSink* sink,
                               WNotification* notification) override {
    *notification = nullptr;
    CNotificationClient* client = new (std::nothrow) CNotificationClient(sink);
    if (client == nullptr) return E_OUTOFMEMORY;
    const HRESULT result = Enumerator(enumerator)->RegisterEndpointNotificationCallback(client);
    if (FAILED(result)) {
      client->Release();
      return result;
    }
    *notification = client;
    return result;
  }
  void UnregisterNotification(WEnumerator enumerator, WNotification notification) override {
    auto* client = static_cast<CNotificationClient*>(notification);
    Enumerator(enumerator)->UnregisterEndpointNotificationCallback(client);
    client->Release();
  }

  HResult GetDeviceFormat(WEnumerator enumerator, const std::u16string& id,
                          SWaveFormat* format) override {
    IMMDeviceLayout* device = nullptr;
    HRESULT result =
        Enumerator(enumerator)->GetDevice(reinterpret_cast<LPCWSTR>(id.c_str()), &device);
    if (FAILED(result) || device == nullptr) return FAILED(result) ? result : E_FAIL;
    IPropertyStoreLayout* store = nullptr;
    result = device->OpenPropertyStore(STGM_READ, &store);
    device->Release();
    if (FAILED(result) || store == nullptr) return FAILED(result) ? result : E_FAIL;
    PROPVARIANT value;
    PropVariantInit(&value);
    result = store->GetValue(kDeviceFormat, &value);
    // A wave format record in a blob; anything shorter is no format.
    if (SUCCEEDED(result)) {
      if (value.vt == VT_BLOB && value.blob.pBlobData != nullptr &&
          value.blob.cbSize >= sizeof(WAVEFORMATEX) &&
          value.blob.cbSize >= sizeof(WAVEFORMATEX) +
                                   reinterpret_cast<const WAVEFORMATEX*>(value.blob.pBlobData)->cbSize) {
        CopyFormat(value.blob.pBlobData, format);
      } else {
        result = E_FAIL;
      }
    }
    PropVariantClear(&value);
    store->Release();
    return result;
  }

  HResult ActivateClient(WEnumerator enumerator, const std::u16string& id, WClient* client,
                         bool* client3) override {
    *client = nullptr;
    *client3 = false;
    IMMDeviceLayout* device = nullptr;
    HRESULT result =
        Enumerator(enumerator)->GetDevice(reinterpret_cast<LPCWSTR>(id.c_str()), &device);
    if (FAILED(result) || device == nullptr) return FAILED(result) ? result : E_FAIL;
    void* object = nullptr;
    result = device->Activate(kIidAudioClient, CLSCTX_ALL, nullptr, &object);
    device->Release();
    if (FAILED(result) || object == nullptr) return FAILED(result) ? result : E_FAIL;
    SClient* held = new (std::nothrow) SClient{static_cast<IAudioClientLayout*>(object), nullptr};
    if (held == nullptr) {
      static_cast<IAudioClientLayout*>(object)->Release();
      return E_OUTOFMEMORY;
    }
    void* three = nullptr;
    if (SUCCEEDED(held->client->QueryInterface(kIidAudioClient3, &three)) && three != nullptr) {
      held->client3 = static_cast<IAudioClient3Layout*>(three);
      *client3 = true;
    }
    *client = held;
    return S_OK;
  }
  void ReleaseClient(WClient client) override {
    SClient* held = Client(client);
    if (held == nullptr) return;
    if (held->client3 != nullptr) held->client3->Release();
    held->client->Release();
    delete held;
  }
  HResult GetMixFormat(WClient client, SWaveFormat* format) override {
    void* mix = nullptr;
    const HRESULT result = Client(client)->client->GetMixFormat(&mix);
    if (FAILED(result) || mix == nullptr) return FAILED(result) ? result : E_FAIL;
    CopyFormat(mix, format);
    CoTaskMemFree(mix);
    return S_OK;
  }
  HResult GetDevicePeriod(WClient client, int64_t* defaultPeriod, int64_t* minimumPeriod) override {
    LONGLONG d = 0;
    LONGLONG m = 0;
    const HRESULT result = Client(client)->client->GetDevicePeriod(&d, &m);
    *defaultPeriod = d;
    *minimumPeriod = m;
    return result;
  }
  HResult GetSharedModeEnginePeriod(WClient client, const SWaveFormat& format,
                                    uint32_t* defaultFrames, uint32_t* fundamentalFrames,
                                    uint32_t* minimumFrames, uint32_t* maximumFrames) override {
    IAudioClient3Layout* three = Client(client)->client3;
    if (three == nullptr) return E_NOINTERFACE;
    UINT32 d = 0, f = 0, mn = 0, mx = 0;
    const HRESULT result = three->GetSharedModeEnginePeriod(&format, &d, &f, &mn, &mx);
    *defaultFrames = d;
    *fundamentalFrames = f;
    *minimumFrames = mn;
    *maximumFrames = mx;
    return result;
  }
  HResult GetCurrentSharedModeEnginePeriod(WClient client, uint32_t* frames) override {
    *frames = 0;
    IAudioClient3Layout* three = Client(client)->client3;
    if (three == nullptr) return E_NOINTERFACE;
    void* format = nullptr;
    UINT32 value = 0;
    const HRESULT result = three->GetCurrentSharedModeEnginePeriod(&format, &value);
    if (format != nullptr) CoTaskMemFree(format);
    *frames = value;
    return result;
  }
  HResult InitializeSharedAudioStream(WClient client, uint32_t flags, uint32_t periodFrames,
                                      const SWaveFormat& format) override {
    IAudioClient3Layout* three = Client(client)->client3;
    if (three == nullptr) return E_NOINTERFACE;
    return three->InitializeSharedAudioStream(flags, periodFrames, &format, nullptr);
  }
  HResult IsFormatSupported(WClient client, EShareMode mode, const SWaveFormat& format) override {
    // An exclusive question takes no closest match: the engine wants null
    // there, and answers the format alone.
    void* closest = nullptr;
    const HRESULT result = Client(client)->client->IsFormatSupported(
        static_cast<int>(mode), &format, mode == kShareModeExclusive ? nullptr : &closest);
    if (closest != nullptr) CoTaskMemFree(closest);
    return result;
  }
  HResult Initialize(WClient client, EShareMode mode, uint32_t flags, int64_t duration,
                     int64_t periodicity, const SWaveFormat& format) override {
    return Client(client)->client->Initialize(static_cast<int>(mode), flags, duration, periodicity,
                                              &format, nullptr);
  }
  HResult GetBufferSize(WClient client, uint32_t* frames) override {
    UINT32 value = 0;
    const HRESULT result = Client(client)->client->GetBufferSize(&value);
    *frames = value;
    return result;
  }
  HResult GetStreamLatency(WClient client, int64_t* latency) override {
    LONGLONG value = 0;
    const HRESULT result = Client(client)->client->GetStreamLatency(&value);
    *latency = value;
    return result;
  }
  HResult GetCurrentPadding(WClient client, uint32_t* frames) override {
    UINT32 value = 0;
    const HRESULT result = Client(client)->client->GetCurrentPadding(&value);
    *frames = value;
    return result;
  }
  HResult SetEventHandle(WClient client, WEvent event) override {
    return Client(client)->client->SetEventHandle(static_cast<HANDLE>(event));
  }
  HResult Start(WClient client) override { return Client(client)->client->Start(); }
  HResult Stop(WClient client) override { return Client(client)->client->Stop(); }
  HResult GetRenderClient(WClient client, WRender* render) override {
    *render = nullptr;
    return Client(client)->client->GetService(kIidRenderClient, render);
  }
  void ReleaseRender(WRender render) override {
    if (render != nullptr) static_cast<IAudioRenderClientLayout*>(render)->Release();
  }
  HResult GetBuffer(WRender render, uint32_t frames, uint8_t** data) override {
    BYTE* bytes = nullptr;
    const HRESULT result = static_cast<IAudioRenderClientLayout*>(render)->GetBuffer(frames, &bytes);
    *data = bytes;
    return result;
  }
  HResult ReleaseBuffer(WRender render, uint32_t frames, uint32_t flags) override {
    return static_cast<IAudioRenderClientLayout*>(render)->ReleaseBuffer(frames, flags);
  }
  HResult GetClock(WClient client, WClock* clock) override {
    *clock = nullptr;
    return Client(client)->client->GetService(kIidAudioClock, clock);
  }
  void ReleaseClock(WClock clock) override {
    if (clock != nullptr) static_cast<IAudioClockLayout*>(clock)->Release();
  }
  HResult GetClockFrequency(WClock clock, uint64_t* frequency) override {
    UINT64 value = 0;
    const HRESULT result = static_cast<IAudioClockLayout*>(clock)->GetFrequency(&value);
    *frequency = value;
    return result;
  }
  HResult GetClockPosition(WClock clock, uint64_t* position, uint64_t* systemTime) override {
    UINT64 p = 0;
    UINT64 t = 0;
    const HRESULT result = static_cast<IAudioClockLayout*>(clock)->GetPosition(&p, &t);
    *position = p;
    *systemTime = t;
    return result;
  }

  WEvent CreateEngineEvent() override { return CreateEventW(nullptr, FALSE, FALSE, nullptr); }
  void CloseEngineEvent(WEvent event) override {
    if (event != nullptr) CloseHandle(static_cast<HANDLE>(event));
  }
  NSPlatform::EWaitResult WaitEngineEvent(WEvent event, uint32_t milliseconds) override {
    switch (WaitForSingleObject(static_cast<HANDLE>(event), milliseconds)) {
      case WAIT_OBJECT_0: return NSPlatform::kWaitObject;
      case WAIT_TIMEOUT: return NSPlatform::kWaitTimeout;
      default: return NSPlatform::kWaitFailed;
    }
  }

 private:
  static IMMDeviceEnumeratorLayout* Enumerator(WEnumerator enumerator) {
    return static_cast<IMMDeviceEnumeratorLayout*>(enumerator);
  }
  static SClient* Client(WClient client) { return static_cast<SClient*>(client); }
};

}  // namespace

WClient HoldAudioClient(IAudioClientLayout* client, IAudioClient3Layout* client3) {
  return new (std::nothrow) SClient{client, client3};
}

IWasapiApi& SystemWasapiApi() {
  static CSystemWasapi api;
  return api;
}

}  // namespace NSWasapi
