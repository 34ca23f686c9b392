#include "fakes/fake_wasapi.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace Fakes {

using namespace NSWasapi;

namespace {

constexpr HResult kAlreadyInitialised = static_cast<HResult>(0x88890002u);
constexpr HResult kBufferTooLarge = static_cast<HResult>(0x88890006u);
constexpr HResult kInvalidArgument = static_cast<HResult>(0x80070057u);
constexpr size_t kRecordedBlocks = 1 << 16;
constexpr size_t kBufferBytes = 1 << 20;
constexpr size_t kRecordedBytes = 8 << 20;

int64_t NowHundredNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
             .count() /
         100;
}

uint32_t Frames(int64_t duration, uint32_t rate) {
  return static_cast<uint32_t>((duration * rate + kHundredNsPerSecond / 2) / kHundredNsPerSecond);
}

bool SameFormat(const SWaveFormat& a, const SWaveFormat& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

}  // namespace

struct CFakeWasapi::SClient {
  std::u16string id;
  bool client3 = false;
  bool initialised = false;
  uint32_t alignedFrames = 0;
  SFakeStream stream;
  bool running = false;
  int64_t startedAt = 0;
  uint64_t written = 0;
  uint64_t playedBase = 0;
  WEvent event = nullptr;
};

CFakeWasapi::CFakeWasapi() {
  endpoints.push_back(SFakeEndpoint());
  blocks_.reserve(kRecordedBlocks);
  lastBytes_.reserve(kBufferBytes);
  allBytes_.reserve(kRecordedBytes);
  buffer_.reserve(kBufferBytes);
}

CFakeWasapi::~CFakeWasapi() {
  for (std::thread& notifier : notifiers_) notifier.join();
}

bool CFakeWasapi::CalledOn(std::thread::id thread) {
  std::lock_guard<std::mutex> hold(threadsLock_);
  return threads_.count(thread) != 0;
}

void CFakeWasapi::ForgetThreads() {
  std::lock_guard<std::mutex> hold(threadsLock_);
  std::set<std::thread::id>().swap(threads_);
}

bool CFakeWasapi::Failing(EWasapiCall call, HResult& result) {
  ++calls_[call];
  switch (call) {
    case kWasPadding:
    case kWasGetBuffer:
    case kWasReleaseBuffer:
    case kWasClockPosition:
    case kWasCreateEvent:
    case kWasWaitEvent:
      break;
    default: {
      std::lock_guard<std::mutex> hold(threadsLock_);
      threads_.insert(std::this_thread::get_id());
    }
  }
  return plan_.Take(call, result);
}

SFakeEndpoint* CFakeWasapi::Find(const std::u16string& id) {
  if (removed_.count(id) != 0) return nullptr;
  for (SFakeEndpoint& endpoint : endpoints) {
    if (endpoint.id == id) return &endpoint;
  }
  return nullptr;
}

void CFakeWasapi::NotifyFromAnotherThread() {
  IEndpointSink* sink = nullptr;
  {
    std::lock_guard<std::mutex> hold(lock_);
    sink = sink_;
  }
  if (sink == nullptr) return;
  std::thread notifier([sink] { sink->OnEndpointsChanged(); });
  notifier.join();
}

void CFakeWasapi::SetDefault(const std::u16string& id) {
  IEndpointSink* sink = nullptr;
  {
    std::lock_guard<std::mutex> hold(lock_);
    defaultId_ = id;
    sink = sink_;
  }
  if (sink == nullptr) return;
  std::thread notifier([sink] { sink->OnDefaultEndpointChanged(); });
  notifier.join();
}

HResult CFakeWasapi::GetDefaultRenderEndpoint(WEnumerator, std::u16string* id) {
  id->clear();
  HResult result = kHResultOk;
  if (Failing(kWasDefaultEndpoint, result)) return result;
  std::lock_guard<std::mutex> hold(lock_);
  if (!defaultId_.empty()) {
    if (Find(defaultId_) == nullptr) return kHResultNotFound;
    *id = defaultId_;
    return kHResultOk;
  }
  for (const SFakeEndpoint& endpoint : endpoints) {
    if (removed_.count(endpoint.id) == 0) {
      *id = endpoint.id;
      return kHResultOk;
    }
  }
  return kHResultNotFound;
}

SFakeStream CFakeWasapi::LastStream() {
  std::lock_guard<std::mutex> hold(lock_);
  return lastStream_;
}

void CFakeWasapi::QueuePaddings(const std::vector<uint32_t>& paddings) {
  std::lock_guard<std::mutex> hold(lock_);
  paddings_.assign(paddings.begin(), paddings.end());
  paddingsThread_ = std::this_thread::get_id();
}

std::vector<uint32_t> CFakeWasapi::Blocks() {
  std::lock_guard<std::mutex> hold(lock_);
  return blocks_;
}

std::vector<uint8_t> CFakeWasapi::LastBytes() {
  std::lock_guard<std::mutex> hold(lock_);
  return lastBytes_;
}

std::vector<uint8_t> CFakeWasapi::AllBytes() {
  std::lock_guard<std::mutex> hold(lock_);
  return allBytes_;
}

void CFakeWasapi::Remove(const std::u16string& id) {
  std::lock_guard<std::mutex> hold(lock_);
  removed_.insert(id);
}

HResult CFakeWasapi::CoInitialize() {
  HResult result = kHResultOk;
  if (Failing(kWasCoInitialize, result)) return result;
  if (!engine) return kAudioServiceNotRunning;
  ++comBalance_;
  return kHResultOk;
}

void CFakeWasapi::CoUninitialize() { --comBalance_; }

HResult CFakeWasapi::CreateEnumerator(WEnumerator* enumerator) {
  HResult result = kHResultOk;
  *enumerator = nullptr;
  if (Failing(kWasCreateEnumerator, result)) return result;
  *enumerator = this;
  return kHResultOk;
}

void CFakeWasapi::ReleaseEnumerator(WEnumerator) {}

HResult CFakeWasapi::ListRenderEndpoints(WEnumerator, std::vector<SEndpoint>& list) {
  list.clear();
  HResult result = kHResultOk;
  if (Failing(kWasList, result)) return result;
  std::lock_guard<std::mutex> hold(lock_);
  for (const SFakeEndpoint& endpoint : endpoints) {
    if (removed_.count(endpoint.id) == 0) list.push_back({endpoint.id, endpoint.name});
  }
  return kHResultOk;
}

HResult CFakeWasapi::RegisterNotification(WEnumerator, IEndpointSink* sink,
                                          WNotification* notification) {
  HResult result = kHResultOk;
  *notification = nullptr;
  if (Failing(kWasRegister, result)) return result;
  std::lock_guard<std::mutex> hold(lock_);
  sink_ = sink;
  *notification = sink;
  return kHResultOk;
}

void CFakeWasapi::UnregisterNotification(WEnumerator, WNotification) {
  std::lock_guard<std::mutex> hold(lock_);
  sink_ = nullptr;
}

HResult CFakeWasapi::ActivateClient(WEnumerator, const std::u16string& id, WClient* client,
                                    bool* client3) {
  *client = nullptr;
  *client3 = false;
  HResult result = kHResultOk;
  if (Failing(kWasActivate, result)) return result;
  std::lock_guard<std::mutex> hold(lock_);
  SFakeEndpoint* endpoint = Find(id);
  if (endpoint == nullptr) return kHResultNotFound;
  SClient* made = new SClient;
  made->id = id;
  made->client3 = endpoint->client3;
  *client3 = endpoint->client3;
  *client = made;
  ++liveClients_;
  return kHResultOk;
}

void CFakeWasapi::ReleaseClient(WClient client) {
  std::lock_guard<std::mutex> hold(lock_);
  SClient* held = static_cast<SClient*>(client);
  if (running_ == held) running_ = nullptr;
  delete held;
  --liveClients_;
}

// Every call on a client checks its endpoint first.
#define FAKE_CLIENT_CALL(call)                                   \
  HResult result = kHResultOk;                                   \
  if (Failing(call, result)) return result;                      \
  std::lock_guard<std::mutex> hold(lock_);                       \
  SClient& c = *static_cast<SClient*>(client);                   \
  SFakeEndpoint* endpoint = Find(c.id);                          \
  if (endpoint == nullptr) return kAudioDeviceInvalidated;

HResult CFakeWasapi::GetMixFormat(WClient client, SWaveFormat* format) {
  FAKE_CLIENT_CALL(kWasMixFormat)
  (void)c;
  *format = endpoint->mix;
  return kHResultOk;
}

HResult CFakeWasapi::GetDevicePeriod(WClient client, int64_t* defaultPeriod,
                                     int64_t* minimumPeriod) {
  FAKE_CLIENT_CALL(kWasDevicePeriod)
  (void)c;
  *defaultPeriod = endpoint->defaultPeriod;
  *minimumPeriod = endpoint->minimumPeriod;
  return kHResultOk;
}

HResult CFakeWasapi::GetSharedModeEnginePeriod(WClient client, const SWaveFormat&,
                                               uint32_t* defaultFrames,
                                               uint32_t* fundamentalFrames,
                                               uint32_t* minimumFrames,
                                               uint32_t* maximumFrames) {
  FAKE_CLIENT_CALL(kWasEnginePeriod)
  if (!c.client3) return kHResultNoInterface;
  *defaultFrames = endpoint->defaultFrames;
  *fundamentalFrames = endpoint->fundamentalFrames;
  *minimumFrames = endpoint->minimumFrames;
  *maximumFrames = endpoint->maximumFrames;
  return kHResultOk;
}

HResult CFakeWasapi::GetCurrentSharedModeEnginePeriod(WClient client, uint32_t* frames) {
  FAKE_CLIENT_CALL(kWasCurrentEnginePeriod)
  if (!c.client3) return kHResultNoInterface;
  *frames = endpoint->lockedFrames != 0 ? endpoint->lockedFrames : endpoint->defaultFrames;
  return kHResultOk;
}

HResult CFakeWasapi::InitializeSharedAudioStream(WClient client, uint32_t flags, uint32_t periodFrames,
                                                 const SWaveFormat& format) {
  FAKE_CLIENT_CALL(kWasInitializeShared3)
  if (!c.client3) return kHResultNoInterface;
  if (c.initialised) return kAlreadyInitialised;
  if (!SameFormat(format, endpoint->mix)) return kAudioUnsupportedFormat;
  if (endpoint->lockedFrames != 0 && periodFrames != endpoint->lockedFrames) {
    return kAudioEnginePeriodicityLocked;
  }
  if (periodFrames < endpoint->minimumFrames || periodFrames > endpoint->maximumFrames ||
      (periodFrames - endpoint->minimumFrames) % endpoint->fundamentalFrames != 0) {
    return kInvalidArgument;
  }
  c.initialised = true;
  c.stream.id = c.id;
  c.stream.mode = kShareModeShared;
  c.stream.format = format;
  c.stream.periodFrames = periodFrames;
  c.stream.bufferFrames = 2 * periodFrames;
  c.stream.initialisedBy3 = true;
  c.stream.flags = flags;
  lastStream_ = c.stream;
  return kHResultOk;
}

HResult CFakeWasapi::IsFormatSupported(WClient client, EShareMode mode, const SWaveFormat& format) {
  FAKE_CLIENT_CALL(kWasIsFormatSupported)
  (void)c;
  if (mode == kShareModeShared) return SameFormat(format, endpoint->mix) ? kHResultOk : kHResultFalse;
  return TakesExclusively(*endpoint, format) ? kHResultOk : kAudioUnsupportedFormat;
}

bool CFakeWasapi::TakesExclusively(const SFakeEndpoint& endpoint, const SWaveFormat& format) {
  if (endpoint.tellsDeviceFormat && SameFormat(format, endpoint.deviceFormat)) return true;
  ESampleFormat sample = kSampleFloat32;
  return SampleFormatOf(format, sample) && format.channels == endpoint.deviceChannels &&
         endpoint.exclusive.count({format.samplesPerSecond, sample}) != 0;
}

HResult CFakeWasapi::GetDeviceFormat(WEnumerator, const std::u16string& id, SWaveFormat* format) {
  HResult result = kHResultOk;
  if (Failing(kWasDeviceFormat, result)) return result;
  std::lock_guard<std::mutex> hold(lock_);
  const SFakeEndpoint* endpoint = Find(id);
  if (endpoint == nullptr) return kHResultNotFound;
  if (!endpoint->tellsDeviceFormat) return kHResultNotFound;
  *format = endpoint->deviceFormat;
  return kHResultOk;
}

HResult CFakeWasapi::Initialize(WClient client, EShareMode mode, uint32_t flags, int64_t duration,
                                int64_t periodicity, const SWaveFormat& format) {
  FAKE_CLIENT_CALL(kWasInitialize)
  if (c.initialised) return kAlreadyInitialised;
  SFakeStream stream;
  stream.id = c.id;
  stream.mode = mode;
  stream.format = format;
  stream.duration = duration;
  stream.periodicity = periodicity;
  stream.flags = flags;
  if (mode == kShareModeShared) {
    if (!SameFormat(format, endpoint->mix)) {
      // Another rate only where the engine is asked to convert.
      SWaveFormat atMixRate = format;
      atMixRate.samplesPerSecond = endpoint->mix.samplesPerSecond;
      atMixRate.averageBytesPerSecond = endpoint->mix.averageBytesPerSecond;
      if ((flags & kStreamFlagAutoConvertPcm) == 0 || !SameFormat(atMixRate, endpoint->mix) ||
          format.samplesPerSecond < 8000 || format.samplesPerSecond > 384000) {
        return kAudioUnsupportedFormat;
      }
    }
    stream.periodFrames = Frames(endpoint->defaultPeriod, format.samplesPerSecond);
    stream.bufferFrames = 2 * stream.periodFrames;
  } else {
    if (endpoint->inUse) return kAudioDeviceInUse;
    if (!TakesExclusively(*endpoint, format)) return kAudioUnsupportedFormat;
    // Event-driven exclusive streams give the same duration and period.
    if (duration != periodicity) return kInvalidArgument;
    if (periodicity < endpoint->minimumPeriod) return kAudioInvalidDevicePeriod;
    if (periodicity > 20 * endpoint->defaultPeriod) return kAudioBufferSizeError;
    const uint32_t frames = Frames(periodicity, format.samplesPerSecond);
    if (endpoint->alignment != 0 &&
        (frames % endpoint->alignment != 0 || endpoint->misalignedTries != 0)) {
      if (frames % endpoint->alignment == 0) --endpoint->misalignedTries;
      c.alignedFrames = (frames / endpoint->alignment + 1) * endpoint->alignment;
      return kAudioBufferSizeNotAligned;
    }
    stream.periodFrames = frames;
    stream.bufferFrames = frames;
  }
  c.initialised = true;
  c.stream = stream;
  lastStream_ = stream;
  return kHResultOk;
}

HResult CFakeWasapi::GetBufferSize(WClient client, uint32_t* frames) {
  FAKE_CLIENT_CALL(kWasBufferSize)
  if (!c.initialised) {
    if (c.alignedFrames == 0) return kAudioNotInitialized;
    *frames = c.alignedFrames;
    return kHResultOk;
  }
  *frames = c.stream.bufferFrames;
  return kHResultOk;
}

HResult CFakeWasapi::GetStreamLatency(WClient client, int64_t* latency) {
  FAKE_CLIENT_CALL(kWasStreamLatency)
  (void)endpoint;
  *latency = c.initialised ? 30000 : 0;
  return c.initialised ? kHResultOk : kAudioNotInitialized;
}

uint32_t CFakeWasapi::PaddingNow(SClient& client) {
  uint64_t played = client.playedBase;
  if (realTime.load() && client.running) {
    played += static_cast<uint64_t>(NowHundredNs() - client.startedAt) *
              client.stream.format.samplesPerSecond / kHundredNsPerSecond;
  }
  if (played > client.written) {
    // An underrun: the engine played silence, and the stream goes on.
    client.playedBase = client.written;
    client.startedAt = NowHundredNs();
    return 0;
  }
  return static_cast<uint32_t>(client.written - played);
}

HResult CFakeWasapi::GetCurrentPadding(WClient client, uint32_t* frames) {
  FAKE_CLIENT_CALL(kWasPadding)
  (void)endpoint;
  if (!c.initialised) return kAudioNotInitialized;
  const int64_t fixed = fixedPadding.load();
  const bool queued = !paddings_.empty() && std::this_thread::get_id() == paddingsThread_;
  if (queued || fixed >= 0) {
    // The engine has played so much that this much is left.
    const uint64_t wanted = fixed >= 0 ? static_cast<uint64_t>(fixed) : paddings_.front();
    const uint64_t left = std::min<uint64_t>(wanted, c.written);
    if (fixed < 0) paddings_.pop_front();
    c.playedBase = c.written - left;
    c.startedAt = NowHundredNs();
    *frames = static_cast<uint32_t>(left);
    return kHResultOk;
  }
  *frames = PaddingNow(c);
  return kHResultOk;
}

HResult CFakeWasapi::SetEventHandle(WClient client, WEvent event) {
  FAKE_CLIENT_CALL(kWasSetEvent)
  (void)endpoint;
  c.event = event;
  return kHResultOk;
}

HResult CFakeWasapi::Start(WClient client) {
  FAKE_CLIENT_CALL(kWasStart)
  (void)endpoint;
  if (!c.initialised) return kAudioNotInitialized;
  c.running = true;
  c.startedAt = NowHundredNs();
  running_ = &c;
  nextEvent_ = c.startedAt;
  return kHResultOk;
}

HResult CFakeWasapi::Stop(WClient client) {
  HResult result = kHResultOk;
  if (Failing(kWasStop, result)) return result;
  std::lock_guard<std::mutex> hold(lock_);
  SClient& c = *static_cast<SClient*>(client);
  c.running = false;
  return kHResultOk;
}

HResult CFakeWasapi::GetRenderClient(WClient client, WRender* render) {
  *render = nullptr;
  FAKE_CLIENT_CALL(kWasRenderClient)
  (void)endpoint;
  if (!c.initialised) return kAudioNotInitialized;
  *render = &c;
  return kHResultOk;
}

void CFakeWasapi::ReleaseRender(WRender) {}

HResult CFakeWasapi::GetBuffer(WRender render, uint32_t frames, uint8_t** data) {
  *data = nullptr;
  WClient client = render;
  FAKE_CLIENT_CALL(kWasGetBuffer)
  (void)endpoint;
  if (c.stream.mode == kShareModeExclusive) {
    // Event-driven exclusive: the whole buffer, every time; the engine plays
    // the other one meanwhile.
    if (frames != c.stream.bufferFrames) return kAudioBufferSizeError;
  } else if (frames > c.stream.bufferFrames - PaddingNow(c)) {
    return kBufferTooLarge;
  }
  if (blocks_.size() < blocks_.capacity()) blocks_.push_back(frames);
  const size_t bytes = static_cast<size_t>(frames) * c.stream.format.blockAlign;
  if (bytes > buffer_.capacity()) return kBufferTooLarge;
  buffer_.resize(bytes);
  *data = buffer_.data();
  return kHResultOk;
}

HResult CFakeWasapi::ReleaseBuffer(WRender render, uint32_t frames, uint32_t flags) {
  WClient client = render;
  FAKE_CLIENT_CALL(kWasReleaseBuffer)
  (void)endpoint;
  const size_t bytes = static_cast<size_t>(frames) * c.stream.format.blockAlign;
  if (bytes > buffer_.size()) return kInvalidArgument;
  lastBytes_.assign(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(bytes));
  if ((flags & 2) != 0) std::fill(lastBytes_.begin(), lastBytes_.end(), 0);
  if (allBytes_.size() + lastBytes_.size() <= allBytes_.capacity()) {
    allBytes_.insert(allBytes_.end(), lastBytes_.begin(), lastBytes_.end());
  }
  c.written += frames;
  framesReleased_ += frames;
  return kHResultOk;
}

HResult CFakeWasapi::GetClock(WClient client, WClock* clock) {
  *clock = nullptr;
  FAKE_CLIENT_CALL(kWasClock)
  (void)endpoint;
  *clock = &c;
  return kHResultOk;
}

void CFakeWasapi::ReleaseClock(WClock) {}

HResult CFakeWasapi::GetClockFrequency(WClock clock, uint64_t* frequency) {
  HResult failure = 0;
  if (Failing(kWasClockFrequency, failure)) return failure;
  std::lock_guard<std::mutex> hold(lock_);
  const SClient& c = *static_cast<SClient*>(clock);
  // In bytes per second, as many engines count.
  *frequency = static_cast<uint64_t>(c.stream.format.samplesPerSecond) * c.stream.format.blockAlign;
  return kHResultOk;
}

HResult CFakeWasapi::GetClockPosition(WClock clock, uint64_t* position, uint64_t* systemTime) {
  WClient client = clock;
  FAKE_CLIENT_CALL(kWasClockPosition)
  (void)endpoint;
  const uint64_t played = c.written - PaddingNow(c);
  *position = played * c.stream.format.blockAlign;
  const uint64_t fixedTime = clockTime.load();
  *systemTime = fixedTime != 0 ? fixedTime : static_cast<uint64_t>(NowHundredNs());
  return kHResultOk;
}

WEvent CFakeWasapi::CreateEngineEvent() {
  HResult failure = 0;
  if (Failing(kWasCreateEvent, failure)) return nullptr;
  return new int(0);
}

void CFakeWasapi::CloseEngineEvent(WEvent event) { delete static_cast<int*>(event); }

NSPlatform::EWaitResult CFakeWasapi::WaitEngineEvent(WEvent, uint32_t milliseconds) {
  HResult failure = 0;
  if (Failing(kWasWaitEvent, failure)) return NSPlatform::kWaitFailed;
  if (!ticking.load()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(std::min<uint32_t>(milliseconds, 5)));
    return NSPlatform::kWaitTimeout;
  }
  int64_t due = 0;
  {
    std::lock_guard<std::mutex> hold(lock_);
    const int64_t now = NowHundredNs();
    if (running_ == nullptr || running_->stream.format.samplesPerSecond == 0) {
      due = now + 100000;
    } else {
      // One event per period on the engine's own schedule, as a device
      // fires them, however late the waiter came.
      const int64_t period =
          std::max<int64_t>(1, static_cast<int64_t>(running_->stream.periodFrames) *
                                   kHundredNsPerSecond /
                                   running_->stream.format.samplesPerSecond);
      nextEvent_ += period;
      due = nextEvent_;
    }
  }
  const int64_t wait = due - NowHundredNs();
  if (wait > 0) std::this_thread::sleep_for(std::chrono::nanoseconds(wait * 100));
  ++eventsFired_;
  return NSPlatform::kWaitObject;
}

}  // namespace Fakes
