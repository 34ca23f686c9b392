#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "e2e/e2e_support.h"
#include "hardware/zep_call_thread.h"
#include "failure/builder.h"
#include "fakes/fake_wasapi.h"
#include "driver/registry.h"
#include "fakes/fake_asio.h"
#include "fakes/fake_driver.h"
#include "fakes/fake_dsound.h"
#include "fakes/zep_platform_fake.h"
#include "public/library.h"
#include "support/usable_window.h"
#include "zep_fake/zep_fake_log.h"

namespace {

constexpr uint32_t kNoDeviceStatus = 570525530;

uint32_t NotFoundDllStatus() {
  return kStatusBase + NSMarlet::PackFailure(NSMarlet::kFailureCode_RuntimeError_NotFound, "dll",
                                             NSMarlet::ProgramTargetWords());
}

// A host that asked for hardware support, with the test hardware library
// beside the module. Two ASIO drivers name devices ("Box A" names "Dev A";
// "Box B" names none until its device comes), and "Plain" cannot be asked.
class HardwareClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZEPFake_Reset();
    // A library cut off before stays loaded: each test counts from here.
    copiesAtStart = ZEPFake_LoadedCopies();
    ZEPFake_SetDevices("Dev A");
    ZEPFake_SetChannelCount(8);
    NSTestFakes::PlaceZEPLibrary("v1_999_999", module.Path(), "ZEPLib");
    zep.moduleFolder = module.Path();
    noDirectSound.libraryPresent = false;
    boxA = asio.AddDriver(u"Box A", Fakes::FakeClsidText(1), u"ASIO Box A");
    boxA->hasIdentity = true;
    boxA->identity = u"Dev A";
    boxA->inputs = 6;
    boxA->outputs = 2;
    boxB = asio.AddDriver(u"Box B", Fakes::FakeClsidText(2), u"ASIO Box B");
    boxB->hasIdentity = true;
    plain = asio.AddDriver(u"Plain", Fakes::FakeClsidText(3), u"ASIO Plain");
    SetPlatformProvider(&provider);
  }
  void TearDown() override {
    QuillonDestroy(specs);
    QuillonDestroy(library);
    SetPlatformProvider(nullptr);
    ZEPFake_WaitEvents();
  }

  void Create(uint32_t expectStatus = kStatusOk) {
    const SLibraryParams params = {UsableWindow(), kLibraryFlagUseHardware};
    uint32_t status = 0;
    library = Quillon_Create("IQuillon2", &params, &status);
    ASSERT_EQ(status, expectStatus);
    if (library != nullptr) Relist();
  }
  void Relist() {
    QuillonDestroy(specs);
    uint32_t status = 0;
    specs = library->GetDriverSpecs(&status);
    ASSERT_EQ(status, kStatusOk);
  }
  const IDriverSpec* Named(const std::u16string& name) { return NamedSpec(specs, name); }
  IClient* Open(const std::u16string& name, IHardwareEventSink* context = nullptr,
                const SClientSettings* settings = nullptr) {
    uint32_t running = 9;
    uint32_t status = 0;
    const IDriverSpec* spec = Named(name);
    EXPECT_NE(spec, nullptr);
    IClient* client =
        settings != nullptr
            ? library->CreateClientWithSettings(&host, context, spec, settings, &running, &status)
            : library->CreateClient(&host, context, spec, &running, &status);
    EXPECT_EQ(status, kStatusOk);
    EXPECT_EQ(running, 1u);
    return client;
  }
  CZEPLibHandler* Handler() { return static_cast<CQuillonImpl*>(library)->HardwareHandler(); }
  static std::vector<std::string> Log() { return ZEPFakeLog(); }
  static bool Logged(const std::string& line) { return ZEPFakeLogged(line); }
  static size_t Count(const std::string& prefix) { return ZEPFakeLogCount(prefix); }
  int ListReports() {
    const std::vector<std::string> events = host.Events();
    return static_cast<int>(std::count(events.begin(), events.end(), std::string("list")));
  }
  static std::string DeviceA() { return std::to_string(ZEPFake_DeviceHandle("Dev A")); }

  NSTestFakes::CScratchFolder module;
  NSTestFakes::CRedirectedZEPPlatform zep;
  Fakes::CFakeWaveOut noWaveOut;
  Fakes::CFakeASIOPlatform asio;
  Fakes::CFakeDirectSound noDirectSound;
  Fakes::CNoWasapi noWasapi;
  SPlatformProvider provider{&noWaveOut, &asio, &noDirectSound, &zep, &noWasapi};
  std::shared_ptr<Fakes::SFakeASIODevice> boxA;
  std::shared_ptr<Fakes::SFakeASIODevice> boxB;
  std::shared_ptr<Fakes::SFakeASIODevice> plain;
  IQuillon* library = nullptr;
  IVector<const IDriverSpec*>* specs = nullptr;
  TestHost host;
  RecordingEventSink sink;
  int32_t copiesAtStart = 0;
};

TEST_F(HardwareClientTest, WithoutTheLibraryFileCreationFailsWithNotFoundDll) {
  std::filesystem::remove(module.Path() / NSTestFakes::ZEPFileName("ZEPLib"));
  Create(NotFoundDllStatus());
  EXPECT_EQ(library, nullptr);
  EXPECT_EQ(ZEPFake_LoadedCopies(), copiesAtStart);
}

TEST_F(HardwareClientTest, ALibraryThatIsConnectedAlreadyLeavesTheObjectWithoutHandler) {
  ZEPFake_SetResult("ZEP_Create", 1);
  Create();
  ASSERT_NE(library, nullptr);
  EXPECT_EQ(Handler(), nullptr);
  EXPECT_EQ(ZEPFake_LoadedCopies(), copiesAtStart);
  // Without a handler nothing is filtered, and clients are not limited.
  EXPECT_NE(Named(u"Box B"), nullptr);
  IClient* first = Open(u"Box A");
  IClient* second = Open(u"No Sound");
  uint8_t has = 9;
  EXPECT_EQ(first->HasHardwareDevice(&has), kStatusOk);
  EXPECT_EQ(has, 0);
  QuillonDestroy(second);
  QuillonDestroy(first);
}

TEST_F(HardwareClientTest, ASecondLibraryObjectWhileTheConnectionLivesIsRefused) {
  Create();
  const SLibraryParams params = {UsableWindow(), kLibraryFlagUseHardware};
  uint32_t status = 0;
  EXPECT_EQ(Quillon_Create("IQuillon2", &params, &status), nullptr);
  EXPECT_EQ(status, kStatusIllegalCall);
  EXPECT_EQ(Count("ZEP_Create"), 1u);
}

TEST_F(HardwareClientTest, ASecondClientGets995BeforeItsSpecIsLookedAt) {
  Create();
  ASSERT_NE(Handler(), nullptr);
  IClient* client = Open(u"Box A", &sink);
  uint32_t running = 9;
  uint32_t status = 0;
  EXPECT_EQ(library->CreateClient(&host, nullptr, nullptr, &running, &status), nullptr);
  EXPECT_EQ(status, kStatusIllegalCall);
  EXPECT_EQ(library->CreateClientWithSettings(&host, nullptr, nullptr, nullptr, &running, &status),
            nullptr);
  EXPECT_EQ(status, kStatusIllegalCall);
  QuillonDestroy(client);
  IClient* next = Open(u"Plain");
  QuillonDestroy(next);
}

TEST_F(HardwareClientTest, DriversWithoutADeviceAreHiddenUntilAConnectionEventAndTheNextIdle) {
  Create();
  EXPECT_NE(Named(u"Box A"), nullptr);
  EXPECT_EQ(Named(u"Box B"), nullptr);
  EXPECT_NE(Named(u"Plain"), nullptr);
  IClient* client = Open(u"Plain");
  ASSERT_EQ(client->Idle(), kStatusOk);
  boxB->identity = u"Dev B";
  ZEPFake_SetDevices("Dev A\nDev B");
  EXPECT_EQ(ZEPFake_FireConnection(), 0u);
  // Nothing happens on the library's thread.
  Relist();
  EXPECT_EQ(Named(u"Box B"), nullptr);
  EXPECT_EQ(ListReports(), 0);
  ASSERT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(ListReports(), 1);
  Relist();
  EXPECT_NE(Named(u"Box B"), nullptr);
  // A device that goes hides its driver again, and the driver in use stays.
  boxB->identity.clear();
  ZEPFake_SetDevices("Dev A");
  ZEPFake_FireConnection();
  ASSERT_EQ(client->Idle(), kStatusOk);
  Relist();
  EXPECT_EQ(Named(u"Box B"), nullptr);
  EXPECT_EQ(host.lost.load(), 0);
  QuillonDestroy(client);
}

TEST_F(HardwareClientTest, AnUnpluggedDeviceStopsItsDriverAtTheNextIdleAndIsReportedOnce) {
  Create();
  IClient* client = Open(u"Box A", &sink);
  uint8_t has = 0;
  ASSERT_EQ(client->HasHardwareDevice(&has), kStatusOk);
  EXPECT_EQ(has, 1);
  EXPECT_TRUE(Logged("ZEP_DeviceOpen Dev A"));
  ASSERT_EQ(client->Idle(), kStatusOk);
  boxA->identity.clear();
  ZEPFake_SetDevices("");
  ZEPFake_FireConnection();
  EXPECT_EQ(host.lost.load(), 0);
  ASSERT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(host.lost.load(), 1);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(host.lost.load(), 1);
  // Silent: the device went with its driver, and the clock goes on.
  ASSERT_EQ(client->HasHardwareDevice(&has), kStatusOk);
  EXPECT_EQ(has, 0);
  EXPECT_TRUE(Logged("ZEP_DeviceClose " + DeviceA()));
  const uint64_t silent = host.silentBlocks.load();
  EXPECT_TRUE(WaitFor([&] { return host.silentBlocks.load() > silent; }, 10000));
  QuillonDestroy(client);
}

TEST_F(HardwareClientTest, AnUnplugLeavesADriverWithoutThatDeviceAlone) {
  Create();
  IClient* client = Open(u"Plain");
  ZEPFake_SetDevices("");
  ZEPFake_FireConnection();
  ASSERT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(host.lost.load(), 0);
  QuillonDestroy(client);
}

TEST_F(HardwareClientTest, ButtonsReachTheHostOnlyFromTheBoundDeviceAndNotBetweenClients) {
  ZEPFake_SetDevices("Dev A\nDev B");
  boxB->identity = u"Dev B";
  Create();
  // Dev B has been opened once, so it has a handle the library knows.
  QuillonDestroy(Open(u"Box B"));
  const uintptr_t b = ZEPFake_DeviceHandle("Dev B");
  ASSERT_NE(b, 0u);
  IClient* client = Open(u"Box A", &sink);
  const uintptr_t a = ZEPFake_DeviceHandle("Dev A");
  ASSERT_NE(a, b);
  EXPECT_EQ(ZEPFake_FireButton(a, 1), 0u);
  EXPECT_EQ(ZEPFake_FireButton(a, 2), 0u);
  EXPECT_EQ(ZEPFake_FireButton(a, 3), 0u);
  // Dev B is connected but no driver in use is bound to it.
  EXPECT_EQ(ZEPFake_FireButton(b, 1), 0u);
  EXPECT_EQ(sink.Events(), (std::vector<uint32_t>{1, 2}));
  // The driver changes: the new one's device is bound.
  uint32_t running = 0;
  ASSERT_EQ(client->SetDriver(Named(u"Box B"), &running), kStatusOk);
  ASSERT_EQ(running, 1u);
  ASSERT_EQ(ZEPFake_DeviceHandle("Dev B"), b);
  ZEPFake_FireButton(a, 1);
  ZEPFake_FireButton(b, 2);
  EXPECT_EQ(sink.Events(), (std::vector<uint32_t>{1, 2, 2}));
  QuillonDestroy(client);
  ZEPFake_FireButton(b, 1);
  ZEPFake_FireButton(0, 1);
  EXPECT_EQ(sink.Events(), (std::vector<uint32_t>{1, 2, 2}));
  // A client on a driver without a device binds 0 and a context of its own.
  RecordingEventSink other;
  IClient* next = Open(u"Plain", &other);
  ZEPFake_FireButton(b, 1);
  EXPECT_TRUE(other.Events().empty());
  QuillonDestroy(next);
}

TEST_F(HardwareClientTest, ChannelOperationsReachTheDeviceWithTheMappedChannel) {
  Create();
  SClientSettings settings = Stereo(48000, 256);
  settings.inputPairEnabled[0] = 1;
  settings.inputPairEnabled[2] = 1;
  ZEPFake_SetPadding(4, 6, -12.0f);
  IClient* client = Open(u"Box A", nullptr, &settings);
  const std::string a = DeviceA();
  int32_t padded = -1;
  ASSERT_EQ(client->GetGainSafePaddedChannel(2, &padded), kStatusOk);
  EXPECT_EQ(padded, 6);
  EXPECT_TRUE(Logged("ZEP_GetDeviceChannelGainSafePaddedChannel " + a + " 4"));
  float padding = 0.0f;
  ASSERT_EQ(client->GetGainSafePaddingDb(2, &padding), kStatusOk);
  EXPECT_FLOAT_EQ(padding, -12.0f);
  EXPECT_EQ(client->SetGainSafeRoutingEnable(3, 5), kStatusOk);
  EXPECT_TRUE(Logged("ZEP_SetDeviceChannelGainSafeRoutingEnable " + a + " 5 1"));
  EXPECT_EQ(client->SetChannelActiveIndicator(1, 0), kStatusOk);
  EXPECT_TRUE(Logged("ZEP_SetDeviceChannelActiveIndicator " + a + " 1 0"));
  EXPECT_EQ(client->SetChannelActiveIndicator(0, 1), kStatusOk);
  EXPECT_TRUE(Logged("ZEP_SetDeviceChannelActiveIndicator " + a + " 0 1"));
  // Host channel 4 is beyond the four active inputs: no device call.
  const size_t before = Log().size();
  EXPECT_EQ(client->GetGainSafePaddedChannel(4, &padded), kStatusInvalidArgument);
  EXPECT_EQ(client->SetGainSafeRoutingEnable(4, 1), kStatusInvalidArgument);
  EXPECT_EQ(client->SetChannelActiveIndicator(0xFFFFFFFFu, 1), kStatusInvalidArgument);
  EXPECT_EQ(client->GetGainSafePaddedChannel(0, nullptr), kStatusInvalidArgument);
  EXPECT_EQ(client->GetGainSafePaddingDb(0, nullptr), kStatusInvalidArgument);
  EXPECT_EQ(Log().size(), before);
  EXPECT_EQ(client->ClearDirectMonitoring(), kStatusOk);
  EXPECT_TRUE(Logged("ZEP_SetDirectMonitoring " + a + " 0"));
  QuillonDestroy(client);
}

// Mapping a channel reads the driver's settings. When that read fails, the
// driver is lost with its device: the operation answers the no-device status
// and never reaches the device that went with it.
TEST_F(HardwareClientTest, AChannelOperationWhoseMappingLosesTheDriverFindsNoDevice) {
  NSFerrand::CRegistryRef registry;
  auto control = std::make_shared<Fakes::CFakeDriverControl>();
  control->hardwareDevice = "Dev A";
  NSFerrand::AddRegisteredDriver(
      new Fakes::CFakeRegisteredDriver(control, u"fake-box", u"MME", u"Fake Box"));
  Create();
  using COperation = uint32_t (*)(IClient*);
  const COperation operations[] = {
      [](IClient* c) {
        int32_t padded = 0;
        return c->GetGainSafePaddedChannel(1, &padded);
      },
      [](IClient* c) {
        float padding = 0.0f;
        return c->GetGainSafePaddingDb(1, &padding);
      },
      [](IClient* c) { return c->SetGainSafeRoutingEnable(1, 1); },
      [](IClient* c) { return c->SetChannelActiveIndicator(1, 1); },
  };
  for (size_t which = 0; which < std::size(operations); ++which) {
    IClient* client = Open(u"Fake Box");
    ASSERT_NE(client, nullptr);
    uint8_t has = 0;
    ASSERT_EQ(client->HasHardwareDevice(&has), kStatusOk);
    ASSERT_EQ(has, 1);
    ASSERT_EQ(operations[which](client), kStatusOk) << which;
    const size_t before = Log().size();
    control->Raise(Fakes::kGetSettings, NSMarlet::kFailureCode_RuntimeError, 1);
    EXPECT_EQ(operations[which](client), kNoDeviceStatus) << which;
    // The device was closed with its driver, and nothing asked it since.
    const std::vector<std::string> log = Log();
    ASSERT_EQ(log.size(), before + 1) << which;
    EXPECT_EQ(log.back(), "ZEP_DeviceClose " + DeviceA());
    ASSERT_EQ(client->HasHardwareDevice(&has), kStatusOk);
    EXPECT_EQ(has, 0);
    EXPECT_EQ(client->Idle(), kStatusOk);
    EXPECT_EQ(host.lost.load(), static_cast<int>(which) + 1);
    QuillonDestroy(client);
  }
  EXPECT_EQ(control->openDrivers.load(), 0);
}

// Buttons reach the host only from the device of a driver that plays: a
// client that goes silent unbinds, however it went, and binds again when a
// driver opens. The device keeps its handle when it comes back.
TEST_F(HardwareClientTest, ASilentClientHasNoBoundDeviceUntilADriverOpensAgain) {
  Create();
  IClient* client = Open(u"Box A", &sink);
  const uintptr_t a = ZEPFake_DeviceHandle("Dev A");
  ZEPFake_FireButton(a, 1);
  EXPECT_EQ(sink.Events(), (std::vector<uint32_t>{1}));

  // Unplugged and plugged in again.
  ZEPFake_SetDevices("");
  ZEPFake_FireConnection();
  ASSERT_EQ(client->Idle(), kStatusOk);
  ASSERT_EQ(host.lost.load(), 1);
  ZEPFake_SetDevices("Dev A");
  ZEPFake_FireButton(a, 2);
  EXPECT_EQ(sink.Events(), (std::vector<uint32_t>{1}));
  ZEPFake_FireConnection();
  ASSERT_EQ(client->Idle(), kStatusOk);
  Relist();
  uint32_t running = 0;
  ASSERT_EQ(client->SetDriver(Named(u"Box A"), &running), kStatusOk);
  ASSERT_EQ(running, 1u);
  ASSERT_EQ(ZEPFake_DeviceHandle("Dev A"), a);
  ZEPFake_FireButton(a, 2);
  EXPECT_EQ(sink.Events(), (std::vector<uint32_t>{1, 2}));

  // Suspended, then resumed.
  ASSERT_EQ(client->SuspendDriver(), kStatusOk);
  ZEPFake_FireButton(a, 1);
  EXPECT_EQ(sink.Events(), (std::vector<uint32_t>{1, 2}));
  ASSERT_EQ(client->ResumeDriver(&running), kStatusOk);
  ASSERT_EQ(running, 1u);
  ZEPFake_FireButton(a, 1);
  EXPECT_EQ(sink.Events(), (std::vector<uint32_t>{1, 2, 1}));

  // A driver that fails at a restart, found by the poll of the next Idle.
  boxA->Fail(Fakes::kAsioStart, NSASIO::ASE_HWMalfunction);
  boxA->Live()->Message(NSASIO::kAsioResetRequest, 0);
  ASSERT_EQ(client->Idle(), kStatusOk);
  ASSERT_EQ(host.lost.load(), 2);
  ZEPFake_FireButton(a, 2);
  EXPECT_EQ(sink.Events(), (std::vector<uint32_t>{1, 2, 1}));
  QuillonDestroy(client);
}

TEST_F(HardwareClientTest, TheThreeIndicatorSelectorsGiveStatesZeroToTwo) {
  Create();
  IClient* client = Open(u"Box A");
  const std::string a = DeviceA();
  EXPECT_EQ(client->SetGainSafeIndicator(kGainSafeIndicatorState0), kStatusOk);
  EXPECT_EQ(client->SetGainSafeIndicator(kGainSafeIndicatorState1), kStatusOk);
  EXPECT_EQ(client->SetGainSafeIndicator(kGainSafeIndicatorState2), kStatusOk);
  EXPECT_EQ(client->SetGainSafeIndicator(776), kStatusInvalidArgument);
  EXPECT_EQ(client->SetGainSafeIndicator(780), kStatusInvalidArgument);
  EXPECT_EQ(client->SetGainSafeIndicator(0), kStatusInvalidArgument);
  std::vector<std::string> calls;
  for (const std::string& line : Log()) {
    if (line.compare(0, 30, "ZEP_SetDeviceGainSafeIndicator") == 0) calls.push_back(line);
  }
  const std::string prefix = "ZEP_SetDeviceGainSafeIndicator " + a + " ";
  EXPECT_EQ(calls, (std::vector<std::string>{prefix + "0", prefix + "1", prefix + "2"}));
  // A device that refuses: the status of its code's failure.
  ZEPFake_SetResult("ZEP_SetDeviceGainSafeIndicator", 2);
  EXPECT_EQ(client->SetGainSafeIndicator(kGainSafeIndicatorState1), kStatusInvalidArgument);
  ZEPFake_SetResult("ZEP_SetDeviceGainSafeIndicator", 8);
  EXPECT_EQ(client->SetGainSafeIndicator(kGainSafeIndicatorState1), kStatusOutOfMemory);
  QuillonDestroy(client);
}

TEST_F(HardwareClientTest, WithoutADeviceEveryHardwareOperationGivesTheNoDeviceStatus) {
  Create();
  IClient* client = Open(u"Plain");
  int32_t padded = 0;
  float padding = 0;
  const size_t before = Log().size();
  EXPECT_EQ(client->GetGainSafePaddedChannel(0, &padded), kNoDeviceStatus);
  EXPECT_EQ(client->GetGainSafePaddingDb(0, &padding), kNoDeviceStatus);
  EXPECT_EQ(client->SetGainSafeRoutingEnable(0, 1), kNoDeviceStatus);
  EXPECT_EQ(client->SetGainSafeIndicator(kGainSafeIndicatorState0), kNoDeviceStatus);
  EXPECT_EQ(client->SetGainSafeIndicator(776), kNoDeviceStatus);
  EXPECT_EQ(client->SetChannelActiveIndicator(0, 1), kNoDeviceStatus);
  EXPECT_EQ(client->ClearDirectMonitoring(), kNoDeviceStatus);
  EXPECT_EQ(Log().size(), before);
  QuillonDestroy(client);
}

TEST_F(HardwareClientTest, TheControlPanelQuestionGoesToTheDevice) {
  Create();
  IClient* client = Open(u"Box A");
  uint32_t has = 9;
  ZEPFake_SetControlPanelAnswer(2);
  ASSERT_EQ(client->HasControlPanel(&has), kStatusOk);
  EXPECT_EQ(has, 0u);
  ZEPFake_SetControlPanelAnswer(1);
  ASSERT_EQ(client->HasControlPanel(&has), kStatusOk);
  EXPECT_EQ(has, 1u);
  QuillonDestroy(client);
}

TEST_F(HardwareClientTest, ADeviceNameTheLibraryCannotOpenLosesTheDriver) {
  boxA->identity = u"Dev Z";
  Create();
  uint32_t running = 9;
  uint32_t status = 0;
  IClient* client = library->CreateClient(&host, nullptr, Named(u"Box A"), &running, &status);
  ASSERT_EQ(status, kStatusOk);
  EXPECT_EQ(running, 0u);
  // The driver that failed to bind was given up whole.
  EXPECT_EQ(boxA->liveObjects.load(), 0);
  QuillonDestroy(client);
}

// Every library call that fails comes back as the status of its code; the
// client and its driver go on.
TEST_F(HardwareClientTest, ALibraryCallThatFailsIsAStatusAndTheClientGoesOn) {
  Create();
  IClient* client = Open(u"Box A");
  ZEPFake_SetResult("ZEP_GetCurrentDevices", 8);
  ZEPFake_FireConnection();
  EXPECT_EQ(client->Idle(), kStatusOutOfMemory);
  EXPECT_EQ(client->Idle(), kStatusOk);
  ZEPFake_SetResult("ZEP_GetDeviceChannelGainSafePaddingDB", 2);
  float padding = 0.0f;
  EXPECT_EQ(client->GetGainSafePaddingDb(0, &padding), kStatusInvalidArgument);
  ZEPFake_SetResult("ZEP_SetDirectMonitoring", 5);
  // Code 5 has no status of its own: it is computed from its failure.
  EXPECT_EQ(client->ClearDirectMonitoring(),
            kStatusBase + NSMarlet::PackFailure(NSMarlet::kFailureCode_RuntimeError_VersionTooOld,
                                                "", NSMarlet::ProgramTargetWords()));
  EXPECT_EQ(host.lost.load(), 0);
  uint8_t device = 0;
  EXPECT_EQ(client->HasHardwareDevice(&device), kStatusOk);
  EXPECT_EQ(device, 1);
  const uint64_t blocks = host.drivenBlocks.load();
  EXPECT_TRUE(WaitFor([&] { return host.drivenBlocks.load() > blocks; }, 10000));
  QuillonDestroy(client);
}

// The panel question is the driver's own: when the device cannot answer it,
// the driver has failed, and the host hears of it once at its Idle.
TEST_F(HardwareClientTest, AControlPanelQuestionTheDeviceCannotAnswerLosesTheDriver) {
  Create();
  IClient* client = Open(u"Box A");
  ZEPFake_SetResult("ZEP_HasControlPanel", 6);
  uint32_t has = 9;
  EXPECT_EQ(client->HasControlPanel(&has), kStatusOk);
  EXPECT_EQ(has, 0u);
  EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(client->Idle(), kStatusOk);
  EXPECT_EQ(host.lost.load(), 1);
  const uint64_t silent = host.silentBlocks.load();
  EXPECT_TRUE(WaitFor([&] { return host.silentBlocks.load() > silent; }, 10000));
  QuillonDestroy(client);
}

TEST_F(HardwareClientTest, TheLibraryIsDisposedAfterTheLastCloseAndUnloadedLast) {
  Create();
  IClient* client = Open(u"Box A");
  QuillonDestroy(client);
  QuillonDestroy(specs);
  specs = nullptr;
  QuillonDestroy(library);
  library = nullptr;
  ASSERT_GE(ZEPFakeLogPosition("ZEP_DeviceClose"), 0);
  EXPECT_LT(ZEPFakeLogPosition("ZEP_DeviceClose"), ZEPFakeLogPosition("ZEP_Dispose"));
  EXPECT_LT(ZEPFakeLogPosition("ZEP_Dispose"), ZEPFakeLogPosition("unload"));
  EXPECT_EQ(Log().back(), "unload 1.999.999.0");
  EXPECT_EQ(ZEPFake_LoadedCopies(), copiesAtStart);
}

// The library's thread sends events while the control thread makes and
// ends clients: nothing waits for ever and no connection event is lost.
TEST_F(HardwareClientTest, EventsRaceAThousandClientsWithoutLoss) {
  constexpr uint32_t kRounds = 1000;
  Create();
  // Dev A opened once, so that the buttons below come from its real handle.
  QuillonDestroy(Open(u"Box A"));
  ASSERT_NE(ZEPFake_DeviceHandle("Dev A"), 0u);
  ZEPFake_PostConnections(kRounds);
  ZEPFake_PostButtons(ZEPFake_DeviceHandle("Dev A") + 0, 1, kRounds);
  ZEPFake_PostButtons(ZEPFake_DeviceHandle("Dev A"), 3, kRounds);
  ZEPFake_PostButtons(ZEPFake_DeviceHandle("Dev A"), 0, kRounds);
  for (uint32_t i = 0; i < kRounds; ++i) {
    uint32_t running = 0;
    uint32_t status = 0;
    IClient* client =
        library->CreateClient(&host, &sink, Named(i % 2 == 0 ? u"Box A" : u"No Sound"), &running,
                              &status);
    ASSERT_EQ(status, kStatusOk);
    ZEPFake_PostButtons(ZEPFake_DeviceHandle("Dev A"), 2, 1);
    ZEPFake_PostButtons(ZEPFake_DeviceHandle("Dev A"), 7, 1);
    QuillonDestroy(client);
  }
  ZEPFake_WaitEvents();
  uint32_t taken = 0;
  while (Handler()->TakeConnectionChange()) ++taken;
  EXPECT_EQ(taken, kRounds);
  // Buttons other than 1 and 2 were sent all along and never passed on;
  // of those two, no more arrived than were sent.
  const std::vector<uint32_t> events = sink.Events();
  const auto count = [&](uint32_t button) {
    return static_cast<uint32_t>(std::count(events.begin(), events.end(), button));
  };
  EXPECT_EQ(count(1) + count(2), events.size());
  EXPECT_LE(count(1), kRounds);
  EXPECT_LE(count(2), kRounds);
  // With every client gone, nothing reaches the sink.
  ZEPFake_FireButton(ZEPFake_DeviceHandle("Dev A"), 1);
  ZEPFake_FireButton(ZEPFake_DeviceHandle("Dev A"), 2);
  EXPECT_EQ(sink.Events().size(), events.size());
}

}  // namespace

// A hardware library that crashes or never returns is cut off for the
// process: the client plays on and its hardware operations answer as with
// no device. Natively a crash is a C++ exception out of the call.
class HardwareContainmentTest : public HardwareClientTest {
 protected:
  void TearDown() override {
    HardwareClientTest::TearDown();
    NSFerrand::SetCallDeadlineScale(100);
    NSZEPGlue::ForgetHardwareCutOff();
  }
  static int64_t MillisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start)
        .count();
  }
  // Everything a host sees of a client whose hardware library is cut off.
  void ExpectNoDeviceAndPlaying(IClient* client) {
    const size_t calls = ZEPFakeLogCount("ZEP_");
    uint8_t has = 9;
    EXPECT_EQ(client->HasHardwareDevice(&has), kStatusOk);
    EXPECT_EQ(has, 0);
    int32_t padded = 0;
    float padding = 0.0f;
    EXPECT_EQ(client->GetGainSafePaddedChannel(0, &padded), kNoDeviceStatus);
    EXPECT_EQ(client->GetGainSafePaddingDb(0, &padding), kNoDeviceStatus);
    EXPECT_EQ(client->SetGainSafeRoutingEnable(0, 1), kNoDeviceStatus);
    EXPECT_EQ(client->SetGainSafeIndicator(kGainSafeIndicatorState1), kNoDeviceStatus);
    EXPECT_EQ(client->SetChannelActiveIndicator(0, 1), kNoDeviceStatus);
    EXPECT_EQ(client->ClearDirectMonitoring(), kNoDeviceStatus);
    // Without a device, the driver's own panel is the answer.
    uint32_t panel = 9;
    EXPECT_EQ(client->HasControlPanel(&panel), kStatusOk);
    EXPECT_EQ(panel, 1u);
    // Events of the library reach nobody, and connection changes nothing.
    ZEPFake_FireButton(ZEPFake_DeviceHandle("Dev A"), 1);
    ZEPFake_FireConnection();
    EXPECT_EQ(client->Idle(), kStatusOk);
    EXPECT_TRUE(sink.Events().empty());
    // Nothing of it was asked of the library.
    EXPECT_EQ(ZEPFakeLogCount("ZEP_"), calls);
    const uint64_t blocks = host.drivenBlocks.load();
    EXPECT_TRUE(WaitFor([&] { return host.drivenBlocks.load() > blocks + 10; }, 10000));
    EXPECT_EQ(host.lost.load(), 0);
  }
  // The library object ends within 8 s; the cut-off library stays loaded.
  void DestroyLibraryInTimeLeavingItLoaded() {
    QuillonDestroy(specs);
    specs = nullptr;
    const auto start = std::chrono::steady_clock::now();
    QuillonDestroy(library);
    library = nullptr;
    EXPECT_LT(MillisecondsSince(start), 8000);
    EXPECT_EQ(ZEPFakeLogCount("unload"), 0u);
    EXPECT_EQ(ZEPFake_LoadedCopies(), copiesAtStart + 1);
  }
  // Ends the client and the library in time, never calling the library, and
  // leaves it loaded; a new library object works without it.
  void ExpectEndsAndStaysCutOff(IClient* client) {
    const size_t calls = ZEPFakeLogCount("ZEP_");
    const auto start = std::chrono::steady_clock::now();
    QuillonDestroy(client);
    EXPECT_LT(MillisecondsSince(start), 8000);
    DestroyLibraryInTimeLeavingItLoaded();
    EXPECT_EQ(ZEPFakeLogCount("ZEP_"), calls);
    Create();
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(Handler(), nullptr);
    EXPECT_EQ(ZEPFakeLogCount("load"), 1u);
    IClient* next = Open(u"Box A", &sink);
    uint8_t has = 9;
    EXPECT_EQ(next->HasHardwareDevice(&has), kStatusOk);
    EXPECT_EQ(has, 0);
    QuillonDestroy(next);
    EXPECT_EQ(ZEPFakeLogCount("ZEP_"), calls);
  }
};

TEST_F(HardwareContainmentTest, AnOperationThatNeverReturnsEndsAtItsDeadlineAndCutsTheLibraryOff) {
  Create();
  IClient* client = Open(u"Box A", &sink);
  uint8_t has = 0;
  ASSERT_EQ(client->HasHardwareDevice(&has), kStatusOk);
  ASSERT_EQ(has, 1);
  ZEPFake_SetFault("ZEP_GetDeviceChannelGainSafePaddedChannel", kZEPFakeHangs);
  const uint32_t misbehaved = ZEPFake_Misbehaved();
  int32_t padded = 0;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(client->GetGainSafePaddedChannel(0, &padded), kNoDeviceStatus);
  // The question's own deadline, and a margin that holds on a loaded machine.
  const int64_t waited = MillisecondsSince(start);
  EXPECT_GE(waited, static_cast<int64_t>(NSZEPGlue::kZEPQueryCallMs) - 50);
  EXPECT_LT(waited, static_cast<int64_t>(NSZEPGlue::kZEPQueryCallMs) + 6000);
  EXPECT_EQ(ZEPFake_Misbehaved(), misbehaved + 1);
  ExpectNoDeviceAndPlaying(client);
  ExpectEndsAndStaysCutOff(client);
}

TEST_F(HardwareContainmentTest, AnOperationThatCrashesCutsTheLibraryOff) {
  Create();
  IClient* client = Open(u"Box A", &sink);
  ZEPFake_SetFault("ZEP_SetDeviceGainSafeIndicator", kZEPFakeCrashes);
  EXPECT_EQ(client->SetGainSafeIndicator(kGainSafeIndicatorState2), kNoDeviceStatus);
  ExpectNoDeviceAndPlaying(client);
  ExpectEndsAndStaysCutOff(client);
}

TEST_F(HardwareContainmentTest, ADeviceOpenThatNeverReturnsLeavesTheDriverPlayingWithoutDevice) {
  NSFerrand::SetCallDeadlineScale(10);
  Create();
  ZEPFake_SetFault("ZEP_DeviceOpen", kZEPFakeHangs);
  const auto start = std::chrono::steady_clock::now();
  IClient* client = Open(u"Box A", &sink);
  EXPECT_LT(MillisecondsSince(start), 8000);
  ASSERT_NE(client, nullptr);
  ExpectNoDeviceAndPlaying(client);
  ExpectEndsAndStaysCutOff(client);
}

TEST_F(HardwareContainmentTest, ACreationThatNeverReturnsGivesALibraryObjectWithoutHardware) {
  NSFerrand::SetCallDeadlineScale(10);
  ZEPFake_SetFault("ZEP_Create", kZEPFakeHangs);
  const auto start = std::chrono::steady_clock::now();
  Create();
  EXPECT_LT(MillisecondsSince(start), 8000);
  ASSERT_NE(library, nullptr);
  EXPECT_EQ(Handler(), nullptr);
  // Without a connection, every driver is listed, as for a host that asked
  // for no hardware.
  EXPECT_NE(Named(u"Box B"), nullptr);
  IClient* client = Open(u"Box A", &sink);
  ExpectNoDeviceAndPlaying(client);
  ExpectEndsAndStaysCutOff(client);
}

TEST_F(HardwareContainmentTest, ADisposalThatNeverReturnsEndsTheLibraryObjectInTime) {
  NSFerrand::SetCallDeadlineScale(10);
  Create();
  IClient* client = Open(u"Box A", &sink);
  QuillonDestroy(client);
  ZEPFake_SetFault("ZEP_Dispose", kZEPFakeHangs);
  DestroyLibraryInTimeLeavingItLoaded();
  EXPECT_TRUE(NSZEPGlue::HardwareCutOff());
  // Events that the library still sends reach nobody.
  EXPECT_EQ(ZEPFake_FireButton(ZEPFake_DeviceHandle("Dev A"), 1), 0u);
  EXPECT_TRUE(sink.Events().empty());
}

#if defined(_WIN32)
// A fault of the library's code on its own event thread parks that thread
// and cuts the library off; the host goes on.
TEST_F(HardwareContainmentTest, ACrashOnTheLibrarysOwnThreadCutsItOff) {
  Create();
  IClient* client = Open(u"Box A", &sink);
  ZEPFake_PostCrash();
  EXPECT_TRUE(WaitFor([] { return NSZEPGlue::HardwareCutOff(); }, 10000));
  ExpectNoDeviceAndPlaying(client);
  ExpectEndsAndStaysCutOff(client);
}
#endif
