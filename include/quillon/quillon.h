// Quillon: the whole boundary a host compiles against.
//
// Every interface here crosses a DLL boundary whose host may be built by
// another compiler. Records have fixed widths and offsets; objects are
// destroyed only through their first virtual slot, which frees them in the
// library's own heap.
#ifndef QUILLON_QUILLON_H
#define QUILLON_QUILLON_H

#include <stddef.h>
#include <stdint.h>

#include "quillon/abi.h"

namespace NSQuillon2 {

// Status codes: the only failure language of the boundary.
enum : uint32_t {
  kStatusOk = 991,
  kStatusOutOfMemory = 992,
  kStatusInvalidArgument = 993,
  kStatusNotValid = 994,
  kStatusIllegalCall = 995,
  kStatusLogicError = 996,
  // 997 is reserved and never returned.
  kStatusDriverOpenFailed = 998,
  kStatusDriverNotFound = 999,
  kStatusReadFailure = 1000,
  kStatusWriteFailure = 1001,
  kStatusFormatViolation = 1002,
  kStatusDiskFull = 1003,
  kStatusRuntimeError = 1004,
  kStatusNotReady = 1005,
  // Failures without a fixed code come out as kStatusBase plus a computed value.
  kStatusBase = 100000
};

// Selectors of IClient::SetGainSafeIndicator.
enum : uint32_t {
  kGainSafeIndicatorState0 = 777,
  kGainSafeIndicatorState1 = 778,
  kGainSafeIndicatorState2 = 779
};

// The flag of SLibraryParams::flags that asks for the hardware control library.
enum : uint32_t { kLibraryFlagUseHardware = 2 };

struct SLibraryParams {
  void* windowHandle;  // the host's window (HWND) or null
  uint32_t flags;      // only kLibraryFlagUseHardware may be set
};

struct SDriverSpecKey {
  uint16_t family[256];  // UTF-16, zero-terminated, zero-filled behind
  uint16_t name[256];
  uint16_t version[256];
  uint16_t manufacturer[256];
  uint32_t flags[4];  // each 0 or 1
};

struct SMonitorEntry {
  uint32_t enabled;  // 1 on; anything else off
  float pan;
  uint32_t outputPair;
  float gainDb;
};

struct SClientSettings {
  uint32_t sampleRate;
  uint32_t bufferFrames;
  uint32_t clockSource;
  uint8_t inputPairEnabled[256];
  uint8_t outputPairEnabled[256];
  SMonitorEntry monitors[512];
  uint32_t monitorsValid;
};

struct SRenderTiming {
  uint64_t samplePosition;
  uint64_t systemTime;  // nanoseconds; 0 means unknown
};

class IClient;
class IDriverSpec;

// Read-only list handed to the host; a private copy the caller owns.
template <class T>
class IVector {
  QUILLON_BOUNDARY_DESTRUCTOR(IVector)
  virtual int64_t GetSize() const = 0;
  virtual const T* GetData() const = 0;
  virtual uint32_t IsValid() const = 0;
};

class IDriverSpec {
  QUILLON_BOUNDARY_DESTRUCTOR(IDriverSpec)
  virtual uint32_t GetKeyRecord(SDriverSpecKey* key) const = 0;
  virtual uint32_t IsSameDriver(const IDriverSpec* other, uint32_t* same) const = 0;
  virtual IDriverSpec* Clone(uint32_t* status) const = 0;
  virtual uint32_t IsValid() const = 0;
};

// Implemented by the host. The library never frees these objects.
class IByteSink {
 public:
  virtual uint32_t Write(uint64_t position, uint64_t length, const void* data) = 0;

 protected:
  ~IByteSink() = default;
};

class IByteSource {
 public:
  virtual uint32_t Read(uint64_t position, uint64_t length, void* data) = 0;

 protected:
  ~IByteSource() = default;
};

// Receives hardware button events (1 or 2); the result is ignored.
class IHardwareEventSink {
 public:
  virtual uint32_t OnHardwareEvent(uint32_t event) = 0;

 protected:
  ~IHardwareEventSink() = default;
};

class IClientHost {
 public:
  // Called on the audio thread. Must not block; the result is ignored.
  virtual uint32_t Render(IClient* client, uint32_t frames, const float* const* inputs,
                          int32_t inputCount, const SRenderTiming* inputTiming,
                          float* const* outputs, int32_t outputCount,
                          const SRenderTiming* outputTiming) = 0;
  // The three reports below arrive only from IClient::Idle, on its thread.
  virtual void OnDriverLost(IClient* client) = 0;
  virtual void OnSettingsChanged(IClient* client, const SClientSettings* settings) = 0;
  virtual void OnDriverListChanged(IClient* client) = 0;

 protected:
  ~IClientHost() = default;
};

class IClient {
  QUILLON_BOUNDARY_DESTRUCTOR(IClient)
  virtual uint32_t SetDriver(const IDriverSpec* spec, uint32_t* running) = 0;
  virtual uint32_t SetDriverWithSettings(const IDriverSpec* spec, const SClientSettings* settings,
                                         uint32_t* running) = 0;
  virtual IDriverSpec* GetDriverSpec(uint32_t* status) = 0;
  virtual IVector<QuillonULong>* GetSampleRates(uint32_t* status) = 0;
  virtual IVector<const unsigned short*>* GetInputNames(uint32_t* status) = 0;
  virtual IVector<const unsigned short*>* GetOutputNames(uint32_t* status) = 0;
  virtual IVector<QuillonULong>* GetBufferSizes(uint32_t* status) = 0;
  virtual IVector<const unsigned short*>* GetClockSourceNames(uint32_t* status) = 0;
  virtual uint32_t ApplyClientSettings(const SClientSettings* settings, uint32_t* running) = 0;
  virtual uint32_t GetClientSettings(SClientSettings* settings) = 0;
  virtual uint32_t GetInputLatency(uint64_t* microseconds) = 0;
  virtual uint32_t GetOutputLatency(uint64_t* microseconds) = 0;
  virtual uint32_t CanMonitorInputs(uint8_t* can) = 0;
  virtual uint32_t HasHardwareDevice(uint8_t* has) = 0;
  virtual uint32_t GetGainSafePaddedChannel(uint32_t channel, int32_t* padded) = 0;
  virtual uint32_t GetGainSafePaddingDb(uint32_t channel, float* paddingDb) = 0;
  virtual uint32_t SetGainSafeRoutingEnable(uint32_t channel, uint32_t enable) = 0;
  virtual uint32_t SetGainSafeIndicator(uint32_t selector) = 0;
  virtual uint32_t SetChannelActiveIndicator(uint32_t channel, uint32_t active) = 0;
  virtual uint32_t ClearDirectMonitoring() = 0;
  virtual uint32_t SuspendDriver() = 0;
  virtual uint32_t ResumeDriver(uint32_t* running) = 0;
  virtual uint32_t Idle() = 0;
  virtual uint32_t ShowControlPanel() = 0;
  virtual uint32_t HasControlPanel(uint32_t* has) = 0;
  virtual uint32_t IsValid() = 0;
};

class IQuillon {
  QUILLON_BOUNDARY_DESTRUCTOR(IQuillon)
  virtual uint32_t CheckLibrary() = 0;
  virtual IVector<const IDriverSpec*>* GetDriverSpecs(uint32_t* status) = 0;
  virtual IClient* CreateClient(IClientHost* host, IHardwareEventSink* context,
                                const IDriverSpec* spec, uint32_t* running, uint32_t* status) = 0;
  virtual IClient* CreateClientWithSettings(IClientHost* host, IHardwareEventSink* context,
                                            const IDriverSpec* spec,
                                            const SClientSettings* settings, uint32_t* running,
                                            uint32_t* status) = 0;
  virtual uint32_t SaveDriverSpec(const IDriverSpec* spec, IByteSink* sink,
                                  uint64_t* position) = 0;
  virtual IDriverSpec* LoadDriverSpec(IByteSource* source, uint64_t* position,
                                      uint32_t* status) = 0;
  virtual uint32_t IsValid() = 0;
};

static_assert(sizeof(void*) == 8, "Quillon is a 64-bit library");
static_assert(offsetof(SLibraryParams, windowHandle) == 0, "SLibraryParams layout");
static_assert(offsetof(SLibraryParams, flags) == 8, "SLibraryParams layout");
static_assert(sizeof(SDriverSpecKey) == 2064, "SDriverSpecKey layout");
static_assert(offsetof(SDriverSpecKey, name) == 512, "SDriverSpecKey layout");
static_assert(offsetof(SDriverSpecKey, version) == 1024, "SDriverSpecKey layout");
static_assert(offsetof(SDriverSpecKey, manufacturer) == 1536, "SDriverSpecKey layout");
static_assert(offsetof(SDriverSpecKey, flags) == 2048, "SDriverSpecKey layout");
static_assert(sizeof(SMonitorEntry) == 16, "SMonitorEntry layout");
static_assert(offsetof(SMonitorEntry, pan) == 4, "SMonitorEntry layout");
static_assert(offsetof(SMonitorEntry, outputPair) == 8, "SMonitorEntry layout");
static_assert(offsetof(SMonitorEntry, gainDb) == 12, "SMonitorEntry layout");
static_assert(sizeof(SClientSettings) == 8720, "SClientSettings layout");
static_assert(offsetof(SClientSettings, bufferFrames) == 4, "SClientSettings layout");
static_assert(offsetof(SClientSettings, clockSource) == 8, "SClientSettings layout");
static_assert(offsetof(SClientSettings, inputPairEnabled) == 12, "SClientSettings layout");
static_assert(offsetof(SClientSettings, outputPairEnabled) == 268, "SClientSettings layout");
static_assert(offsetof(SClientSettings, monitors) == 524, "SClientSettings layout");
static_assert(offsetof(SClientSettings, monitorsValid) == 8716, "SClientSettings layout");
static_assert(sizeof(SRenderTiming) == 16, "SRenderTiming layout");
static_assert(offsetof(SRenderTiming, systemTime) == 8, "SRenderTiming layout");
static_assert(sizeof(QuillonULong) == 4, "IVector<unsigned long> holds 32-bit values");

// Destroys a boundary object the way an MSVC host's `delete` does.
template <class T>
inline void QuillonDestroy(T* object) {
  if (object != nullptr) {
    QUILLON_DELETE_BOUNDARY_OBJECT(object);
  }
}

}  // namespace NSQuillon2

extern "C" {
// The interface name asked for must be "IQuillon2".
QUILLON_API NSQuillon2::IQuillon* Quillon_Create(const char* interfaceName,
                                                 const NSQuillon2::SLibraryParams* params,
                                                 uint32_t* status);
QUILLON_API void* Quillon_New(size_t size);
QUILLON_API void Quillon_Delete(void* pointer);

typedef NSQuillon2::IQuillon* (*QuillonCreateFunction)(const char*,
                                                       const NSQuillon2::SLibraryParams*,
                                                       uint32_t*);
typedef void* (*QuillonNewFunction)(size_t);
typedef void (*QuillonDeleteFunction)(void*);
}

#endif
