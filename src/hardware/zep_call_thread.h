// The thread of the loaded hardware library. Every call into it runs there
// within a deadline; a call that misses its deadline, or crashes, cuts the
// library off for the rest of the process: it is never called again, its
// events reach nobody, and every hardware operation answers as with no
// device, while the audio goes on.
#ifndef QUILLON_HARDWARE_ZEP_CALL_THREAD_H
#define QUILLON_HARDWARE_ZEP_CALL_THREAD_H

#include <cstdint>

#include "driver/guarded_thread.h"

namespace NSZEPGlue {

// Connecting and opening may wake a device; the rest is answered from what
// the library knows.
constexpr uint32_t kZEPConnectCallMs = 5000;  // create, dispose, device open and close, test
constexpr uint32_t kZEPQueryCallMs = 2000;    // every other operation

class CZEPCallThread final : public NSFerrand::CGuardedThread {
 public:
  // Raises XCreate when the system gives no thread.
  CZEPCallThread();

 private:
  ~CZEPCallThread() override = default;
  void OnQuarantined() override;
};

// Whether the library was cut off in this process.
bool HardwareCutOff();
// What a hardware operation raises when the client has no device, and so
// every call into a library that is cut off: XNotFound.
[[noreturn]] void RaiseNoHardwareDevice();
// For tests that meet many faults in one process: the next connection may
// load the library again. A host has no reason to call it.
void ForgetHardwareCutOff();

}  // namespace NSZEPGlue

#endif
