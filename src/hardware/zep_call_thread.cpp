#include "hardware/zep_call_thread.h"

#include <atomic>

#include "failure/exceptions.h"

namespace NSZEPGlue {

namespace {

std::atomic<bool> cutOff{false};

}  // namespace

CZEPCallThread::CZEPCallThread() { Start(); }

void CZEPCallThread::OnQuarantined() { cutOff = true; }

bool HardwareCutOff() { return cutOff.load(); }

void RaiseNoHardwareDevice() {
  throw NSMarlet::XNotFound("GetRequiredZEPDeviceFromOpenSoundDriverHandle()");
}

void ForgetHardwareCutOff() { cutOff = false; }

}  // namespace NSZEPGlue
