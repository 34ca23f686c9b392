// The ASIO driver interface in its published binary layout: the records, the
// numbers and the COM interface every ASIO driver implements. The interface's
// `long` is 32 bits on Windows, so every such field is int32_t here, and the
// layout is the same in both builds.
#ifndef QUILLON_ASIO_ASIO_INTERFACE_H
#define QUILLON_ASIO_ASIO_INTERFACE_H

#include <cstddef>
#include <cstdint>

#include "driver/guid.h"

namespace NSASIO {

typedef int32_t ASIOBool;
typedef int32_t ASIOError;
typedef int32_t ASIOSampleType;
typedef double ASIOSampleRate;
typedef int32_t HResult;

using NSFerrand::SGuid;

enum : HResult {
  kHResultOk = 0,
  kHResultNoInterface = static_cast<HResult>(0x80004002u),
  kHResultFail = static_cast<HResult>(0x80004005u),
  kHResultOutOfMemory = static_cast<HResult>(0x8007000Eu),
  kHResultClassNotRegistered = static_cast<HResult>(0x80040154u)
};

enum : ASIOError {
  ASE_OK = 0,
  ASE_SUCCESS = 0x3f4847a0,
  ASE_NotPresent = -1000,
  ASE_HWMalfunction = -999,
  ASE_InvalidParameter = -998,
  ASE_InvalidMode = -997,
  ASE_SPNotAdvancing = -996,
  ASE_NoClock = -995,
  ASE_NoMemory = -994
};

enum : ASIOSampleType {
  ASIOSTInt16MSB = 0,
  ASIOSTInt24MSB = 1,
  ASIOSTInt32MSB = 2,
  ASIOSTFloat32MSB = 3,
  ASIOSTFloat64MSB = 4,
  ASIOSTInt32MSB16 = 8,
  ASIOSTInt32MSB18 = 9,
  ASIOSTInt32MSB20 = 10,
  ASIOSTInt32MSB24 = 11,
  ASIOSTInt16LSB = 16,
  ASIOSTInt24LSB = 17,
  ASIOSTInt32LSB = 18,
  ASIOSTFloat32LSB = 19,
  ASIOSTFloat64LSB = 20,
  ASIOSTInt32LSB16 = 24,
  ASIOSTInt32LSB18 = 25,
  ASIOSTInt32LSB20 = 26,
  ASIOSTInt32LSB24 = 27
};

// Selectors of the host's message callback.
enum : int32_t {
  kAsioSelectorSupported = 1,
  kAsioEngineVersion = 2,
  kAsioResetRequest = 3,
  kAsioBufferSizeChange = 4,
  kAsioResyncRequest = 5,
  kAsioLatenciesChanged = 6,
  kAsioSupportsTimeInfo = 7,
  kAsioSupportsTimeCode = 8,
  kAsioMMCCommand = 9,
  kAsioSupportsInputMonitor = 10,
  kAsioSupportsInputGain = 11,
  kAsioSupportsInputMeter = 12,
  kAsioSupportsOutputGain = 13,
  kAsioSupportsOutputMeter = 14,
  kAsioOverload = 15
};

// Selectors of the driver's `future`.
enum : int32_t {
  kAsioEnableTimeCodeRead = 1,
  kAsioDisableTimeCodeRead = 2,
  kAsioSetInputMonitor = 3,
  kAsioTransport = 4,
  kAsioSetInputGain = 5,
  kAsioGetInputMeter = 6,
  kAsioSetOutputGain = 7,
  kAsioGetOutputMeter = 8,
  kAsioCanInputMonitor = 9,
  kAsioCanTimeInfo = 10,
  kAsioCanTimeCode = 11,
  kAsioCanTransport = 12,
  kAsioCanInputGain = 13,
  kAsioCanInputMeter = 14,
  kAsioCanOutputGain = 15,
  kAsioCanOutputMeter = 16
};

// Flags of AsioTimeInfo.
enum : uint32_t {
  kSystemTimeValid = 1,
  kSamplePositionValid = 2,
  kSampleRateValid = 4,
  kSpeedValid = 8,
  kSampleRateChanged = 16,
  kClockSourceChanged = 32
};

// Flags of ASIOTimeCode.
enum : uint32_t {
  kTcValid = 1,
  kTcRunning = 2,
  kTcReverse = 4,
  kTcOnspeed = 8,
  kTcStill = 16,
  kTcSpeedValid = 0x100
};

// 64-bit numbers as two 32-bit halves, the high one first.
struct ASIOSamples {
  uint32_t hi;
  uint32_t lo;
};
struct ASIOTimeStamp {
  uint32_t hi;
  uint32_t lo;
};

struct ASIODriverInfo {
  int32_t asioVersion;
  int32_t driverVersion;
  char name[32];
  char errorMessage[124];
  void* sysRef;
};

struct ASIOClockSource {
  int32_t index;
  int32_t associatedChannel;
  int32_t associatedGroup;
  ASIOBool isCurrentSource;
  char name[32];
};

struct ASIOChannelInfo {
  int32_t channel;
  ASIOBool isInput;
  ASIOBool isActive;
  int32_t channelGroup;
  ASIOSampleType type;
  char name[32];
};

struct ASIOBufferInfo {
  ASIOBool isInput;
  int32_t channelNum;
  void* buffers[2];
};

struct AsioTimeInfo {
  double speed;
  ASIOTimeStamp systemTime;
  ASIOSamples samplePosition;
  ASIOSampleRate sampleRate;
  uint32_t flags;
  char reserved[12];
};

struct ASIOTimeCode {
  double speed;
  ASIOSamples timeCodeSamples;
  uint32_t flags;
  char future[64];
};

struct ASIOTime {
  int32_t reserved[4];
  AsioTimeInfo timeInfo;
  ASIOTimeCode timeCode;
};

struct ASIOInputMonitor {
  int32_t input;
  int32_t output;
  int32_t gain;
  ASIOBool state;
  int32_t pan;
};

struct ASIOCallbacks {
  void (*bufferSwitch)(int32_t doubleBufferIndex, ASIOBool directProcess);
  void (*sampleRateDidChange)(ASIOSampleRate rate);
  int32_t (*asioMessage)(int32_t selector, int32_t value, void* message, double* opt);
  ASIOTime* (*bufferSwitchTimeInfo)(ASIOTime* params, int32_t doubleBufferIndex,
                                    ASIOBool directProcess);
};

static_assert(sizeof(ASIOSamples) == 8 && sizeof(ASIOTimeStamp) == 8, "ASIO layout");
static_assert(offsetof(ASIODriverInfo, name) == 8, "ASIO layout");
static_assert(offsetof(ASIODriverInfo, errorMessage) == 40, "ASIO layout");
static_assert(offsetof(ASIODriverInfo, sysRef) == 168, "ASIO layout");
static_assert(sizeof(ASIODriverInfo) == 176, "ASIO layout");
static_assert(offsetof(ASIOClockSource, isCurrentSource) == 12, "ASIO layout");
static_assert(offsetof(ASIOClockSource, name) == 16 && sizeof(ASIOClockSource) == 48,
              "ASIO layout");
static_assert(offsetof(ASIOChannelInfo, type) == 16, "ASIO layout");
static_assert(offsetof(ASIOChannelInfo, name) == 20 && sizeof(ASIOChannelInfo) == 52,
              "ASIO layout");
static_assert(offsetof(ASIOBufferInfo, buffers) == 8 && sizeof(ASIOBufferInfo) == 24,
              "ASIO layout");
static_assert(offsetof(AsioTimeInfo, systemTime) == 8, "ASIO layout");
static_assert(offsetof(AsioTimeInfo, samplePosition) == 16, "ASIO layout");
static_assert(offsetof(AsioTimeInfo, sampleRate) == 24, "ASIO layout");
static_assert(offsetof(AsioTimeInfo, flags) == 32 && sizeof(AsioTimeInfo) == 48, "ASIO layout");
static_assert(offsetof(ASIOTimeCode, timeCodeSamples) == 8, "ASIO layout");
static_assert(offsetof(ASIOTimeCode, flags) == 16, "ASIO layout");
static_assert(offsetof(ASIOTimeCode, future) == 20 && sizeof(ASIOTimeCode) == 88, "ASIO layout");
static_assert(offsetof(ASIOTime, timeInfo) == 16, "ASIO layout");
static_assert(offsetof(ASIOTime, timeCode) == 64 && sizeof(ASIOTime) == 152, "ASIO layout");
static_assert(sizeof(ASIOInputMonitor) == 20 && offsetof(ASIOInputMonitor, pan) == 16,
              "ASIO layout");
static_assert(offsetof(ASIOCallbacks, bufferSwitchTimeInfo) == 3 * sizeof(void*),
              "ASIO layout");
static_assert(sizeof(ASIOCallbacks) == 4 * sizeof(void*), "ASIO layout");

// The three operations every COM object begins with. No virtual destructor:
// the table holds exactly the COM slots.
class IUnknownLayout {
 public:
  virtual HResult QueryInterface(const SGuid& iid, void** object) = 0;
  virtual uint32_t AddRef() = 0;
  virtual uint32_t Release() = 0;

 protected:
  ~IUnknownLayout() = default;
};

// The driver's interface, its operations in their published order.
class IASIO : public IUnknownLayout {
 public:
  virtual ASIOBool init(void* sysHandle) = 0;
  virtual void getDriverName(char* name) = 0;
  virtual int32_t getDriverVersion() = 0;
  virtual void getErrorMessage(char* text) = 0;
  virtual ASIOError start() = 0;
  virtual ASIOError stop() = 0;
  virtual ASIOError getChannels(int32_t* numInputChannels, int32_t* numOutputChannels) = 0;
  virtual ASIOError getLatencies(int32_t* inputLatency, int32_t* outputLatency) = 0;
  virtual ASIOError getBufferSize(int32_t* minSize, int32_t* maxSize, int32_t* preferredSize,
                                  int32_t* granularity) = 0;
  virtual ASIOError canSampleRate(ASIOSampleRate rate) = 0;
  virtual ASIOError getSampleRate(ASIOSampleRate* rate) = 0;
  virtual ASIOError setSampleRate(ASIOSampleRate rate) = 0;
  virtual ASIOError getClockSources(ASIOClockSource* clocks, int32_t* numSources) = 0;
  virtual ASIOError setClockSource(int32_t reference) = 0;
  virtual ASIOError getSamplePosition(ASIOSamples* position, ASIOTimeStamp* stamp) = 0;
  virtual ASIOError getChannelInfo(ASIOChannelInfo* info) = 0;
  virtual ASIOError createBuffers(ASIOBufferInfo* bufferInfos, int32_t numChannels,
                                  int32_t bufferSize, ASIOCallbacks* callbacks) = 0;
  virtual ASIOError disposeBuffers() = 0;
  virtual ASIOError controlPanel() = 0;
  virtual ASIOError future(int32_t selector, void* opt) = 0;
  virtual ASIOError outputReady() = 0;

 protected:
  ~IASIO() = default;
};

// How a driver names the hardware device it drives: one operation after the
// three of IUnknown, giving a BSTR the caller frees.
class IASIOHardwareIdentity : public IUnknownLayout {
 public:
  virtual HResult GetHardwareIdentity(char16_t** identity) = 0;

 protected:
  ~IASIOHardwareIdentity() = default;
};

// {428C1473-04BF-4B9F-9CF0-D385C1A5D90E}
constexpr SGuid kIIDHardwareIdentity = {0x428C1473u, 0x04BF, 0x4B9F,
                                        {0x9C, 0xF0, 0xD3, 0x85, 0xC1, 0xA5, 0xD9, 0x0E}};

// A 64-bit number from its two halves.
inline uint64_t Join64(uint32_t hi, uint32_t lo) {
  return (static_cast<uint64_t>(hi) << 32) | lo;
}

}  // namespace NSASIO

#endif
