// Every call of the platform layer that the system can refuse has a point
// at which a test makes it fail, with the answer the system gives when it
// refuses: how the tests show that the library survives each such failure.
// Nothing is armed in production, and a check is then one relaxed load.
#ifndef QUILLON_PLATFORM_FAULT_POINTS_H
#define QUILLON_PLATFORM_FAULT_POINTS_H

#include <atomic>
#include <cstdint>

namespace NSPlatform {

enum EPlatformCall : uint32_t {
  kCallNewMutex,
  kCallWaitMutex,
  kCallReleaseMutex,
  kCallNewEvent,
  kCallSetEvent,
  kCallWaitEvent,
  kCallStartThread,
  kCallJoinThreadFor,
  kCallSetThreadAffinity,
  kCallEnterRealtimeClass,
  kCallBeginTimerPeriod,
  kCallEndTimerPeriod,
  kCallIsUsableWindow,
  kCallMultiByteToWide,
  kCallWideToMultiByte,
  kCallCompareLocaleText,
  kCallWaitEventPumping,
  kPlatformCallCount
};

// The function's name, as the platform layer declares it.
const char* PlatformCallName(EPlatformCall call);

extern std::atomic<uint32_t> armedFaults;
bool TakeFault(EPlatformCall call);

// True when this call is to fail.
inline bool FailNow(EPlatformCall call) {
  return armedFaults.load(std::memory_order_relaxed) != 0 && TakeFault(call);
}

// For tests: the calls after the next `skip` fail, `times` of them.
void ArmFault(EPlatformCall call, uint32_t skip, uint32_t times);
void DisarmFaults();
// Calls that failed by a fault, since the start.
uint64_t FaultsTaken(EPlatformCall call);

}  // namespace NSPlatform

#endif
