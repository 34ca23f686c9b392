// The MME family: the wave-out devices that play 16-bit stereo, each a
// registered driver under "MME". It needs no window: it is always there.
#ifndef QUILLON_MME_MME_FAMILY_H
#define QUILLON_MME_MME_FAMILY_H

#include <cstdint>
#include <vector>

#include "driver/registry.h"
#include "mme/wave_out.h"

namespace NSMME {

using NSFerrand::CWideString;

// Raises the failure a wave-out result stands for; returns on 0.
void ThrowOnWaveResult(uint32_t result);

using NSFerrand::Stereo16Format;

// The format trial of one rate: false when refused, XOpen when the device
// is in use.
bool IsRateAccepted(IWaveOut& waveOut, uint32_t device, uint32_t sampleRate);
// The five rates in order, those the device accepts; XOpen when none.
std::vector<uint32_t> SupportedRates(IWaveOut& waveOut, uint32_t device);

class CMMESoundRegisteredSoundDriver final : public NSFerrand::CABCRegisteredSoundDriver {
 public:
  CMMESoundRegisteredSoundDriver(IWaveOut& waveOut, uint32_t device, const CWideString& name,
                                 const CWideString& version);
  NSFerrand::CABCOpenSoundDriver* OpenWithSettings(const NSFerrand::CSoundDriverSettings& settings,
                                                   NSFerrand::MSoundRenderer* renderer,
                                                   void* hardwareContext) override;
  NSFerrand::CABCOpenSoundDriver* OpenWithDefaults(NSFerrand::MSoundRenderer* renderer,
                                                   void* hardwareContext) override;
  NSFerrand::CRegisteredSoundDriverInfo& GetInfo(
      NSFerrand::CRegisteredSoundDriverInfo& info) override;

  uint32_t Device() const { return device_; }
  IWaveOut& WaveOut() const { return waveOut_; }

 private:
  IWaveOut& waveOut_;
  uint32_t device_;
  CWideString name_;
  CWideString manufacturer_;  // empty for every device
  CWideString version_;
};

// The family's registration, counted: the first scope scans, the last one
// gone takes the family out of the registry.
class CMMEFamilyScope {
 public:
  explicit CMMEFamilyScope(IWaveOut& waveOut);
  ~CMMEFamilyScope();
  CMMEFamilyScope(const CMMEFamilyScope&) = delete;
  CMMEFamilyScope& operator=(const CMMEFamilyScope&) = delete;
};

// The version text of a driver version: "^0.^1" of its two bytes.
CWideString MMEVersionText(uint32_t driverVersion);

}  // namespace NSMME

#endif
