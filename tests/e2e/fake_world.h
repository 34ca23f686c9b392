// A world of fakes with every family in it, for the tests that run the
// library as a whole: a wave-out device, DirectSound's default device, an
// ASIO driver naming the connected hardware device, one audio engine
// endpoint, the fake family's driver, the hardware library beside the
// module and a newer copy in the common folder, and a host that counts
// losses and overlapping renders. Made before the library, gone after it.
#ifndef QUILLON_TESTS_E2E_FAKE_WORLD_H
#define QUILLON_TESTS_E2E_FAKE_WORLD_H

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include "driver/registry.h"
#include "e2e/e2e_support.h"
#include "fakes/fake_asio.h"
#include "fakes/fake_driver.h"
#include "fakes/fake_dsound.h"
#include "fakes/fake_wasapi.h"
#include "fakes/fake_wave_out.h"
#include "fakes/zep_platform_fake.h"
#include "hardware/zep_call_thread.h"
#include "platform/fault_points.h"
#include "zep_fake/zep_fake_control.h"

class CountingSink final : public IHardwareEventSink {
 public:
  uint32_t OnHardwareEvent(uint32_t) override {
    ++events;
    return 0;
  }
  std::atomic<uint64_t> events{0};
};

class CFakeWorld {
 public:
  CFakeWorld() {
    ZEPFake_Reset();
    // A hardware library cut off in one world is tried again in the next.
    NSZEPGlue::ForgetHardwareCutOff();
    ZEPFake_SetDevices("Dev A");
    ZEPFake_SetChannelCount(8);
    NSTestFakes::PlaceZEPLibrary("v1_999_999", module.Path(), "ZEPLib");
    NSTestFakes::PlaceZEPLibrary("v2_0_0", NSTestFakes::SharedZEPFolder(common.Path()), "ZEPLib");
    zep.moduleFolder = module.Path();
    zep.commonFolder = common.Path().u16string();
    waveOut.devices.push_back(Fakes::StereoDevice(u"Fake Out", {44100, 48000}));
    // A class of each world's own: a driver quarantined in one world stays
    // so for the process, never for the next world.
    static uint32_t nextClass = 0x9000;
    box = asio.AddDriver(u"Box A", Fakes::FakeClsidText(nextClass++), u"ASIO Box A");
    box->hasIdentity = true;
    box->identity = u"Dev A";
    box->periodMs = 2;
    // Two clocks, so that a client can change between them.
    box->clocks = {{0, -1, 0, 1, "Internal"}, {1, -1, 0, 0, "Word"}};
    registry.reset(new NSFerrand::CRegistryRef());
    control = std::make_shared<Fakes::CFakeDriverControl>();
    control->renderPeriodMs = 2;
    control->canMonitor = true;
    control->hasPanel = true;
    NSFerrand::AddRegisteredDriver(
        new Fakes::CFakeRegisteredDriver(control, u"fake-key-1", u"MME", u"Fake One"));
    SetPlatformProvider(&provider);
  }
  ~CFakeWorld() {
    NSPlatform::DisarmFaults();
    SetPlatformProvider(nullptr);
    registry.reset();
    ZEPFake_WaitEvents();
  }
  CFakeWorld(const CFakeWorld&) = delete;
  CFakeWorld& operator=(const CFakeWorld&) = delete;

  // Calls of the hardware library's operation so far, by its name.
  uint64_t ZEPCalls(const std::string& operation) {
    ZEPFake_WaitEvents();
    CountZEPLog();
    return zepCalls[operation];
  }

  // What the fakes and the host keep of a run: gone before memory is measured.
  void Forget() {
    ZEPFake_WaitEvents();
    CountZEPLog();
    ZEPFake_ForgetLog();
    zepLinesCounted_ = 0;
    box->ForgetLog();
    asio.ForgetComThreads();
    engine.ForgetThreads();
    directSound.ForgetReleasedDevices();
    host.ForgetEvents();
  }

  NSTestFakes::CScratchFolder module;
  NSTestFakes::CScratchFolder common;
  NSTestFakes::CRedirectedZEPPlatform zep;
  Fakes::CFakeWaveOut waveOut;
  Fakes::CFakeASIOPlatform asio;
  Fakes::CFakeDirectSound directSound;
  Fakes::CFakeWasapi engine;
  SPlatformProvider provider{&waveOut, &asio, &directSound, &zep, &engine};
  std::shared_ptr<Fakes::SFakeASIODevice> box;
  std::unique_ptr<NSFerrand::CRegistryRef> registry;
  std::shared_ptr<Fakes::CFakeDriverControl> control;
  TestHost host;
  CountingSink sink;
  std::map<std::string, uint64_t> zepCalls;

 private:
  // The log's lines are "operation arguments": counted, then the log may go.
  void CountZEPLog() {
    char line[256];
    const uint32_t count = ZEPFake_LogCount();
    for (uint32_t i = zepLinesCounted_; i < count; ++i) {
      ZEPFake_LogLine(i, line, sizeof line);
      const std::string text(line);
      ++zepCalls[text.substr(0, text.find(' '))];
    }
    zepLinesCounted_ = count;
  }
  uint32_t zepLinesCounted_ = 0;
};

#endif
