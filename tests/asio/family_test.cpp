#include <cmath>
#include <limits>
#include <optional>

#include "asio/asio_family.h"
#include "asio/asio_rules.h"
#include "asio_support.h"

using namespace NSASIO;
using NSFerrand::CRegisteredSoundDriverInfo;
using NSFerrand::CSoundDriverSettings;

namespace {

class FamilyTest : public ASIOTest {
 protected:
  // The ASIO drivers in the registry, by key, with their shown names.
  std::map<CWideString, CWideString> Registered() {
    NSFerrand::CRegisteredDriverList drivers;
    NSFerrand::GetRegisteredDrivers(drivers);
    std::map<CWideString, CWideString> found;
    for (const auto& driver : drivers) {
      CRegisteredSoundDriverInfo info;
      driver->GetInfo(info);
      if (info.family == u"ASIO") found[info.key] = info.name;
    }
    return found;
  }
};

TEST_F(FamilyTest, NamesLoseOneLeadingASIOAndSpace) {
  EXPECT_EQ(StripASIOPrefix(u"ASIO Fake"), u"Fake");
  EXPECT_EQ(StripASIOPrefix(u"ASIO ASIO Fake"), u"ASIO Fake");
  EXPECT_EQ(StripASIOPrefix(u"My ASIO Fake"), u"My ASIO Fake");
  EXPECT_EQ(StripASIOPrefix(u"ASIO"), u"ASIO");
  EXPECT_EQ(StripASIOPrefix(u"asio Fake"), u"asio Fake");
  EXPECT_EQ(StripASIOPrefix(u"ASIO "), u"");
}

TEST_F(FamilyTest, RegistrationKeysNamesAndSkips) {
  Add(u"ASIO Fake", 1);
  Add(u"ASIO ", 2);
  Add(u"ASIO", 3);
  Add(u"My ASIO Box", 4);
  Add(u"ASIO ASIO Twice", 5);
  CASIOFamilyScope scope(platform, false, nullptr);
  const std::map<CWideString, CWideString> expected = {
      {u"Ferrand ASIO ASIO Fake", u"Fake"},
      {u"Ferrand ASIO ASIO", u"ASIO"},
      {u"Ferrand ASIO My ASIO Box", u"My ASIO Box"},
      {u"Ferrand ASIO ASIO ASIO Twice", u"ASIO Twice"}};
  EXPECT_EQ(Registered(), expected);
  EXPECT_EQ(CASIOFamilyScope::DriverNames().size(), 5u);
  // Listing created no driver.
  EXPECT_EQ(platform.Calls(Fakes::kPlatformCoCreate), 0u);
  CASIORegisteredSoundDriver driver(u"ASIO Fake", u"Fake");
  CRegisteredSoundDriverInfo info;
  driver.GetInfo(info);
  EXPECT_EQ(info.key, u"Ferrand ASIO ASIO Fake");
  EXPECT_EQ(info.family, u"ASIO");
  EXPECT_TRUE(info.version.empty());
  EXPECT_TRUE(info.manufacturer.empty());
  for (uint8_t flag : info.flags) EXPECT_EQ(flag, 1);
}

TEST_F(FamilyTest, APlaceholderInANameIsNotFilledTwice) {
  Add(u"Odd ^0 ^1", 1);
  CASIOFamilyScope scope(platform, false, nullptr);
  EXPECT_EQ(Registered().count(u"Ferrand ASIO Odd ^0 ^1"), 1u);
}

TEST_F(FamilyTest, RegisteringTwiceAddsAndRemovesNothing) {
  Add(u"First", 1);
  Add(u"Second", 2);
  CASIOFamilyScope scope(platform, false, nullptr);
  NSFerrand::TakeDriverListChanged();
  const auto before = Registered();
  CASIOFamilyScope::RefreshRegistration();
  EXPECT_EQ(Registered(), before);
  EXPECT_FALSE(NSFerrand::TakeDriverListChanged());
}

TEST_F(FamilyTest, TheScopeIsCountedAndTheLastOneRemovesTheFamily) {
  Add(u"First", 1);
  {
    CASIOFamilyScope first(platform, false, nullptr);
    EXPECT_EQ(asioState, kASIOStateLoaded);
    {
      Fakes::CFakeASIOPlatform other;
      CASIOFamilyScope second(other, true, nullptr);
      EXPECT_EQ(Registered().size(), 1u);
    }
    EXPECT_EQ(Registered().size(), 1u);
    EXPECT_TRUE(CASIOFamilyScope::Exists());
  }
  EXPECT_TRUE(Registered().empty());
  EXPECT_EQ(asioState, kASIOStateUnloaded);
  EXPECT_FALSE(CASIOFamilyScope::Exists());
  // Listing creates no driver, and leaves COM to the drivers' own threads.
  EXPECT_EQ(platform.Calls(Fakes::kPlatformCoInitialize), 0u);
  EXPECT_EQ(platform.Calls(Fakes::kPlatformCoUninitialize), 0u);
}

TEST_F(FamilyTest, WithTheFilterADriverWithoutIdentityVanishesOnRefresh) {
  auto named = Add(u"Named", 1);
  auto silent = Add(u"Silent", 2);
  auto plain = Add(u"Plain", 3);
  named->hasIdentity = true;
  named->identity = u"box-\u00e9";
  silent->hasIdentity = true;
  silent->identity = u"unit";
  CASIOFamilyScope scope(platform, true, nullptr);
  EXPECT_EQ(Registered().size(), 3u);
  silent->identity.clear();
  CASIOFamilyScope::RefreshRegistration();
  EXPECT_EQ(Registered().size(), 2u);
  EXPECT_EQ(Registered().count(u"Ferrand ASIO Silent"), 0u);
  EXPECT_EQ(CASIOFamilyScope::DriverNames().size(), 3u);
  silent->identity = u"back";
  CASIOFamilyScope::RefreshRegistration();
  EXPECT_EQ(Registered().size(), 3u);
  // Each question made an object and gave it back, with its string.
  EXPECT_EQ(named->liveObjects.load() + silent->liveObjects.load() + plain->liveObjects.load(), 0);
  EXPECT_EQ(platform.LiveStrings(), 0);
  EXPECT_EQ(named->Calls(Fakes::kAsioInit), 0u);
}

// COM's rule: any success code hands out what was made, and a string handed
// out is freed whatever the code that came with it.
TEST_F(FamilyTest, TheProbeTakesEverySuccessCodeAndFreesEveryString) {
  auto named = Add(u"Named", 1);
  named->hasIdentity = true;
  named->identity = u"unit";
  Load();
  std::string identity;
  named->identityAnswer = 1;  // S_FALSE
  EXPECT_TRUE(ProbeHardwareIdentity(u"Named", identity));
  EXPECT_EQ(identity, "unit");
  EXPECT_EQ(platform.LiveStrings(), 0);
  named->identityAnswer = static_cast<HResult>(0x80004005u);
  identity = "old";
  EXPECT_TRUE(ProbeHardwareIdentity(u"Named", identity));
  EXPECT_TRUE(identity.empty());
  EXPECT_EQ(platform.LiveStrings(), 0);
  named->identityAnswer = 0;
  platform.createdAnswer = 1;
  EXPECT_TRUE(ProbeHardwareIdentity(u"Named", identity));
  EXPECT_EQ(identity, "unit");
  EXPECT_EQ(named->liveObjects.load(), 0);
  EXPECT_EQ(platform.LiveStrings(), 0);
}

TEST_F(FamilyTest, TheProbeAnswersWhatItCould) {
  auto named = Add(u"Named", 1);
  named->hasIdentity = true;
  named->identity = u"box-\u00e9";
  Add(u"Plain", 2);
  Load();
  std::string identity = "old";
  EXPECT_TRUE(ProbeHardwareIdentity(u"Named", identity));
  EXPECT_EQ(identity, "box-\xc3\xa9");
  EXPECT_FALSE(ProbeHardwareIdentity(u"Plain", identity));
  EXPECT_TRUE(identity.empty());
  EXPECT_FALSE(ProbeHardwareIdentity(u"Nobody", identity));
  platform.Fail(Fakes::kPlatformCoCreate, static_cast<int32_t>(0x80004005u), 1);
  EXPECT_FALSE(ProbeHardwareIdentity(u"Named", identity));
  named->identity.clear();
  EXPECT_TRUE(ProbeHardwareIdentity(u"Named", identity));
  EXPECT_TRUE(identity.empty());
  EXPECT_EQ(platform.LiveStrings(), 0);
  EXPECT_EQ(named->liveObjects.load(), 0);
}

// Each allocation of the family's making refused in turn: a family that
// could not be made lists nothing and leaves nothing loaded or open, and one
// that was made lists what it could.
TEST_F(FamilyTest, AFamilyThatCannotBeMadeListsNothing) {
  Add(u"First", 1);
  Add(u"Second", 2);
  int unmade = 0;
  for (uint64_t n = 1;; ++n) {
    ASSERT_LT(n, 5000u);
    std::optional<CASIOFamilyScope> scope;
    bool refused = false;
    {
      AllocationCounter::CRefuseNth refuse(n);
      scope.emplace(platform, false, nullptr);
      refused = refuse.Refused();
    }
    if (CASIOFamilyScope::Exists()) {
      EXPECT_LE(Registered().size(), 2u) << n;
      EXPECT_EQ(asioState, kASIOStateLoaded) << n;
    } else {
      ++unmade;
      EXPECT_TRUE(Registered().empty()) << n;
      EXPECT_TRUE(CASIOFamilyScope::DriverNames().empty()) << n;
      EXPECT_EQ(asioState, kASIOStateUnloaded) << n;
    }
    scope.reset();
    EXPECT_TRUE(Registered().empty()) << n;
    EXPECT_EQ(platform.OpenKeys(), 0) << n;
    EXPECT_EQ(platform.LiveStrings(), 0) << n;
    if (!refused) break;
  }
  EXPECT_GT(unmade, 0);
  CASIOFamilyScope scope(platform, false, nullptr);
  EXPECT_EQ(Registered().size(), 2u);
}

TEST_F(FamilyTest, GainAndPanNumbers) {
  EXPECT_EQ(MonitorGain(12.0f), 2147483647);
  EXPECT_EQ(MonitorGain(0.0f), 539423503);
  EXPECT_EQ(MonitorGain(-100.0f), 5394);
  EXPECT_EQ(MonitorGain(std::numeric_limits<float>::quiet_NaN()), 5394);
  EXPECT_EQ(MonitorGain(40.0f), 2147483647);
  EXPECT_EQ(MonitorGain(-1000.0f), 5394);
  EXPECT_EQ(MonitorGain(-std::numeric_limits<float>::infinity()), 5394);
  EXPECT_EQ(MonitorPan(-1.0f), 0);
  EXPECT_EQ(MonitorPan(0.0f), 1073741823);
  EXPECT_EQ(MonitorPan(1.0f), 2147483647);
  EXPECT_EQ(MonitorPan(5.0f), 2147483647);
  EXPECT_EQ(MonitorPan(-7.0f), 0);
  EXPECT_EQ(MonitorPan(std::numeric_limits<float>::quiet_NaN()), 1073741823);
}

TEST_F(FamilyTest, BufferSizeListRules) {
  std::vector<uint32_t> doubling;
  for (uint32_t size = 64; size <= 2048; size *= 2) doubling.push_back(size);
  EXPECT_EQ(BufferSizesFrom(64, 2048, 256, 1), doubling);
  EXPECT_EQ(BufferSizesFrom(64, 2048, 256, -1), doubling);
  EXPECT_EQ(BufferSizesFrom(64, 2048, 256, 0), doubling);
  EXPECT_EQ(BufferSizesFrom(64, 256, 96, 64), (std::vector<uint32_t>{64, 96, 128, 192, 256}));
  EXPECT_EQ(BufferSizesFrom(64, 256, 96, -1), (std::vector<uint32_t>{64, 96, 128, 256}));
  // 255 steps stay; 256 fall to doubling.
  EXPECT_EQ(BufferSizesFrom(1, 255, 1, 1).size(), 255u);
  EXPECT_EQ(BufferSizesFrom(1, 256, 1, 1), (std::vector<uint32_t>{1, 2, 4, 8, 16, 32, 64, 128, 256}));
  EXPECT_EQ(BufferSizesFrom(0, 128, 64, 64), (std::vector<uint32_t>{64, 128}));
  EXPECT_EQ(BufferSizesFrom(0, 2048, 512, -1), (std::vector<uint32_t>{512}));
  EXPECT_EQ(BufferSizesFrom(256, 64, 128, 1), (std::vector<uint32_t>{128}));
  EXPECT_EQ(BufferSizesFrom(64, 2048, 256, -5), doubling);
  EXPECT_EQ(BufferSizesFrom(1 << 30, INT32_MAX, 1 << 30, -1),
            (std::vector<uint32_t>{1u << 30}));
  EXPECT_EQ(BufferSizesFrom(64, 128, -3, 64), (std::vector<uint32_t>{64, 128}));
}

TEST_F(FamilyTest, RateAndPairHelpers) {
  EXPECT_EQ(PickDefaultRate({48000, 44100}), 44100u);
  EXPECT_EQ(PickDefaultRate({96000, 48000}), 96000u);
  EXPECT_EQ(PickNearestRate({44100, 48000, 88200, 96000, 192000}, 50000), 48000u);
  EXPECT_EQ(PickNearestRate({44100, 48000}, 46050), 44100u);  // a tie: the earlier
  EXPECT_EQ(PickNearestRate({96000}, 8000), 96000u);
  NSFerrand::CChannelBitVector empty;
  NormaliseInputPairs(empty);
  EXPECT_EQ(empty.Count(), 0u);
  NormaliseOutputPairs(empty);
  EXPECT_EQ(empty.Count(), 1u);
  EXPECT_TRUE(empty.Get(0));
  NSFerrand::CChannelBitVector source(8);
  source.Set(1, true);
  source.Set(6, true);
  const NSFerrand::CChannelBitVector copied = CopyPairs(source, 4);
  EXPECT_EQ(copied.Count(), 4u);
  EXPECT_TRUE(copied.Get(1));
  EXPECT_EQ(copied.SetCount(), 1u);
  EXPECT_EQ(TruncateToU64(-1.0), UINT64_MAX);
  EXPECT_EQ(TruncateToU64(9223372036854775808.0 * 1.5), (uint64_t{3} << 62));
  EXPECT_EQ(TruncateToU64(std::nan("")), 0u);
}

class OpenDriverTest : public FamilyTest {
 protected:
  void SetUp() override {
    FamilyTest::SetUp();
    device = Add(u"ASIO Fake", 1);
    device->inputs = 4;
    device->outputs = 4;
    device->stopCalling = true;
    Load();
  }
  std::shared_ptr<Fakes::SFakeASIODevice> device;
};

TEST_F(OpenDriverTest, SettingsAndInfoComeFromTheHost) {
  CASIORegisteredSoundDriver registered(u"ASIO Fake", u"Fake");
  std::unique_ptr<NSFerrand::CABCOpenSoundDriver> open(
      registered.OpenWithDefaults(&renderer, nullptr));
  CSoundDriverSettings settings;
  open->GetSettings(settings);
  EXPECT_EQ(settings.sampleRate, 48000u);
  EXPECT_EQ(settings.bufferFrames, 256u);
  EXPECT_EQ(settings.inputPairs.Count(), 2u);
  EXPECT_EQ(settings.monitors.size(), 4u);
  EXPECT_FALSE(settings.monitorsValid);
  EXPECT_EQ(open->GetInputLatency(), 32 * 1000000 / 48000);
  EXPECT_EQ(open->GetOutputLatency(), 64 * 1000000 / 48000);
  EXPECT_TRUE(open->CanMonitorInputs());
  EXPECT_TRUE(open->HasControlPanel());
  EXPECT_FALSE(open->HasHardwareDevice());
  EXPECT_EQ(open->GetHardwareDevice(), nullptr);
  NSFerrand::CInputMonitorSetting record;
  record.enabled = true;
  open->GetInputMonitor(999, record);
  EXPECT_FALSE(record.enabled);
  NSFerrand::COpenSoundDriverInfo info;
  open->GetDriverInfo(info);
  EXPECT_EQ(info.sampleRates, (std::vector<uint32_t>{44100, 48000}));
  EXPECT_EQ(info.inputNames.size(), 4u);
  EXPECT_EQ(info.outputNames[3], u"Out 4");
  EXPECT_EQ(info.bufferSizes, (std::vector<uint32_t>{64, 128, 256, 512, 1024, 2048}));
  EXPECT_TRUE(info.clockSourceNames.empty());
  open->CheckAlive();
  EXPECT_TRUE(open->TakeSettingsChanged());
  EXPECT_FALSE(open->TakeSettingsChanged());
}

TEST_F(OpenDriverTest, ASizeFromElsewhereIsListedInOrder) {
  CASIORegisteredSoundDriver registered(u"ASIO Fake", u"Fake");
  device->minimumSize = 64;
  device->maximumSize = 256;
  device->granularity = 64;
  device->preferredSize = 128;
  std::unique_ptr<NSFerrand::CABCOpenSoundDriver> open(
      registered.OpenWithDefaults(&renderer, nullptr));
  // A driver whose preferred size moves between two questions: the size in
  // force is then one the list does not hold.
  device->nextPreferredSize = 100;
  auto& host = static_cast<COpenASIOSoundDriver&>(*open).Host();
  host.RestartDriver();
  ASSERT_EQ(host.BufferFrames(), 100u);
  EXPECT_EQ(host.BufferSizes(), (std::vector<uint32_t>{64, 128, 192, 256}));
  NSFerrand::COpenSoundDriverInfo info;
  open->GetDriverInfo(info);
  EXPECT_EQ(info.bufferSizes, (std::vector<uint32_t>{64, 100, 128, 192, 256}));
}

TEST_F(OpenDriverTest, MonitoringRoundTripsThroughTheSettings) {
  CASIORegisteredSoundDriver registered(u"ASIO Fake", u"Fake");
  CSoundDriverSettings wanted;
  wanted.inputPairs = NSFerrand::CChannelBitVector(2);
  wanted.inputPairs.Set(0, true);
  wanted.outputPairs = NSFerrand::CChannelBitVector(1);
  wanted.outputPairs.Set(0, true);
  wanted.monitorsValid = true;
  wanted.monitors.resize(4);
  wanted.monitors[1].enabled = true;
  wanted.monitors[1].gainDb = 12.0f;
  wanted.monitors[1].pan = 1.0f;
  std::unique_ptr<NSFerrand::CABCOpenSoundDriver> open(
      registered.OpenWithSettings(wanted, &renderer, nullptr));
  EXPECT_EQ(device->lastMonitor.input, 1);
  EXPECT_EQ(device->lastMonitor.gain, 2147483647);
  EXPECT_EQ(device->lastMonitor.pan, 2147483647);
  CSoundDriverSettings settings;
  open->GetSettings(settings);
  EXPECT_TRUE(settings.monitorsValid);
  EXPECT_TRUE(settings.monitors[1].enabled);
  EXPECT_EQ(settings.monitors[1].gainDb, 12.0f);
  NSFerrand::CInputMonitorSetting off;
  open->SetInputMonitor(1, off);
  open->GetSettings(settings);
  EXPECT_FALSE(settings.monitors[1].enabled);
  device->monitorAnswer = ASE_NotPresent;
  open->SetInputMonitor(1, wanted.monitors[1]);
  open->GetSettings(settings);
  EXPECT_FALSE(settings.monitors[1].enabled);
}

TEST_F(OpenDriverTest, ApplySettingsAndThePanel) {
  CASIORegisteredSoundDriver registered(u"ASIO Fake", u"Fake");
  std::unique_ptr<NSFerrand::CABCOpenSoundDriver> open(
      registered.OpenWithDefaults(&renderer, nullptr));
  CSoundDriverSettings settings;
  open->GetSettings(settings);
  settings.bufferFrames = 4096;  // not offered: the preferred stays
  settings.sampleRate = 44100;
  open->ApplySettings(settings);
  open->GetSettings(settings);
  EXPECT_EQ(settings.bufferFrames, 256u);
  EXPECT_EQ(settings.sampleRate, 44100u);
  device->panelPreferredSize = 512;
  EXPECT_TRUE(open->ShowControlPanel());
  open->GetSettings(settings);
  EXPECT_EQ(settings.bufferFrames, 512u);
  EXPECT_EQ(settings.sampleRate, 44100u);
}

TEST_F(OpenDriverTest, AFailedOpenLeavesNothingBehind) {
  CASIORegisteredSoundDriver registered(u"ASIO Fake", u"Fake");
  device->Fail(Fakes::kAsioStart, ASE_HWMalfunction, 1);
  EXPECT_EQ(FailureCodeOf([&] { delete registered.OpenWithDefaults(&renderer, nullptr); }),
            static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError_Open));
  EXPECT_EQ(device->liveObjects.load(), 0);
  EXPECT_EQ(asioState, kASIOStateLoaded);
  CSoundDriverSettings settings;
  device->Fail(Fakes::kAsioCreateBuffers, ASE_NoMemory, 1);
  EXPECT_EQ(FailureCodeOf([&] { delete registered.OpenWithSettings(settings, &renderer, nullptr); }),
            static_cast<uint32_t>(NSMarlet::kFailureCode_BadAlloc));
  EXPECT_EQ(device->liveObjects.load(), 0);
}

// Binding itself is tested with the hardware library, in the end-to-end
// tests: here the context holds no connection.
TEST_F(OpenDriverTest, WithAnEmptyGlueTheIdentityIsReadButNoDeviceBound) {
  device->hasIdentity = true;
  device->identity = u"unit-7";
  CASIORegisteredSoundDriver registered(u"ASIO Fake", u"Fake");
  NSZEPGlue::CGluePtr noGlue;
  std::unique_ptr<NSFerrand::CABCOpenSoundDriver> open(
      registered.OpenWithDefaults(&renderer, &noGlue));
  EXPECT_EQ(static_cast<COpenASIOSoundDriver&>(*open).Host().Identity(), "unit-7");
  EXPECT_FALSE(open->HasHardwareDevice());
  EXPECT_EQ(platform.LiveStrings(), 0);
}

// A driver made with a success code other than S_OK is the driver, and its
// identity string is freed whatever its query answered.
TEST_F(OpenDriverTest, AnObjectMadeWithAnySuccessCodeOpensAndNoStringIsLeft) {
  device->hasIdentity = true;
  device->identity = u"unit-7";
  platform.createdAnswer = 1;
  device->identityAnswer = 1;
  CASIORegisteredSoundDriver registered(u"ASIO Fake", u"Fake");
  NSZEPGlue::CGluePtr noGlue;
  {
    std::unique_ptr<NSFerrand::CABCOpenSoundDriver> open(
        registered.OpenWithDefaults(&renderer, &noGlue));
    EXPECT_EQ(static_cast<COpenASIOSoundDriver&>(*open).Host().Identity(), "unit-7");
    EXPECT_EQ(device->liveObjects.load(), 1);
    EXPECT_EQ(platform.LiveStrings(), 0);
  }
  EXPECT_EQ(device->liveObjects.load(), 0);
  device->identityAnswer = static_cast<HResult>(0x8000FFFFu);
  {
    std::unique_ptr<NSFerrand::CABCOpenSoundDriver> open(
        registered.OpenWithDefaults(&renderer, &noGlue));
    EXPECT_EQ(static_cast<COpenASIOSoundDriver&>(*open).Host().Identity(), "");
    EXPECT_EQ(platform.LiveStrings(), 0);
  }
  EXPECT_EQ(device->liveObjects.load(), 0);
}

}  // namespace
