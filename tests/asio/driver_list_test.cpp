#include <cstring>

#include "asio/asio_driver_list.h"
#include "asio_support.h"

using namespace NSASIO;
using Fakes::FakeClsid;
using Fakes::FakeClsidText;

namespace {

class DriverListTest : public ASIOTest {};

std::vector<CWideString> Names() {
  std::vector<CWideString> names;
  driverList->GetDriverNames(names, kMaxDriverNames);
  return names;
}

TEST_F(DriverListTest, NoASIOKeyListsNothingAndLeavesCOMAlone) {
  platform.RemoveASIOKey();
  Load();
  EXPECT_EQ(asioState, kASIOStateLoaded);
  EXPECT_EQ(driverList->NumDrivers(), 0);
  UnloadDriverList();
  EXPECT_EQ(asioState, kASIOStateUnloaded);
  EXPECT_EQ(driverList, nullptr);
  EXPECT_EQ(platform.Calls(Fakes::kPlatformCoInitialize), 0u);
  EXPECT_EQ(platform.Calls(Fakes::kPlatformCoUninitialize), 0u);
}

TEST_F(DriverListTest, DriversGetTheirNumbersInOrderAndTheListLeavesCOMAlone) {
  Add(u"First", 1);
  Add(u"Second", 2);
  Load();
  ASSERT_EQ(driverList->NumDrivers(), 2);
  EXPECT_EQ(driverList->First()->drvID, 0);
  EXPECT_EQ(driverList->First()->next->drvID, 1);
  EXPECT_EQ(driverList->First()->clsid, FakeClsid(1));
  EXPECT_TRUE(driverList->First()->dllPath.empty());
  EXPECT_EQ(Names(), (std::vector<CWideString>{u"First", u"Second"}));
  EXPECT_EQ(driverList->CurrentIndex(), -1);
  EXPECT_EQ(platform.Calls(Fakes::kPlatformCoInitialize), 0u);
  EXPECT_EQ(platform.OpenKeys(), 0);
  UnloadDriverList();
  EXPECT_EQ(platform.Calls(Fakes::kPlatformCoUninitialize), 0u);
}

TEST_F(DriverListTest, EachDriverLivesOnAThreadOfItsOwnWithItsOwnApartment) {
  auto first = Add(u"First", 1);
  auto second = Add(u"Second", 2);
  Load();
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(driverList->LoadDriverByName(round == 0 ? u"First" : u"Second"));
    int32_t inputs = 0;
    int32_t outputs = 0;
    EXPECT_EQ(CASIOCallLayer::getChannels(&inputs, &outputs), ASE_OK);
    EXPECT_EQ(outputs, 2);
  }
  driverList->CloseCurrentDriver();
  const std::vector<std::thread::id> inits = platform.ComThreads(Fakes::kPlatformCoInitialize);
  const std::vector<std::thread::id> uninits = platform.ComThreads(Fakes::kPlatformCoUninitialize);
  // One apartment per load, begun and ended on that load's thread, never on
  // the caller's.
  ASSERT_EQ(inits.size(), 2u);
  ASSERT_EQ(uninits.size(), 2u);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_NE(inits[i], std::this_thread::get_id());
    EXPECT_EQ(uninits[i], inits[i]);
  }
  // Creation, every call and the last release ran on the load's thread.
  EXPECT_EQ(first->CallThreads(), std::set<std::thread::id>{inits[0]});
  EXPECT_EQ(second->CallThreads(), std::set<std::thread::id>{inits[1]});
  EXPECT_EQ(first->liveObjects.load(), 0);
  EXPECT_EQ(second->liveObjects.load(), 0);
}

TEST_F(DriverListTest, AKeyWithoutClsidTakesNoNumber) {
  Add(u"First", 1);
  platform.AddKeyWithoutClsid(u"keyMiddle");
  Add(u"Third", 3);
  Load();
  ASSERT_EQ(driverList->NumDrivers(), 2);
  EXPECT_EQ(Names(), (std::vector<CWideString>{u"First", u"Third"}));
  EXPECT_EQ(driverList->First()->next->drvID, 1);
}

TEST_F(DriverListTest, AMissingFileStillListsButAMissingServerEntryDoesNot) {
  platform.AddDriver(u"keyA", FakeClsidText(1), u"Gone File", true, false);
  platform.AddDriver(u"keyB", FakeClsidText(2), u"No Server", false, true);
  Load();
  EXPECT_EQ(Names(), (std::vector<CWideString>{u"Gone File"}));
}

TEST_F(DriverListTest, ANullFileHandleLeavesTheDriverOut) {
  Add(u"First", 1);
  platform.nullFileHandle = true;
  Load();
  EXPECT_EQ(driverList->NumDrivers(), 0);
  EXPECT_EQ(platform.Calls(Fakes::kPlatformCoInitialize), 0u);
}

TEST_F(DriverListTest, ClassIdsMatchWhateverTheirCase) {
  std::u16string lower = FakeClsidText(0xABCDEF12);
  for (char16_t& unit : lower) {
    if (unit >= u'A' && unit <= u'F') unit = static_cast<char16_t>(unit + 32);
  }
  // The driver key holds lower case, the class key upper case.
  platform.AddDriver(u"keyA", FakeClsidText(0xABCDEF12), u"Mixed");
  platform.SetValue(kLocalMachine, u"software\\asio\\keyA", u"clsid", lower);
  Load();
  ASSERT_EQ(driverList->NumDrivers(), 1);
  EXPECT_EQ(driverList->First()->clsid, FakeClsid(0xABCDEF12));
}

TEST_F(DriverListTest, AClsidThatDoesNotConvertIsKeptAllZero) {
  Add(u"First", 1);
  platform.Fail(Fakes::kPlatformClsidFromString, static_cast<int32_t>(0x800401F3u));
  Load();
  ASSERT_EQ(driverList->NumDrivers(), 1);
  EXPECT_EQ(driverList->First()->clsid, SGuid{});
}

TEST_F(DriverListTest, WithoutDescriptionTheKeyNameServes) {
  platform.AddDriver(u"Plain Key", FakeClsidText(1), u"");
  Load();
  EXPECT_EQ(Names(), (std::vector<CWideString>{u"Plain Key"}));
}

TEST_F(DriverListTest, LongNamesAreCutTo28UnitsAndDots) {
  const CWideString name31 = u"ABCDEFGHIJKLMNOPQRSTUVWXYZ01234";
  const CWideString name32 = u"ABCDEFGHIJKLMNOPQRSTUVWXYZ012345";
  Add(name31, 1);
  Add(name32, 2);
  Load();
  const std::vector<CWideString> names = Names();
  EXPECT_EQ(names[0], name31);
  EXPECT_EQ(names[1], u"ABCDEFGHIJKLMNOPQRSTUVWXYZ01...");
  EXPECT_EQ(names[1].size(), 31u);
  SGuid clsid = {};
  EXPECT_TRUE(FindDriverClsid(name32, clsid));
  EXPECT_EQ(clsid, FakeClsid(2));
  EXPECT_FALSE(FindDriverClsid(names[1], clsid));
  EXPECT_TRUE(driverList->LoadDriverByName(names[1]));
  EXPECT_EQ(driverList->CurrentIndex(), 1);
}

TEST_F(DriverListTest, ASubkeyNameTooLongEndsTheScan) {
  Add(u"First", 1);
  platform.AddDriver(std::u16string(130, u'k'), FakeClsidText(2), u"Long Key");
  Add(u"Third", 3);
  Load();
  EXPECT_EQ(Names(), (std::vector<CWideString>{u"First"}));
}

TEST_F(DriverListTest, NamesAtAndCountsByIndex) {
  Add(u"First", 1);
  Add(u"Second", 2);
  Load();
  CWideString name;
  EXPECT_EQ(driverList->GetDriverNameAt(1, name), 0);
  EXPECT_EQ(name, u"Second");
  EXPECT_EQ(driverList->GetDriverNameAt(2, name), kDriverListNoSuchDriver);
  EXPECT_EQ(driverList->GetDriverNameAt(-1, name), kDriverListNoSuchDriver);
  std::vector<CWideString> names;
  EXPECT_EQ(driverList->GetDriverNames(names, 1), 1);
  EXPECT_EQ(driverList->GetDriverNames(names, 0), 0);
  EXPECT_TRUE(names.empty());
  EXPECT_FALSE(driverList->GetCurrentDriverName(name));
  EXPECT_TRUE(name.empty());
}

TEST_F(DriverListTest, OpenDriverAtAnswersItsCodes) {
  Add(u"First", 1);
  Load();
  IASIO* driver = nullptr;
  EXPECT_EQ(driverList->OpenDriverAt(0, nullptr), kDriverListNullParameter);
  EXPECT_EQ(driverList->OpenDriverAt(4, &driver), kDriverListNoSuchDriver);
  EXPECT_EQ(driverList->OpenDriverAt(0, &driver), 0);
  EXPECT_NE(driver, nullptr);
  EXPECT_EQ(driverList->OpenDriverAt(0, &driver), kDriverListAlreadyOpen);
  EXPECT_EQ(driverList->CloseDriverAt(0), 0);
  EXPECT_EQ(driverList->CloseDriverAt(9), 0);
  platform.Fail(Fakes::kPlatformCoCreate, static_cast<int32_t>(0x80040154u), 1);
  EXPECT_EQ(driverList->OpenDriverAt(0, &driver), static_cast<int32_t>(0x80040154u));
}

TEST_F(DriverListTest, AFailedLoadBringsTheFormerDriverBack) {
  auto first = Add(u"First", 1);
  Add(u"Second", 2);
  Load();
  ASSERT_TRUE(driverList->LoadDriverByName(u"First"));
  platform.Fail(Fakes::kPlatformCoCreate, static_cast<int32_t>(0x80004005u), 1);
  EXPECT_FALSE(driverList->LoadDriverByName(u"Second"));
  EXPECT_EQ(driverList->CurrentIndex(), 0);
  EXPECT_NE(currentDriver.load(), nullptr);
  EXPECT_EQ(first->createdObjects.load(), 2);  // made anew
  EXPECT_EQ(first->liveObjects.load(), 1);
  EXPECT_FALSE(driverList->LoadDriverByName(u"Nobody"));
  EXPECT_EQ(driverList->CurrentIndex(), 0);
}

TEST_F(DriverListTest, InitRefusedLeavesTheObjectWithItsRecord) {
  auto device = Add(u"First", 1);
  device->initResult = 0;
  Load();
  ASSERT_TRUE(driverList->LoadDriverByName(u"First"));
  ASIODriverInfo info;
  std::memset(&info, 0, sizeof info);
  EXPECT_EQ(ASIOInit(info), ASE_NotPresent);
  EXPECT_STREQ(info.name, "No ASIO Driver");
  EXPECT_STREQ(info.errorMessage, "fake failure");
  EXPECT_EQ(currentDriver.load(), nullptr);
  EXPECT_EQ(device->liveObjects.load(), 1);
  int32_t inputs = 5, outputs = 5;
  EXPECT_EQ(CASIOCallLayer::getChannels(&inputs, &outputs), ASE_NotPresent);
  EXPECT_EQ(driverList->CloseDriverAt(0), 0);
  EXPECT_EQ(device->liveObjects.load(), 0);
}

TEST_F(DriverListTest, InitAcceptedFillsTheRecord) {
  auto device = Add(u"First", 1);
  Load();
  ASSERT_TRUE(driverList->LoadDriverByName(u"First"));
  ASIODriverInfo info;
  std::memset(&info, 0, sizeof info);
  EXPECT_EQ(ASIOInit(info), ASE_OK);
  EXPECT_STREQ(info.name, "Fake ASIO");
  EXPECT_STREQ(info.errorMessage, "No ASIO Driver Error");
  EXPECT_EQ(info.driverVersion, 7);
  ASIOExit();
  EXPECT_EQ(currentDriver.load(), nullptr);
  EXPECT_EQ(driverList->CurrentIndex(), -1);
  EXPECT_EQ(device->liveObjects.load(), 0);
}

TEST_F(DriverListTest, WithoutADriverTheCallLayerMakesItsOutputsHarmless) {
  Load();
  int32_t a = 9, b = 9, c = 9, d = 9;
  EXPECT_EQ(CASIOCallLayer::getChannels(&a, &b), ASE_NotPresent);
  EXPECT_EQ(a + b, 0);
  a = b = 9;
  EXPECT_EQ(CASIOCallLayer::getLatencies(&a, &b), ASE_NotPresent);
  EXPECT_EQ(a + b, 0);
  a = b = 9;
  EXPECT_EQ(CASIOCallLayer::getBufferSize(&a, &b, &c, &d), ASE_NotPresent);
  EXPECT_EQ(a + b + c + d, 0);
  ASIOClockSource clocks[2];
  int32_t count = 2;
  EXPECT_EQ(CASIOCallLayer::getClockSources(clocks, &count), ASE_NotPresent);
  EXPECT_EQ(count, 0);
  ASIOChannelInfo channel;
  std::memset(&channel, 0x55, sizeof channel);
  EXPECT_EQ(CASIOCallLayer::getChannelInfo(&channel), ASE_NotPresent);
  EXPECT_EQ(channel.channelGroup, -1);
  EXPECT_EQ(channel.type, 0);
  EXPECT_STREQ(channel.name, "None");
  ASIOBufferInfo buffers[2];
  std::memset(buffers, 0x55, sizeof buffers);
  EXPECT_EQ(CASIOCallLayer::createBuffers(buffers, 2, 64, nullptr), ASE_NotPresent);
  EXPECT_EQ(buffers[1].buffers[0], nullptr);
  EXPECT_EQ(buffers[1].buffers[1], nullptr);
  EXPECT_EQ(CASIOCallLayer::start(), ASE_NotPresent);
  EXPECT_EQ(CASIOCallLayer::outputReady(), ASE_NotPresent);
  EXPECT_EQ(CASIOCallLayer::future(kAsioCanInputMonitor, nullptr), ASE_NotPresent);
  ASIODriverInfo info;
  std::memset(&info, 0, sizeof info);
  EXPECT_EQ(ASIOInit(info), ASE_NotPresent);
  EXPECT_STREQ(info.name, "No ASIO Driver");
}

TEST_F(DriverListTest, TheStateStepsBackOnlyFromWhereItStands) {
  auto device = Add(u"First", 1);
  Load();
  ASSERT_TRUE(driverList->LoadDriverByName(u"First"));
  asioState = kASIOStateRunning;
  // Unloading the list is refused past 901; each step leaves one state.
  UnloadDriverList();
  EXPECT_NE(driverList, nullptr);
  DisposeIfPrepared();
  EXPECT_EQ(device->Calls(Fakes::kAsioDisposeBuffers), 0u);
  StopIfRunning();
  EXPECT_EQ(asioState, kASIOStatePrepared);
  StopIfRunning();
  EXPECT_EQ(device->Log(), (std::vector<std::string>{"stop"}));
  device->Fail(Fakes::kAsioDisposeBuffers, ASE_HWMalfunction);
  DisposeIfPrepared();
  EXPECT_EQ(asioState, kASIOStateInitialised);
  ExitIfInitialised();
  EXPECT_EQ(asioState, kASIOStateLoaded);
  EXPECT_EQ(device->liveObjects.load(), 0);
  ExitIfInitialised();
  UnloadDriverList();
  EXPECT_EQ(asioState, kASIOStateUnloaded);
  UnloadDriverList();
  EXPECT_EQ(asioState, kASIOStateUnloaded);
}

TEST_F(DriverListTest, FailingRegistryCallsGiveAnEmptyListNotAFailure) {
  for (auto call : {Fakes::kPlatformOpenKey, Fakes::kPlatformOpenKeyEx, Fakes::kPlatformEnumKey,
                    Fakes::kPlatformQueryValue}) {
    Fakes::CFakeASIOPlatform failing;
    failing.AddDriver(u"keyA", FakeClsidText(1), u"First");
    failing.Fail(call, 5);
    LoadDriverList(failing);
    EXPECT_EQ(driverList->NumDrivers(), 0) << call;
    EXPECT_EQ(failing.OpenKeys(), 0) << call;
    UnloadDriverList();
  }
}

// The system's own registry: natively there is none, and a Wine prefix holds
// no key or the test driver's. Every driver listed stands for a key under
// "software\asio", with a name, and there are never more than keys.
TEST_F(DriverListTest, TheSystemListsWhatItHasWithoutFailing) {
  IASIOPlatform& system = SystemASIOPlatform();
  uint32_t keys = 0;
  RegistryKey root = nullptr;
  if (system.RegOpenKey(kLocalMachine, u"software\\asio", &root) == kRegistryOk) {
    char16_t name[256];
    for (uint32_t units = 256; system.RegEnumKeyEx(root, keys, name, &units) == kRegistryOk;
         units = 256) {
      ++keys;
    }
    system.RegCloseKey(root);
  }
  LoadDriverList(system);
  EXPECT_EQ(asioState, kASIOStateLoaded);
  const int32_t count = driverList->NumDrivers();
  EXPECT_LE(count, static_cast<int32_t>(keys));
  if (keys == 0) {
    EXPECT_EQ(count, 0);
  }
  int32_t chained = 0;
  for (const CASIODriverRecord* record = driverList->First(); record != nullptr;
       record = record->next) {
    EXPECT_EQ(record->drvID, chained);
    EXPECT_FALSE(record->driverName.empty());
    ++chained;
  }
  EXPECT_EQ(chained, count);
  EXPECT_EQ(static_cast<int32_t>(Names().size()), count);
  UnloadDriverList();
  EXPECT_EQ(asioState, kASIOStateUnloaded);
}

}  // namespace
