#include "mme/mme_family.h"

#include <new>
#include <stdexcept>

#include "failure/builder.h"
#include "failure/scope.h"
#include "mme/mme_driver.h"
#include "text/number_text.h"
#include "text/wide_text.h"

namespace NSMME {

using NSMarlet::RaiseFailure;
using NSMarlet::TargetWordAudioDriver;

namespace {

const uint32_t kTrialRates[5] = {44100, 48000, 88200, 96000, 192000};

// The family's one instance, and how many scopes hold it.
class CMMEFamily {
 public:
  explicit CMMEFamily(IWaveOut& waveOut);
  ~CMMEFamily();

 private:
  void Scan();
  NSFerrand::CRegistryRef registry_;
  IWaveOut& waveOut_;
};

CMMEFamily* gFamily = nullptr;
uint32_t gFamilyUses = 0;

const CWideString& KeyTemplate() {
  static const CWideString kTemplate = u"Ferrand MME ^0: ^1 ^2 ^3";
  return kTemplate;
}

const CWideString& VersionTemplate() {
  static const CWideString kTemplate = u"^0.^1";
  return kTemplate;
}

CMMEFamily::CMMEFamily(IWaveOut& waveOut) : waveOut_(waveOut) {
  NSMarlet::COptionalFailureScope scope;
  try {
    Scan();
  } catch (...) {
    // The library works with what is left: an empty family is no failure.
    NSFerrand::RemoveFamily(u"MME");
  }
}

CMMEFamily::~CMMEFamily() {
  try {
    NSFerrand::RemoveFamily(u"MME");
  } catch (...) {
  }
}

void CMMEFamily::Scan() {
  const uint32_t count = waveOut_.GetNumDevs();
  for (uint32_t i = 0; i < count && i <= 0xFFFF; ++i) {
    const uint16_t device = static_cast<uint16_t>(i);
    SWaveOutCaps caps;
    if (waveOut_.GetDevCaps(device, caps) != kMMSysErrNoError) continue;
    if ((caps.formats & kStereo16Formats) == 0 || caps.channels < 2 || caps.productName.empty()) {
      continue;
    }
    auto* driver = new CMMESoundRegisteredSoundDriver(waveOut_, device, caps.productName,
                                                      MMEVersionText(caps.driverVersion));
    try {
      if (!NSFerrand::AddRegisteredDriver(driver)) delete driver;
    } catch (...) {
      delete driver;
      throw;
    }
  }
}

}  // namespace

void ThrowOnWaveResult(uint32_t result) {
  switch (result) {
    case kMMSysErrNoError: return;
    case kMMSysErrNoMem: RaiseFailure(std::bad_alloc());
    case kMMSysErrInvalidHandle:
    case kMMSysErrNotSupported:
    case kMMSysErrBadErrNum:
    case kMMSysErrInvalidFlag:
    case kMMSysErrInvalidParam:
    case kMMSysErrHandleBusy:
    case kWaveErrBadFormat:
    case kWaveErrStillPlaying:
    case kWaveErrUnprepared:
    case kWaveErrSync: RaiseFailure(std::runtime_error(""), TargetWordAudioDriver());
    default: RaiseFailure(NSMarlet::XOpen(), TargetWordAudioDriver());
  }
}

bool IsRateAccepted(IWaveOut& waveOut, uint32_t device, uint32_t sampleRate) {
  const uint32_t answer = waveOut.Open(nullptr, device, Stereo16Format(sampleRate),
                                       kWaveFormatQuery, nullptr);
  if (answer == kMMSysErrAllocated) RaiseFailure(NSMarlet::XOpen(), TargetWordAudioDriver());
  return answer == kMMSysErrNoError;
}

std::vector<uint32_t> SupportedRates(IWaveOut& waveOut, uint32_t device) {
  std::vector<uint32_t> rates;
  for (uint32_t rate : kTrialRates) {
    if (IsRateAccepted(waveOut, device, rate)) rates.push_back(rate);
  }
  if (rates.empty()) RaiseFailure(NSMarlet::XOpen(), TargetWordAudioDriver());
  return rates;
}

CWideString MMEVersionText(uint32_t driverVersion) {
  return NSTextPackage::FormatText(
      VersionTemplate(), 0,
      {NSTextPackage::IntegerToText((driverVersion >> 8) & 0xFFFFFF),
       NSTextPackage::IntegerToText(driverVersion & 0xFF)});
}

CMMESoundRegisteredSoundDriver::CMMESoundRegisteredSoundDriver(IWaveOut& waveOut, uint32_t device,
                                                               const CWideString& name,
                                                               const CWideString& version)
    : waveOut_(waveOut), device_(device), name_(name), version_(version) {}

NSFerrand::CABCOpenSoundDriver* CMMESoundRegisteredSoundDriver::OpenWithSettings(
    const NSFerrand::CSoundDriverSettings& settings, NSFerrand::MSoundRenderer* renderer, void*) {
  return new (std::nothrow) COpenMMESoundDriver(*this, renderer, &settings);
}

NSFerrand::CABCOpenSoundDriver* CMMESoundRegisteredSoundDriver::OpenWithDefaults(
    NSFerrand::MSoundRenderer* renderer, void*) {
  return new (std::nothrow) COpenMMESoundDriver(*this, renderer, nullptr);
}

NSFerrand::CRegisteredSoundDriverInfo& CMMESoundRegisteredSoundDriver::GetInfo(
    NSFerrand::CRegisteredSoundDriverInfo& info) {
  info.key = NSTextPackage::FormatText(
      KeyTemplate(), 0, {NSTextPackage::IntegerToText(device_), manufacturer_, name_, version_});
  info.family = u"MME";
  info.name = name_;
  info.version = version_;
  info.manufacturer = manufacturer_;
  info.flags[0] = 1;
  info.flags[1] = 0;
  info.flags[2] = 0;
  info.flags[3] = 0;
  return info;
}

CMMEFamilyScope::CMMEFamilyScope(IWaveOut& waveOut) {
  if (gFamilyUses == 0) gFamily = new CMMEFamily(waveOut);
  ++gFamilyUses;
}

CMMEFamilyScope::~CMMEFamilyScope() {
  if (--gFamilyUses == 0) {
    delete gFamily;
    gFamily = nullptr;
  }
}

}  // namespace NSMME
