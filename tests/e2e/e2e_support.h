// A host for the tests through the boundary: it drives the library with the
// exports, interfaces and flat records alone. Only the set-up reaches
// inside, to register the fake driver family before the library is made.
#ifndef QUILLON_TESTS_E2E_SUPPORT_H
#define QUILLON_TESTS_E2E_SUPPORT_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "driver/registry.h"
#include "driver/wait.h"
#include "fakes/fake_wasapi.h"
#include "fakes/fake_driver.h"
#include "fakes/fake_wave_out.h"
#include "public/platform_provider.h"
#include "quillon/quillon.h"
#include "support/realtime_watch.h"

using namespace NSQuillon2;

inline std::u16string Text(const unsigned short* units) {
  return std::u16string(reinterpret_cast<const char16_t*>(units));
}

// The first listed driver of a family, and its position, or null.
inline const IDriverSpec* FirstOf(IVector<const IDriverSpec*>* specs, const std::u16string& family,
                                  int64_t* position = nullptr) {
  for (int64_t i = 0; i < specs->GetSize(); ++i) {
    SDriverSpecKey key;
    specs->GetData()[i]->GetKeyRecord(&key);
    if (Text(key.family) == family) {
      if (position != nullptr) *position = i;
      return specs->GetData()[i];
    }
  }
  return nullptr;
}

// The first listed driver of that name, in any family, or null.
inline const IDriverSpec* NamedSpec(IVector<const IDriverSpec*>* specs,
                                    const std::u16string& name) {
  for (int64_t i = 0; i < specs->GetSize(); ++i) {
    SDriverSpecKey key;
    specs->GetData()[i]->GetKeyRecord(&key);
    if (Text(key.name) == name) return specs->GetData()[i];
  }
  return nullptr;
}

class TestHost final : public IClientHost {
 public:
  uint32_t Render(IClient* client, uint32_t frames, const float* const* inputs, int32_t inputCount,
                  const SRenderTiming* inputTiming, float* const* outputs, int32_t outputCount,
                  const SRenderTiming* outputTiming) override {
    // Two sources of Render (a driver and the silent thread) never overlap.
    if (inside.fetch_add(1) != 0) ++overlaps;
    watch.OnRender();
    lastClient = client;
    lastFrames = frames;
    lastInputsNull = inputs == nullptr;
    lastOutputsNull = outputs == nullptr;
    lastInputCount = inputCount;
    lastOutputCount = outputCount;
    if (inputTiming != nullptr && outputTiming != nullptr) {
      timings[0] = inputTiming->samplePosition;
      timings[1] = inputTiming->systemTime;
      timings[2] = outputTiming->samplePosition;
      timings[3] = outputTiming->systemTime;
    }
    zeroTimings = inputTiming != nullptr && outputTiming != nullptr &&
                  inputTiming->samplePosition == 0 && inputTiming->systemTime == 0 &&
                  outputTiming->samplePosition == 0 && outputTiming->systemTime == 0;
    for (int32_t c = 0; c < outputCount; ++c) {
      if (outputs[c] != nullptr) outputs[c][0] = 0.25f;
    }
    if (frames == 5120 && inputs == nullptr && outputs == nullptr) {
      ++silentBlocks;
    } else {
      ++drivenBlocks;
      framesRendered += frames;
      const int64_t now = std::chrono::duration_cast<std::chrono::milliseconds>(
                              std::chrono::steady_clock::now().time_since_epoch())
                              .count();
      const int64_t before = lastRenderMs.exchange(now);
      if (before != 0 && now - before > longestGapMs.load()) longestGapMs = now - before;
    }
    --inside;
    if (raiseInRender.exchange(false)) throw std::runtime_error("host render");
    return 0;
  }
  void OnDriverLost(IClient* client) override {
    Record("lost");
    ++lost;
    if (onLost) onLost(client);
  }
  void OnSettingsChanged(IClient* client, const SClientSettings* settings) override {
    Record("settings");
    lastSettings = *settings;
    if (onSettings) onSettings(client);
  }
  void OnDriverListChanged(IClient*) override { Record("list"); }

  void Record(const char* event) {
    std::lock_guard<std::mutex> lock(eventsLock);
    events.push_back(event);
  }
  std::vector<std::string> Events() {
    std::lock_guard<std::mutex> lock(eventsLock);
    return events;
  }
  // Empties the record: long runs measure their memory.
  void ForgetEvents() {
    std::lock_guard<std::mutex> lock(eventsLock);
    std::vector<std::string>().swap(events);
  }

  std::atomic<IClient*> lastClient{nullptr};
  std::atomic<uint32_t> lastFrames{0};
  std::atomic<bool> lastInputsNull{false};
  std::atomic<bool> lastOutputsNull{false};
  std::atomic<int32_t> lastInputCount{-1};
  std::atomic<int32_t> lastOutputCount{-1};
  std::atomic<bool> zeroTimings{false};
  // Input position and time, output position and time, of the last call.
  std::atomic<uint64_t> timings[4] = {};
  std::atomic<uint64_t> silentBlocks{0};
  std::atomic<uint64_t> drivenBlocks{0};
  std::atomic<uint64_t> framesRendered{0};
  // The longest time between two driven blocks; a test may reset it.
  std::atomic<int64_t> lastRenderMs{0};
  std::atomic<int64_t> longestGapMs{0};
  std::atomic<bool> raiseInRender{false};
  std::atomic<int> lost{0};
  std::atomic<int> inside{0};
  std::atomic<uint64_t> overlaps{0};
  CRealtimeWatch watch;
  SClientSettings lastSettings;
  std::function<void(IClient*)> onLost;
  std::function<void(IClient*)> onSettings;

 private:
  std::mutex eventsLock;
  std::vector<std::string> events;
};

// The library with the fake family registered after the null driver.
class LibraryFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    registryHold.reset(new NSFerrand::CRegistryRef());
    control = std::make_shared<Fakes::CFakeDriverControl>();
    otherControl = std::make_shared<Fakes::CFakeDriverControl>();
    fake = new Fakes::CFakeRegisteredDriver(control, u"fake-key-1", u"MME", u"Fake One");
    other = new Fakes::CFakeRegisteredDriver(otherControl, u"fake-key-2", u"DX", u"Fake Two");
    ASSERT_TRUE(NSFerrand::AddRegisteredDriver(fake));
    ASSERT_TRUE(NSFerrand::AddRegisteredDriver(other));
    // No system devices: the list is the null driver and the fakes alone.
    SetPlatformProvider(&provider);
    uint32_t status = 0;
    library = Quillon_Create("IQuillon2", nullptr, &status);
    ASSERT_NE(library, nullptr);
    ASSERT_EQ(status, kStatusOk);
    specs = library->GetDriverSpecs(&status);
    ASSERT_EQ(status, kStatusOk);
  }
  void TearDown() override {
    QuillonDestroy(specs);
    QuillonDestroy(library);
    SetPlatformProvider(nullptr);
    registryHold.reset();
  }
  const IDriverSpec* Spec(int index) const { return specs->GetData()[index]; }
  const IDriverSpec* NullSpec() const { return Spec(0); }
  const IDriverSpec* FakeSpec() const { return Spec(1); }
  const IDriverSpec* OtherSpec() const { return Spec(2); }
  IClient* Create(const IDriverSpec* spec, uint32_t* running, uint32_t* status) {
    return library->CreateClient(&host, nullptr, spec, running, status);
  }

  Fakes::CFakeWaveOut noWaveOut;
  Fakes::CNoWasapi noWasapi;
  SPlatformProvider provider{&noWaveOut, nullptr, nullptr, nullptr, &noWasapi};
  std::unique_ptr<NSFerrand::CRegistryRef> registryHold;
  std::shared_ptr<Fakes::CFakeDriverControl> control;
  std::shared_ptr<Fakes::CFakeDriverControl> otherControl;
  Fakes::CFakeRegisteredDriver* fake = nullptr;
  Fakes::CFakeRegisteredDriver* other = nullptr;
  IQuillon* library = nullptr;
  IVector<const IDriverSpec*>* specs = nullptr;
  TestHost host;
};

// A flat record with the first output pair on, and nothing else.
inline SClientSettings Stereo(uint32_t rate, uint32_t frames) {
  SClientSettings flat;
  std::memset(&flat, 0, sizeof flat);
  flat.sampleRate = rate;
  flat.bufferFrames = frames;
  flat.outputPairEnabled[0] = 1;
  return flat;
}

// The library over the system's own services, and the first driver of one
// family. Under Wine the test scripts give the system a device (ALSA into a
// JACK server) and say so; natively there is none, and the test skips.
class RealFamilyFixture : public ::testing::Test {
 protected:
  RealFamilyFixture(const char16_t* family, const char* what) : family_(family), what_(what) {}
  void SetUp() override {
    SetPlatformProvider(nullptr);
    uint32_t status = 0;
    library = Quillon_Create("IQuillon2", nullptr, &status);
    ASSERT_NE(library, nullptr);
    specs = library->GetDriverSpecs(&status);
    ASSERT_NE(specs, nullptr);
    device = FirstOf(specs, family_);
    if (device == nullptr) {
      const char* expected = std::getenv("QUILLON_EXPECT_WAVE_OUT");
      ASSERT_FALSE(expected != nullptr && expected[0] == '1') << "no " << what_ << " is listed";
      GTEST_SKIP() << "this system has no " << what_;
    }
  }
  void TearDown() override {
    QuillonDestroy(specs);
    QuillonDestroy(library);
  }

  IQuillon* library = nullptr;
  IVector<const IDriverSpec*>* specs = nullptr;
  const IDriverSpec* device = nullptr;

 private:
  const char16_t* family_;
  const char* what_;
};

// The first MME driver of the system.
class RealWaveOutFixture : public RealFamilyFixture {
 protected:
  RealWaveOutFixture() : RealFamilyFixture(u"MME", "wave-out device") {}
  void SetUp() override {
    RealFamilyFixture::SetUp();
    mme = device;
  }
  const IDriverSpec* mme = nullptr;
};

// Byte sinks and sources of a host, over memory, answering chosen statuses.
class MemorySink final : public IByteSink {
 public:
  uint32_t Write(uint64_t position, uint64_t length, const void* data) override {
    if (failAt >= 0 && writes++ == failAt) return failWith;
    if (bytes.size() < position + length) bytes.resize(static_cast<size_t>(position + length));
    std::memcpy(&bytes[static_cast<size_t>(position)], data, static_cast<size_t>(length));
    return kStatusOk;
  }
  std::string bytes;
  int failAt = -1;
  int writes = 0;
  uint32_t failWith = kStatusWriteFailure;
};

class MemorySource final : public IByteSource {
 public:
  explicit MemorySource(std::string data) : bytes(std::move(data)) {}
  uint32_t Read(uint64_t position, uint64_t length, void* data) override {
    if (failWith != 0) return failWith;
    if (position + length > bytes.size()) return kStatusReadFailure;
    std::memcpy(data, bytes.data() + position, static_cast<size_t>(length));
    return kStatusOk;
  }
  std::string bytes;
  uint32_t failWith = 0;
};

#endif
