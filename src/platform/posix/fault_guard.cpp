#include "platform/fault_guard.h"

namespace NSPlatform {

// Signals are the process's, not a call's: a fault here ends the process as
// it would without the library.
bool RunGuarded(GuardedCall call, void* context) {
  call(context);
  return true;
}

void EnterForeignCall() {}
void LeaveForeignCall() {}
void TakeModuleSnapshot(ModuleSnapshot& snapshot) { snapshot.count = 0; }
void ClaimDriverModules(const void*, const ModuleSnapshot&, uint32_t) {}
void PinDriverModules(uint32_t) {}
void ForgetDriverModules(uint32_t) {}
void WatchDriverFaults(DriverCrashHandler) {}

}  // namespace NSPlatform
