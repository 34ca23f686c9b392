#include "wasapi/wasapi_apartment.h"

#include <new>

#include "platform/clock.h"

namespace NSWasapi {

namespace {

// How often the thread looks for a request whose signal was lost.
constexpr uint32_t kRequestLookMs = 50;

}  // namespace

template <class Work>
HResult CWasapiApartment::Hop(const Work& work) {
  class CCall final : public CRequest {
   public:
    explicit CCall(const Work& work) : work_(work) {}
    void Run() override {
      try {
        result = work_();
      } catch (const std::bad_alloc&) {
        result = kHResultOutOfMemory;
      } catch (...) {
        result = kHResultFail;
      }
    }
    HResult result = kAudioServiceNotRunning;

   private:
    const Work& work_;
  };
  CCall call(work);
  if (!Submit(call)) return kAudioServiceNotRunning;
  return call.result;
}

template <class Work>
void CWasapiApartment::HopQuietly(const Work& work) {
  Hop([&] {
    work();
    return kHResultOk;
  });
}

CWasapiApartment::CWasapiApartment(IWasapiApi& system) : system_(system) {
  // Out of memory here leaves nothing made behind.
  try {
    request_ = NSPlatform::NewEvent(false, false);
    answer_ = NSPlatform::NewEvent(false, false);
    callers_ = NSPlatform::NewMutex(false);
    if (request_ == nullptr || answer_ == nullptr || callers_ == nullptr) return;
    thread_ = NSPlatform::StartThread(&Entry, this, 0);
  } catch (...) {
    FreeWaits();
    throw;
  }
  if (thread_ == nullptr) return;
  // The thread's first request brings COM up; a thread in another apartment
  // already (never ours) would still be usable.
  com_ = Hop([this] { return system_.CoInitialize(); });
  ready_ = com_ >= 0 || com_ == kComChangedMode;
}

CWasapiApartment::~CWasapiApartment() {
  if (thread_ != nullptr) {
    if (com_ >= 0) HopQuietly([this] { system_.CoUninitialize(); });
    quit_ = true;
    NSPlatform::SetEvent(request_);
    NSPlatform::JoinThread(thread_);
    NSPlatform::ReleaseThread(thread_);
  }
  FreeWaits();
}

void CWasapiApartment::FreeWaits() {
  NSPlatform::DestroyMutex(callers_);
  NSPlatform::DestroyEvent(request_);
  NSPlatform::DestroyEvent(answer_);
  callers_ = nullptr;
  request_ = nullptr;
  answer_ = nullptr;
}

bool CWasapiApartment::Submit(CRequest& request) {
  if (thread_ == nullptr) return false;
  const NSPlatform::EWaitResult taken = NSPlatform::WaitMutex(callers_, NSPlatform::kWaitInfinite);
  if (taken != NSPlatform::kWaitObject && taken != NSPlatform::kWaitAbandoned) return false;
  done_ = false;
  pending_.store(&request);
  // A signal the system refuses is made up for by the thread's own look.
  NSPlatform::SetEvent(request_);
  while (!done_.load()) {
    if (NSPlatform::WaitEvent(answer_, kRequestLookMs) == NSPlatform::kWaitFailed) {
      NSPlatform::SleepMilliseconds(1);
    }
  }
  NSPlatform::ReleaseMutex(callers_);
  return true;
}

void CWasapiApartment::Entry(void* self) { static_cast<CWasapiApartment*>(self)->Serve(); }

void CWasapiApartment::Serve() {
  for (;;) {
    CRequest* request = pending_.exchange(nullptr);
    if (request != nullptr) {
      request->Run();
      done_ = true;
      NSPlatform::SetEvent(answer_);
      continue;
    }
    if (quit_.load()) return;
    if (NSPlatform::WaitEvent(request_, kRequestLookMs) == NSPlatform::kWaitFailed) {
      NSPlatform::SleepMilliseconds(1);
    }
  }
}

HResult CWasapiApartment::CoInitialize() {
  return ready_ ? kHResultFalse : kAudioServiceNotRunning;
}

void CWasapiApartment::CoUninitialize() {}

HResult CWasapiApartment::CreateEnumerator(WEnumerator* enumerator) {
  return Hop([&] { return system_.CreateEnumerator(enumerator); });
}

void CWasapiApartment::ReleaseEnumerator(WEnumerator enumerator) {
  HopQuietly([&] { system_.ReleaseEnumerator(enumerator); });
}

HResult CWasapiApartment::ListRenderEndpoints(WEnumerator enumerator,
                                              std::vector<SEndpoint>& endpoints) {
  return Hop([&] { return system_.ListRenderEndpoints(enumerator, endpoints); });
}

HResult CWasapiApartment::GetDefaultRenderEndpoint(WEnumerator enumerator, std::u16string* id) {
  return Hop([&] { return system_.GetDefaultRenderEndpoint(enumerator, id); });
}

HResult CWasapiApartment::RegisterNotification(WEnumerator enumerator, IEndpointSink* sink,
                                               WNotification* notification) {
  return Hop([&] { return system_.RegisterNotification(enumerator, sink, notification); });
}

void CWasapiApartment::UnregisterNotification(WEnumerator enumerator, WNotification notification) {
  HopQuietly([&] { system_.UnregisterNotification(enumerator, notification); });
}

HResult CWasapiApartment::GetDeviceFormat(WEnumerator enumerator, const std::u16string& id,
                                          SWaveFormat* format) {
  return Hop([&] { return system_.GetDeviceFormat(enumerator, id, format); });
}

HResult CWasapiApartment::ActivateClient(WEnumerator enumerator, const std::u16string& id,
                                         WClient* client, bool* client3) {
  return Hop([&] { return system_.ActivateClient(enumerator, id, client, client3); });
}

void CWasapiApartment::ReleaseClient(WClient client) {
  HopQuietly([&] { system_.ReleaseClient(client); });
}

HResult CWasapiApartment::GetMixFormat(WClient client, SWaveFormat* format) {
  return Hop([&] { return system_.GetMixFormat(client, format); });
}

HResult CWasapiApartment::GetDevicePeriod(WClient client, int64_t* defaultPeriod,
                                          int64_t* minimumPeriod) {
  return Hop([&] { return system_.GetDevicePeriod(client, defaultPeriod, minimumPeriod); });
}

HResult CWasapiApartment::GetSharedModeEnginePeriod(WClient client, const SWaveFormat& format,
                                                    uint32_t* defaultFrames,
                                                    uint32_t* fundamentalFrames,
                                                    uint32_t* minimumFrames,
                                                    uint32_t* maximumFrames) {
  return Hop([&] {
    return system_.GetSharedModeEnginePeriod(client, format, defaultFrames, fundamentalFrames,
                                             minimumFrames, maximumFrames);
  });
}

HResult CWasapiApartment::GetCurrentSharedModeEnginePeriod(WClient client, uint32_t* frames) {
  return Hop([&] { return system_.GetCurrentSharedModeEnginePeriod(client, frames); });
}

HResult CWasapiApartment::InitializeSharedAudioStream(WClient client, uint32_t flags,
                                                      uint32_t periodFrames,
                                                      const SWaveFormat& format) {
  return Hop(
      [&] { return system_.InitializeSharedAudioStream(client, flags, periodFrames, format); });
}

HResult CWasapiApartment::IsFormatSupported(WClient client, EShareMode mode,
                                            const SWaveFormat& format) {
  return Hop([&] { return system_.IsFormatSupported(client, mode, format); });
}

HResult CWasapiApartment::Initialize(WClient client, EShareMode mode, uint32_t flags,
                                     int64_t duration, int64_t periodicity,
                                     const SWaveFormat& format) {
  return Hop(
      [&] { return system_.Initialize(client, mode, flags, duration, periodicity, format); });
}

HResult CWasapiApartment::GetBufferSize(WClient client, uint32_t* frames) {
  return Hop([&] { return system_.GetBufferSize(client, frames); });
}

HResult CWasapiApartment::GetStreamLatency(WClient client, int64_t* latency) {
  return Hop([&] { return system_.GetStreamLatency(client, latency); });
}

HResult CWasapiApartment::GetCurrentPadding(WClient client, uint32_t* frames) {
  return Hop([&] { return system_.GetCurrentPadding(client, frames); });
}

HResult CWasapiApartment::SetEventHandle(WClient client, WEvent event) {
  return Hop([&] { return system_.SetEventHandle(client, event); });
}

HResult CWasapiApartment::Start(WClient client) {
  return Hop([&] { return system_.Start(client); });
}

HResult CWasapiApartment::Stop(WClient client) {
  return Hop([&] { return system_.Stop(client); });
}

HResult CWasapiApartment::GetRenderClient(WClient client, WRender* render) {
  return Hop([&] { return system_.GetRenderClient(client, render); });
}

void CWasapiApartment::ReleaseRender(WRender render) {
  HopQuietly([&] { system_.ReleaseRender(render); });
}

HResult CWasapiApartment::GetBuffer(WRender render, uint32_t frames, uint8_t** data) {
  return Hop([&] { return system_.GetBuffer(render, frames, data); });
}

HResult CWasapiApartment::ReleaseBuffer(WRender render, uint32_t frames, uint32_t flags) {
  return Hop([&] { return system_.ReleaseBuffer(render, frames, flags); });
}

HResult CWasapiApartment::GetClock(WClient client, WClock* clock) {
  return Hop([&] { return system_.GetClock(client, clock); });
}

void CWasapiApartment::ReleaseClock(WClock clock) {
  HopQuietly([&] { system_.ReleaseClock(clock); });
}

HResult CWasapiApartment::GetClockFrequency(WClock clock, uint64_t* frequency) {
  return Hop([&] { return system_.GetClockFrequency(clock, frequency); });
}

HResult CWasapiApartment::GetClockPosition(WClock clock, uint64_t* position,
                                           uint64_t* systemTime) {
  return Hop([&] { return system_.GetClockPosition(clock, position, systemTime); });
}

WEvent CWasapiApartment::CreateEngineEvent() { return system_.CreateEngineEvent(); }

void CWasapiApartment::CloseEngineEvent(WEvent event) { system_.CloseEngineEvent(event); }

NSPlatform::EWaitResult CWasapiApartment::WaitEngineEvent(WEvent event, uint32_t milliseconds) {
  return system_.WaitEngineEvent(event, milliseconds);
}

}  // namespace NSWasapi
