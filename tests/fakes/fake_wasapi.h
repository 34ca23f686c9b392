// A fake of the audio engine: render endpoints with ids, names, mix formats
// and periods, the formats an endpoint takes exclusively and the alignment
// it demands, a padding that drains at real-time pace or as a test sets
// it, an endpoint that is removed, notifications from a thread of its own,
// and any result on any call.
#ifndef QUILLON_TESTS_FAKES_FAKE_WASAPI_H
#define QUILLON_TESTS_FAKES_FAKE_WASAPI_H

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fakes/failure_plan.h"
#include "wasapi/wasapi_api.h"

namespace Fakes {

enum EWasapiCall : uint32_t {
  kWasCoInitialize,
  kWasCreateEnumerator,
  kWasList,
  kWasDefaultEndpoint,
  kWasRegister,
  kWasDeviceFormat,
  kWasActivate,
  kWasMixFormat,
  kWasDevicePeriod,
  kWasEnginePeriod,
  kWasCurrentEnginePeriod,
  kWasInitializeShared3,
  kWasIsFormatSupported,
  kWasInitialize,
  kWasBufferSize,
  kWasStreamLatency,
  kWasPadding,
  kWasSetEvent,
  kWasStart,
  kWasStop,
  kWasRenderClient,
  kWasGetBuffer,
  kWasReleaseBuffer,
  kWasClock,
  kWasClockPosition,
  kWasClockFrequency,
  kWasCreateEvent,
  kWasWaitEvent,
  kWasCallCount
};

struct SFakeEndpoint {
  std::u16string id = u"{0.0.0.00000000}.{fake-endpoint-1}";
  std::u16string name = u"Fake Speakers";
  NSWasapi::SWaveFormat mix = NSWasapi::StereoFormat(48000, NSWasapi::kSampleFloat32);
  bool client3 = true;
  // The shared engine's periods, in frames.
  uint32_t defaultFrames = 480;
  uint32_t fundamentalFrames = 32;
  uint32_t minimumFrames = 128;
  uint32_t maximumFrames = 480;
  // The device periods, in 100 ns.
  int64_t defaultPeriod = 100000;
  int64_t minimumPeriod = 30000;
  // The device's own format, told where `tellsDeviceFormat`, taken
  // exclusively as it is; the channels of every other exclusive format.
  bool tellsDeviceFormat = false;
  NSWasapi::SWaveFormat deviceFormat = NSWasapi::StereoFormat(48000, NSWasapi::kSampleInt24In32);
  uint16_t deviceChannels = 2;
  // Exclusive: the formats taken, as rate and sample format.
  std::set<std::pair<uint32_t, NSWasapi::ESampleFormat>> exclusive = {
      {48000, NSWasapi::kSampleInt24In32}, {96000, NSWasapi::kSampleInt24In32},
      {44100, NSWasapi::kSampleInt16}};
  // Another application holds the shared engine at this period (0: none).
  uint32_t lockedFrames = 0;
  // Exclusive periods must be a multiple of this many frames (0: any).
  uint32_t alignment = 0;
  // So many aligned periods are refused as well, each time with the next
  // multiple up, as a device that demands more than it first told.
  uint32_t misalignedTries = 0;
  // Another application holds it exclusively.
  bool inUse = false;
};

// One stream that was initialised, as the engine sees it.
struct SFakeStream {
  std::u16string id;
  NSWasapi::EShareMode mode = NSWasapi::kShareModeShared;
  NSWasapi::SWaveFormat format;
  uint32_t bufferFrames = 0;
  uint32_t periodFrames = 0;
  bool initialisedBy3 = false;
  int64_t duration = 0;
  int64_t periodicity = 0;
  uint32_t flags = 0;
};

class CFakeWasapi : public NSWasapi::IWasapiApi {
 public:
  CFakeWasapi();
  ~CFakeWasapi() override;

  std::vector<SFakeEndpoint> endpoints;
  bool engine = true;  // false: COM cannot start
  // The padding drains at the rate of the stream, or stands still.
  std::atomic<bool> realTime{true};
  // Fires the engine's event every period while a stream runs.
  std::atomic<bool> ticking{true};
  // When not negative: every GetCurrentPadding answers this, as an engine
  // that plays exactly what was written beyond it.
  std::atomic<int64_t> fixedPadding{-1};
  // When not 0: the system time every clock position is taken at, in 100 ns.
  std::atomic<uint64_t> clockTime{0};

  void Fail(EWasapiCall call, NSWasapi::HResult result, int32_t times = -1) {
    plan_.Fail(call, result, times);
  }
  uint64_t Calls(EWasapiCall call) const { return calls_[call].load(); }
  // Tells the family's sink from a thread of the fake's own.
  void NotifyFromAnotherThread();
  // The system's default endpoint becomes another, and the sink is told from
  // a thread of the fake's own. Until then the first endpoint not removed is
  // the default.
  void SetDefault(const std::u16string& id);
  // The stream of the newest client; what it was initialised with.
  SFakeStream LastStream();
  // Sets the padding the next GetCurrentPadding calls of the calling thread
  // answer, in order; a stream thread's probes meanwhile are answered as
  // the engine stands.
  void QueuePaddings(const std::vector<uint32_t>& paddings);
  // The frames asked for by each GetBuffer, in order.
  std::vector<uint32_t> Blocks();
  // The bytes of the newest released buffer; of all released, the first
  // few megabytes.
  std::vector<uint8_t> LastBytes();
  std::vector<uint8_t> AllBytes();
  // The endpoint goes: every call on its clients answers "invalidated".
  void Remove(const std::u16string& id);
  int32_t LiveClients() const { return liveClients_.load(); }
  int32_t ComBalance() const { return comBalance_.load(); }
  uint64_t FramesReleased() const { return framesReleased_.load(); }
  // Whether any call but those of a stream's own thread (padding, buffers,
  // clock position, events) was made on that thread.
  bool CalledOn(std::thread::id thread);
  // Forgets the threads seen: long runs measure their memory.
  void ForgetThreads();
  // Events fired while a stream ran.
  uint64_t EventsFired() const { return eventsFired_.load(); }

  NSWasapi::HResult CoInitialize() override;
  void CoUninitialize() override;
  NSWasapi::HResult CreateEnumerator(NSWasapi::WEnumerator* enumerator) override;
  void ReleaseEnumerator(NSWasapi::WEnumerator enumerator) override;
  NSWasapi::HResult ListRenderEndpoints(NSWasapi::WEnumerator enumerator,
                                        std::vector<NSWasapi::SEndpoint>& list) override;
  NSWasapi::HResult GetDefaultRenderEndpoint(NSWasapi::WEnumerator enumerator,
                                             std::u16string* id) override;
  NSWasapi::HResult RegisterNotification(NSWasapi::WEnumerator enumerator,
                                         NSWasapi::IEndpointSink* sink,
                                         NSWasapi::WNotification* notification) override;
  void UnregisterNotification(NSWasapi::WEnumerator enumerator,
                              NSWasapi::WNotification notification) override;
  NSWasapi::HResult GetDeviceFormat(NSWasapi::WEnumerator enumerator, const std::u16string& id,
                                    NSWasapi::SWaveFormat* format) override;
  NSWasapi::HResult ActivateClient(NSWasapi::WEnumerator enumerator, const std::u16string& id,
                                   NSWasapi::WClient* client, bool* client3) override;
  void ReleaseClient(NSWasapi::WClient client) override;
  NSWasapi::HResult GetMixFormat(NSWasapi::WClient client, NSWasapi::SWaveFormat* format) override;
  NSWasapi::HResult GetDevicePeriod(NSWasapi::WClient client, int64_t* defaultPeriod,
                                    int64_t* minimumPeriod) override;
  NSWasapi::HResult GetSharedModeEnginePeriod(NSWasapi::WClient client,
                                              const NSWasapi::SWaveFormat& format,
                                              uint32_t* defaultFrames, uint32_t* fundamentalFrames,
                                              uint32_t* minimumFrames,
                                              uint32_t* maximumFrames) override;
  NSWasapi::HResult GetCurrentSharedModeEnginePeriod(NSWasapi::WClient client,
                                                     uint32_t* frames) override;
  NSWasapi::HResult InitializeSharedAudioStream(NSWasapi::WClient client, uint32_t flags,
                                                uint32_t periodFrames,
                                                const NSWasapi::SWaveFormat& format) override;
  NSWasapi::HResult IsFormatSupported(NSWasapi::WClient client, NSWasapi::EShareMode mode,
                                      const NSWasapi::SWaveFormat& format) override;
  NSWasapi::HResult Initialize(NSWasapi::WClient client, NSWasapi::EShareMode mode, uint32_t flags,
                               int64_t duration, int64_t periodicity,
                               const NSWasapi::SWaveFormat& format) override;
  NSWasapi::HResult GetBufferSize(NSWasapi::WClient client, uint32_t* frames) override;
  NSWasapi::HResult GetStreamLatency(NSWasapi::WClient client, int64_t* latency) override;
  NSWasapi::HResult GetCurrentPadding(NSWasapi::WClient client, uint32_t* frames) override;
  NSWasapi::HResult SetEventHandle(NSWasapi::WClient client, NSWasapi::WEvent event) override;
  NSWasapi::HResult Start(NSWasapi::WClient client) override;
  NSWasapi::HResult Stop(NSWasapi::WClient client) override;
  NSWasapi::HResult GetRenderClient(NSWasapi::WClient client, NSWasapi::WRender* render) override;
  void ReleaseRender(NSWasapi::WRender render) override;
  NSWasapi::HResult GetBuffer(NSWasapi::WRender render, uint32_t frames, uint8_t** data) override;
  NSWasapi::HResult ReleaseBuffer(NSWasapi::WRender render, uint32_t frames,
                                  uint32_t flags) override;
  NSWasapi::HResult GetClock(NSWasapi::WClient client, NSWasapi::WClock* clock) override;
  void ReleaseClock(NSWasapi::WClock clock) override;
  NSWasapi::HResult GetClockFrequency(NSWasapi::WClock clock, uint64_t* frequency) override;
  NSWasapi::HResult GetClockPosition(NSWasapi::WClock clock, uint64_t* position,
                                     uint64_t* systemTime) override;
  NSWasapi::WEvent CreateEngineEvent() override;
  void CloseEngineEvent(NSWasapi::WEvent event) override;
  NSPlatform::EWaitResult WaitEngineEvent(NSWasapi::WEvent event, uint32_t milliseconds) override;

  struct SClient;

 private:
  bool Failing(EWasapiCall call, NSWasapi::HResult& result);
  static bool TakesExclusively(const SFakeEndpoint& endpoint, const NSWasapi::SWaveFormat& format);
  SFakeEndpoint* Find(const std::u16string& id);
  // Frames still queued at this moment.
  uint32_t PaddingNow(SClient& client);

  CFailurePlan plan_;
  std::atomic<uint64_t> calls_[kWasCallCount] = {};
  std::mutex lock_;
  NSWasapi::IEndpointSink* sink_ = nullptr;
  std::set<std::u16string> removed_;
  std::u16string defaultId_;
  std::deque<uint32_t> paddings_;
  std::thread::id paddingsThread_;
  std::vector<uint32_t> blocks_;
  std::vector<uint8_t> lastBytes_;
  std::vector<uint8_t> allBytes_;
  std::vector<uint8_t> buffer_;
  SFakeStream lastStream_;
  SClient* running_ = nullptr;
  std::atomic<int32_t> liveClients_{0};
  std::atomic<int32_t> comBalance_{0};
  std::atomic<uint64_t> framesReleased_{0};
  std::atomic<uint64_t> eventsFired_{0};
  // The next event of the running stream, on the steady clock, in 100 ns.
  int64_t nextEvent_ = 0;
  std::vector<std::thread> notifiers_;
  std::mutex threadsLock_;
  std::set<std::thread::id> threads_;
};

// An engine that is not there: for tests of other families, so that the
// system's endpoints never join their lists.
class CNoWasapi final : public CFakeWasapi {
 public:
  CNoWasapi() {
    engine = false;
    endpoints.clear();
  }
};

}  // namespace Fakes

#endif
