// An open WASAPI driver: one stream on the audio engine, shared (the
// engine's mix format, at any offered rate, the engine converting the ones
// that are not its own, at the engine's default period or less) or
// exclusive (a rate and sample format found by trial), both woken by the
// engine's event. Its thread fills the room the engine leaves. The host's
// blocks are of the size it asked for: whole blocks straight into the
// engine where they divide its period, else through a carry that holds
// what one period could not take.
#ifndef QUILLON_WASAPI_WASAPI_DRIVER_H
#define QUILLON_WASAPI_WASAPI_DRIVER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "driver/driver_contract.h"
#include "driver/threading.h"
#include "wasapi/wasapi_api.h"

namespace NSWasapi {

class CWasapiRegisteredSoundDriver;

// The most frames one block may have, and the most channels a stream has.
constexpr uint32_t kWasapiMaxBlockFrames = 16384;
constexpr uint32_t kWasapiMaxChannels = 32;

// Frames of a duration of the engine at a rate, to the nearest and rounded
// up; and the duration of frames, rounded up, so that it never holds fewer.
uint32_t FramesOfDuration(int64_t duration, uint32_t sampleRate);
uint32_t FramesOfDurationUp(int64_t duration, uint32_t sampleRate);
int64_t DurationOfFrames(uint32_t frames, uint32_t sampleRate);
// The sizes a shared stream may have: the fundamental's multiples from the
// minimum to the maximum, at most 64 of them.
std::vector<uint32_t> SharedSizes(uint32_t minimum, uint32_t maximum, uint32_t fundamental);
// The offered size nearest a request, the first on a tie; the request
// itself when nothing is offered.
uint32_t NearestSize(const std::vector<uint32_t>& sizes, uint32_t requested);
// The shared period for a request: the engine's default, or, when the host
// asks for less, the smallest offered size that holds the request.
uint32_t SharedPeriodFor(const std::vector<uint32_t>& sizes, uint32_t defaultFrames,
                         uint32_t requested);
// Adds a size to a sorted list, once.
void OfferSize(std::vector<uint32_t>& sizes, uint32_t size);
// The frames the pump writes for a room: whole blocks only.
uint32_t FramesToWrite(uint32_t bufferFrames, uint32_t padding, uint32_t block);
// The block sizes a shared stream offers: the powers of two from 64 to 4096
// frames and the engine's period.
std::vector<uint32_t> HostSizes(uint32_t enginePeriod);
// Planar float channels into the engine's interleaved format, through the
// kernels; `staging` holds `frames` samples of one channel.
void InterleaveInto(const float* const* channels, uint32_t channelCount, uint32_t frames,
                    ESampleFormat format, uint8_t* destination, int32_t* staging);

class COpenWasapiSoundDriver final : public NSFerrand::CPlainOpenSoundDriver,
                                     private NSFerrand::IThreadFunction {
 public:
  COpenWasapiSoundDriver(const CWasapiRegisteredSoundDriver& registered,
                         NSFerrand::MSoundRenderer* renderer,
                         const NSFerrand::CSoundDriverSettings* settings);
  ~COpenWasapiSoundDriver() override;
  COpenWasapiSoundDriver(const COpenWasapiSoundDriver&) = delete;
  COpenWasapiSoundDriver& operator=(const COpenWasapiSoundDriver&) = delete;

  NSFerrand::CSoundDriverSettings& GetSettings(NSFerrand::CSoundDriverSettings& settings) override;
  void ApplySettings(const NSFerrand::CSoundDriverSettings& settings) override;
  bool TakeSettingsChanged() override;
  NSFerrand::COpenSoundDriverInfo& GetDriverInfo(NSFerrand::COpenSoundDriverInfo& info) override;
  int64_t GetOutputLatency() override;
  void CheckAlive() override;

  // For tests of the family.
  bool Failed() const { return failed_.load(); }
  ESampleFormat SampleFormat() const { return sample_; }
  uint32_t Channels() const { return channels_; }
  uint32_t BufferFrames() const { return engineFrames_; }
  uint64_t FramesWritten() const { return framesWritten_.load(); }
  uint64_t FramesRendered() const { return framesRendered_.load(); }
  uint32_t EnginePeriod() const { return enginePeriod_; }
  uint32_t CarriedFrames() const { return carried_; }
  // The endpoint the stream plays on now.
  const std::u16string& EndpointId() const { return endpointId_; }
  // One pass of the pump, as the thread makes it after the engine's event.
  void StreamPump();

 private:
  void Run() override;
  void OpenStream(uint32_t sampleRate, uint32_t frames);
  void OpenShared(uint32_t sampleRate, uint32_t frames);
  bool InitialiseLowLatency(const SWaveFormat& mix, uint32_t frames);
  // The pump for blocks that do not divide the engine's period.
  void PumpThroughCarry(uint32_t room, uint64_t played, uint64_t systemTime);
  bool RenderBlock(uint64_t played, uint64_t systemTime);
  void OpenExclusive(uint32_t sampleRate, uint32_t frames);
  HResult InitialiseExclusive(const SWaveFormat& format, uint32_t frames, int64_t minimumPeriod,
                              int64_t defaultPeriod);
  void FindExclusiveFormats();
  void Activate();
  // A client whose initialisation failed cannot be initialised again.
  void Reactivate();
  uint32_t KeptFrames(uint32_t requested) const;
  void StartStream();
  void CloseStream();
  // The event did not come: a stream whose device is gone fails now.
  void ProbeStalledStream();
  // "Default output": moves the stream to the system's default endpoint
  // when that is another, or when the stream failed with its device.
  void FollowDefault();
  uint64_t HostPosition(uint64_t streamFrame) const { return streamOrigin_ + streamFrame; }
  void NoteAhead(uint64_t ahead) {
    const uint32_t frames = ahead > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(ahead);
    if (frames > aheadFrames_.load(std::memory_order_relaxed)) aheadFrames_ = frames;
  }

  const CWasapiRegisteredSoundDriver& registered_;
  // The control calls' thread stays while the driver is open.
  std::shared_ptr<IWasapiApi> control_;
  IWasapiApi& api_;
  // The stream thread's own calls.
  IWasapiApi& stream_;
  NSFerrand::MSoundRenderer* renderer_;
  WEnumerator enumerator_ = nullptr;
  std::u16string endpointId_;
  bool followsDefault_ = false;
  uint32_t defaultGeneration_ = 0;
  // The host's position of the stream's first frame: a move to another
  // endpoint goes on counting.
  uint64_t streamOrigin_ = 0;
  WClient client_ = nullptr;
  bool client3_ = false;
  WRender render_ = nullptr;
  WClock clock_ = nullptr;
  WEvent event_ = nullptr;
  uint64_t clockFrequency_ = 0;
  // The exclusive trial: the rates that play, each with its first format.
  std::vector<uint32_t> rates_;
  std::vector<SWaveFormat> rateFormats_;
  std::vector<uint32_t> sizes_;
  uint32_t sampleRate_ = 0;
  // The shared engine's default period, when it tells one; the periods its
  // low-latency client may run at; the one in force.
  uint32_t defaultFrames_ = 0;
  std::vector<uint32_t> engineSizes_;
  uint32_t enginePeriod_ = 0;
  uint32_t blockFrames_ = 0;
  // Silence the stream holds before the host's first frame.
  uint32_t prerollFrames_ = 0;
  uint32_t engineFrames_ = 0;
  uint32_t channels_ = 2;
  ESampleFormat sample_ = kSampleFloat32;
  bool settingsChanged_ = false;
  NSFerrand::CTimedThread* thread_ = nullptr;
  NSFerrand::CLockableMutex* stopMutex_ = nullptr;
  // Frames given to the engine, and frames the host rendered: the carry is
  // the difference.
  std::atomic<uint64_t> framesWritten_{0};
  std::atomic<uint64_t> framesRendered_{0};
  // The most frames a block waited behind the clock's position.
  std::atomic<uint32_t> aheadFrames_{0};
  std::vector<float*> carry_;
  uint32_t carried_ = 0;
  uint32_t carryCapacity_ = 0;
  std::atomic<bool> failed_{false};
  // The host's renderer raised: nothing to move away from.
  std::atomic<bool> rendererFailed_{false};
  NSFerrand::CChannelPointers inputs_;
  NSFerrand::CChannelPointers outputs_;
  std::vector<int32_t> staging_;
};

}  // namespace NSWasapi

#endif
