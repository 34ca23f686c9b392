// The audio engine's COM interfaces in their published layout, for the
// Windows build's calls into the engine and for tests that stand in for it.
#ifndef QUILLON_WASAPI_WIN32_WASAPI_LAYOUT_H
#define QUILLON_WASAPI_WIN32_WASAPI_LAYOUT_H

#include <windows.h>
#include <objbase.h>
#include <propidl.h>

#include "wasapi/wasapi_api.h"

// The three operations of IUnknown, then each interface's own, in order.
namespace NSWasapiLayout {

struct IUnknownLayout {
  virtual HRESULT STDMETHODCALLTYPE QueryInterface(const GUID& iid, void** object) = 0;
  virtual ULONG STDMETHODCALLTYPE AddRef() = 0;
  virtual ULONG STDMETHODCALLTYPE Release() = 0;
 protected:
  ~IUnknownLayout() = default;
};

struct IPropertyStoreLayout : IUnknownLayout {
  virtual HRESULT STDMETHODCALLTYPE GetCount(DWORD* count) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetAt(DWORD index, PROPERTYKEY* key) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetValue(const PROPERTYKEY& key, PROPVARIANT* value) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetValue(const PROPERTYKEY& key, const PROPVARIANT& value) = 0;
  virtual HRESULT STDMETHODCALLTYPE Commit() = 0;
 protected:
  ~IPropertyStoreLayout() = default;
};

struct IMMDeviceLayout : IUnknownLayout {
  virtual HRESULT STDMETHODCALLTYPE Activate(const GUID& iid, DWORD context, PROPVARIANT* params,
                                             void** object) = 0;
  virtual HRESULT STDMETHODCALLTYPE OpenPropertyStore(DWORD access,
                                                      IPropertyStoreLayout** store) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetId(LPWSTR* id) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetState(DWORD* state) = 0;
 protected:
  ~IMMDeviceLayout() = default;
};

struct IMMDeviceCollectionLayout : IUnknownLayout {
  virtual HRESULT STDMETHODCALLTYPE GetCount(UINT* count) = 0;
  virtual HRESULT STDMETHODCALLTYPE Item(UINT index, IMMDeviceLayout** device) = 0;
 protected:
  ~IMMDeviceCollectionLayout() = default;
};

struct IMMNotificationClientLayout : IUnknownLayout {
  virtual HRESULT STDMETHODCALLTYPE OnDeviceStateChanged(LPCWSTR id, DWORD state) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnDeviceAdded(LPCWSTR id) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnDeviceRemoved(LPCWSTR id) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnDefaultDeviceChanged(int flow, int role, LPCWSTR id) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnPropertyValueChanged(LPCWSTR id, PROPERTYKEY key) = 0;
 protected:
  ~IMMNotificationClientLayout() = default;
};

struct IMMDeviceEnumeratorLayout : IUnknownLayout {
  virtual HRESULT STDMETHODCALLTYPE EnumAudioEndpoints(int flow, DWORD stateMask,
                                                       IMMDeviceCollectionLayout** devices) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetDefaultAudioEndpoint(int flow, int role,
                                                            IMMDeviceLayout** device) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetDevice(LPCWSTR id, IMMDeviceLayout** device) = 0;
  virtual HRESULT STDMETHODCALLTYPE RegisterEndpointNotificationCallback(
      IMMNotificationClientLayout* client) = 0;
  virtual HRESULT STDMETHODCALLTYPE UnregisterEndpointNotificationCallback(
      IMMNotificationClientLayout* client) = 0;
 protected:
  ~IMMDeviceEnumeratorLayout() = default;
};

struct IAudioClientLayout : IUnknownLayout {
  virtual HRESULT STDMETHODCALLTYPE Initialize(int mode, DWORD flags, LONGLONG duration,
                                               LONGLONG periodicity, const void* format,
                                               const GUID* session) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetBufferSize(UINT32* frames) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetStreamLatency(LONGLONG* latency) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetCurrentPadding(UINT32* frames) = 0;
  virtual HRESULT STDMETHODCALLTYPE IsFormatSupported(int mode, const void* format,
                                                      void** closest) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetMixFormat(void** format) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetDevicePeriod(LONGLONG* defaultPeriod,
                                                    LONGLONG* minimumPeriod) = 0;
  virtual HRESULT STDMETHODCALLTYPE Start() = 0;
  virtual HRESULT STDMETHODCALLTYPE Stop() = 0;
  virtual HRESULT STDMETHODCALLTYPE Reset() = 0;
  virtual HRESULT STDMETHODCALLTYPE SetEventHandle(HANDLE event) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetService(const GUID& iid, void** service) = 0;
 protected:
  ~IAudioClientLayout() = default;
};

struct IAudioClient2Layout : IAudioClientLayout {
  virtual HRESULT STDMETHODCALLTYPE IsOffloadCapable(int category, BOOL* capable) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetClientProperties(const void* properties) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetBufferSizeLimits(const void* format, BOOL eventDriven,
                                                        LONGLONG* minimum, LONGLONG* maximum) = 0;
 protected:
  ~IAudioClient2Layout() = default;
};

struct IAudioClient3Layout : IAudioClient2Layout {
  virtual HRESULT STDMETHODCALLTYPE GetSharedModeEnginePeriod(const void* format,
                                                              UINT32* defaultFrames,
                                                              UINT32* fundamentalFrames,
                                                              UINT32* minimumFrames,
                                                              UINT32* maximumFrames) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetCurrentSharedModeEnginePeriod(void** format,
                                                                     UINT32* frames) = 0;
  virtual HRESULT STDMETHODCALLTYPE InitializeSharedAudioStream(DWORD flags, UINT32 periodFrames,
                                                                const void* format,
                                                                const GUID* session) = 0;
 protected:
  ~IAudioClient3Layout() = default;
};

struct IAudioRenderClientLayout : IUnknownLayout {
  virtual HRESULT STDMETHODCALLTYPE GetBuffer(UINT32 frames, BYTE** data) = 0;
  virtual HRESULT STDMETHODCALLTYPE ReleaseBuffer(UINT32 frames, DWORD flags) = 0;
 protected:
  ~IAudioRenderClientLayout() = default;
};

struct IAudioClockLayout : IUnknownLayout {
  virtual HRESULT STDMETHODCALLTYPE GetFrequency(UINT64* frequency) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetPosition(UINT64* position, UINT64* systemTime) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetCharacteristics(DWORD* characteristics) = 0;
 protected:
  ~IAudioClockLayout() = default;
};

}  // namespace NSWasapiLayout

namespace NSWasapi {

// An audio client the family did not activate, as the family holds one;
// it takes the caller's reference. For tests of this layer.
WClient HoldAudioClient(NSWasapiLayout::IAudioClientLayout* client,
                        NSWasapiLayout::IAudioClient3Layout* client3);

}  // namespace NSWasapi

#endif
