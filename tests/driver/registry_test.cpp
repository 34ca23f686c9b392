#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <string>

#include "driver/registry.h"
#include "support/allocation_counter.h"
#include "support/storage_fixture.h"

using namespace NSFerrand;

namespace {

// A registered driver that only describes itself.
class FakeRegistered final : public CABCRegisteredSoundDriver {
 public:
  FakeRegistered(const char16_t* key, const char16_t* family, int* alive = nullptr)
      : key_(key), family_(family), alive_(alive) {
    if (alive_ != nullptr) ++*alive_;
  }
  ~FakeRegistered() override {
    if (alive_ != nullptr) --*alive_;
  }
  CABCOpenSoundDriver* OpenWithSettings(const CSoundDriverSettings&, MSoundRenderer*,
                                        void*) override {
    return nullptr;
  }
  CABCOpenSoundDriver* OpenWithDefaults(MSoundRenderer*, void*) override { return nullptr; }
  CRegisteredSoundDriverInfo& GetInfo(CRegisteredSoundDriverInfo& info) override {
    if (raiseInGetInfo) throw std::runtime_error("no info");
    info.key = key_;
    info.family = family_;
    info.name = key_;
    return info;
  }
  bool raiseInGetInfo = false;

 private:
  CWideString key_;
  CWideString family_;
  int* alive_;
};

std::vector<CWideString> Keys() {
  CRegisteredDriverList drivers;
  GetRegisteredDrivers(drivers);
  std::vector<CWideString> keys;
  for (const CRegisteredDriverPtr& d : drivers) {
    CRegisteredSoundDriverInfo info;
    keys.push_back(d->GetInfo(info).key);
  }
  return keys;
}

class RegistryTest : public StorageTest {
 protected:
  void SetUp() override {
    StorageTest::SetUp();
    ASSERT_FALSE(RegistryExists());
    ref = new CRegistryRef();
    TakeDriverListChanged();
  }
  void TearDown() override {
    delete ref;
    EXPECT_FALSE(RegistryExists());
    EXPECT_EQ(alive, 0);
    StorageTest::TearDown();
  }
  CRegistryRef* ref = nullptr;
  // Outlives the registry's entries, which count themselves here.
  int alive = 0;
};

}  // namespace

TEST_F(RegistryTest, TheNullDriverIsEntryZero) {
  EXPECT_EQ(Keys(), std::vector<CWideString>{u"Ferrand Null Driver"});
  CRegisteredDriverList drivers;
  GetRegisteredDrivers(drivers);
  CRegisteredSoundDriverInfo info;
  drivers[0]->GetInfo(info);
  EXPECT_EQ(info.family, u"Off");
  EXPECT_EQ(info.name, u"No Sound");
  EXPECT_EQ(info.version, u"1");
  EXPECT_EQ(info.manufacturer, u"Kestrelwaves");
  EXPECT_EQ(std::vector<int>(info.flags, info.flags + 4), (std::vector<int>{1, 1, 0, 0}));
}

TEST_F(RegistryTest, AddingKeepsOrderAndRefusesAKnownKey) {
  ASSERT_TRUE(AddRegisteredDriver(new FakeRegistered(u"a", u"MME", &alive)));
  ASSERT_TRUE(AddRegisteredDriver(new FakeRegistered(u"b", u"DX", &alive)));
  EXPECT_TRUE(TakeDriverListChanged());
  EXPECT_FALSE(TakeDriverListChanged());
  FakeRegistered* twin = new FakeRegistered(u"a", u"ASIO", &alive);
  EXPECT_FALSE(AddRegisteredDriver(twin));
  EXPECT_FALSE(TakeDriverListChanged());
  EXPECT_EQ(Keys(), (std::vector<CWideString>{u"Ferrand Null Driver", u"a", u"b"}));
  delete twin;  // still the caller's
  EXPECT_EQ(alive, 2);
  // A key that differs only in length is another key.
  EXPECT_TRUE(AddRegisteredDriver(new FakeRegistered(u"a ", u"MME", &alive)));
}

TEST_F(RegistryTest, TheChangeFlagIsTakenOnceAfterManyChanges) {
  auto* a = new FakeRegistered(u"a", u"MME");
  AddRegisteredDriver(a);
  AddRegisteredDriver(new FakeRegistered(u"b", u"MME"));
  RemoveRegisteredDriver(a);
  EXPECT_TRUE(TakeDriverListChanged());
  EXPECT_FALSE(TakeDriverListChanged());
}

TEST_F(RegistryTest, RemovingByPointer) {
  auto* a = new FakeRegistered(u"a", u"MME", &alive);
  auto* b = new FakeRegistered(u"b", u"MME", &alive);
  AddRegisteredDriver(a);
  AddRegisteredDriver(b);
  TakeDriverListChanged();
  FakeRegistered stranger(u"s", u"MME");
  RemoveRegisteredDriver(&stranger);
  EXPECT_FALSE(TakeDriverListChanged());
  RemoveRegisteredDriver(a);
  EXPECT_TRUE(TakeDriverListChanged());
  EXPECT_EQ(Keys(), (std::vector<CWideString>{u"Ferrand Null Driver", u"b"}));
  EXPECT_EQ(alive, 1);
}

TEST_F(RegistryTest, AnEntryHeldElsewhereOutlivesItsRemoval) {
  auto* a = new FakeRegistered(u"a", u"MME", &alive);
  AddRegisteredDriver(a);
  CRegisteredDriverList held;
  GetRegisteredDrivers(held);
  RemoveFamily(u"MME");
  EXPECT_EQ(alive, 1);
  held.clear();
  EXPECT_EQ(alive, 0);
}

TEST_F(RegistryTest, RemovingAFamily) {
  AddRegisteredDriver(new FakeRegistered(u"m1", u"MME"));
  AddRegisteredDriver(new FakeRegistered(u"d1", u"DX"));
  AddRegisteredDriver(new FakeRegistered(u"m2", u"MME"));
  TakeDriverListChanged();
  RemoveFamily(u"ASIO");
  EXPECT_FALSE(TakeDriverListChanged());
  RemoveFamily(u"MME");
  EXPECT_TRUE(TakeDriverListChanged());
  EXPECT_EQ(Keys(), (std::vector<CWideString>{u"Ferrand Null Driver", u"d1"}));
}

TEST_F(RegistryTest, AnEntryThatCannotDescribeItselfGoesWithAnyFamily) {
  auto* broken = new FakeRegistered(u"x", u"MME");
  AddRegisteredDriver(broken);
  AddRegisteredDriver(new FakeRegistered(u"d", u"DX"));
  broken->raiseInGetInfo = true;
  RemoveFamily(u"ASIO");
  broken = nullptr;
  EXPECT_EQ(Keys(), (std::vector<CWideString>{u"Ferrand Null Driver", u"d"}));
}

TEST_F(RegistryTest, AGetInfoThatRaisesPassesOutOfAddAndTheLockIsFree) {
  auto* broken = new FakeRegistered(u"x", u"MME");
  broken->raiseInGetInfo = true;
  EXPECT_THROW(AddRegisteredDriver(broken), std::runtime_error);
  delete broken;
  EXPECT_TRUE(AddRegisteredDriver(new FakeRegistered(u"y", u"MME")));
}

// Each allocation of an addition refused in turn, the caller deleting its
// driver whenever the addition raises, as the families do: every driver is
// deleted exactly once, by the caller or by the registry when it goes.
TEST_F(RegistryTest, AnAdditionThatRunsOutOfMemoryLeavesTheDriverToTheCaller) {
  int living = 0;
  int deletedByCaller = 0;
  int kept = 0;
  bool refusedAll = true;
  for (uint64_t n = 1; refusedAll; ++n) {
    ASSERT_LT(n, 200u);
    const std::u16string key = u"k" + std::u16string(static_cast<size_t>(n), u'x');
    auto* driver = new FakeRegistered(key.c_str(), u"MME", &living);
    bool added = false;
    bool raised = false;
    {
      AllocationCounter::CRefuseNth refuse(n);
      try {
        added = AddRegisteredDriver(driver);
      } catch (const std::bad_alloc&) {
        raised = true;
      }
      refusedAll = refuse.Refused();
    }
    if (raised) {
      // Still alive: the caller's to delete.
      EXPECT_EQ(living, kept + 1) << n;
      delete driver;
      ++deletedByCaller;
    } else {
      EXPECT_TRUE(added) << n;
      ++kept;
    }
    EXPECT_EQ(living, kept) << n;
  }
  EXPECT_GT(deletedByCaller, 0);
  EXPECT_EQ(static_cast<int>(Keys().size()), kept + 1);
  RemoveFamily(u"MME");
  EXPECT_EQ(living, 0);
}

TEST_F(RegistryTest, ANewRegistryAfterTheLastReferenceHoldsTheNullDriverAlone) {
  AddRegisteredDriver(new FakeRegistered(u"a", u"MME"));
  {
    CRegistryRef second;
    EXPECT_EQ(Keys().size(), 2u);
  }
  EXPECT_EQ(Keys().size(), 2u);
  delete ref;
  EXPECT_FALSE(RegistryExists());
  ref = new CRegistryRef();
  EXPECT_EQ(Keys(), std::vector<CWideString>{u"Ferrand Null Driver"});
}

TEST(RegistryWithoutReference, OperationsAreRefused) {
  NSMarlet::CThreadSafeExceptionBodyStorage storage;
  NSMarlet::SetExceptionBodyStorage(&storage);
  ASSERT_FALSE(RegistryExists());
  CRegisteredDriverList drivers;
  EXPECT_THROW(GetRegisteredDrivers(drivers), std::logic_error);
  NSMarlet::SetExceptionBodyStorage(nullptr);
}

TEST(FindNearestValue, TiesGoToTheEarlierEntry) {
  EXPECT_EQ(FindNearestValue({44100, 48000}, 46050), 44100u);
  EXPECT_EQ(FindNearestValue({44100, 48000}, 46051), 48000u);
  EXPECT_EQ(FindNearestValue({48000, 44100}, 46050), 48000u);
  EXPECT_EQ(FindNearestValue({96000}, 1), 96000u);
  EXPECT_EQ(FindNearestValue({44100, 48000, 88200, 96000, 192000}, 1000000), 192000u);
  EXPECT_EQ(FindNearestValue({44100, 48000, 88200, 96000, 192000}, 0), 44100u);
}

TEST(FindNearestValue, EntriesAndTargetsOfTwoToTheThirtyFirstAndAbove) {
  EXPECT_EQ(FindNearestValue({44100, 0x80000000u}, 0x7FFFFFFF), 0x80000000u);
  EXPECT_EQ(FindNearestValue({0x80000000u, 0xFFFFFFFFu}, 0), 0x80000000u);
  EXPECT_EQ(FindNearestValue({44100, 48000, 88200, 96000, 192000}, 0xFFFFFFFFu), 192000u);
  EXPECT_EQ(FindNearestValue({0xFFFFFFFFu, 44100}, -2147483647 - 1), 44100u);
  EXPECT_EQ(FindNearestValue({0, 0xFFFFFFFFu}, 0x7FFFFFFF), 0u);
  EXPECT_EQ(FindNearestValue({0, 0xFFFFFFFFu}, 0x80000000u), 0xFFFFFFFFu);
}
