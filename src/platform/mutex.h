// Mutexes with owner semantics, and events, of the operating system.
#ifndef QUILLON_PLATFORM_MUTEX_H
#define QUILLON_PLATFORM_MUTEX_H

#include <cstdint>

namespace NSPlatform {

struct SMutex;
struct SEvent;

enum EWaitResult : uint32_t {
  kWaitObject = 0,       // taken, or signalled
  kWaitAbandoned = 128,  // taken; its owner died holding it
  kWaitTimeout = 258,
  kWaitFailed = 0xFFFFFFFFu
};
constexpr uint32_t kWaitInfinite = 0xFFFFFFFFu;

// A mutex that only its owner may release, which its owner may take again
// (counted), and which counts as taken when its owner dies holding it.
SMutex* NewMutex(bool initiallyOwned);
void DestroyMutex(SMutex* mutex);
EWaitResult WaitMutex(SMutex* mutex, uint32_t milliseconds);
// 0 on success, else the system's error code (not the owner: 288).
uint32_t ReleaseMutex(SMutex* mutex);

SEvent* NewEvent(bool manualReset, bool initiallySet);
void DestroyEvent(SEvent* event);
bool SetEvent(SEvent* event);
EWaitResult WaitEvent(SEvent* event, uint32_t milliseconds);
// As WaitEvent, for a thread that owns windows: the messages sent or posted
// to the thread are dispatched while it waits. Elsewhere, as WaitEvent.
EWaitResult WaitEventPumping(SEvent* event, uint32_t milliseconds);
// The system's own object behind an event, for a service of the system that
// sets it (a device that tells when it is done); elsewhere, the event itself.
void* SystemEventHandle(SEvent* event);

}  // namespace NSPlatform

#endif
