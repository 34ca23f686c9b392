#include "public/library.h"

#include "driver/clock.h"
#include "failure/scope.h"
#include "public/body_storage.h"
#include "public/globals.h"
#include "public/client.h"
#include "public/client_settings.h"
#include "public/driver_spec.h"
#include "public/platform_provider.h"
#include "public/spec_io.h"
#include "public/status.h"
#include "public/vectors.h"
#include "text/wide_text.h"

namespace NSQuillon2 {

namespace {

constexpr uint32_t kTimerPeriodMs = 5;

}  // namespace

CQuillonImpl::CQuillonImpl(const SLibraryParams* params) {
  try {
    registryRef_ = new NSFerrand::CRegistryRef();
    NSFerrand::TimerStart();
    gCurrentLibrary = this;
    if (params != nullptr && params->windowHandle != nullptr) {
      gWindowHandle = params->windowHandle;
    }
    // A hardware library that was cut off in this process is never asked
    // again: this object works without one.
    if (params != nullptr && (params->flags & kLibraryFlagUseHardware) != 0 &&
        !NSZEPGlue::HardwareCutOff()) {
      try {
        hardwareHandler_ = new CZEPLibHandler(*PlatformProvider().hardware);
      } catch (const NSMarlet::XAlreadyExists&) {
        // One connection per process: this object works without one.
        hardwareHandler_ = nullptr;
      } catch (...) {
        // Cut off while it connected: likewise.
        if (!NSZEPGlue::HardwareCutOff()) throw;
        hardwareHandler_ = nullptr;
      }
    }
    driversLoaded_ = 1;
    timerPeriod_ = new CTimerPeriodScope(kTimerPeriodMs);
    // ASIO drivers and DirectSound's cooperative level take the host's
    // window: without one neither family exists.
    if (gWindowHandle != nullptr) {
      asioFamily_ = new NSASIO::CASIOFamilyScope(*PlatformProvider().asio,
                                                 hardwareHandler_ != nullptr, gWindowHandle);
      directSoundFamily_ =
          new NSDirectSound::CDirectSoundFamilyScope(*PlatformProvider().directSound, gWindowHandle);
    }
    // MME needs no window: it is there whether the host gave one or not.
    mmeFamily_ = new NSMME::CMMEFamilyScope(*PlatformProvider().waveOut);
    // The audio engine needs no window either.
    wasapiFamily_ = new NSWasapi::CWasapiFamilyScope(*PlatformProvider().wasapi);
  } catch (...) {
    Teardown();
    throw;
  }
}

CQuillonImpl::~CQuillonImpl() {
  {
    NSMarlet::COptionalFailureScope scope;
    Teardown();
  }
  ReleaseLibraryBodyStorage();
}

void CQuillonImpl::Teardown() {
  try {
    CZEPLibHandler* handler = hardwareHandler_;
    hardwareHandler_ = nullptr;
    delete handler;
    gCurrentLibrary = nullptr;
    delete asioFamily_;
    asioFamily_ = nullptr;
    delete directSoundFamily_;
    directSoundFamily_ = nullptr;
    delete wasapiFamily_;
    wasapiFamily_ = nullptr;
    delete mmeFamily_;
    mmeFamily_ = nullptr;
    delete timerPeriod_;
    timerPeriod_ = nullptr;
    driversLoaded_ = 0;
    gWindowHandle = nullptr;
    delete registryRef_;
    registryRef_ = nullptr;
  } catch (...) {
  }
}

uint32_t CQuillonImpl::CheckLibrary() {
  try {
    NSMarlet::CFailureScope scope;
    return kStatusOk;
  } catch (...) {
    return StatusFromCurrentFailure();
  }
}

bool CQuillonImpl::Listed(const NSFerrand::CRegisteredSoundDriverInfo& info) const {
  return driversLoaded_ != 0 || NSTextPackage::CompareTextExact(info.family, u"Off") !=
                                    NSTextPackage::kCompareEqual;
}

IVector<const IDriverSpec*>* CQuillonImpl::GetDriverSpecs(uint32_t* status) {
  if (IsValid() != 1) {
    Put(status, static_cast<uint32_t>(kStatusNotValid));
    return nullptr;
  }
  try {
    NSMarlet::CFailureScope scope;
    NSFerrand::CRegisteredDriverList drivers;
    NSFerrand::GetRegisteredDrivers(drivers);
    std::vector<CDriverSpecImpl> specs;
    for (const NSFerrand::CRegisteredDriverPtr& driver : drivers) {
      NSFerrand::CRegisteredSoundDriverInfo info;
      driver->GetInfo(info);
      if (!Listed(info)) continue;
      specs.emplace_back(info.key, MakeDriverSpecKey(info));
    }
    IVector<const IDriverSpec*>* list = new CDriverSpecVector(specs);
    Put(status, static_cast<uint32_t>(kStatusOk));
    return list;
  } catch (...) {
    Put(status, StatusFromCurrentFailure());
    return nullptr;
  }
}

NSFerrand::CRegisteredDriverPtr CQuillonImpl::ResolveDriverSpec(const IDriverSpec* spec,
                                                                uint32_t* status) {
  using NSTextPackage::CompareTextExact;
  using NSTextPackage::kCompareEqual;
  if (IsValid() != 1) {
    Put(status, static_cast<uint32_t>(kStatusNotValid));
    return NSFerrand::CRegisteredDriverPtr();
  }
  try {
    NSMarlet::CFailureScope scope;
    const CDriverSpecImpl* mine = CDriverSpecImpl::FromInterface(spec);
    if (mine == nullptr) {
      Put(status, static_cast<uint32_t>(kStatusInvalidArgument));
      return NSFerrand::CRegisteredDriverPtr();
    }
    SDriverSpecKey wanted;
    const uint32_t read = mine->GetKeyRecord(&wanted);
    if (read != kStatusOk) {
      Put(status, read);
      return NSFerrand::CRegisteredDriverPtr();
    }
    NSFerrand::CRegisteredDriverList drivers;
    NSFerrand::GetRegisteredDrivers(drivers);
    // First the very driver, by its key.
    for (const NSFerrand::CRegisteredDriverPtr& driver : drivers) {
      NSFerrand::CRegisteredSoundDriverInfo info;
      driver->GetInfo(info);
      if (Listed(info) && info.key == mine->Key()) {
        Put(status, static_cast<uint32_t>(kStatusOk));
        return driver;
      }
    }
    // Then one of the same identity under another key; an updated version
    // is still the same driver.
    for (const NSFerrand::CRegisteredDriverPtr& driver : drivers) {
      NSFerrand::CRegisteredSoundDriverInfo info;
      driver->GetInfo(info);
      if (!Listed(info)) continue;
      const SDriverSpecKey record = MakeDriverSpecKey(info);
      if (CompareTextExact(RecordText(record.family), RecordText(wanted.family)) ==
              kCompareEqual &&
          CompareTextExact(RecordText(record.name), RecordText(wanted.name)) == kCompareEqual &&
          CompareTextExact(RecordText(record.manufacturer), RecordText(wanted.manufacturer)) ==
              kCompareEqual &&
          record.flags[0] == wanted.flags[0] && record.flags[1] == wanted.flags[1]) {
        Put(status, static_cast<uint32_t>(kStatusOk));
        return driver;
      }
    }
    Put(status, static_cast<uint32_t>(kStatusDriverNotFound));
    return NSFerrand::CRegisteredDriverPtr();
  } catch (...) {
    Put(status, StatusFromCurrentFailure());
    return NSFerrand::CRegisteredDriverPtr();
  }
}

void CQuillonImpl::RefreshWasapi() {
  if (wasapiFamily_ != nullptr) wasapiFamily_->RefreshIfChanged();
}

void CQuillonImpl::RescanASIO() {
  if (asioFamily_ != nullptr) NSASIO::CASIOFamilyScope::RefreshRegistration();
}

bool CQuillonImpl::HardwareBusy(uint32_t* status) const {
  // The handler has room for one current device, so for one client.
  if (hardwareHandler_ == nullptr || gClientCount <= 0) return false;
  Put(status, static_cast<uint32_t>(kStatusIllegalCall));
  return true;
}

IClient* CQuillonImpl::NewClient(IClientHost* host, IHardwareEventSink* context,
                                 const IDriverSpec* spec, const SClientSettings* settings,
                                 uint32_t* running, uint32_t* status) {
  const NSFerrand::CRegisteredDriverPtr driver = ResolveDriverSpec(spec, status);
  if (!driver) return nullptr;
  const NSFerrand::CSoundDriverSettings wanted =
      settings != nullptr ? MakeDriverSettings(*settings) : NSFerrand::CSoundDriverSettings();
  CQuillonClient* client =
      new CQuillonClient(this, host, driver, settings != nullptr ? &wanted : nullptr);
  if (client->Handle().IsDriverLost()) {
    Put(running, 0u);
  } else {
    Put(running, 1u);
    if (hardwareHandler_ != nullptr) {
      try {
        hardwareHandler_->SetButtonContext(context);
      } catch (...) {
        delete client;
        throw;
      }
    }
  }
  Put(status, static_cast<uint32_t>(kStatusOk));
  return client;
}

IClient* CQuillonImpl::CreateClient(IClientHost* host, IHardwareEventSink* context,
                                    const IDriverSpec* spec,
                                    uint32_t* running, uint32_t* status) {
  try {
    NSMarlet::CFailureScope scope;
    Put(status, static_cast<uint32_t>(kStatusRuntimeError));
    if (IsValid() != 1) {
      Put(status, static_cast<uint32_t>(kStatusNotValid));
      return nullptr;
    }
    if (host == nullptr) {
      Put(status, static_cast<uint32_t>(kStatusInvalidArgument));
      return nullptr;
    }
    if (HardwareBusy(status)) return nullptr;
    return NewClient(host, context, spec, nullptr, running, status);
  } catch (...) {
    Put(status, StatusFromCurrentFailure());
    return nullptr;
  }
}

IClient* CQuillonImpl::CreateClientWithSettings(IClientHost* host, IHardwareEventSink* context,
                                                const IDriverSpec* spec,
                                                const SClientSettings* settings,
                                                uint32_t* running, uint32_t* status) {
  if (IsValid() != 1) {
    Put(status, static_cast<uint32_t>(kStatusNotValid));
    return nullptr;
  }
  if (host == nullptr) {
    Put(status, static_cast<uint32_t>(kStatusInvalidArgument));
    return nullptr;
  }
  if (HardwareBusy(status)) return nullptr;
  if (settings == nullptr || !IsSoundRecord(*settings)) {
    Put(status, static_cast<uint32_t>(kStatusInvalidArgument));
    return nullptr;
  }
  try {
    NSMarlet::CFailureScope scope;
    Put(status, static_cast<uint32_t>(kStatusRuntimeError));
    return NewClient(host, context, spec, settings, running, status);
  } catch (...) {
    Put(status, StatusFromCurrentFailure());
    return nullptr;
  }
}

uint32_t CQuillonImpl::SaveDriverSpec(const IDriverSpec* spec, IByteSink* sink,
                                      uint64_t* position) {
  if (IsValid() != 1) return kStatusNotValid;
  const CDriverSpecImpl* mine = CDriverSpecImpl::FromInterface(spec);
  if (mine == nullptr || sink == nullptr || position == nullptr) return kStatusInvalidArgument;
  try {
    NSMarlet::CFailureScope scope;
    SDriverSpecKey record;
    const uint32_t read = mine->GetKeyRecord(&record);
    if (read != kStatusOk) ThrowFromStatus(read);
    WriteDriverSpec(*mine, *sink, *position);
    return kStatusOk;
  } catch (...) {
    return StatusFromCurrentFailure();
  }
}

IDriverSpec* CQuillonImpl::LoadDriverSpec(IByteSource* source, uint64_t* position,
                                          uint32_t* status) {
  if (IsValid() != 1) {
    Put(status, static_cast<uint32_t>(kStatusNotValid));
    return nullptr;
  }
  if (source == nullptr || position == nullptr) {
    Put(status, static_cast<uint32_t>(kStatusInvalidArgument));
    return nullptr;
  }
  try {
    NSMarlet::CFailureScope scope;
    IDriverSpec* spec = ReadDriverSpec(*source, *position);
    Put(status, static_cast<uint32_t>(kStatusOk));
    return spec;
  } catch (...) {
    Put(status, StatusFromCurrentFailure());
    return nullptr;
  }
}

}  // namespace NSQuillon2
