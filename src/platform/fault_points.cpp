#include "platform/fault_points.h"

namespace NSPlatform {

namespace {

struct SFault {
  std::atomic<uint32_t> skip{0};
  std::atomic<uint32_t> times{0};
  std::atomic<uint64_t> taken{0};
};
SFault faults[kPlatformCallCount];

const char* const kNames[kPlatformCallCount] = {
    "NewMutex",          "WaitMutex",          "ReleaseMutex",     "NewEvent",
    "SetEvent",          "WaitEvent",          "StartThread",      "JoinThreadFor",
    "SetThreadAffinity", "EnterRealtimeClass", "BeginTimerPeriod", "EndTimerPeriod",
    "IsUsableWindow",    "MultiByteToWide",    "WideToMultiByte",  "CompareLocaleText",
    "WaitEventPumping"};

}  // namespace

std::atomic<uint32_t> armedFaults{0};

const char* PlatformCallName(EPlatformCall call) {
  return call < kPlatformCallCount ? kNames[call] : "";
}

bool TakeFault(EPlatformCall call) {
  SFault& fault = faults[call];
  for (uint32_t skip = fault.skip.load(); skip > 0;) {
    if (fault.skip.compare_exchange_weak(skip, skip - 1)) return false;
  }
  for (uint32_t times = fault.times.load(); times > 0;) {
    if (fault.times.compare_exchange_weak(times, times - 1)) {
      fault.taken.fetch_add(1);
      return true;
    }
  }
  return false;
}

void ArmFault(EPlatformCall call, uint32_t skip, uint32_t times) {
  faults[call].skip.store(skip);
  faults[call].times.store(times);
  armedFaults.fetch_add(1);
}

void DisarmFaults() {
  for (SFault& fault : faults) {
    fault.skip.store(0);
    fault.times.store(0);
  }
  armedFaults.store(0);
}

uint64_t FaultsTaken(EPlatformCall call) { return faults[call].taken.load(); }

}  // namespace NSPlatform
