// The Windows layer's own calls into the engine, against an audio client of
// the test's making: what it passes is below the seam the fakes stand at.
#if defined(_WIN32)

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

#include "driver/registry.h"
#include "support/storage_fixture.h"
#include "wasapi/wasapi_driver.h"
#include "wasapi/wasapi_family.h"
#include "wasapi/win32/wasapi_layout.h"

using namespace NSWasapi;
using namespace NSWasapiLayout;

namespace {

constexpr HRESULT kUnsupported = static_cast<HRESULT>(0x88890008u);

// Answers the format questions and records how they were asked; everything
// else is not there.
class CRecordingAudioClient final : public IAudioClient3Layout {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(const GUID&, void** object) override {
    *object = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++references); }
  ULONG STDMETHODCALLTYPE Release() override { return static_cast<ULONG>(--references); }
  HRESULT STDMETHODCALLTYPE Initialize(int, DWORD, LONGLONG, LONGLONG, const void*,
                                       const GUID*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetBufferSize(UINT32*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetStreamLatency(LONGLONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetCurrentPadding(UINT32*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE IsFormatSupported(int mode, const void*, void** closest) override {
    ++questions;
    lastMode = mode;
    closestGiven = closest != nullptr;
    if (closest == nullptr) return shared ? E_POINTER : kUnsupported;
    // A shared question is answered with a near format the caller frees.
    *closest = CoTaskMemAlloc(sizeof(WAVEFORMATEX));
    if (*closest == nullptr) return E_OUTOFMEMORY;
    std::memset(*closest, 0, sizeof(WAVEFORMATEX));
    return S_FALSE;
  }
  HRESULT STDMETHODCALLTYPE GetMixFormat(void**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetDevicePeriod(LONGLONG*, LONGLONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Start() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Stop() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Reset() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetEventHandle(HANDLE) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetService(const GUID&, void**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE IsOffloadCapable(int, BOOL*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetClientProperties(const void*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetBufferSizeLimits(const void*, BOOL, LONGLONG*, LONGLONG*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetSharedModeEnginePeriod(const void*, UINT32*, UINT32*, UINT32*,
                                                      UINT32*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetCurrentSharedModeEnginePeriod(void**, UINT32*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE InitializeSharedAudioStream(DWORD, UINT32, const void*,
                                                        const GUID*) override {
    return E_NOTIMPL;
  }

  long references = 1;
  int questions = 0;
  int lastMode = -1;
  bool closestGiven = false;
  bool shared = false;
};

TEST(WasapiSystemLayer, AnExclusiveFormatQuestionPassesNoClosestMatch) {
  CRecordingAudioClient audio;
  WClient client = HoldAudioClient(&audio, nullptr);
  ASSERT_NE(client, nullptr);
  IWasapiApi& api = SystemWasapiApi();
  EXPECT_EQ(api.IsFormatSupported(client, kShareModeExclusive, StereoFormat(48000, kSampleInt16)),
            kUnsupported);
  EXPECT_EQ(audio.lastMode, 1);
  EXPECT_FALSE(audio.closestGiven);
  // A shared question may be told a near format; it is freed, not kept.
  audio.shared = true;
  EXPECT_EQ(api.IsFormatSupported(client, kShareModeShared, StereoFormat(44100, kSampleFloat32)),
            S_FALSE);
  EXPECT_EQ(audio.lastMode, 0);
  EXPECT_TRUE(audio.closestGiven);
  EXPECT_EQ(audio.questions, 2);
  api.ReleaseClient(client);
  EXPECT_EQ(audio.references, 0);
}

// Counts what it renders, and writes a quiet tone.
class CCountingRenderer final : public NSFerrand::MSoundRenderer {
 public:
  uint32_t Render(uint32_t frames, const NSFerrand::CChannelPointers&,
                  NSFerrand::CChannelPointers& outputs, uint64_t, uint64_t, uint64_t,
                  uint64_t) override {
    for (float* channel : outputs) {
      for (uint32_t f = 0; f < frames; ++f) channel[f] = 0.01f * static_cast<float>(f % 2);
    }
    rendered += frames;
    return 0;
  }
  std::atomic<uint64_t> rendered{0};
};

class WasapiSystemEngine : public StorageTest {
 protected:
  void SetUp() override {
    StorageTest::SetUp();
    registry.reset(new NSFerrand::CRegistryRef());
    family.reset(new CWasapiFamilyScope(SystemWasapiApi()));
  }
  void TearDown() override {
    family.reset();
    registry.reset();
    StorageTest::TearDown();
  }
  // The first endpoint of the system's engine, shared.
  NSFerrand::CRegisteredDriverPtr FirstShared() {
    NSFerrand::CRegisteredDriverList drivers;
    NSFerrand::GetRegisteredDrivers(drivers);
    for (const auto& driver : drivers) {
      NSFerrand::CRegisteredSoundDriverInfo info;
      driver->GetInfo(info);
      if (info.family == u"WASAPI" && info.key.find(u"Shared") != std::u16string::npos) {
        return driver;
      }
    }
    return nullptr;
  }

  std::unique_ptr<NSFerrand::CRegistryRef> registry;
  std::unique_ptr<CWasapiFamilyScope> family;
};

// The engine converts a rate that is not its own and pulls it at that
// rate; every frame the host rendered reaches the engine or waits in the
// carry.
TEST_F(WasapiSystemEngine, ASharedClientPlaysTenSecondsAtTheRateItAskedFor) {
  NSFerrand::CRegisteredDriverPtr driver = FirstShared();
  ASSERT_NE(driver, nullptr) << "the session's engine has no endpoint";
  for (uint32_t rate : {44100u, 96000u}) {
    CCountingRenderer renderer;
    NSFerrand::CSoundDriverSettings wanted;
    wanted.sampleRate = rate;
    wanted.bufferFrames = 512;
    wanted.outputPairs = NSFerrand::CChannelBitVector(1);
    wanted.outputPairs.Set(0, true);
    std::unique_ptr<NSFerrand::CABCOpenSoundDriver> open(
        driver->OpenWithSettings(wanted, &renderer, nullptr));
    auto* wasapi = dynamic_cast<COpenWasapiSoundDriver*>(open.get());
    ASSERT_NE(wasapi, nullptr);
    NSFerrand::CSoundDriverSettings kept;
    open->GetSettings(kept);
    ASSERT_EQ(kept.sampleRate, rate);
    // A second to settle, then ten counted.
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const uint64_t before = renderer.rendered.load();
    const auto began = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(10));
    const uint64_t after = renderer.rendered.load();
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    const double pace = static_cast<double>(after - before) / seconds;
    EXPECT_NEAR(pace, rate, 0.02 * rate) << rate;
    EXPECT_FALSE(wasapi->Failed()) << rate;
    open.reset();
  }
}

}  // namespace

#endif
