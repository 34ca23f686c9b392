// CQuillonImpl: the library object behind IQuillon.
#ifndef QUILLON_PUBLIC_LIBRARY_H
#define QUILLON_PUBLIC_LIBRARY_H

#include <cstdint>

#include "asio/asio_family.h"
#include "directsound/dsound_family.h"
#include "driver/registry.h"
#include "mme/mme_family.h"
#include "public/boundary_object.h"
#include "public/timer_period_scope.h"
#include "public/zep_handler.h"
#include "wasapi/wasapi_family.h"
#include "quillon/quillon.h"

namespace NSQuillon2 {

class CQuillonImpl final : public TBoundaryObject<CQuillonImpl, IQuillon> {
 public:
  // Builds the object in its fixed order; a step that raises tears down what
  // was built and passes the failure on.
  explicit CQuillonImpl(const SLibraryParams* params);
  ~CQuillonImpl();
  CQuillonImpl(const CQuillonImpl&) = delete;
  CQuillonImpl& operator=(const CQuillonImpl&) = delete;

  uint32_t CheckLibrary() override;
  IVector<const IDriverSpec*>* GetDriverSpecs(uint32_t* status) override;
  IClient* CreateClient(IClientHost* host, IHardwareEventSink* context, const IDriverSpec* spec,
                        uint32_t* running, uint32_t* status) override;
  IClient* CreateClientWithSettings(IClientHost* host, IHardwareEventSink* context,
                                    const IDriverSpec* spec, const SClientSettings* settings,
                                    uint32_t* running, uint32_t* status) override;
  uint32_t SaveDriverSpec(const IDriverSpec* spec, IByteSink* sink, uint64_t* position) override;
  IDriverSpec* LoadDriverSpec(IByteSource* source, uint64_t* position, uint32_t* status) override;
  uint32_t IsValid() override { return 1; }

  // The registered driver a spec names: by key first, then by identity.
  // Empty, with the reason in `status`, when there is none.
  NSFerrand::CRegisteredDriverPtr ResolveDriverSpec(const IDriverSpec* spec, uint32_t* status);

  uint8_t DriversLoaded() const { return driversLoaded_; }
  bool HoldsRegistry() const { return registryRef_ != nullptr; }
  const CTimerPeriodScope* TimerPeriod() const { return timerPeriod_; }
  // Null unless the host asked for the hardware library and it connected.
  CZEPLibHandler* HardwareHandler() const { return hardwareHandler_; }
  // Lists the ASIO drivers again, by the devices connected now.
  void RescanASIO();
  // Registers the WASAPI endpoints again when the engine told of a change.
  void RefreshWasapi();

 private:
  void Teardown();
  // Counts a driver of the list unless it is the null driver of an object
  // whose families are not loaded.
  bool Listed(const NSFerrand::CRegisteredSoundDriverInfo& info) const;
  // 995 when the hardware handler already serves a client.
  bool HardwareBusy(uint32_t* status) const;
  IClient* NewClient(IClientHost* host, IHardwareEventSink* context, const IDriverSpec* spec,
                     const SClientSettings* settings, uint32_t* running, uint32_t* status);

  uint8_t driversLoaded_ = 0;
  // Created first and released last: the families register in it.
  NSFerrand::CRegistryRef* registryRef_ = nullptr;
  CZEPLibHandler* hardwareHandler_ = nullptr;
  CTimerPeriodScope* timerPeriod_ = nullptr;
  NSASIO::CASIOFamilyScope* asioFamily_ = nullptr;
  NSDirectSound::CDirectSoundFamilyScope* directSoundFamily_ = nullptr;
  NSMME::CMMEFamilyScope* mmeFamily_ = nullptr;
  NSWasapi::CWasapiFamilyScope* wasapiFamily_ = nullptr;
};

}  // namespace NSQuillon2

#endif
