#include "public/library.h"

#include "driver/clock.h"
#include "failure/scope.h"
#include "public/body_storage.h"
#include "public/globals.h"
#include "public/status.h"

namespace NSQuillon2 {

namespace {

constexpr uint32_t kTimerPeriodMs = 5;

// What an operation answers before the part of the library behind it exists.
template <class T>
T* NotBuiltYet(uint32_t* status) {
  Put(status, static_cast<uint32_t>(kStatusLogicError));
  return nullptr;
}

}  // namespace

CQuillonImpl::CQuillonImpl(const SLibraryParams* params) {
  try {
    registryRef_ = new NSFerrand::CRegistryRef();
    NSFerrand::TimerStart();
    gCurrentLibrary = this;
    if (params != nullptr && params->windowHandle != nullptr) {
      gWindowHandle = params->windowHandle;
    }
    driversLoaded_ = 1;
    timerPeriod_ = new CTimerPeriodScope(kTimerPeriodMs);
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
    gCurrentLibrary = nullptr;
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

IVector<const IDriverSpec*>* CQuillonImpl::GetDriverSpecs(uint32_t* status) {
  return NotBuiltYet<IVector<const IDriverSpec*>>(status);
}

IClient* CQuillonImpl::CreateClient(IClientHost*, IHardwareEventSink*, const IDriverSpec*,
                                    uint32_t*, uint32_t* status) {
  return NotBuiltYet<IClient>(status);
}

IClient* CQuillonImpl::CreateClientWithSettings(IClientHost*, IHardwareEventSink*,
                                                const IDriverSpec*, const SClientSettings*,
                                                uint32_t*, uint32_t* status) {
  return NotBuiltYet<IClient>(status);
}

uint32_t CQuillonImpl::SaveDriverSpec(const IDriverSpec*, IByteSink*, uint64_t*) {
  return kStatusLogicError;
}

IDriverSpec* CQuillonImpl::LoadDriverSpec(IByteSource*, uint64_t*, uint32_t* status) {
  return NotBuiltYet<IDriverSpec>(status);
}

}  // namespace NSQuillon2
