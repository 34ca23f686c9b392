// The ASIO family's tests: a fake registry and COM in place of the system's,
// the process's ASIO state put back after each test, and a renderer that
// records what it was given.
#ifndef QUILLON_TESTS_ASIO_SUPPORT_H
#define QUILLON_TESTS_ASIO_SUPPORT_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "asio/asio_driver_list.h"
#include "asio/asio_host.h"
#include "driver/registry.h"
#include "failure/builder.h"
#include "failure/exceptions.h"
#include "fakes/fake_asio.h"
#include "support/allocation_counter.h"
#include "support/realtime_watch.h"
#include "support/storage_fixture.h"

class RecordingRenderer final : public NSFerrand::MSoundRenderer {
 public:
  uint32_t Render(uint32_t frames, const NSFerrand::CChannelPointers& inputs,
                  NSFerrand::CChannelPointers& outputs, uint64_t inputSystemTime,
                  uint64_t inputSamplePosition, uint64_t outputSystemTime,
                  uint64_t outputSamplePosition) override {
    // On a driver's thread, nothing may have allocated or waited since its
    // last call; the priming pass runs on the control thread.
    if (std::this_thread::get_id() != controlThread) {
      watch.OnRender();
      ++driverThreadCalls;
      // A render that stays inside until the test lets it go.
      if (holdInside.load()) {
        inside = true;
        while (holdInside.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        inside = false;
      }
    }
    ++calls;
    lastFrames = frames;
    inputCount = inputs.size();
    outputCount = outputs.size();
    times[0] = inputSystemTime;
    times[1] = inputSamplePosition;
    times[2] = outputSystemTime;
    times[3] = outputSamplePosition;
    firstInput = inputs.size() > 0 && inputs[0] != nullptr ? inputs[0][0] : -9.0f;
    for (float* channel : outputs) {
      if (channel == nullptr) continue;
      for (uint32_t f = 0; f < frames; ++f) channel[f] = value;
    }
    if (raiseNext.exchange(false)) throw std::runtime_error("render");
    return 0;
  }
  std::atomic<uint64_t> calls{0};
  std::atomic<uint32_t> lastFrames{0};
  std::atomic<size_t> inputCount{0};
  std::atomic<size_t> outputCount{0};
  std::atomic<uint64_t> times[4] = {};
  std::atomic<float> firstInput{0.0f};
  std::atomic<bool> raiseNext{false};
  std::atomic<bool> holdInside{false};
  std::atomic<bool> inside{false};
  std::atomic<uint64_t> driverThreadCalls{0};
  CRealtimeWatch watch;
  const std::thread::id controlThread = std::this_thread::get_id();
  float value = 0.5f;
};

class ASIOTest : public StorageTest {
 protected:
  void SetUp() override {
    StorageTest::SetUp();
    registry.reset(new NSFerrand::CRegistryRef());
  }
  void TearDown() override {
    NSASIO::activeHost.store(nullptr);
    NSASIO::StopIfRunning();
    NSASIO::DisposeIfPrepared();
    NSASIO::ExitIfInitialised();
    NSASIO::UnloadDriverList();
    registry.reset();
    StorageTest::TearDown();
  }
  // A driver listed under its description, with class number `number`.
  std::shared_ptr<Fakes::SFakeASIODevice> Add(const std::u16string& name, uint32_t number) {
    return platform.AddDriver(u"key" + std::u16string(1, static_cast<char16_t>(u'A' + number)),
                              Fakes::FakeClsidText(number), name);
  }
  void Load() { NSASIO::LoadDriverList(platform); }

  Fakes::CFakeASIOPlatform platform;
  std::unique_ptr<NSFerrand::CRegistryRef> registry;
  RecordingRenderer renderer;
};

// The failure class a call raises, by its code.
template <class F>
uint32_t FailureCodeOf(F&& call) {
  try {
    call();
  } catch (const std::exception& e) {
    return NSMarlet::ClassifyException(&e).failureCode;
  } catch (...) {
    return 0xFFFFFFFFu;
  }
  return 0;
}

// What a call raises: its class's code, its target word and its text.
struct SRaised {
  uint32_t code = 0;
  std::string word;
  std::string text;
};

template <class F>
SRaised RaisedBy(F&& call) {
  SRaised raised;
  try {
    call();
  } catch (const std::exception& e) {
    const NSMarlet::CExceptionBodyRef body =
        NSMarlet::BodyFromException(&e, NSMarlet::CSourcePosition());
    raised.code = NSMarlet::ClassifyException(&e).failureCode;
    raised.word = NSMarlet::TargetWordOf(NSMarlet::TopEntry(body));
    raised.text = e.what();
  }
  return raised;
}

#endif
