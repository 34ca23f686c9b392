// The Windows layer's own calls into the engine, against an audio client of
// the test's making: what it passes is below the seam the fakes stand at.
#if defined(_WIN32)

#include <gtest/gtest.h>

#include <cstring>

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

}  // namespace

#endif
