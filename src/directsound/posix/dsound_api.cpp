#include "directsound/dsound_api.h"

namespace NSDirectSound {

namespace {

// No "dsound.dll" here: the library never loads, so nothing else is asked.
class CNoDirectSound final : public IDirectSoundApi {
 public:
  DSModule LoadLibrary(const char*) override { return nullptr; }
  DSEntry GetProcAddress(DSModule, const char*) override { return nullptr; }
  void FreeLibrary(DSModule) override {}
  HResult DirectSoundEnumerate(DSEntry, DSEnumerateCallback, void*) override { return kNoDevice; }
  HResult DirectSoundCreate(DSEntry, const SGuid*, DSDevice* device) override {
    *device = nullptr;
    return kNoDevice;
  }
  HResult SetCooperativeLevel(DSDevice, void*, uint32_t) override { return kNoDevice; }
  HResult CreateSoundBuffer(DSDevice, const SDSBufferDesc&, DSBuffer* buffer) override {
    *buffer = nullptr;
    return kNoDevice;
  }
  HResult GetCaps(DSDevice, SDSCaps*) override { return kNoDevice; }
  uint32_t ReleaseDevice(DSDevice) override { return 0; }
  HResult SetFormat(DSBuffer, const SPcmFormat&) override { return kNoDevice; }
  HResult GetFormat(DSBuffer, SPcmFormat*, uint32_t) override { return kNoDevice; }
  HResult Lock(DSBuffer, uint32_t, uint32_t, void**, uint32_t*, void**, uint32_t*,
               uint32_t) override {
    return kNoDevice;
  }
  HResult Unlock(DSBuffer, void*, uint32_t, void*, uint32_t) override { return kNoDevice; }
  HResult Play(DSBuffer, uint32_t) override { return kNoDevice; }
  HResult Stop(DSBuffer) override { return kNoDevice; }
  HResult GetCurrentPosition(DSBuffer, uint32_t*, uint32_t*) override { return kNoDevice; }
  HResult Restore(DSBuffer) override { return kNoDevice; }
  uint32_t ReleaseBuffer(DSBuffer) override { return 0; }

 private:
  static constexpr HResult kNoDevice = static_cast<HResult>(0x88780078u);
};

}  // namespace

IDirectSoundApi& SystemDirectSoundApi() {
  static CNoDirectSound none;
  return none;
}

}  // namespace NSDirectSound
