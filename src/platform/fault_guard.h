// Calls into code the library does not trust: a driver's, which may crash.
#ifndef QUILLON_PLATFORM_FAULT_GUARD_H
#define QUILLON_PLATFORM_FAULT_GUARD_H

#include <cstdint>

namespace NSPlatform {

typedef void (*GuardedCall)(void* context);

// Runs `call(context)`. False when a hardware fault (an access violation,
// an illegal instruction, a division by zero, a stack overflow) that no
// handler inside it took ended it there; the calling thread then goes on
// after this call, and whatever the call left half done stays so. Where the
// system has no such faults to catch, this is a plain call.
bool RunGuarded(GuardedCall call, void* context);

// Bracket the library's callbacks on a driver's threads: a fault between
// them is the host's or the library's, never the driver's, and goes on as
// it would without the library. No memory, no wait.
void EnterForeignCall();
void LeaveForeignCall();
class CForeignCall {
 public:
  CForeignCall() { EnterForeignCall(); }
  ~CForeignCall() { LeaveForeignCall(); }
  CForeignCall(const CForeignCall&) = delete;
  CForeignCall& operator=(const CForeignCall&) = delete;
};

// The modules loaded in the process at one moment.
struct ModuleSnapshot {
  static constexpr uint32_t kMaxModules = 1024;
  void* modules[kMaxModules];
  uint32_t count = 0;
};
void TakeModuleSnapshot(ModuleSnapshot& snapshot);
// The module holding `address`, and every module loaded since `before`, are
// a driver's, which `owner` names: a fault there that nothing takes, on any
// thread, parks that thread and is told to the handler below.
void ClaimDriverModules(const void* address, const ModuleSnapshot& before, uint32_t owner);
// The owner's modules stay loaded for the rest of the process.
void PinDriverModules(uint32_t owner);
// The owner ended cleanly: its modules are still a driver's, of nobody in
// particular, until a new load claims them.
void ForgetDriverModules(uint32_t owner);
constexpr uint32_t kNoDriverOwner = 0xFFFFFFFFu;
typedef void (*DriverCrashHandler)(uint32_t owner);
// Installs the last-chance watch of the process, once; a fault elsewhere is
// passed on to the watch that was there before.
void WatchDriverFaults(DriverCrashHandler handler);

}  // namespace NSPlatform

#endif
