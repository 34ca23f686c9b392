/**
 * @file quillon.h
 * @brief Quillon: the whole boundary a host compiles against.
 *
 * Every interface here crosses a DLL boundary whose host may be built by
 * another compiler. Records have fixed widths and offsets; objects are
 * destroyed only through their first virtual slot, which frees them in the
 * library's own heap. No operation throws: each answers with a status code.
 * See docs/host-guide.md for the whole story.
 */
#ifndef QUILLON_QUILLON_H
#define QUILLON_QUILLON_H

#include <stddef.h>
#include <stdint.h>

#include "quillon/abi.h"

/// Everything of the boundary lives in this namespace.
namespace NSQuillon2 {

/// Status codes: the only failure language of the boundary.
enum : uint32_t {
  kStatusOk = 991,               ///< Success.
  kStatusOutOfMemory = 992,      ///< The library could not allocate.
  kStatusInvalidArgument = 993,  ///< A bad argument; the call as it stands cannot work.
  kStatusNotValid = 994,         ///< The object failed its own check.
  kStatusIllegalCall = 995,      ///< Not allowed now: a second client while hardware support is on.
  kStatusLogicError = 996,       ///< Another programming fault inside the library.
  // 997 is reserved and never returned.
  kStatusDriverOpenFailed = 998,  ///< A driver could not be opened.
  kStatusDriverNotFound = 999,    ///< The spec names no driver known now.
  kStatusReadFailure = 1000,      ///< Reading (the host's IByteSource) failed.
  kStatusWriteFailure = 1001,     ///< Writing (the host's IByteSink) failed.
  kStatusFormatViolation = 1002,  ///< Saved data is malformed.
  kStatusDiskFull = 1003,         ///< No room on the disk.
  kStatusRuntimeError = 1004,     ///< Another run-time failure.
  kStatusNotReady = 1005,  ///< Not now: the client is inside another of its operations.
  /// Failures without a fixed code come out as kStatusBase plus a computed value.
  kStatusBase = 100000
};

/// Selectors of IClient::SetGainSafeIndicator: the device's indicator states 0, 1 and 2.
enum : uint32_t {
  kGainSafeIndicatorState0 = 777,  ///< Indicator state 0.
  kGainSafeIndicatorState1 = 778,  ///< Indicator state 1.
  kGainSafeIndicatorState2 = 779   ///< Indicator state 2.
};

/// The flag of SLibraryParams::flags.
enum : uint32_t {
  kLibraryFlagUseHardware = 2  ///< Use the maker's hardware control library.
};

/// What the host gives Quillon_Create; the whole record may be absent (null).
struct SLibraryParams {
  void* windowHandle;  ///< The host's window (an HWND) or null; ASIO and DirectSound need one.
  uint32_t flags;      ///< 0, or kLibraryFlagUseHardware; any other bit gives 993.
};

/// The record that names a driver. Texts are UTF-16, zero-terminated, zero-filled behind.
struct SDriverSpecKey {
  uint16_t family[256];        ///< "Off" (the null driver), "ASIO", "DX", "MME" or "WASAPI".
  uint16_t name[256];          ///< The name to show.
  uint16_t version[256];       ///< The driver's version, often empty.
  uint16_t manufacturer[256];  ///< The maker, often empty.
  uint32_t flags[4];           ///< Each 0 or 1; what the driver can do.
};

/// One input channel's monitor: its sound sent straight to an output pair.
struct SMonitorEntry {
  uint32_t enabled;     ///< 1 on; anything else off.
  float pan;            ///< -1.0 left to 1.0 right.
  uint32_t outputPair;  ///< The output pair it is sent to.
  float gainDb;         ///< Gain in decibels, -100 to 12.
};

/// A client's settings, as GetClientSettings reads them and ApplyClientSettings takes them.
struct SClientSettings {
  uint32_t sampleRate;              ///< Frames per second.
  uint32_t bufferFrames;            ///< Frames per Render call.
  uint32_t clockSource;             ///< Index into GetClockSourceNames.
  uint8_t inputPairEnabled[256];    ///< 1 for each active input pair (channels 2p and 2p + 1).
  uint8_t outputPairEnabled[256];   ///< 1 for each active output pair.
  SMonitorEntry monitors[512];      ///< One per input channel.
  uint32_t monitorsValid;           ///< Non-zero: `monitors` is to be applied at creation.
};

/// Where one side of a Render block lies in time.
struct SRenderTiming {
  uint64_t samplePosition;  ///< The position of the block's first frame.
  uint64_t systemTime;      ///< Its system time in nanoseconds; 0 means unknown.
};

class IClient;
class IDriverSpec;

/// A read-only list handed to the host: a private copy that the caller owns and destroys.
template <class T>
class IVector {
  QUILLON_BOUNDARY_DESTRUCTOR(IVector)
  /// The number of elements.
  virtual int64_t GetSize() const = 0;
  /// The elements, GetSize() of them; texts stay valid as long as the vector.
  virtual const T* GetData() const = 0;
  /// 1 for a sound object.
  virtual uint32_t IsValid() const = 0;
};

/// One driver of the list, or a saved choice read back.
class IDriverSpec {
  QUILLON_BOUNDARY_DESTRUCTOR(IDriverSpec)
  /// Copies the driver's naming record into `key`.
  virtual uint32_t GetKeyRecord(SDriverSpecKey* key) const = 0;
  /// Sets `same` to 1 when both name the same driver, by key.
  virtual uint32_t IsSameDriver(const IDriverSpec* other, uint32_t* same) const = 0;
  /// A copy that the caller owns; null with the reason in `status`.
  virtual IDriverSpec* Clone(uint32_t* status) const = 0;
  /// 1 for a sound object.
  virtual uint32_t IsValid() const = 0;
};

/// Where SaveDriverSpec writes; implemented by the host, never freed by the library.
class IByteSink {
 public:
  /// Writes `length` bytes at `position`; answers kStatusOk or a failure status.
  virtual uint32_t Write(uint64_t position, uint64_t length, const void* data) = 0;

 protected:
  ~IByteSink() = default;
};

/// Where LoadDriverSpec reads; implemented by the host, never freed by the library.
class IByteSource {
 public:
  /// Reads exactly `length` bytes at `position`; answers kStatusOk or a failure status.
  virtual uint32_t Read(uint64_t position, uint64_t length, void* data) = 0;

 protected:
  ~IByteSource() = default;
};

/// Receives the hardware device's button events, on the hardware library's thread.
class IHardwareEventSink {
 public:
  /// Event 1 or 2, from the device of the client's driver; the result is ignored.
  virtual uint32_t OnHardwareEvent(uint32_t event) = 0;

 protected:
  ~IHardwareEventSink() = default;
};

/// The host's side of a client.
class IClientHost {
 public:
  /// Called on the audio thread: fill the active outputs. Must not block, allocate, throw
  /// or call the library; the result is ignored. Inactive channels are null.
  virtual uint32_t Render(IClient* client, uint32_t frames, const float* const* inputs,
                          int32_t inputCount, const SRenderTiming* inputTiming,
                          float* const* outputs, int32_t outputCount,
                          const SRenderTiming* outputTiming) = 0;
  /// The driver failed or went; the client goes on in silence. From Idle, once per loss.
  virtual void OnDriverLost(IClient* client) = 0;
  /// The driver changed its settings by itself. From Idle.
  virtual void OnSettingsChanged(IClient* client, const SClientSettings* settings) = 0;
  /// Drivers came or went: list them again. From Idle.
  virtual void OnDriverListChanged(IClient* client) = 0;

 protected:
  ~IClientHost() = default;
};

/// One stream of audio through one driver. Call it from one thread, the host's.
class IClient {
  QUILLON_BOUNDARY_DESTRUCTOR(IClient)
  /// Moves to another driver with its defaults; `running` is 0 when it did not start.
  virtual uint32_t SetDriver(const IDriverSpec* spec, uint32_t* running) = 0;
  /// Moves to another driver with these settings.
  virtual uint32_t SetDriverWithSettings(const IDriverSpec* spec, const SClientSettings* settings,
                                         uint32_t* running) = 0;
  /// The spec of the driver in use; the caller owns it.
  virtual IDriverSpec* GetDriverSpec(uint32_t* status) = 0;
  /// The rates the driver offers.
  virtual IVector<QuillonULong>* GetSampleRates(uint32_t* status) = 0;
  /// The names of the driver's input channels.
  virtual IVector<const unsigned short*>* GetInputNames(uint32_t* status) = 0;
  /// The names of the driver's output channels.
  virtual IVector<const unsigned short*>* GetOutputNames(uint32_t* status) = 0;
  /// The buffer sizes, in frames, the driver offers.
  virtual IVector<QuillonULong>* GetBufferSizes(uint32_t* status) = 0;
  /// The names of the driver's clock sources.
  virtual IVector<const unsigned short*>* GetClockSourceNames(uint32_t* status) = 0;
  /// Applies settings; the driver keeps the nearest it can.
  virtual uint32_t ApplyClientSettings(const SClientSettings* settings, uint32_t* running) = 0;
  /// Reads the settings in force.
  virtual uint32_t GetClientSettings(SClientSettings* settings) = 0;
  /// The input latency in microseconds.
  virtual uint32_t GetInputLatency(uint64_t* microseconds) = 0;
  /// The output latency in microseconds.
  virtual uint32_t GetOutputLatency(uint64_t* microseconds) = 0;
  /// Whether the driver can monitor inputs (SMonitorEntry).
  virtual uint32_t CanMonitorInputs(uint8_t* can) = 0;
  /// Whether the driver in use has a hardware device of the hardware library.
  virtual uint32_t HasHardwareDevice(uint8_t* has) = 0;
  /// The device channel carrying the padded copy of input `channel` (counted among the active).
  virtual uint32_t GetGainSafePaddedChannel(uint32_t channel, int32_t* padded) = 0;
  /// The padding of input `channel` in decibels.
  virtual uint32_t GetGainSafePaddingDb(uint32_t channel, float* paddingDb) = 0;
  /// Switches gain-safe routing of input `channel`; any non-zero `enable` is on.
  virtual uint32_t SetGainSafeRoutingEnable(uint32_t channel, uint32_t enable) = 0;
  /// Sets the device's gain-safe indicator: kGainSafeIndicatorState0 to 2, else 993.
  virtual uint32_t SetGainSafeIndicator(uint32_t selector) = 0;
  /// Switches the activity indicator of input `channel`.
  virtual uint32_t SetChannelActiveIndicator(uint32_t channel, uint32_t active) = 0;
  /// Switches the device's direct monitoring off.
  virtual uint32_t ClearDirectMonitoring() = 0;
  /// Closes the driver for a while; calls nest.
  virtual uint32_t SuspendDriver() = 0;
  /// Opens it again after the last SuspendDriver, with the same settings.
  virtual uint32_t ResumeDriver(uint32_t* running) = 0;
  /// The host's regular call, every 10 to 50 ms: polls, watches, reports.
  virtual uint32_t Idle() = 0;
  /// Shows the driver's own control panel, where it has one.
  virtual uint32_t ShowControlPanel() = 0;
  /// Whether the driver has a control panel.
  virtual uint32_t HasControlPanel(uint32_t* has) = 0;
  /// 1 for a sound object.
  virtual uint32_t IsValid() = 0;
};

/// The library object, from Quillon_Create.
class IQuillon {
  QUILLON_BOUNDARY_DESTRUCTOR(IQuillon)
  /// Answers kStatusOk while the library works.
  virtual uint32_t CheckLibrary() = 0;
  /// Every driver a client may open; "No Sound" first.
  virtual IVector<const IDriverSpec*>* GetDriverSpecs(uint32_t* status) = 0;
  /// A new client on a driver with its defaults. `context` receives button events; may be null.
  virtual IClient* CreateClient(IClientHost* host, IHardwareEventSink* context,
                                const IDriverSpec* spec, uint32_t* running, uint32_t* status) = 0;
  /// A new client with settings.
  virtual IClient* CreateClientWithSettings(IClientHost* host, IHardwareEventSink* context,
                                            const IDriverSpec* spec,
                                            const SClientSettings* settings, uint32_t* running,
                                            uint32_t* status) = 0;
  /// Writes a spec through `sink` from `position`, which it advances.
  virtual uint32_t SaveDriverSpec(const IDriverSpec* spec, IByteSink* sink,
                                  uint64_t* position) = 0;
  /// Reads a saved spec from `position`, which it advances; the caller owns it.
  virtual IDriverSpec* LoadDriverSpec(IByteSource* source, uint64_t* position,
                                      uint32_t* status) = 0;
  /// 1 for a sound object.
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

/// Destroys a boundary object the way an MSVC host's `delete` does; null is allowed.
template <class T>
inline void QuillonDestroy(T* object) {
  if (object != nullptr) {
    QUILLON_DELETE_BOUNDARY_OBJECT(object);
  }
}

}  // namespace NSQuillon2

extern "C" {
/// Creates the library object for `interfaceName`, which must be "IQuillon2"; `params` may be
/// null. Null with the reason in `status` on failure.
QUILLON_API NSQuillon2::IQuillon* Quillon_Create(const char* interfaceName,
                                                 const NSQuillon2::SLibraryParams* params,
                                                 uint32_t* status);
/// Memory from the library's heap.
QUILLON_API void* Quillon_New(size_t size);
/// Frees memory of Quillon_New.
QUILLON_API void Quillon_Delete(void* pointer);

/// Quillon_Create, as a host that loads the library at run time finds it.
typedef NSQuillon2::IQuillon* (*QuillonCreateFunction)(const char*,
                                                       const NSQuillon2::SLibraryParams*,
                                                       uint32_t*);
/// Quillon_New, found at run time.
typedef void* (*QuillonNewFunction)(size_t);
/// Quillon_Delete, found at run time.
typedef void (*QuillonDeleteFunction)(void*);
}

#endif
