#include "directsound/dsound_api.h"

#include <windows.h>

#include <cstddef>

// The interface names the module operations without the system's A and W
// forms; this file calls the A forms by name.
#undef LoadLibrary

namespace NSDirectSound {

// Not in an anonymous namespace: the objects behind these come from the
// system, and a compiler that sees every class of an unnamed namespace would
// take a call on a class nobody derives from for one that cannot happen.
namespace NSSystemLayout {

static_assert(sizeof(GUID) == sizeof(SGuid), "GUID layout");
static_assert(sizeof(void*) == 8 && sizeof(SDSBufferDesc) == 24, "the early buffer description");

#pragma pack(push, 1)
struct SWaveFormatEx {
  WORD formatTag;
  WORD channels;
  DWORD samplesPerSecond;
  DWORD averageBytesPerSecond;
  WORD blockAlign;
  WORD bitsPerSample;
  WORD extraSize;
};
#pragma pack(pop)
static_assert(sizeof(SWaveFormatEx) == 18, "WAVEFORMATEX layout");

// The two interfaces in their published order, as far as this family calls them.
class IDSBufferLayout {
 public:
  virtual HRESULT STDMETHODCALLTYPE QueryInterface(const GUID& iid, void** object) = 0;
  virtual ULONG STDMETHODCALLTYPE AddRef() = 0;
  virtual ULONG STDMETHODCALLTYPE Release() = 0;
  virtual HRESULT STDMETHODCALLTYPE GetCaps(void* caps) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetCurrentPosition(DWORD* play, DWORD* write) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetFormat(SWaveFormatEx* format, DWORD bytes,
                                              DWORD* written) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetVolume(LONG* volume) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetPan(LONG* pan) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetFrequency(DWORD* frequency) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetStatus(DWORD* status) = 0;
  virtual HRESULT STDMETHODCALLTYPE Initialize(void* device, const SDSBufferDesc* desc) = 0;
  virtual HRESULT STDMETHODCALLTYPE Lock(DWORD offset, DWORD bytes, void** first,
                                         DWORD* firstBytes, void** second, DWORD* secondBytes,
                                         DWORD flags) = 0;
  virtual HRESULT STDMETHODCALLTYPE Play(DWORD reserved, DWORD priority, DWORD flags) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetCurrentPosition(DWORD position) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetFormat(const SWaveFormatEx* format) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetVolume(LONG volume) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetPan(LONG pan) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetFrequency(DWORD frequency) = 0;
  virtual HRESULT STDMETHODCALLTYPE Stop() = 0;
  virtual HRESULT STDMETHODCALLTYPE Unlock(void* first, DWORD firstBytes, void* second,
                                           DWORD secondBytes) = 0;
  virtual HRESULT STDMETHODCALLTYPE Restore() = 0;

 protected:
  ~IDSBufferLayout() = default;
};

class IDSLayout {
 public:
  virtual HRESULT STDMETHODCALLTYPE QueryInterface(const GUID& iid, void** object) = 0;
  virtual ULONG STDMETHODCALLTYPE AddRef() = 0;
  virtual ULONG STDMETHODCALLTYPE Release() = 0;
  virtual HRESULT STDMETHODCALLTYPE CreateSoundBuffer(const SDSBufferDesc* desc,
                                                      IDSBufferLayout** buffer, void* outer) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetCaps(SDSCaps* caps) = 0;
  virtual HRESULT STDMETHODCALLTYPE DuplicateSoundBuffer(void* original, void** duplicate) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetCooperativeLevel(HWND window, DWORD level) = 0;
  virtual HRESULT STDMETHODCALLTYPE Compact() = 0;
  virtual HRESULT STDMETHODCALLTYPE GetSpeakerConfig(DWORD* config) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetSpeakerConfig(DWORD config) = 0;
  virtual HRESULT STDMETHODCALLTYPE Initialize(const GUID* device) = 0;

 protected:
  ~IDSLayout() = default;
};

}  // namespace NSSystemLayout

namespace {

using NSSystemLayout::IDSBufferLayout;
using NSSystemLayout::IDSLayout;
using NSSystemLayout::SWaveFormatEx;

typedef HRESULT(WINAPI* CreateFunction)(const GUID*, IDSLayout**, void*);
typedef BOOL(CALLBACK* EnumerateCallback)(GUID*, const wchar_t*, const wchar_t*, void*);
typedef HRESULT(WINAPI* EnumerateFunction)(EnumerateCallback, void*);

struct SEnumeration {
  DSEnumerateCallback callback;
  void* context;
};

BOOL CALLBACK ForwardDevice(GUID* guid, const wchar_t* description, const wchar_t* module,
                            void* context) {
  const auto* enumeration = static_cast<const SEnumeration*>(context);
  return enumeration->callback(reinterpret_cast<const SGuid*>(guid),
                               reinterpret_cast<const char16_t*>(description),
                               reinterpret_cast<const char16_t*>(module), enumeration->context)
             ? TRUE
             : FALSE;
}

IDSLayout* Device(DSDevice device) { return static_cast<IDSLayout*>(device); }
IDSBufferLayout* Buffer(DSBuffer buffer) { return static_cast<IDSBufferLayout*>(buffer); }

SWaveFormatEx Packed(const SPcmFormat& format) {
  return SWaveFormatEx{format.formatTag, format.channels, format.samplesPerSecond,
                       format.averageBytesPerSecond, format.blockAlign, format.bitsPerSample,
                       format.extraSize};
}

class CSystemDirectSound final : public IDirectSoundApi {
 public:
  DSModule LoadLibrary(const char* name) override { return LoadLibraryA(name); }
  DSEntry GetProcAddress(DSModule module, const char* name) override {
    return reinterpret_cast<DSEntry>(::GetProcAddress(static_cast<HMODULE>(module), name));
  }
  void FreeLibrary(DSModule module) override { ::FreeLibrary(static_cast<HMODULE>(module)); }

  HResult DirectSoundEnumerate(DSEntry entry, DSEnumerateCallback callback,
                               void* context) override {
    SEnumeration enumeration = {callback, context};
    return reinterpret_cast<EnumerateFunction>(entry)(&ForwardDevice, &enumeration);
  }
  HResult DirectSoundCreate(DSEntry entry, const SGuid* guid, DSDevice* device) override {
    IDSLayout* created = nullptr;
    const HRESULT result = reinterpret_cast<CreateFunction>(entry)(
        reinterpret_cast<const GUID*>(guid), &created, nullptr);
    *device = created;
    return result;
  }

  HResult SetCooperativeLevel(DSDevice device, void* window, uint32_t level) override {
    return Device(device)->SetCooperativeLevel(static_cast<HWND>(window), level);
  }
  HResult CreateSoundBuffer(DSDevice device, const SDSBufferDesc& desc,
                            DSBuffer* buffer) override {
    // The description points at the system's packed format record.
    SWaveFormatEx format = {};
    SDSBufferDesc system = desc;
    if (desc.format != nullptr) {
      format = Packed(*desc.format);
      system.format = reinterpret_cast<const SPcmFormat*>(&format);
    }
    IDSBufferLayout* created = nullptr;
    const HRESULT result = Device(device)->CreateSoundBuffer(&system, &created, nullptr);
    *buffer = created;
    return result;
  }
  HResult GetCaps(DSDevice device, SDSCaps* caps) override { return Device(device)->GetCaps(caps); }
  uint32_t ReleaseDevice(DSDevice device) override { return Device(device)->Release(); }

  HResult SetFormat(DSBuffer buffer, const SPcmFormat& format) override {
    const SWaveFormatEx packed = Packed(format);
    return Buffer(buffer)->SetFormat(&packed);
  }
  HResult GetFormat(DSBuffer buffer, SPcmFormat* format, uint32_t bytes) override {
    SWaveFormatEx packed = {};
    DWORD written = 0;
    const DWORD room = bytes < sizeof packed ? bytes : static_cast<DWORD>(sizeof packed);
    const HRESULT result = Buffer(buffer)->GetFormat(&packed, room, &written);
    if (result == 0) {
      *format = SPcmFormat();
      format->formatTag = packed.formatTag;
      format->channels = packed.channels;
      format->samplesPerSecond = packed.samplesPerSecond;
      format->averageBytesPerSecond = packed.averageBytesPerSecond;
      format->blockAlign = packed.blockAlign;
      format->bitsPerSample = packed.bitsPerSample;
      format->extraSize = packed.extraSize;
    }
    return result;
  }
  HResult Lock(DSBuffer buffer, uint32_t offset, uint32_t bytes, void** first,
               uint32_t* firstBytes, void** second, uint32_t* secondBytes,
               uint32_t flags) override {
    DWORD one = 0;
    DWORD two = 0;
    const HRESULT result = Buffer(buffer)->Lock(offset, bytes, first, &one, second, &two, flags);
    *firstBytes = one;
    *secondBytes = two;
    return result;
  }
  HResult Unlock(DSBuffer buffer, void* first, uint32_t firstBytes, void* second,
                 uint32_t secondBytes) override {
    return Buffer(buffer)->Unlock(first, firstBytes, second, secondBytes);
  }
  HResult Play(DSBuffer buffer, uint32_t flags) override { return Buffer(buffer)->Play(0, 0, flags); }
  HResult Stop(DSBuffer buffer) override { return Buffer(buffer)->Stop(); }
  HResult GetCurrentPosition(DSBuffer buffer, uint32_t* play, uint32_t* write) override {
    DWORD played = 0;
    DWORD written = 0;
    const HRESULT result = Buffer(buffer)->GetCurrentPosition(&played, &written);
    *play = played;
    if (write != nullptr) *write = written;
    return result;
  }
  HResult Restore(DSBuffer buffer) override { return Buffer(buffer)->Restore(); }
  uint32_t ReleaseBuffer(DSBuffer buffer) override { return Buffer(buffer)->Release(); }
};

}  // namespace

IDirectSoundApi& SystemDirectSoundApi() {
  static CSystemDirectSound system;
  return system;
}

}  // namespace NSDirectSound
