// What the WASAPI family needs of the platform: the device enumerator and
// its endpoint notifications, and the audio client, render client and clock
// of one endpoint, on opaque objects. The Windows build calls the system's
// audio engine through its COM interfaces; elsewhere there is no engine, so
// nothing is listed; tests put fakes in place.
#ifndef QUILLON_WASAPI_WASAPI_API_H
#define QUILLON_WASAPI_WASAPI_API_H

#include <cstdint>
#include <string>
#include <vector>

#include "driver/guid.h"
#include "platform/mutex.h"

namespace NSWasapi {

using NSFerrand::SGuid;

typedef int32_t HResult;
typedef void* WEnumerator;
typedef void* WNotification;
typedef void* WClient;
typedef void* WRender;
typedef void* WClock;
typedef void* WEvent;

constexpr HResult kHResultOk = 0;
constexpr HResult kHResultFalse = 1;
constexpr HResult kHResultFail = static_cast<HResult>(0x80004005u);
constexpr HResult kHResultNoInterface = static_cast<HResult>(0x80004002u);
constexpr HResult kHResultOutOfMemory = static_cast<HResult>(0x8007000Eu);
constexpr HResult kHResultNotFound = static_cast<HResult>(0x80070490u);
// COM is up on this thread already, in another apartment: usable as it is.
constexpr HResult kComChangedMode = static_cast<HResult>(0x80010106u);
constexpr HResult kAudioNotInitialized = static_cast<HResult>(0x88890001u);
constexpr HResult kAudioDeviceInvalidated = static_cast<HResult>(0x88890004u);
constexpr HResult kAudioUnsupportedFormat = static_cast<HResult>(0x88890008u);
constexpr HResult kAudioDeviceInUse = static_cast<HResult>(0x8889000Au);
constexpr HResult kAudioServiceNotRunning = static_cast<HResult>(0x88890010u);
constexpr HResult kAudioExclusiveModeNotAllowed = static_cast<HResult>(0x8889000Eu);
constexpr HResult kAudioBufferSizeNotAligned = static_cast<HResult>(0x88890019u);
constexpr HResult kAudioBufferSizeError = static_cast<HResult>(0x88890016u);
constexpr HResult kAudioInvalidDevicePeriod = static_cast<HResult>(0x88890020u);
constexpr HResult kAudioEnginePeriodicityLocked = static_cast<HResult>(0x88890028u);

enum EShareMode : uint32_t { kShareModeShared = 0, kShareModeExclusive = 1 };
constexpr uint32_t kStreamFlagEventCallback = 0x00040000u;
// A shared stream at a rate other than the mix rate: the engine converts.
constexpr uint32_t kStreamFlagAutoConvertPcm = 0x80000000u;
constexpr uint32_t kStreamFlagSrcDefaultQuality = 0x08000000u;
// Durations of the engine count 100 ns.
constexpr int64_t kHundredNsPerSecond = 10000000;

constexpr uint16_t kFormatTagPcm = 1;
constexpr uint16_t kFormatTagFloat = 3;
constexpr uint16_t kFormatTagExtensible = 0xFFFE;
extern const SGuid kSubFormatPcm;
extern const SGuid kSubFormatFloat;

#pragma pack(push, 1)
// The extensible wave format record, 40 bytes.
struct SWaveFormat {
  uint16_t formatTag = kFormatTagExtensible;
  uint16_t channels = 2;
  uint32_t samplesPerSecond = 0;
  uint32_t averageBytesPerSecond = 0;
  uint16_t blockAlign = 0;
  uint16_t bitsPerSample = 0;
  uint16_t extraSize = 22;
  uint16_t validBitsPerSample = 0;
  uint32_t channelMask = 3;
  SGuid subFormat = {};
};
#pragma pack(pop)
static_assert(sizeof(SWaveFormat) == 40, "WAVEFORMATEXTENSIBLE layout");

// The sample formats the family plays, in the order an exclusive trial
// tries them.
enum ESampleFormat : uint32_t {
  kSampleFloat32,
  kSampleInt32,
  kSampleInt24In32,
  kSampleInt24Packed,
  kSampleInt16,
  kSampleFormatCount
};

// Stereo at a rate in one of the sample formats.
SWaveFormat StereoFormat(uint32_t sampleRate, ESampleFormat sample);
// The same with the channels and speaker mask of a device.
SWaveFormat DeviceShapedFormat(uint32_t sampleRate, ESampleFormat sample, uint16_t channels,
                               uint32_t channelMask);
// Which of the four a record is; false for any other.
bool SampleFormatOf(const SWaveFormat& format, ESampleFormat& sample);

struct SEndpoint {
  std::u16string id;
  std::u16string friendlyName;
};

// Told on a thread of the system when endpoints come, go or change state.
// It may only take note: no call into the engine from there.
class IEndpointSink {
 public:
  virtual void OnEndpointsChanged() = 0;
  // The system's default render endpoint for the console is another now.
  virtual void OnDefaultEndpointChanged() = 0;

 protected:
  ~IEndpointSink() = default;
};

class IWasapiApi {
 public:
  virtual ~IWasapiApi() = default;

  // COM on the calling thread. A success is undone by CoUninitialize;
  // kComChangedMode leaves COM as it was, usable; any other failure means
  // there is no engine here.
  virtual HResult CoInitialize() = 0;
  virtual void CoUninitialize() = 0;

  virtual HResult CreateEnumerator(WEnumerator* enumerator) = 0;
  virtual void ReleaseEnumerator(WEnumerator enumerator) = 0;
  // The active render endpoints, each with its id and friendly name.
  virtual HResult ListRenderEndpoints(WEnumerator enumerator,
                                      std::vector<SEndpoint>& endpoints) = 0;
  // The id of the system's default render endpoint for the console.
  virtual HResult GetDefaultRenderEndpoint(WEnumerator enumerator, std::u16string* id) = 0;
  virtual HResult RegisterNotification(WEnumerator enumerator, IEndpointSink* sink,
                                       WNotification* notification) = 0;
  virtual void UnregisterNotification(WEnumerator enumerator, WNotification notification) = 0;

  // The format the endpoint's device runs at, as the engine keeps it.
  virtual HResult GetDeviceFormat(WEnumerator enumerator, const std::u16string& id,
                                  SWaveFormat* format) = 0;
  // The audio client of an endpoint by its id; `client3` tells whether it
  // has the low-latency shared operations.
  virtual HResult ActivateClient(WEnumerator enumerator, const std::u16string& id,
                                 WClient* client, bool* client3) = 0;
  virtual void ReleaseClient(WClient client) = 0;
  virtual HResult GetMixFormat(WClient client, SWaveFormat* format) = 0;
  virtual HResult GetDevicePeriod(WClient client, int64_t* defaultPeriod,
                                  int64_t* minimumPeriod) = 0;
  virtual HResult GetSharedModeEnginePeriod(WClient client, const SWaveFormat& format,
                                            uint32_t* defaultFrames, uint32_t* fundamentalFrames,
                                            uint32_t* minimumFrames, uint32_t* maximumFrames) = 0;
  // The period the shared engine runs at now, which another application may
  // have set.
  virtual HResult GetCurrentSharedModeEnginePeriod(WClient client, uint32_t* frames) = 0;
  virtual HResult InitializeSharedAudioStream(WClient client, uint32_t flags,
                                              uint32_t periodFrames,
                                              const SWaveFormat& format) = 0;
  virtual HResult IsFormatSupported(WClient client, EShareMode mode,
                                    const SWaveFormat& format) = 0;
  virtual HResult Initialize(WClient client, EShareMode mode, uint32_t flags, int64_t duration,
                             int64_t periodicity, const SWaveFormat& format) = 0;
  virtual HResult GetBufferSize(WClient client, uint32_t* frames) = 0;
  virtual HResult GetStreamLatency(WClient client, int64_t* latency) = 0;
  virtual HResult GetCurrentPadding(WClient client, uint32_t* frames) = 0;
  virtual HResult SetEventHandle(WClient client, WEvent event) = 0;
  virtual HResult Start(WClient client) = 0;
  virtual HResult Stop(WClient client) = 0;
  virtual HResult GetRenderClient(WClient client, WRender* render) = 0;
  virtual void ReleaseRender(WRender render) = 0;
  virtual HResult GetBuffer(WRender render, uint32_t frames, uint8_t** data) = 0;
  virtual HResult ReleaseBuffer(WRender render, uint32_t frames, uint32_t flags) = 0;
  virtual HResult GetClock(WClient client, WClock* clock) = 0;
  virtual void ReleaseClock(WClock clock) = 0;
  virtual HResult GetClockFrequency(WClock clock, uint64_t* frequency) = 0;
  // The position in the clock's units, and the system time of it in 100 ns.
  virtual HResult GetClockPosition(WClock clock, uint64_t* position, uint64_t* systemTime) = 0;

  // The engine's event: auto-reset, set by the engine once per period.
  virtual WEvent CreateEngineEvent() = 0;
  virtual void CloseEngineEvent(WEvent event) = 0;
  virtual NSPlatform::EWaitResult WaitEngineEvent(WEvent event, uint32_t milliseconds) = 0;
};

// The system's own: the audio engine through COM on Windows, nothing
// elsewhere.
IWasapiApi& SystemWasapiApi();

}  // namespace NSWasapi

#endif
