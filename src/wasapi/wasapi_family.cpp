#include "wasapi/wasapi_family.h"

#include <algorithm>
#include <new>
#include <stdexcept>

#include "failure/builder.h"
#include "wasapi/wasapi_apartment.h"
#include "wasapi/wasapi_driver.h"

namespace NSWasapi {

using NSFerrand::CRegisteredSoundDriverInfo;
using NSMarlet::RaiseFailure;

const char16_t kWasapiFamilyWord[] = u"WASAPI";
const char16_t kDefaultOutputName[] = u"Default output";

const SGuid kSubFormatPcm = {0x00000001, 0x0000, 0x0010,
                             {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
const SGuid kSubFormatFloat = {0x00000003, 0x0000, 0x0010,
                               {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};

namespace {

const char16_t kSharedKeyPrefix[] = u"Ferrand WASAPI Shared ";
const char16_t kExclusiveKeyPrefix[] = u"Ferrand WASAPI Exclusive ";
const char16_t kExclusiveSuffix[] = u" (exclusive)";
const char16_t kDefaultOutputKey[] = u"Ferrand WASAPI Default output";

std::atomic<uint32_t> defaultGeneration{0};

struct SSampleShape {
  uint16_t container;
  uint16_t valid;
  bool isFloat;
};
constexpr SSampleShape kShapes[kSampleFormatCount] = {
    {32, 32, true}, {32, 32, false}, {32, 24, false}, {24, 24, false}, {16, 16, false}};

}  // namespace

SWaveFormat StereoFormat(uint32_t sampleRate, ESampleFormat sample) {
  return DeviceShapedFormat(sampleRate, sample, 2, 3);
}

SWaveFormat DeviceShapedFormat(uint32_t sampleRate, ESampleFormat sample, uint16_t channels,
                               uint32_t channelMask) {
  const SSampleShape& shape = kShapes[sample];
  SWaveFormat format;
  format.channels = channels;
  format.channelMask = channelMask;
  format.samplesPerSecond = sampleRate;
  format.bitsPerSample = shape.container;
  format.validBitsPerSample = shape.valid;
  format.blockAlign = static_cast<uint16_t>(channels * shape.container / 8);
  format.averageBytesPerSecond = sampleRate * format.blockAlign;
  format.subFormat = shape.isFloat ? kSubFormatFloat : kSubFormatPcm;
  return format;
}

bool SampleFormatOf(const SWaveFormat& format, ESampleFormat& sample) {
  bool isFloat = false;
  uint16_t valid = format.bitsPerSample;
  if (format.formatTag == kFormatTagExtensible) {
    if (format.subFormat == kSubFormatFloat) {
      isFloat = true;
    } else if (!(format.subFormat == kSubFormatPcm)) {
      return false;
    }
    valid = format.validBitsPerSample != 0 ? format.validBitsPerSample : format.bitsPerSample;
  } else if (format.formatTag == kFormatTagFloat) {
    isFloat = true;
  } else if (format.formatTag != kFormatTagPcm) {
    return false;
  }
  for (uint32_t i = 0; i < kSampleFormatCount; ++i) {
    if (kShapes[i].container == format.bitsPerSample && kShapes[i].valid == valid &&
        kShapes[i].isFloat == isFloat) {
      sample = static_cast<ESampleFormat>(i);
      return true;
    }
  }
  return false;
}

void ThrowOnWasapiResult(HResult result) {
  if (result >= 0) return;
  switch (static_cast<uint32_t>(result)) {
    case 0x8007000Eu:
      RaiseFailure(std::bad_alloc());
    case 0x80070057u:
      RaiseFailure(std::invalid_argument(""));
    case 0x88890004u:  // the endpoint is gone
    case 0x8889000Au:  // in another application's hands, exclusively
    case 0x8889000Eu:  // exclusive mode is not allowed on it
    case 0x88890008u:  // no format it takes
      RaiseFailure(NSMarlet::XOpen(""), NSMarlet::TargetWordAudioDriver());
    default: {
      NSMarlet::CFailureBuilder builder{NSMarlet::CSourcePosition()};
      builder.SetFromException(std::runtime_error(""));
      builder.SetTargetWord(NSMarlet::TargetWordAudioDriver());
      builder.AddErrorCode(static_cast<uint32_t>(result));
      NSMarlet::RaiseBody(builder);
    }
  }
}

SEndpoint DefaultOutputEndpoint() { return {u"", kDefaultOutputName}; }

uint32_t DefaultEndpointGeneration() { return defaultGeneration.load(); }

CWideString WasapiKey(const SEndpoint& endpoint, EShareMode mode) {
  if (endpoint.id.empty()) return kDefaultOutputKey;
  return (mode == kShareModeShared ? kSharedKeyPrefix : kExclusiveKeyPrefix) + endpoint.id;
}

CWideString WasapiName(const SEndpoint& endpoint, EShareMode mode) {
  return mode == kShareModeShared ? endpoint.friendlyName
                                  : endpoint.friendlyName + kExclusiveSuffix;
}

CWasapiRegisteredSoundDriver::CWasapiRegisteredSoundDriver(std::shared_ptr<IWasapiApi> control,
                                                           IWasapiApi& stream,
                                                           const SEndpoint& endpoint,
                                                           EShareMode mode)
    : control_(std::move(control)), stream_(stream), endpoint_(endpoint), mode_(mode) {}

CWasapiRegisteredSoundDriver::CWasapiRegisteredSoundDriver(IWasapiApi& api,
                                                           const SEndpoint& endpoint,
                                                           EShareMode mode)
    : CWasapiRegisteredSoundDriver(std::shared_ptr<IWasapiApi>(std::shared_ptr<IWasapiApi>(), &api),
                                   api, endpoint, mode) {}

NSFerrand::CABCOpenSoundDriver* CWasapiRegisteredSoundDriver::OpenWithSettings(
    const NSFerrand::CSoundDriverSettings& settings, NSFerrand::MSoundRenderer* renderer, void*) {
  return new COpenWasapiSoundDriver(*this, renderer, &settings);
}

NSFerrand::CABCOpenSoundDriver* CWasapiRegisteredSoundDriver::OpenWithDefaults(
    NSFerrand::MSoundRenderer* renderer, void*) {
  return new COpenWasapiSoundDriver(*this, renderer, nullptr);
}

CRegisteredSoundDriverInfo& CWasapiRegisteredSoundDriver::GetInfo(CRegisteredSoundDriverInfo& info) {
  info.key = WasapiKey(endpoint_, mode_);
  info.family = kWasapiFamilyWord;
  info.name = WasapiName(endpoint_, mode_);
  info.version.clear();
  info.manufacturer.clear();
  info.flags[0] = 1;
  info.flags[1] = 0;
  info.flags[2] = 0;
  info.flags[3] = 0;
  return info;
}

CWasapiFamilyScope::CWasapiFamilyScope(IWasapiApi& api) {
  // No engine, no thread for it, no drivers, and no failure: the family
  // lists nothing.
  try {
    apartment_ = std::make_shared<CWasapiApartment>(api);
  } catch (...) {
    return;
  }
  if (!apartment_->Ready()) return;
  if (apartment_->CreateEnumerator(&enumerator_) < 0 || enumerator_ == nullptr) {
    enumerator_ = nullptr;
    return;
  }
  if (apartment_->RegisterNotification(enumerator_, this, &notification_) < 0) {
    notification_ = nullptr;
  }
  try {
    Register();
  } catch (...) {
  }
}

CWasapiFamilyScope::~CWasapiFamilyScope() {
  if (enumerator_ != nullptr) {
    if (notification_ != nullptr) apartment_->UnregisterNotification(enumerator_, notification_);
    apartment_->ReleaseEnumerator(enumerator_);
  }
  try {
    NSFerrand::RemoveFamily(kWasapiFamilyWord);
  } catch (...) {
  }
  // An open driver keeps the thread until it closes.
  apartment_.reset();
}

void CWasapiFamilyScope::OnEndpointsChanged() { changed_.store(true); }

void CWasapiFamilyScope::OnDefaultEndpointChanged() { ++defaultGeneration; }

void CWasapiFamilyScope::RefreshIfChanged() {
  if (!changed_.exchange(false) || enumerator_ == nullptr) return;
  Register();
}

void CWasapiFamilyScope::Add(const SEndpoint& endpoint, EShareMode mode,
                             std::vector<CWideString>& alive) {
  CWasapiRegisteredSoundDriver* driver = nullptr;
  try {
    driver = new CWasapiRegisteredSoundDriver(apartment_, apartment_->System(), endpoint, mode);
    alive.push_back(WasapiKey(endpoint, mode));
    if (!NSFerrand::AddRegisteredDriver(driver)) delete driver;
  } catch (...) {
    delete driver;
  }
}

void CWasapiFamilyScope::Register() {
  std::vector<SEndpoint> endpoints;
  if (apartment_->ListRenderEndpoints(enumerator_, endpoints) < 0) endpoints.clear();
  std::vector<CWideString> alive;
  if (!endpoints.empty()) Add(DefaultOutputEndpoint(), kShareModeShared, alive);
  for (const SEndpoint& endpoint : endpoints) {
    for (EShareMode mode : {kShareModeShared, kShareModeExclusive}) Add(endpoint, mode, alive);
  }
  NSFerrand::RemoveFamilyDriversExcept(kWasapiFamilyWord, alive);
}

}  // namespace NSWasapi
