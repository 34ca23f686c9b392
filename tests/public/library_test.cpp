#include <gtest/gtest.h>

#if defined(_WIN32)
#include <windows.h>
#endif

#include "driver/clock.h"
#include "fakes/fake_wasapi.h"
#include "fakes/fake_dsound.h"
#include "fakes/fake_wave_out.h"
#include "public/platform_provider.h"
#include "driver/registry.h"
#include "failure/body.h"
#include "failure/builder.h"
#include "public/boundary_object.h"
#include "public/globals.h"
#include "public/library.h"
#include "quillon/quillon.h"
#include "support/usable_window.h"

using namespace NSQuillon2;

namespace {

// A window the platform refuses.
void* StaleWindow() {
#if defined(_WIN32)
  return reinterpret_cast<void*>(static_cast<uintptr_t>(0x7FFF1234));
#else
  return reinterpret_cast<void*>(static_cast<uintptr_t>(16));
#endif
}

class LibraryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(NSMarlet::GetExceptionBodyStorageUnchecked(), nullptr);
    allocationsBefore = LiveBoundaryAllocations();
  }
  void TearDown() override {
    EXPECT_EQ(NSMarlet::GetExceptionBodyStorageUnchecked(), nullptr);
    EXPECT_EQ(LiveBoundaryAllocations(), allocationsBefore);
    EXPECT_EQ(gCurrentLibrary, nullptr);
    EXPECT_EQ(gWindowHandle, nullptr);
  }
  int64_t allocationsBefore = 0;
};

IQuillon* Create(const SLibraryParams* params, uint32_t* status) {
  return Quillon_Create("IQuillon2", params, status);
}

}  // namespace

TEST_F(LibraryTest, CreateCheckAndDestroy) {
  uint32_t status = 0;
  IQuillon* library = Create(nullptr, &status);
  ASSERT_NE(library, nullptr);
  EXPECT_EQ(status, kStatusOk);
  EXPECT_EQ(library->CheckLibrary(), kStatusOk);
  EXPECT_EQ(library->IsValid(), 1u);
  EXPECT_NE(NSMarlet::GetExceptionBodyStorageUnchecked(), nullptr);
  auto* impl = static_cast<CQuillonImpl*>(library);
  EXPECT_EQ(impl->DriversLoaded(), 1u);
  ASSERT_NE(impl->TimerPeriod(), nullptr);
  EXPECT_EQ(impl->TimerPeriod()->Period(), 5u);
  EXPECT_EQ(gCurrentLibrary, impl);
  EXPECT_EQ(LiveBoundaryAllocations(), allocationsBefore + 1);
  // The registry lives with the library, and the clock has started.
  EXPECT_TRUE(impl->HoldsRegistry());
  EXPECT_TRUE(NSFerrand::RegistryExists());
  EXPECT_GE(NSFerrand::TimerStartPeriod(), 1u);
  QuillonDestroy(library);
  EXPECT_FALSE(NSFerrand::RegistryExists());
}

TEST_F(LibraryTest, WrongNamesGive993AndBuildNothing) {
  for (const char* name : {"IQuillon", "IQuillon3", "iquillon2", "IQuillon2 ", ""}) {
    uint32_t status = 0;
    EXPECT_EQ(Quillon_Create(name, nullptr, &status), nullptr) << name;
    EXPECT_EQ(status, kStatusInvalidArgument) << name;
    EXPECT_EQ(NSMarlet::GetExceptionBodyStorageUnchecked(), nullptr);
  }
  uint32_t status = 0;
  EXPECT_EQ(Quillon_Create(nullptr, nullptr, &status), nullptr);
  EXPECT_EQ(status, kStatusInvalidArgument);
}

TEST_F(LibraryTest, OnlyTheHardwareFlagMayBeSet) {
  for (uint32_t flags : {1u, 3u, 4u, 0x80000000u}) {
    SLibraryParams params = {nullptr, flags};
    uint32_t status = 0;
    EXPECT_EQ(Create(&params, &status), nullptr) << flags;
    EXPECT_EQ(status, kStatusInvalidArgument) << flags;
  }
  SLibraryParams plain = {nullptr, 0};
  uint32_t status = 0;
  IQuillon* library = Create(&plain, &status);
  ASSERT_NE(library, nullptr);
  EXPECT_EQ(status, kStatusOk);
  QuillonDestroy(library);
  // The hardware flag passes the check and goes for the hardware library,
  // which is not beside this program.
  SLibraryParams hardware = {nullptr, kLibraryFlagUseHardware};
  EXPECT_EQ(Create(&hardware, &status), nullptr);
  EXPECT_EQ(status, kStatusBase + NSMarlet::PackFailure(NSMarlet::kFailureCode_RuntimeError_NotFound,
                                                      "dll", NSMarlet::ProgramTargetWords()));
}

TEST_F(LibraryTest, AStaleWindowGives993AndAUsableOneIsKept) {
  SLibraryParams stale = {StaleWindow(), 0};
  uint32_t status = 0;
  EXPECT_EQ(Create(&stale, &status), nullptr);
  EXPECT_EQ(status, kStatusInvalidArgument);

  SLibraryParams usable = {UsableWindow(), 0};
  IQuillon* library = Create(&usable, &status);
  ASSERT_NE(library, nullptr);
  EXPECT_EQ(status, kStatusOk);
  EXPECT_EQ(gWindowHandle, UsableWindow());
  QuillonDestroy(library);
}

TEST_F(LibraryTest, ANullStatusPlaceIsTolerated) {
  EXPECT_EQ(Quillon_Create("wrong", nullptr, nullptr), nullptr);
  IQuillon* library = Create(nullptr, nullptr);
  ASSERT_NE(library, nullptr);
  QuillonDestroy(library);
}

TEST_F(LibraryTest, TwoLibraryObjectsShareOneStorageUntilTheLastIsGone) {
  uint32_t status = 0;
  IQuillon* first = Create(nullptr, &status);
  IQuillon* second = Create(nullptr, &status);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  QuillonDestroy(first);
  EXPECT_NE(NSMarlet::GetExceptionBodyStorageUnchecked(), nullptr);
  EXPECT_EQ(second->CheckLibrary(), kStatusOk);
  QuillonDestroy(second);
}

TEST_F(LibraryTest, ListsTheNullDriverAloneWithoutDevices) {
  Fakes::CFakeWaveOut noDevices;
  Fakes::CNoWasapi noWasapi;
  const SPlatformProvider provider{&noDevices, nullptr, nullptr, nullptr, &noWasapi};
  SetPlatformProvider(&provider);
  IQuillon* library = Create(nullptr, nullptr);
  SetPlatformProvider(nullptr);
  ASSERT_NE(library, nullptr);
  uint32_t status = 0;
  IVector<const IDriverSpec*>* specs = library->GetDriverSpecs(&status);
  ASSERT_NE(specs, nullptr);
  EXPECT_EQ(status, kStatusOk);
  EXPECT_EQ(specs->GetSize(), 1);
  QuillonDestroy(specs);
  QuillonDestroy(library);
}

TEST_F(LibraryTest, TheMMEFamilyComesWithOrWithoutAWindow) {
  Fakes::CFakeWaveOut fake;
  fake.devices.push_back(Fakes::StereoDevice(u"Speakers", {44100}));
  // No DirectSound here, whatever the system has: the window must not
  // decide over MME.
  Fakes::CFakeDirectSound noDirectSound;
  noDirectSound.libraryPresent = false;
  Fakes::CNoWasapi noWasapi;
  const SPlatformProvider provider{&fake, nullptr, &noDirectSound, nullptr, &noWasapi};
  SetPlatformProvider(&provider);
  SLibraryParams withWindow = {UsableWindow(), 0};
  for (const SLibraryParams* params : {static_cast<const SLibraryParams*>(nullptr),
                                       static_cast<const SLibraryParams*>(&withWindow)}) {
    IQuillon* library = Create(params, nullptr);
    ASSERT_NE(library, nullptr);
    uint32_t status = 0;
    IVector<const IDriverSpec*>* specs = library->GetDriverSpecs(&status);
    ASSERT_EQ(specs->GetSize(), 2);
    SDriverSpecKey key;
    specs->GetData()[1]->GetKeyRecord(&key);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(key.family)), u"MME");
    QuillonDestroy(specs);
    QuillonDestroy(library);
  }
  SetPlatformProvider(nullptr);
}

TEST_F(LibraryTest, QuillonNewAndDeleteCount) {
  void* memory = Quillon_New(64);
  ASSERT_NE(memory, nullptr);
  EXPECT_EQ(LiveBoundaryAllocations(), allocationsBefore + 1);
  Quillon_Delete(memory);
  Quillon_Delete(nullptr);
  EXPECT_EQ(LiveBoundaryAllocations(), allocationsBefore);
}

#if QUILLON_MSVC_DESTRUCTOR_SLOT
TEST_F(LibraryTest, DeletingDestructorFreesOnlyWithFlagOne) {
  IQuillon* library = Create(nullptr, nullptr);
  ASSERT_NE(library, nullptr);
  EXPECT_EQ(library->ScalarDeletingDestructor(0), library);
  // Destroyed but not freed: the memory is still the library's to free.
  EXPECT_EQ(LiveBoundaryAllocations(), allocationsBefore + 1);
  EXPECT_EQ(NSMarlet::GetExceptionBodyStorageUnchecked(), nullptr);
  Quillon_Delete(library);
  library = Create(nullptr, nullptr);
  ASSERT_NE(library, nullptr);
  EXPECT_EQ(library->ScalarDeletingDestructor(1), library);
}
#endif
