// The wave-out functions the MME family needs, as an interface: the system's
// own in the Windows build, an honest absence elsewhere, fakes in tests.
#ifndef QUILLON_MME_WAVE_OUT_H
#define QUILLON_MME_WAVE_OUT_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "driver/pcm_format.h"
#include "platform/mutex.h"

namespace NSMME {

// Results of the wave-out functions.
enum : uint32_t {
  kMMSysErrNoError = 0,
  kMMSysErrError = 1,
  kMMSysErrBadDeviceId = 2,
  kMMSysErrNotEnabled = 3,
  kMMSysErrAllocated = 4,
  kMMSysErrInvalidHandle = 5,
  kMMSysErrNoDriver = 6,
  kMMSysErrNoMem = 7,
  kMMSysErrNotSupported = 8,
  kMMSysErrBadErrNum = 9,
  kMMSysErrInvalidFlag = 10,
  kMMSysErrInvalidParam = 11,
  kMMSysErrHandleBusy = 12,
  kWaveErrBadFormat = 32,
  kWaveErrStillPlaying = 33,
  kWaveErrUnprepared = 34,
  kWaveErrSync = 35
};

// Flags of Open, and of a header.
// With kWaveCallbackEvent the device sets the event given to Open each time
// it is done with a header (and as it opens and closes).
enum : uint32_t { kWaveFormatQuery = 1, kWaveAllowSync = 2, kWaveCallbackEvent = 0x50000 };
enum : uint32_t { kHeaderDone = 1, kHeaderPrepared = 2, kHeaderInQueue = 16 };
// Format bits of 16-bit stereo at 11025, 22050 and 44100 Hz.
constexpr uint32_t kStereo16Formats = 0x888;

struct SWaveOutCaps {
  uint32_t driverVersion = 0;
  std::u16string productName;
  uint32_t formats = 0;
  uint16_t channels = 0;
};

typedef NSFerrand::SPcmFormat SWaveFormat;

// A wave header in the system's own layout (64-bit), so that the system
// reads and writes the very records the driver owns.
struct SWaveHeader {
  char* data;
  uint32_t bufferLength;
  uint32_t bytesRecorded;
  uintptr_t user;
  uint32_t flags;  // written by the system while the header is queued
  uint32_t loops;
  SWaveHeader* next;
  uintptr_t reserved;
};
static_assert(sizeof(SWaveHeader) == 48, "the system's wave header layout");
static_assert(offsetof(SWaveHeader, flags) == 24, "the system's wave header layout");

// The flags as the system leaves them, read while it may write them.
inline uint32_t HeaderFlags(const SWaveHeader& header) {
  return __atomic_load_n(&header.flags, __ATOMIC_ACQUIRE);
}
inline void ClearHeaderFlag(SWaveHeader& header, uint32_t flag) {
  __atomic_fetch_and(&header.flags, ~flag, __ATOMIC_ACQ_REL);
}

typedef void* WaveOutHandle;

class IWaveOut {
 public:
  virtual ~IWaveOut() = default;
  virtual uint32_t GetNumDevs() = 0;
  virtual uint32_t GetDevCaps(uint32_t device, SWaveOutCaps& caps) = 0;
  // `doneEvent`: the event that kWaveCallbackEvent names, else null.
  virtual uint32_t Open(WaveOutHandle* handle, uint32_t device, const SWaveFormat& format,
                        uint32_t flags, NSPlatform::SEvent* doneEvent) = 0;
  virtual uint32_t PrepareHeader(WaveOutHandle handle, SWaveHeader* header) = 0;
  virtual uint32_t UnprepareHeader(WaveOutHandle handle, SWaveHeader* header) = 0;
  virtual uint32_t Write(WaveOutHandle handle, SWaveHeader* header) = 0;
  virtual uint32_t Pause(WaveOutHandle handle) = 0;
  virtual uint32_t Restart(WaveOutHandle handle) = 0;
  virtual uint32_t Reset(WaveOutHandle handle) = 0;
  virtual uint32_t Close(WaveOutHandle handle) = 0;
};

// The system's wave-out functions (none, off Windows).
IWaveOut& SystemWaveOut();

}  // namespace NSMME

#endif
