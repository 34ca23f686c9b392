// What the DirectSound family needs of the platform: the run-time binding of
// "dsound.dll", its entry points, and the IDirectSound and
// IDirectSoundBuffer methods it calls, on opaque objects. The Windows build
// calls the real ones; elsewhere the library cannot be loaded, so nothing is
// listed; tests put fakes in place.
#ifndef QUILLON_DIRECTSOUND_DSOUND_API_H
#define QUILLON_DIRECTSOUND_DSOUND_API_H

#include <cstdint>

#include "driver/guid.h"
#include "driver/pcm_format.h"

namespace NSDirectSound {

using NSFerrand::SGuid;
using NSFerrand::SPcmFormat;

typedef int32_t HResult;
typedef void* DSModule;
typedef void* DSEntry;
typedef void* DSDevice;
typedef void* DSBuffer;

// The capability record: 24 fields of 32 bits, 96 bytes.
struct SDSCaps {
  uint32_t size;
  uint32_t flags;
  uint32_t minSecondarySampleRate;
  uint32_t maxSecondarySampleRate;
  uint32_t rest[20];
};
static_assert(sizeof(SDSCaps) == 96, "DSCAPS layout");

enum : uint32_t {
  kCapsPrimaryStereo = 2,
  kCapsPrimary16Bit = 8,
  kCapsContinuousRate = 16,
  kCapsEmulatedDriver = 32
};

enum : uint32_t {
  kBufferPrimary = 0x1,
  kBufferStatic = 0x2,
  kBufferGetCurrentPosition2 = 0x10000,
  kBufferGlobalFocus = 0x8000
};
enum : uint32_t { kCooperativePriority = 2, kPlayLooping = 1 };

// The buffer description of the early layout: its size field says 24.
struct SDSBufferDesc {
  uint32_t size = 24;
  uint32_t flags = 0;
  uint32_t bufferBytes = 0;
  uint32_t reserved = 0;
  const SPcmFormat* format = nullptr;
};

// Called once per output device; a null GUID is the system's default.
typedef bool (*DSEnumerateCallback)(const SGuid* guid, const char16_t* description,
                                    const char16_t* module, void* context);

class IDirectSoundApi {
 public:
  virtual ~IDirectSoundApi() = default;

  virtual DSModule LoadLibrary(const char* name) = 0;
  virtual DSEntry GetProcAddress(DSModule module, const char* name) = 0;
  virtual void FreeLibrary(DSModule module) = 0;

  // Through the entries found.
  virtual HResult DirectSoundEnumerate(DSEntry entry, DSEnumerateCallback callback,
                                       void* context) = 0;
  virtual HResult DirectSoundCreate(DSEntry entry, const SGuid* guid, DSDevice* device) = 0;

  virtual HResult SetCooperativeLevel(DSDevice device, void* window, uint32_t level) = 0;
  virtual HResult CreateSoundBuffer(DSDevice device, const SDSBufferDesc& desc,
                                    DSBuffer* buffer) = 0;
  virtual HResult GetCaps(DSDevice device, SDSCaps* caps) = 0;
  virtual uint32_t ReleaseDevice(DSDevice device) = 0;

  virtual HResult SetFormat(DSBuffer buffer, const SPcmFormat& format) = 0;
  // `bytes` is the room of the record: 18 for the whole of it.
  virtual HResult GetFormat(DSBuffer buffer, SPcmFormat* format, uint32_t bytes) = 0;
  virtual HResult Lock(DSBuffer buffer, uint32_t offset, uint32_t bytes, void** first,
                       uint32_t* firstBytes, void** second, uint32_t* secondBytes,
                       uint32_t flags) = 0;
  virtual HResult Unlock(DSBuffer buffer, void* first, uint32_t firstBytes, void* second,
                         uint32_t secondBytes) = 0;
  virtual HResult Play(DSBuffer buffer, uint32_t flags) = 0;
  virtual HResult Stop(DSBuffer buffer) = 0;
  virtual HResult GetCurrentPosition(DSBuffer buffer, uint32_t* play, uint32_t* write) = 0;
  virtual HResult Restore(DSBuffer buffer) = 0;
  virtual uint32_t ReleaseBuffer(DSBuffer buffer) = 0;
};

// The system's own (a library that never loads, off Windows).
IDirectSoundApi& SystemDirectSoundApi();

}  // namespace NSDirectSound

#endif
