// The family's own COM thread. Every control call into the audio engine runs
// there, in the multithreaded apartment that thread brings up for itself, so
// that no thread of the host ever has its COM initialised, changed or
// uninitialised by the library. The engine's objects are free-threaded: the
// stream thread, which is the library's own, uses them directly.
#ifndef QUILLON_WASAPI_WASAPI_APARTMENT_H
#define QUILLON_WASAPI_WASAPI_APARTMENT_H

#include <atomic>
#include <memory>

#include "platform/mutex.h"
#include "platform/threads.h"
#include "wasapi/wasapi_api.h"

namespace NSWasapi {

class CWasapiApartment final : public IWasapiApi {
 public:
  // Starts the thread, which initialises COM; Ready() tells whether it did.
  explicit CWasapiApartment(IWasapiApi& system);
  // The thread uninitialises COM and ends.
  ~CWasapiApartment() override;
  CWasapiApartment(const CWasapiApartment&) = delete;
  CWasapiApartment& operator=(const CWasapiApartment&) = delete;

  bool Ready() const { return ready_; }
  // The engine's operations as they are, for the stream thread.
  IWasapiApi& System() const { return system_; }

  // COM is the thread's: up while the apartment lives, never the caller's.
  HResult CoInitialize() override;
  void CoUninitialize() override;

  HResult CreateEnumerator(WEnumerator* enumerator) override;
  void ReleaseEnumerator(WEnumerator enumerator) override;
  HResult ListRenderEndpoints(WEnumerator enumerator, std::vector<SEndpoint>& endpoints) override;
  HResult GetDefaultRenderEndpoint(WEnumerator enumerator, std::u16string* id) override;
  HResult RegisterNotification(WEnumerator enumerator, IEndpointSink* sink,
                               WNotification* notification) override;
  void UnregisterNotification(WEnumerator enumerator, WNotification notification) override;
  HResult GetDeviceFormat(WEnumerator enumerator, const std::u16string& id,
                          SWaveFormat* format) override;
  HResult ActivateClient(WEnumerator enumerator, const std::u16string& id, WClient* client,
                         bool* client3) override;
  void ReleaseClient(WClient client) override;
  HResult GetMixFormat(WClient client, SWaveFormat* format) override;
  HResult GetDevicePeriod(WClient client, int64_t* defaultPeriod, int64_t* minimumPeriod) override;
  HResult GetSharedModeEnginePeriod(WClient client, const SWaveFormat& format,
                                    uint32_t* defaultFrames, uint32_t* fundamentalFrames,
                                    uint32_t* minimumFrames, uint32_t* maximumFrames) override;
  HResult GetCurrentSharedModeEnginePeriod(WClient client, uint32_t* frames) override;
  HResult InitializeSharedAudioStream(WClient client, uint32_t flags, uint32_t periodFrames,
                                      const SWaveFormat& format) override;
  HResult IsFormatSupported(WClient client, EShareMode mode, const SWaveFormat& format) override;
  HResult Initialize(WClient client, EShareMode mode, uint32_t flags, int64_t duration,
                     int64_t periodicity, const SWaveFormat& format) override;
  HResult GetBufferSize(WClient client, uint32_t* frames) override;
  HResult GetStreamLatency(WClient client, int64_t* latency) override;
  HResult GetCurrentPadding(WClient client, uint32_t* frames) override;
  HResult SetEventHandle(WClient client, WEvent event) override;
  HResult Start(WClient client) override;
  HResult Stop(WClient client) override;
  HResult GetRenderClient(WClient client, WRender* render) override;
  void ReleaseRender(WRender render) override;
  HResult GetBuffer(WRender render, uint32_t frames, uint8_t** data) override;
  HResult ReleaseBuffer(WRender render, uint32_t frames, uint32_t flags) override;
  HResult GetClock(WClient client, WClock* clock) override;
  void ReleaseClock(WClock clock) override;
  HResult GetClockFrequency(WClock clock, uint64_t* frequency) override;
  HResult GetClockPosition(WClock clock, uint64_t* position, uint64_t* systemTime) override;
  // Events are no COM: made, closed and waited for where they are asked.
  WEvent CreateEngineEvent() override;
  void CloseEngineEvent(WEvent event) override;
  NSPlatform::EWaitResult WaitEngineEvent(WEvent event, uint32_t milliseconds) override;

 private:
  class CRequest {
   public:
    virtual void Run() = 0;

   protected:
    ~CRequest() = default;
  };
  template <class Work>
  HResult Hop(const Work& work);
  template <class Work>
  void HopQuietly(const Work& work);
  // Runs the request on the thread and waits for it; false when the thread
  // is not there.
  bool Submit(CRequest& request);
  void FreeWaits();
  static void Entry(void* self);
  void Serve();

  IWasapiApi& system_;
  NSPlatform::SThread* thread_ = nullptr;
  NSPlatform::SEvent* request_ = nullptr;
  NSPlatform::SEvent* answer_ = nullptr;
  NSPlatform::SMutex* callers_ = nullptr;
  std::atomic<CRequest*> pending_{nullptr};
  std::atomic<bool> done_{false};
  std::atomic<bool> quit_{false};
  HResult com_ = kAudioServiceNotRunning;
  bool ready_ = false;
};

}  // namespace NSWasapi

#endif
