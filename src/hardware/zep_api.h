// The hardware control library's 17 operations and its two callbacks, as
// the library exports them. Every operation but the two close calls returns
// a result code, 0 for success.
#ifndef QUILLON_HARDWARE_ZEP_API_H
#define QUILLON_HARDWARE_ZEP_API_H

#include <cstdint>

namespace NSZEPGlue {

typedef uint32_t ZEPResult;
// What ZEP_DeviceOpen gives: pointer-sized, opaque.
typedef uintptr_t ZEPDevice;

constexpr ZEPResult kZEPSuccess = 0;

extern "C" {
typedef ZEPResult (*ZEPConnectionCallback)(void* context);
typedef ZEPResult (*ZEPButtonCallback)(ZEPDevice device, uint32_t button, void* context);

typedef ZEPResult (*PZEPGetVersion)(uintptr_t first, uintptr_t second);
typedef ZEPResult (*PZEPCreate)(uint8_t one, uint32_t zero, ZEPConnectionCallback connection,
                                ZEPButtonCallback button, void* context);
typedef ZEPResult (*PZEPDispose)();
typedef ZEPResult (*PZEPGetCurrentDevices)(const char** names, uint32_t* count);
typedef ZEPResult (*PZEPDeviceOpen)(const char* name, ZEPDevice* device);
typedef ZEPResult (*PZEPDeviceClose)(ZEPDevice device);
typedef ZEPResult (*PZEPGetDeviceChannelCount)(ZEPDevice device, uint32_t* count);
typedef ZEPResult (*PZEPGetDeviceChannelGainSafePaddedChannel)(ZEPDevice device, uint32_t channel,
                                                               uint32_t* padded);
typedef ZEPResult (*PZEPGetDeviceChannelGainSafePaddingDB)(ZEPDevice device, uint32_t channel,
                                                           float* decibels);
typedef ZEPResult (*PZEPSetDeviceChannelGainSafeRoutingEnable)(ZEPDevice device, uint32_t channel,
                                                               uint8_t enable);
typedef ZEPResult (*PZEPSetDeviceGainSafeIndicator)(ZEPDevice device, uint32_t state);
typedef ZEPResult (*PZEPSetDeviceChannelActiveIndicator)(ZEPDevice device, uint32_t channel,
                                                         uint8_t active);
typedef ZEPResult (*PZEPGetPreferredSampleRate)(ZEPDevice device, uint32_t* rate);
typedef ZEPResult (*PZEPGetPreferredBufferSize)(ZEPDevice device, uint32_t* frames);
typedef ZEPResult (*PZEPSetDirectMonitoring)(ZEPDevice device, uint8_t enable);
typedef ZEPResult (*PZEPHasControlPanel)(ZEPDevice device, uint32_t* has);
typedef ZEPResult (*PZEPTestCommand)(uint32_t command, uintptr_t first, uintptr_t second,
                                     uintptr_t third, int32_t fourth);
}

// The operations in the order the loader keeps them.
enum EZEPEntry : uint32_t {
  kZEPGetVersion,
  kZEPCreate,
  kZEPDispose,
  kZEPGetCurrentDevices,
  kZEPDeviceOpen,
  kZEPDeviceClose,
  kZEPGetDeviceChannelCount,
  kZEPGetDeviceChannelGainSafePaddedChannel,
  kZEPGetDeviceChannelGainSafePaddingDB,
  kZEPSetDeviceChannelGainSafeRoutingEnable,
  kZEPSetDeviceGainSafeIndicator,
  kZEPSetDeviceChannelActiveIndicator,
  kZEPGetPreferredSampleRate,
  kZEPGetPreferredBufferSize,
  kZEPSetDirectMonitoring,
  kZEPHasControlPanel,
  kZEPTestCommand,
  kZEPEntryCount
};

// The exported names, by EZEPEntry.
extern const char* const kZEPEntryNames[kZEPEntryCount];

}  // namespace NSZEPGlue

#endif
