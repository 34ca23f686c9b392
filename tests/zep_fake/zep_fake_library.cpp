// The test hardware library: the 17 operations, each logged and answered
// by the control library. Built once per version; see the CMake file.
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "hardware/zep_platform.h"
#include "zep_fake/zep_fake_control.h"

#if defined(_WIN32)
#include <windows.h>
#define ZEP_EXPORT extern "C" __declspec(dllexport)
#else
#define ZEP_EXPORT extern "C" __attribute__((visibility("default")))
#endif

#define ZEP_TEXT2(x) #x
#define ZEP_TEXT(x) ZEP_TEXT2(x)
#if defined(ZEP_V1)
#define ZEP_VERSION_TEXT ZEP_TEXT(ZEP_V1) "." ZEP_TEXT(ZEP_V2) "." ZEP_TEXT(ZEP_V3) "." ZEP_TEXT(ZEP_V4)
#else
#define ZEP_VERSION_TEXT "none"
#endif

#if defined(ZEP_V1) && !defined(_WIN32)
// The native form of the version record: a section the loader reads
// without loading the file.
extern "C" __attribute__((used, section(".zep_version")))
const NSZEPGlue::SFixedFileVersion kZEPVersionRecord = {
    NSZEPGlue::kFixedFileVersionSignature, 0x00010000u, (ZEP_V1 << 16) | ZEP_V2,
    (ZEP_V3 << 16) | ZEP_V4, (ZEP_V1 << 16) | ZEP_V2, (ZEP_V3 << 16) | ZEP_V4, 0x3Fu, 0, 4, 2,
    0, 0, 0};
#endif

namespace {

typedef uint32_t Result;
typedef uintptr_t Device;

std::string Text(uintptr_t value) { return std::to_string(value); }

Result Call(const char* operation, const std::string& arguments) {
  return ZEPFake_Call(operation, arguments.c_str());
}

// A crash whose faulting instruction lies in this library; where no fault
// can be contained, a C++ exception out of the call stands for it.
void Crash() {
#if defined(_WIN32)
  volatile uintptr_t nowhere = 0;
  *reinterpret_cast<volatile int*>(nowhere) = 1;
#else
  throw std::runtime_error("the hardware library crashed");
#endif
}

#if defined(_WIN32)
}  // namespace

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved) {
  if (reason == DLL_PROCESS_ATTACH) {
    ZEPFake_SetCrasher(&Crash);
    ZEPFake_NoteLoad(ZEP_VERSION_TEXT, 1);
  }
  // At process exit other threads are gone, perhaps holding the control
  // library's lock: only a real unload is noted.
  if (reason == DLL_PROCESS_DETACH && reserved == nullptr) {
    ZEPFake_ForgetCrasher(&Crash);
    ZEPFake_NoteLoad(ZEP_VERSION_TEXT, 0);
  }
  return TRUE;
}

namespace {
#else
__attribute__((constructor)) void NoteLoad() {
  ZEPFake_SetCrasher(&Crash);
  ZEPFake_NoteLoad(ZEP_VERSION_TEXT, 1);
}
__attribute__((destructor)) void NoteUnload() {
  ZEPFake_ForgetCrasher(&Crash);
  ZEPFake_NoteLoad(ZEP_VERSION_TEXT, 0);
}
#endif

}  // namespace

ZEP_EXPORT Result ZEP_GetVersion(uintptr_t first, uintptr_t second) {
  return Call("ZEP_GetVersion", Text(first) + " " + Text(second));
}

ZEP_EXPORT Result ZEP_Create(uint8_t one, uint32_t zero, ZEPFakeConnectionCallback connection,
                             ZEPFakeButtonCallback button, void* context) {
  const std::string arguments = Text(one) + " " + Text(zero) + " " +
                                (connection != nullptr ? "connection" : "null") + " " +
                                (button != nullptr ? "button" : "null");
  return ZEPFake_Create(connection, button, context, arguments.c_str());
}

ZEP_EXPORT Result ZEP_Dispose() { return ZEPFake_Dispose(); }

ZEP_EXPORT Result ZEP_GetCurrentDevices(const char** names, uint32_t* count) {
  return ZEPFake_GetCurrentDevices(names, count);
}

ZEP_EXPORT Result ZEP_DeviceOpen(const char* name, Device* device) {
  return ZEPFake_DeviceOpen(name, device);
}

ZEP_EXPORT Result ZEP_DeviceClose(Device device) { return Call("ZEP_DeviceClose", Text(device)); }

ZEP_EXPORT Result ZEP_GetDeviceChannelCount(Device device, uint32_t* count) {
  const Result result = Call("ZEP_GetDeviceChannelCount", Text(device));
  return result != 0 ? result : ZEPFake_ChannelCount(count);
}

ZEP_EXPORT Result ZEP_GetDeviceChannelGainSafePaddedChannel(Device device, uint32_t channel,
                                                            uint32_t* padded) {
  const Result result =
      Call("ZEP_GetDeviceChannelGainSafePaddedChannel", Text(device) + " " + Text(channel));
  return result != 0 ? result : ZEPFake_Padding(channel, padded, nullptr);
}

ZEP_EXPORT Result ZEP_GetDeviceChannelGainSafePaddingDB(Device device, uint32_t channel,
                                                        float* decibels) {
  const Result result =
      Call("ZEP_GetDeviceChannelGainSafePaddingDB", Text(device) + " " + Text(channel));
  return result != 0 ? result : ZEPFake_Padding(channel, nullptr, decibels);
}

ZEP_EXPORT Result ZEP_SetDeviceChannelGainSafeRoutingEnable(Device device, uint32_t channel,
                                                            uint8_t enable) {
  return Call("ZEP_SetDeviceChannelGainSafeRoutingEnable",
              Text(device) + " " + Text(channel) + " " + Text(enable));
}

ZEP_EXPORT Result ZEP_SetDeviceGainSafeIndicator(Device device, uint32_t state) {
  return Call("ZEP_SetDeviceGainSafeIndicator", Text(device) + " " + Text(state));
}

ZEP_EXPORT Result ZEP_SetDeviceChannelActiveIndicator(Device device, uint32_t channel,
                                                      uint8_t active) {
  return Call("ZEP_SetDeviceChannelActiveIndicator",
              Text(device) + " " + Text(channel) + " " + Text(active));
}

ZEP_EXPORT Result ZEP_GetPreferredSampleRate(Device device, uint32_t* rate) {
  const Result result = Call("ZEP_GetPreferredSampleRate", Text(device));
  if (result == 0) *rate = 48000;
  return result;
}

ZEP_EXPORT Result ZEP_GetPreferredBufferSize(Device device, uint32_t* frames) {
  const Result result = Call("ZEP_GetPreferredBufferSize", Text(device));
  if (result == 0) *frames = 256;
  return result;
}

// An older library lacks this one.
#if !defined(ZEP_FAKE_OLD)
ZEP_EXPORT Result ZEP_SetDirectMonitoring(Device device, uint8_t enable) {
  return Call("ZEP_SetDirectMonitoring", Text(device) + " " + Text(enable));
}
#endif

ZEP_EXPORT Result ZEP_HasControlPanel(Device device, uint32_t* has) {
  const Result result = Call("ZEP_HasControlPanel", Text(device));
  if (result == 0) *has = ZEPFake_ControlPanelAnswer();
  return result;
}

ZEP_EXPORT Result ZEP_TestCommand(uint32_t command, uintptr_t first, uintptr_t second,
                                  uintptr_t third, int32_t fourth) {
  return Call("ZEP_TestCommand", Text(command) + " " + Text(first) + " " + Text(second) + " " +
                                     Text(third) + " " + std::to_string(fourth));
}
