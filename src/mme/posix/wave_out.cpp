#include "mme/wave_out.h"

namespace NSMME {

namespace {

// No wave-out devices exist here: the family lists nothing.
class CNoWaveOut final : public IWaveOut {
 public:
  uint32_t GetNumDevs() override { return 0; }
  uint32_t GetDevCaps(uint32_t, SWaveOutCaps&) override { return kMMSysErrBadDeviceId; }
  uint32_t Open(WaveOutHandle*, uint32_t, const SWaveFormat&, uint32_t, NSPlatform::SEvent*) override {
    return kMMSysErrBadDeviceId;
  }
  uint32_t PrepareHeader(WaveOutHandle, SWaveHeader*) override { return kMMSysErrInvalidHandle; }
  uint32_t UnprepareHeader(WaveOutHandle, SWaveHeader*) override { return kMMSysErrInvalidHandle; }
  uint32_t Write(WaveOutHandle, SWaveHeader*) override { return kMMSysErrInvalidHandle; }
  uint32_t Pause(WaveOutHandle) override { return kMMSysErrInvalidHandle; }
  uint32_t Restart(WaveOutHandle) override { return kMMSysErrInvalidHandle; }
  uint32_t Reset(WaveOutHandle) override { return kMMSysErrInvalidHandle; }
  uint32_t Close(WaveOutHandle) override { return kMMSysErrInvalidHandle; }
};

}  // namespace

IWaveOut& SystemWaveOut() {
  static CNoWaveOut none;
  return none;
}

}  // namespace NSMME
