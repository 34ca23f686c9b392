// The script and the record of the test hardware library. The library
// itself (ZEPLib) is a thin file that forwards its 17 operations here, so
// that copies of it loaded from anywhere share one state with the tests,
// and its loads and unloads can be seen after it has gone.
#ifndef QUILLON_TESTS_ZEP_FAKE_CONTROL_H
#define QUILLON_TESTS_ZEP_FAKE_CONTROL_H

#include <cstdint>

#if defined(_WIN32)
#if defined(QUILLON_ZEP_FAKE_CONTROL_BUILD)
#define ZEP_FAKE_API extern "C" __declspec(dllexport)
#else
#define ZEP_FAKE_API extern "C" __declspec(dllimport)
#endif
#else
#define ZEP_FAKE_API extern "C" __attribute__((visibility("default")))
#endif

typedef uint32_t (*ZEPFakeConnectionCallback)(void* context);
typedef uint32_t (*ZEPFakeButtonCallback)(uintptr_t device, uint32_t button, void* context);

// Back to the start: no device, every call succeeds, empty log. Waits for
// events still in flight first.
ZEP_FAKE_API void ZEPFake_Reset();
// The devices connected now, by name, separated by '\n'; "" for none.
ZEP_FAKE_API void ZEPFake_SetDevices(const char* names);
// Every later call of that operation (by its name) answers `code`.
ZEP_FAKE_API void ZEPFake_SetResult(const char* operation, uint32_t code);
ZEP_FAKE_API void ZEPFake_SetChannelCount(uint32_t count);
ZEP_FAKE_API void ZEPFake_SetPadding(uint32_t channel, uint32_t paddedChannel, float decibels);
ZEP_FAKE_API void ZEPFake_SetControlPanelAnswer(uint32_t value);
// The handle ZEP_DeviceOpen gives for that name; 0 when it never opened.
ZEP_FAKE_API uintptr_t ZEPFake_DeviceHandle(const char* name);

// Events, from the fake's own thread. The Post forms return at once; the
// Fire forms wait for the callback and give its result (0xFFFFFFFF when no
// callback was registered).
ZEP_FAKE_API uint32_t ZEPFake_FireConnection();
ZEP_FAKE_API uint32_t ZEPFake_FireButton(uintptr_t device, uint32_t button);
ZEP_FAKE_API void ZEPFake_PostConnections(uint32_t count);
ZEP_FAKE_API void ZEPFake_PostButtons(uintptr_t device, uint32_t button, uint32_t count);
// Waits until every posted event has been delivered or dropped.
ZEP_FAKE_API void ZEPFake_WaitEvents();
// Events whose callback ran.
ZEP_FAKE_API uint32_t ZEPFake_DeliveredEvents();

// The log: one line per call or event, e.g. "ZEP_DeviceOpen Dev A",
// "ZEP_SetDeviceGainSafeIndicator 257 2", "load 2.0.0.0", "unload 2.0.0.0".
ZEP_FAKE_API uint32_t ZEPFake_LogCount();
// Copies line `index` with its terminator; the length of the line.
ZEP_FAKE_API uint32_t ZEPFake_LogLine(uint32_t index, char* text, uint32_t size);
// Empties the log, keeping everything else: long runs measure their memory.
ZEP_FAKE_API void ZEPFake_ForgetLog();
// Copies of the library loaded now.
ZEP_FAKE_API int32_t ZEPFake_LoadedCopies();
// Whether ZEP_Create has come without its ZEP_Dispose.
ZEP_FAKE_API int32_t ZEPFake_Created();

// Faults, by operation name: 1 crashes inside the call (an access violation
// in the library's own code on Windows, a C++ exception elsewhere), 2 never
// returns; 0 behaves. Reset clears them.
constexpr uint32_t kZEPFakeBehaves = 0;
constexpr uint32_t kZEPFakeCrashes = 1;
constexpr uint32_t kZEPFakeHangs = 2;
ZEP_FAKE_API void ZEPFake_SetFault(const char* operation, uint32_t fault);
// Calls that crashed or hung so far in the process.
ZEP_FAKE_API uint32_t ZEPFake_Misbehaved();
// The event thread crashes in the library's code once the events before
// have gone (Windows only: elsewhere the crash would end the process); the
// next event starts a new thread.
ZEP_FAKE_API void ZEPFake_PostCrash();

// The library's side.
// How the library crashes: its own function, so that the fault lies in its
// module.
ZEP_FAKE_API void ZEPFake_SetCrasher(void (*crash)());
// At unload: a crasher that is this one goes.
ZEP_FAKE_API void ZEPFake_ForgetCrasher(void (*crash)());
ZEP_FAKE_API void ZEPFake_NoteLoad(const char* version, int loaded);
ZEP_FAKE_API uint32_t ZEPFake_Call(const char* operation, const char* arguments);
ZEP_FAKE_API uint32_t ZEPFake_Create(ZEPFakeConnectionCallback connection,
                                     ZEPFakeButtonCallback button, void* context,
                                     const char* arguments);
ZEP_FAKE_API uint32_t ZEPFake_Dispose();
ZEP_FAKE_API uint32_t ZEPFake_GetCurrentDevices(const char** names, uint32_t* count);
ZEP_FAKE_API uint32_t ZEPFake_DeviceOpen(const char* name, uintptr_t* device);
ZEP_FAKE_API uint32_t ZEPFake_ChannelCount(uint32_t* count);
ZEP_FAKE_API uint32_t ZEPFake_Padding(uint32_t channel, uint32_t* padded, float* decibels);
ZEP_FAKE_API uint32_t ZEPFake_ControlPanelAnswer();

#endif
