// The ASIO family on the real registry and COM: the test driver of
// tests/asio_driver is a real in-process server, registered as drivers
// register themselves and created by the real CoCreateInstance. Only the
// Windows build has COM; natively every test says so and skips.
#if defined(_WIN32)
#include <windows.h>
#endif

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "asio/asio_call_thread.h"
#include "asio/asio_driver_list.h"
#include "asio/asio_family.h"
#include "asio_driver/test_driver_stats.h"
#include "driver/wait.h"
#include "fakes/zep_platform_fake.h"
#include "public/platform_provider.h"
#include "quillon/quillon.h"
#include "support/usable_window.h"
#include "zep_fake/zep_fake_log.h"

using namespace NSQuillon2;

namespace {

std::u16string Text(const unsigned short* units) {
  return std::u16string(reinterpret_cast<const char16_t*>(units));
}

// Renders the ramp the driver checks, and watches the times it is given.
class RampHost final : public IClientHost {
 public:
  uint32_t Render(IClient*, uint32_t frames, const float* const*, int32_t,
                  const SRenderTiming* inputTiming, float* const* outputs, int32_t outputCount,
                  const SRenderTiming* outputTiming) override {
    for (int32_t c = 0; c < outputCount; ++c) {
      if (outputs[c] == nullptr) continue;
      for (uint32_t f = 0; f < frames; ++f) {
        outputs[c][f] = QuillonTestRamp(static_cast<int32_t>(f), c);
      }
    }
    const uint64_t position = outputTiming->samplePosition;
    const uint64_t before = lastPosition.exchange(position);
    // The priming block before the start has no position of its own.
    if (blocks.load() >= 2 && position - before != frames) ++positionJumps;
    positionSpan = position - inputTiming->samplePosition;
    timeSpan = outputTiming->systemTime - inputTiming->systemTime;
    ++blocks;
    framesRendered += frames;
    return 0;
  }
  void OnDriverLost(IClient*) override { ++lost; }
  void OnSettingsChanged(IClient*, const SClientSettings* settings) override {
    ++settingsReports;
    lastFrames = settings->bufferFrames;
  }
  void OnDriverListChanged(IClient*) override {}

  std::atomic<uint64_t> blocks{0};
  std::atomic<uint64_t> framesRendered{0};
  std::atomic<uint64_t> lastPosition{0};
  std::atomic<uint64_t> positionJumps{0};
  std::atomic<uint64_t> positionSpan{0};
  std::atomic<uint64_t> timeSpan{0};
  std::atomic<int> lost{0};
  std::atomic<int> settingsReports{0};
  std::atomic<uint32_t> lastFrames{0};
};

class RealASIOTest : public ::testing::Test {
 protected:
  void SetUp() override {
#if !defined(_WIN32)
    GTEST_SKIP() << "COM, the system registry and in-process ASIO drivers exist only in the "
                    "Windows build; these tests run there, under Wine";
#else
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder = path;
    folder.resize(folder.find_last_of(L"\\/") + 1);
    dllPath = folder + L"QuillonTestASIO.dll";
    dll = LoadLibraryW(dllPath.c_str());
    ASSERT_NE(dll, nullptr) << "the test driver is built beside the tests";
    stats = reinterpret_cast<QuillonTestDriverStatsFunction>(
        reinterpret_cast<void*>(GetProcAddress(dll, "QuillonTestDriverStats")));
    resetStats = reinterpret_cast<QuillonTestDriverResetStatsFunction>(
        reinterpret_cast<void*>(GetProcAddress(dll, "QuillonTestDriverResetStats")));
    ASSERT_NE(stats, nullptr);
    ASSERT_EQ(Entry("DllUnregisterServer"), S_OK);
    ASSERT_EQ(Entry("DllRegisterServer"), S_OK);
    resetStats();
    SetPlatformProvider(nullptr);
#endif
  }
  void TearDown() override {
#if defined(_WIN32)
    if (dll == nullptr) return;
    QuillonDestroy(specs);
    QuillonDestroy(library);
    for (const std::wstring& key : variants) {
      RegDeleteTreeW(HKEY_LOCAL_MACHINE, (L"software\\asio\\" + key).c_str());
    }
    for (const std::wstring& clsid : classes) {
      RegDeleteTreeW(HKEY_CLASSES_ROOT, (L"CLSID\\" + clsid).c_str());
    }
    // A clean default entry for whoever comes next.
    Entry("DllUnregisterServer");
    Entry("DllRegisterServer");
    FreeLibrary(dll);
#endif
  }

#if defined(_WIN32)
  HRESULT Entry(const char* name) {
    typedef HRESULT(WINAPI * Function)();
    auto function =
        reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(dll, name)));
    return function != nullptr ? function() : E_FAIL;
  }
  static void Write(HKEY root, const std::wstring& path, const wchar_t* name, DWORD number) {
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExW(root, path.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr),
              ERROR_SUCCESS);
    RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), sizeof number);
    RegCloseKey(key);
  }
  static void Write(HKEY root, const std::wstring& path, const wchar_t* name,
                    const std::wstring& text) {
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExW(root, path.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr),
              ERROR_SUCCESS);
    RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                   static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
    RegCloseKey(key);
  }
  // A setting of the default driver, read when it is made and at init.
  void Set(const wchar_t* name, DWORD number) {
    Write(HKEY_LOCAL_MACHINE, L"software\\asio\\Quillon Test", name, number);
  }
  void Set(const wchar_t* name, const std::wstring& text) {
    Write(HKEY_LOCAL_MACHINE, L"software\\asio\\Quillon Test", name, text);
  }
  // Another driver entry: its own class served by the same DLL, or by a
  // file that is gone, or no server entry at all.
  std::wstring AddVariant(const std::wstring& key, uint32_t number, const std::wstring& description,
                          const std::wstring& server) {
    wchar_t clsid[40];
    swprintf(clsid, 40, L"{5A0C%04X-1111-4222-8333-444455556666}", number);
    variants.push_back(key);
    classes.push_back(clsid);
    const std::wstring entry = L"software\\asio\\" + key;
    if (!description.empty()) Write(HKEY_LOCAL_MACHINE, entry, L"description", description);
    Write(HKEY_LOCAL_MACHINE, entry, L"clsid", std::wstring(clsid));
    const std::wstring classKey = std::wstring(L"CLSID\\") + clsid;
    Write(HKEY_CLASSES_ROOT, classKey, nullptr, L"variant");
    if (!server.empty()) {
      Write(HKEY_CLASSES_ROOT, classKey + L"\\InprocServer32", nullptr, server);
      Write(HKEY_CLASSES_ROOT, classKey + L"\\InprocServer32", L"ThreadingModel", L"Both");
    }
    return entry;
  }
  SQuillonTestDriverStats Stats() {
    SQuillonTestDriverStats now;
    stats(&now);
    return now;
  }
#endif

  void MakeLibrary() {
    const SLibraryParams params = {UsableWindow(), 0};
    uint32_t status = 0;
    library = Quillon_Create("IQuillon2", &params, &status);
    ASSERT_NE(library, nullptr);
    specs = library->GetDriverSpecs(&status);
    ASSERT_NE(specs, nullptr);
  }
  // The spec of a listed ASIO driver by its shown name, or null.
  const IDriverSpec* Find(const std::u16string& name) {
    for (int64_t i = 0; i < specs->GetSize(); ++i) {
      SDriverSpecKey key;
      specs->GetData()[i]->GetKeyRecord(&key);
      if (Text(key.family) == u"ASIO" && Text(key.name) == name) return specs->GetData()[i];
    }
    return nullptr;
  }
  IClient* Open(const SClientSettings* settings = nullptr, uint32_t expectRunning = 1) {
    const IDriverSpec* spec = Find(u"Quillon Test");
    EXPECT_NE(spec, nullptr);
    if (spec == nullptr) return nullptr;
    uint32_t running = 9;
    uint32_t status = 0;
    IClient* client =
        settings != nullptr
            ? library->CreateClientWithSettings(&host, nullptr, spec, settings, &running, &status)
            : library->CreateClient(&host, nullptr, spec, &running, &status);
    EXPECT_EQ(status, kStatusOk);
    EXPECT_EQ(running, expectRunning);
    return client;
  }
  // Idles as a host does, every 20 ms, until the condition holds.
  template <class Condition>
  bool IdleUntil(IClient* client, Condition condition, int milliseconds) {
    return WaitFor([&] {
      client->Idle();
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      return condition();
    }, milliseconds);
  }

  // Frames rendered over wall time for 10 s of the host's idling.
  double PaceOverTenSeconds(IClient* client) {
    const uint64_t startFrames = host.framesRendered;
    const auto start = std::chrono::steady_clock::now();
    IdleUntil(client, [&] {
      return std::chrono::steady_clock::now() - start >= std::chrono::seconds(10);
    }, 20000);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return static_cast<double>(host.framesRendered - startFrames) / seconds;
  }

  // The client goes on in silence and hears of the loss once.
  void ExpectLossToldOnce(IClient* client) {
    ASSERT_TRUE(IdleUntil(client, [&] { return host.lost.load() == 1; }, 30000));
    for (int i = 0; i < 5; ++i) EXPECT_EQ(client->Idle(), kStatusOk);
    EXPECT_EQ(host.lost.load(), 1);
    const uint64_t blocks = host.blocks;
    ASSERT_TRUE(WaitFor([&] { return host.blocks.load() >= blocks + 2; }));
  }

#if defined(_WIN32)
  HMODULE dll = nullptr;
  std::wstring dllPath;
  QuillonTestDriverStatsFunction stats = nullptr;
  QuillonTestDriverResetStatsFunction resetStats = nullptr;
  std::vector<std::wstring> variants;
  std::vector<std::wstring> classes;
#endif
  IQuillon* library = nullptr;
  IVector<const IDriverSpec*>* specs = nullptr;
  RampHost host;
};

#if defined(_WIN32)

SClientSettings Stereo(uint32_t rate, uint32_t frames) {
  SClientSettings flat;
  std::memset(&flat, 0, sizeof flat);
  flat.sampleRate = rate;
  flat.bufferFrames = frames;
  flat.outputPairEnabled[0] = 1;
  return flat;
}

TEST_F(RealASIOTest, ListedByTheRegistryAloneWithTheFamilyRules) {
  AddVariant(L"Long", 1, L"ASIO A description of forty units, long.", dllPath);
  AddVariant(L"Gone File", 2, L"Gone File", L"C:\\nowhere\\gone.dll");
  AddVariant(L"No Server", 3, L"No Server", L"");
  Write(HKEY_LOCAL_MACHINE, L"software\\asio\\No Clsid", L"description", std::wstring(L"No Clsid"));
  variants.push_back(L"No Clsid");
  MakeLibrary();
  const IDriverSpec* spec = Find(u"Quillon Test");
  ASSERT_NE(spec, nullptr);
  SDriverSpecKey key;
  spec->GetKeyRecord(&key);
  for (uint32_t flag : key.flags) EXPECT_EQ(flag, 1u);
  // The saved spec carries the key, in UTF-16.
  struct SSink final : IByteSink {
    uint32_t Write(uint64_t, uint64_t length, const void* data) override {
      bytes.append(static_cast<const char*>(data), static_cast<size_t>(length));
      return kStatusOk;
    }
    std::string bytes;
  } sink;
  uint64_t position = 0;
  ASSERT_EQ(library->SaveDriverSpec(spec, &sink, &position), kStatusOk);
  const std::u16string keyText = u"Ferrand ASIO ASIO Quillon Test";
  EXPECT_NE(sink.bytes.find(std::string(reinterpret_cast<const char*>(keyText.data()),
                                        keyText.size() * 2)),
            std::string::npos);
  // A description of 40 units shows as 28 and "...", without "ASIO ".
  EXPECT_NE(Find(u"A description of forty ..."), nullptr);
  EXPECT_NE(Find(u"Gone File"), nullptr);
  EXPECT_EQ(Find(u"No Server"), nullptr);
  EXPECT_EQ(Find(u"No Clsid"), nullptr);
  EXPECT_EQ(Stats().createdObjects, 0u);
}

TEST_F(RealASIOTest, ADriverThatCrashesWhenMadeLeavesListingAndNoSoundWorking) {
  const std::wstring entry = AddVariant(L"Crasher", 4, L"Crasher", dllPath);
  Write(HKEY_LOCAL_MACHINE, entry, L"crashOnCreate", 1);
  MakeLibrary();
  EXPECT_NE(Find(u"Crasher"), nullptr);
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client = library->CreateClient(&host, nullptr, specs->GetData()[0], &running, &status);
  ASSERT_EQ(status, kStatusOk);
  EXPECT_EQ(running, 1u);
  ASSERT_TRUE(WaitFor([&] { return host.blocks.load() >= 2; }));
  QuillonDestroy(client);
}

TEST_F(RealASIOTest, PlaysTenSecondsAt256Frames) {
  Set(L"inputLatency", 480);
  Set(L"outputLatency", 960);
  MakeLibrary();
  const SClientSettings flat = Stereo(48000, 256);
  IClient* client = Open(&flat);
  ASSERT_NE(client, nullptr);
  ASSERT_TRUE(IdleUntil(client, [&] { return host.blocks.load() >= 20; }, 10000));
  EXPECT_NEAR(PaceOverTenSeconds(client), 48000.0, 48000.0 * 0.02);
  EXPECT_EQ(host.positionJumps.load(), 0u);
  EXPECT_EQ(host.lost.load(), 0);
  // Positions apart by both latencies; times by both, at the rate.
  EXPECT_EQ(host.positionSpan.load(), 480u + 960u);
  EXPECT_NEAR(static_cast<double>(host.timeSpan.load()), 30000000.0, 1.0);
  EXPECT_EQ(Stats().timeInfo, 1);
  QuillonDestroy(client);
  EXPECT_EQ(Stats().liveObjects, 0);
}

TEST_F(RealASIOTest, PlaysTenSecondsAt64Frames) {
  MakeLibrary();
  const SClientSettings flat = Stereo(48000, 64);
  IClient* client = Open(&flat);
  ASSERT_NE(client, nullptr);
  SClientSettings seen;
  ASSERT_EQ(client->GetClientSettings(&seen), kStatusOk);
  EXPECT_EQ(seen.bufferFrames, 64u);
  ASSERT_TRUE(IdleUntil(client, [&] { return host.blocks.load() >= 50; }, 10000));
  EXPECT_NEAR(PaceOverTenSeconds(client), 48000.0, 48000.0 * 0.02);
  EXPECT_EQ(host.positionJumps.load(), 0u);
  EXPECT_EQ(host.lost.load(), 0);
  QuillonDestroy(client);
}

TEST_F(RealASIOTest, EachSampleTypeReachesTheDriverAsTheKernelsMakeIt) {
  Set(L"checkOutputs", 1);
  Set(L"outputs", 4);
  MakeLibrary();
  const uint32_t types[] = {16, 17, 18, 19, 24, 27, 2, 0};
  for (uint32_t type : types) {
    Set(L"sampleType", type);
    resetStats();
    SClientSettings flat = Stereo(48000, 256);
    flat.outputPairEnabled[1] = 1;
    IClient* client = Open(&flat);
    ASSERT_NE(client, nullptr);
    ASSERT_TRUE(IdleUntil(client, [&] { return Stats().checkedBuffers >= 20; }, 10000)) << type;
    QuillonDestroy(client);
    EXPECT_EQ(Stats().mismatches, 0u) << "type " << type;
  }
}

TEST_F(RealASIOTest, AResetRequestRestartsAtTheNextIdle) {
  Set(L"resetAfter", 50);
  Set(L"preferredSize", 512);
  MakeLibrary();
  IClient* client = Open();
  ASSERT_NE(client, nullptr);
  client->Idle();
  const int reports = host.settingsReports;
  ASSERT_TRUE(IdleUntil(client, [&] { return host.settingsReports.load() > reports; }, 10000));
  // Playing again within one Idle period of the host.
  const uint64_t switches = Stats().switches;
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_GT(Stats().switches, switches);
  EXPECT_EQ(host.lastFrames.load(), 512u);
  EXPECT_EQ(host.lost.load(), 0);
  EXPECT_EQ(Stats().createdObjects, 2u);
  QuillonDestroy(client);
}

TEST_F(RealASIOTest, ARefusedStartIsALossToldOnce) {
  Set(L"resetAfter", 20);
  Set(L"refuse", L"start@2:-999");
  MakeLibrary();
  IClient* client = Open();
  ASSERT_NE(client, nullptr);
  ExpectLossToldOnce(client);
  QuillonDestroy(client);
  EXPECT_EQ(Stats().liveObjects, 0);
}

TEST_F(RealASIOTest, ARefusedCreateBuffersIsALossToldOnce) {
  Set(L"resetAfter", 20);
  Set(L"refuse", L"createBuffers@2:-994");
  MakeLibrary();
  IClient* client = Open();
  ASSERT_NE(client, nullptr);
  ExpectLossToldOnce(client);
  QuillonDestroy(client);
}

TEST_F(RealASIOTest, ARefusedStartAtOpeningGivesSilence) {
  Set(L"refuse", L"start:-999");
  MakeLibrary();
  IClient* client = Open(nullptr, 0);
  ASSERT_NE(client, nullptr);
  ASSERT_TRUE(WaitFor([&] { return host.blocks.load() >= 2; }));
  EXPECT_EQ(Stats().liveObjects, 0);
  QuillonDestroy(client);
}

TEST_F(RealASIOTest, ADriverThatStopsCallingIsALossToldOnce) {
  Set(L"stopAfter", 50);
  MakeLibrary();
  IClient* client = Open();
  ASSERT_NE(client, nullptr);
  ExpectLossToldOnce(client);
  QuillonDestroy(client);
  EXPECT_EQ(Stats().liveObjects, 0);
}

TEST_F(RealASIOTest, SwitchingAwayAndBackLeavesOneDriverAtATime) {
  MakeLibrary();
  IClient* client = Open();
  ASSERT_NE(client, nullptr);
  const IDriverSpec* asio = Find(u"Quillon Test");
  for (int i = 0; i < 20; ++i) {
    uint32_t running = 0;
    ASSERT_EQ(client->SetDriver(specs->GetData()[0], &running), kStatusOk);
    EXPECT_EQ(Stats().liveObjects, 0);
    ASSERT_EQ(client->SetDriver(asio, &running), kStatusOk);
    EXPECT_EQ(running, 1u);
    EXPECT_EQ(Stats().liveObjects, 1);
  }
  EXPECT_EQ(Stats().mostLiveObjects, 1);
  EXPECT_EQ(host.lost.load(), 0);
  QuillonDestroy(client);
  EXPECT_EQ(Stats().liveObjects, 0);
}

TEST_F(RealASIOTest, ARateChangeReachesTheHostAtItsIdle) {
  Set(L"rateChangeAfter", 30);
  Set(L"rateChangeTo", 44100);
  MakeLibrary();
  const SClientSettings flat = Stereo(48000, 256);
  IClient* client = Open(&flat);
  ASSERT_NE(client, nullptr);
  client->Idle();
  SClientSettings seen;
  ASSERT_TRUE(IdleUntil(client, [&] {
    return client->GetClientSettings(&seen) == kStatusOk && seen.sampleRate == 44100;
  }, 10000));
  EXPECT_GE(host.settingsReports.load(), 1);
  EXPECT_EQ(host.lost.load(), 0);
  QuillonDestroy(client);
}

TEST_F(RealASIOTest, ASlowCallIsWaitedFor) {
  Set(L"slowCall", L"createBuffers");
  Set(L"slowMs", 400);
  MakeLibrary();
  const auto start = std::chrono::steady_clock::now();
  IClient* client = Open();
  ASSERT_NE(client, nullptr);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(350));
  ASSERT_TRUE(IdleUntil(client, [&] { return host.blocks.load() >= 10; }, 10000));
  QuillonDestroy(client);
}

TEST_F(RealASIOTest, TheHardwareIdentityIsAskedThroughCOM) {
  struct SCase {
    DWORD mode;
    bool answered;
    std::string identity;
  } cases[] = {{0, false, ""}, {1, true, "unit-\xc3\xa9"}, {2, true, ""}, {3, true, ""}};
  Set(L"identity", L"unit-\u00e9");
  NSASIO::LoadDriverList(NSASIO::SystemASIOPlatform());
  for (const SCase& c : cases) {
    Set(L"identityMode", c.mode);
    std::string identity = "old";
    EXPECT_EQ(NSASIO::ProbeHardwareIdentity(u"ASIO Quillon Test", identity), c.answered) << c.mode;
    EXPECT_EQ(identity, c.identity) << c.mode;
  }
  NSASIO::UnloadDriverList();
  EXPECT_EQ(Stats().createdObjects, 4u);
  EXPECT_EQ(Stats().liveObjects, 0);
}

// The hardware library's filter and binding with drivers made by the real
// CoCreateInstance: the test driver names its device through the identity
// interface, and the test hardware library is loaded from disk.
TEST_F(RealASIOTest, DriversAreFilteredAndBoundByTheDevicesTheyName) {
  Set(L"identityMode", 1);
  Set(L"identity", L"Dev A");
  const std::wstring unplugged = AddVariant(L"Unplugged", 5, L"Unplugged", dllPath);
  Write(HKEY_LOCAL_MACHINE, unplugged, L"identityMode", 3);
  ZEPFake_Reset();
  ZEPFake_SetDevices("Dev A");
  NSTestFakes::CScratchFolder module;
  NSTestFakes::PlaceZEPLibrary("v1_999_999", module.Path(), "ZEPLib");
  NSTestFakes::CRedirectedZEPPlatform zep;
  zep.moduleFolder = module.Path();
  const SPlatformProvider provider = {nullptr, nullptr, nullptr, &zep, nullptr};
  SetPlatformProvider(&provider);
  const SLibraryParams params = {UsableWindow(), kLibraryFlagUseHardware};
  uint32_t status = 0;
  library = Quillon_Create("IQuillon2", &params, &status);
  ASSERT_EQ(status, kStatusOk);
  specs = library->GetDriverSpecs(&status);
  EXPECT_EQ(Find(u"Unplugged"), nullptr);
  IClient* client = Open();
  ASSERT_NE(client, nullptr);
  uint8_t has = 0;
  EXPECT_EQ(client->HasHardwareDevice(&has), kStatusOk);
  EXPECT_EQ(has, 1);
  EXPECT_EQ(client->SetGainSafeIndicator(kGainSafeIndicatorState2), kStatusOk);
  const std::string handle = std::to_string(ZEPFake_DeviceHandle("Dev A"));
  EXPECT_TRUE(ZEPFakeLogged("ZEP_DeviceOpen Dev A"));
  EXPECT_TRUE(ZEPFakeLogged("ZEP_SetDeviceGainSafeIndicator " + handle + " 2"));
  // A device comes: its driver is listed at the next Idle.
  Write(HKEY_LOCAL_MACHINE, unplugged, L"identityMode", 1);
  Write(HKEY_LOCAL_MACHINE, unplugged, L"identity", std::wstring(L"Dev B"));
  ZEPFake_SetDevices("Dev A\nDev B");
  EXPECT_EQ(ZEPFake_FireConnection(), 0u);
  EXPECT_EQ(client->Idle(), kStatusOk);
  QuillonDestroy(specs);
  specs = library->GetDriverSpecs(&status);
  EXPECT_NE(Find(u"Unplugged"), nullptr);
  // The device in use goes: its driver stops at the next Idle, told once.
  Set(L"identityMode", 3);
  ZEPFake_SetDevices("Dev B");
  EXPECT_EQ(ZEPFake_FireConnection(), 0u);
  EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(host.lost.load(), 1);
  EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(host.lost.load(), 1);
  QuillonDestroy(client);
  QuillonDestroy(specs);
  specs = nullptr;
  QuillonDestroy(library);
  library = nullptr;
  SetPlatformProvider(nullptr);
  const std::vector<std::string> log = ZEPFakeLog();
  ASSERT_FALSE(log.empty());
  EXPECT_EQ(log.back(), "unload 1.999.999.0");
  EXPECT_EQ(ZEPFake_LoadedCopies(), 0);
  EXPECT_EQ(Stats().liveObjects, 0);
}

// Drivers that crash or hang in their own code. Each test has classes of its
// own: a quarantine lasts as long as the process.
constexpr int64_t kMarginMs = 2500;
constexpr int64_t kMostMs = 8000;

int64_t MsSince(std::chrono::steady_clock::time_point started) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               started)
      .count();
}

class FaultyDriverTest : public RealASIOTest {
 protected:
  void SetUp() override {
    RealASIOTest::SetUp();
    if (dll == nullptr) return;
    static uint32_t nextClass = 0x100;
    faulty = AddVariant(L"Faulty", nextClass++, L"Faulty", dllPath);
    // The other driver is a second file: faults are told apart by module.
    std::wstring other = dllPath;
    other.replace(other.size() - 4, 4, L"Other.dll");
    AddVariant(L"Other", nextClass++, L"Other", other);
  }
  // Opens `name`; the time the call took.
  IClient* OpenNamed(const std::u16string& name, RampHost& to, uint32_t& running, int64_t& took) {
    const IDriverSpec* spec = name == u"No Sound" ? specs->GetData()[0] : Find(name);
    EXPECT_NE(spec, nullptr);
    if (spec == nullptr) return nullptr;
    uint32_t status = 0;
    const auto started = std::chrono::steady_clock::now();
    IClient* client = library->CreateClient(&to, nullptr, spec, &running, &status);
    took = MsSince(started);
    EXPECT_EQ(status, kStatusOk);
    return client;
  }
  void Destroy(IClient* client) {
    const auto started = std::chrono::steady_clock::now();
    QuillonDestroy(client);
    EXPECT_LT(MsSince(started), kMostMs);
  }
  // Render comes from the silent thread at least once in each of 3 s.
  void ExpectRenderEverySecond(RampHost& on) {
    for (int second = 0; second < 3; ++second) {
      const uint64_t before = on.blocks.load();
      std::this_thread::sleep_for(std::chrono::seconds(1));
      EXPECT_GT(on.blocks.load(), before) << "second " << second;
    }
  }
  // The faulty driver opens no more; the other one, and "No Sound", do.
  void ExpectTheOthersStillOpen() {
    RampHost again;
    uint32_t running = 9;
    int64_t took = 0;
    IClient* refused = OpenNamed(u"Faulty", again, running, took);
    EXPECT_EQ(running, 0u);
    EXPECT_LT(took, 1000);
    Destroy(refused);
    RampHost second;
    IClient* other = OpenNamed(u"Other", second, running, took);
    EXPECT_EQ(running, 1u);
    EXPECT_TRUE(WaitFor([&] { return second.blocks.load() >= 10; }));
    Destroy(other);
    RampHost third;
    IClient* silent = OpenNamed(u"No Sound", third, running, took);
    EXPECT_EQ(running, 1u);
    EXPECT_TRUE(WaitFor([&] { return third.blocks.load() >= 2; }));
    Destroy(silent);
  }
  // A client on the faulty driver, playing.
  IClient* OpenPlaying() {
    uint32_t running = 9;
    int64_t took = 0;
    IClient* client = OpenNamed(u"Faulty", host, running, took);
    EXPECT_EQ(running, 1u);
    EXPECT_TRUE(WaitFor([&] { return host.blocks.load() >= 10; }));
    return client;
  }

  std::wstring faulty;
};

struct SOpeningFault {
  const wchar_t* how;  // "crash" or "hang"
  const wchar_t* call;
  int64_t deadlineMs;
  const char* name;
};

class FaultAtOpeningTest : public FaultyDriverTest,
                           public ::testing::WithParamInterface<SOpeningFault> {};

TEST_P(FaultAtOpeningTest, TheHostSurvivesWithSilenceAndTheDriverOpensNoMore) {
  const SOpeningFault& fault = GetParam();
  Write(HKEY_LOCAL_MACHINE, faulty, fault.how, std::wstring(fault.call));
  MakeLibrary();
  uint32_t running = 9;
  int64_t took = 0;
  IClient* client = OpenNamed(u"Faulty", host, running, took);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(running, 0u);
  if (fault.deadlineMs != 0) {
    EXPECT_GE(took, fault.deadlineMs - 100);
  }
  EXPECT_LT(took, std::min<int64_t>(fault.deadlineMs + kMarginMs, kMostMs));
  EXPECT_TRUE(WaitFor([&] { return host.blocks.load() >= 3; }));
  EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(host.lost.load(), 0);
  Destroy(client);
  ExpectTheOthersStillOpen();
}

INSTANTIATE_TEST_SUITE_P(
    EachStep, FaultAtOpeningTest,
    ::testing::Values(SOpeningFault{L"crash", L"create", 0, "CrashInCreate"},
                      SOpeningFault{L"crash", L"init", 0, "CrashInInit"},
                      SOpeningFault{L"crash", L"getChannels", 0, "CrashInGetChannels"},
                      SOpeningFault{L"crash", L"getBufferSize", 0, "CrashInGetBufferSize"},
                      SOpeningFault{L"crash", L"createBuffers", 0, "CrashInCreateBuffers"},
                      SOpeningFault{L"crash", L"start", 0, "CrashInStart"},
                      SOpeningFault{L"hang", L"create", NSASIO::kCreateCallMs, "HangInCreate"},
                      SOpeningFault{L"hang", L"init", NSASIO::kCreateCallMs, "HangInInit"},
                      SOpeningFault{L"hang", L"getChannels", NSASIO::kQueryCallMs,
                                    "HangInGetChannels"},
                      SOpeningFault{L"hang", L"getBufferSize", NSASIO::kQueryCallMs,
                                    "HangInGetBufferSize"},
                      SOpeningFault{L"hang", L"createBuffers", NSASIO::kStreamCallMs,
                                    "HangInCreateBuffers"},
                      SOpeningFault{L"hang", L"start", NSASIO::kStreamCallMs, "HangInStart"}),
    [](const ::testing::TestParamInfo<SOpeningFault>& step) { return step.param.name; });

struct SClosingFault {
  const wchar_t* how;
  const wchar_t* call;
  const char* name;
};

class FaultAtClosingTest : public FaultyDriverTest,
                           public ::testing::WithParamInterface<SClosingFault> {};

// Leaving the driver for "No Sound" stops it and disposes of its buffers;
// destroying the client then releases nothing more.
TEST_P(FaultAtClosingTest, SwitchingAwayAndDestroyingComeBackInTime) {
  const SClosingFault& fault = GetParam();
  Write(HKEY_LOCAL_MACHINE, faulty, fault.how, std::wstring(fault.call));
  MakeLibrary();
  IClient* client = OpenPlaying();
  ASSERT_NE(client, nullptr);
  uint32_t running = 9;
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(client->SetDriver(specs->GetData()[0], &running), kStatusOk);
  EXPECT_LT(MsSince(started), NSASIO::kStreamCallMs + kMarginMs);
  EXPECT_EQ(running, 1u);
  const uint64_t blocks = host.blocks.load();
  EXPECT_TRUE(WaitFor([&] { return host.blocks.load() >= blocks + 2; }));
  Destroy(client);
  ExpectTheOthersStillOpen();
}

INSTANTIATE_TEST_SUITE_P(
    EachStep, FaultAtClosingTest,
    ::testing::Values(SClosingFault{L"crash", L"stop", "CrashInStop"},
                      SClosingFault{L"crash", L"disposeBuffers", "CrashInDisposeBuffers"},
                      SClosingFault{L"crash", L"release", "CrashInRelease"},
                      SClosingFault{L"hang", L"stop", "HangInStop"},
                      SClosingFault{L"hang", L"disposeBuffers", "HangInDisposeBuffers"},
                      SClosingFault{L"hang", L"release", "HangInRelease"}),
    [](const ::testing::TestParamInfo<SClosingFault>& step) { return step.param.name; });

TEST_F(FaultyDriverTest, ACrashOnTheDriversOwnThreadIsALossToldOnce) {
  Write(HKEY_LOCAL_MACHINE, faulty, L"crashAfter", 40);
  MakeLibrary();
  IClient* client = OpenPlaying();
  ASSERT_NE(client, nullptr);
  ASSERT_TRUE(IdleUntil(client, [&] { return host.lost.load() == 1; }, 10000));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(host.lost.load(), 1);
  ExpectRenderEverySecond(host);
  Destroy(client);
  ExpectTheOthersStillOpen();
}

TEST_F(FaultyDriverTest, AStartAfterWhichItNeverCallsIsALossToldOnce) {
  Write(HKEY_LOCAL_MACHINE, faulty, L"neverCalls", 1);
  MakeLibrary();
  uint32_t running = 9;
  int64_t took = 0;
  IClient* client = OpenNamed(u"Faulty", host, running, took);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(running, 1u);
  ASSERT_TRUE(IdleUntil(client, [&] { return host.lost.load() == 1; }, 30000));
  ExpectRenderEverySecond(host);
  Destroy(client);
}

// A driver whose stop never returns goes on calling back from its thread:
// those calls render nobody, not the next ASIO driver's client either.
TEST_F(FaultyDriverTest, AStopThatNeverReturnsRendersNobodyAfterwards) {
  Write(HKEY_LOCAL_MACHINE, faulty, L"hang", std::wstring(L"stop"));
  const std::wstring other = L"software\\asio\\Other";
  Write(HKEY_LOCAL_MACHINE, other, L"neverCalls", 1);
  MakeLibrary();
  IClient* client = OpenPlaying();
  ASSERT_NE(client, nullptr);
  uint32_t running = 9;
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(client->SetDriver(Find(u"Other"), &running), kStatusOk);
  EXPECT_LT(MsSince(started), NSASIO::kStreamCallMs + kMarginMs);
  EXPECT_EQ(running, 1u);
  const uint64_t blocks = host.blocks.load();
  const uint64_t switches = Stats().switches;
  ASSERT_TRUE(WaitFor([&] { return Stats().switches >= switches + 20; }));
  EXPECT_EQ(host.blocks.load(), blocks);
  Destroy(client);
}

// The host's own fault, in its Render on the driver's thread, is the host's:
// the process ends as it would without the library.
class FaultingHost final : public IClientHost {
 public:
  uint32_t Render(IClient*, uint32_t, const float* const*, int32_t, const SRenderTiming*,
                  float* const*, int32_t, const SRenderTiming*) override {
    if (++blocks > 20) {
      volatile uintptr_t nowhere = 0;
      *reinterpret_cast<volatile int*>(nowhere) = 1;
    }
    return 0;
  }
  void OnDriverLost(IClient*) override {}
  void OnSettingsChanged(IClient*, const SClientSettings*) override {}
  void OnDriverListChanged(IClient*) override {}
  std::atomic<int> blocks{0};
};

TEST_F(RealASIOTest, AHostWhoseRenderFaultsOnTheDriversThreadCrashesAsWithoutTheLibrary) {
  if (std::getenv("QUILLON_FAULTING_HOST") != nullptr) {
    // The child: plays until its own Render faults.
    MakeLibrary();
    FaultingHost faulting;
    uint32_t running = 0;
    uint32_t status = 0;
    library->CreateClient(&faulting, nullptr, Find(u"Quillon Test"), &running, &status);
    std::this_thread::sleep_for(std::chrono::seconds(20));
    std::fprintf(stderr, "the host's fault was swallowed\n");
    std::exit(3);
  }
  // No crash debugger: an unhandled fault ends the process with its code.
  HKEY key = nullptr;
  const wchar_t* const aeDebug = L"Software\\Microsoft\\Windows NT\\CurrentVersion\\AeDebug";
  wchar_t debugger[512] = {};
  DWORD bytes = sizeof debugger - sizeof(wchar_t);
  bool hadDebugger = false;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, aeDebug, 0, KEY_READ | KEY_WRITE, &key) == ERROR_SUCCESS) {
    hadDebugger = RegQueryValueExW(key, L"Debugger", nullptr, nullptr,
                                   reinterpret_cast<BYTE*>(debugger), &bytes) == ERROR_SUCCESS;
    RegDeleteValueW(key, L"Debugger");
  }
  wchar_t self[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, self, MAX_PATH);
  std::wstring command = L"\"" + std::wstring(self) +
                         L"\" --gtest_filter=RealASIOTest."
                         L"AHostWhoseRenderFaultsOnTheDriversThreadCrashesAsWithoutTheLibrary";
  SetEnvironmentVariableW(L"QUILLON_FAULTING_HOST", L"1");
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process = {};
  const BOOL started = CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr,
                                      nullptr, &startup, &process);
  SetEnvironmentVariableW(L"QUILLON_FAULTING_HOST", nullptr);
  DWORD code = 0;
  if (started) {
    EXPECT_EQ(WaitForSingleObject(process.hProcess, 60000), WAIT_OBJECT_0);
    GetExitCodeProcess(process.hProcess, &code);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
  }
  if (key != nullptr) {
    if (hadDebugger) {
      RegSetValueExW(key, L"Debugger", 0, REG_SZ, reinterpret_cast<const BYTE*>(debugger),
                     static_cast<DWORD>((wcslen(debugger) + 1) * sizeof(wchar_t)));
    }
    RegCloseKey(key);
  }
  ASSERT_TRUE(started);
  EXPECT_EQ(code, 0xC0000005u);
}

#else

TEST_F(RealASIOTest, NeedsTheWindowsBuild) {}

#endif

}  // namespace
