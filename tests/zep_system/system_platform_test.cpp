// The hardware library found by the operating system's own operations: this
// program lives in a folder of its own with a copy of the test hardware
// library (version 2.0.0.0) beside it, as a host ships one.
#include <gtest/gtest.h>

#include <filesystem>

#include "fakes/zep_platform_fake.h"
#include "hardware/zep_loader.h"
#include "public/library.h"
#include "public/platform_provider.h"
#include "quillon/quillon.h"
#include "zep_fake/zep_fake_log.h"

using namespace NSQuillon2;
using NSZEPGlue::SystemZEPPlatform;

namespace {

TEST(SystemPlatformTest, TheModuleIsThisProgramAndItsFolderHoldsTheLibrary) {
  NSZEPGlue::CPathText path;
  ASSERT_TRUE(SystemZEPPlatform().LoaderModuleFileName(path));
  EXPECT_EQ(std::filesystem::path(path).parent_path(), NSTestFakes::ProgramFolder());
  const std::filesystem::path library =
      NSTestFakes::ProgramFolder() / NSTestFakes::ZEPFileName("ZEPLib");
  const uint32_t attributes = SystemZEPPlatform().FileAttributes(library.u16string());
  ASSERT_NE(attributes, NSZEPGlue::kFileAttributesInvalid);
  EXPECT_EQ(attributes & NSZEPGlue::kFileAttributeDirectory, 0u);
  EXPECT_NE(SystemZEPPlatform().FileAttributes(NSTestFakes::ProgramFolder().u16string()) &
                NSZEPGlue::kFileAttributeDirectory,
            0u);
  EXPECT_EQ(SystemZEPPlatform().FileAttributes((NSTestFakes::ProgramFolder() / "none").u16string()),
            NSZEPGlue::kFileAttributesInvalid);
  EXPECT_EQ(SystemZEPPlatform().LastError(), NSZEPGlue::kErrorFileNotFound);
}

TEST(SystemPlatformTest, TheVersionRecordIsReadWithoutLoadingTheFile) {
  ZEPFake_Reset();
  const std::filesystem::path library =
      NSTestFakes::ProgramFolder() / NSTestFakes::ZEPFileName("ZEPLib");
  EXPECT_EQ(NSZEPGlue::NSPrivate::FileVersionScore(SystemZEPPlatform(), library.u16string()),
            2000000u);
  EXPECT_EQ(ZEPFake_LoadedCopies(), 0);
  NSZEPGlue::CPathText common;
  EXPECT_TRUE(SystemZEPPlatform().SpecialFolderPath(NSZEPGlue::kFolderProgramFilesCommon, common));
  EXPECT_FALSE(common.empty());
}

TEST(SystemPlatformTest, AHostThatAsksForHardwareGetsTheLibraryBesideTheModule) {
  ZEPFake_Reset();
  SetPlatformProvider(nullptr);
  const SLibraryParams params = {nullptr, kLibraryFlagUseHardware};
  uint32_t status = 0;
  IQuillon* library = Quillon_Create("IQuillon2", &params, &status);
  ASSERT_NE(library, nullptr);
  EXPECT_EQ(status, kStatusOk);
  EXPECT_NE(static_cast<CQuillonImpl*>(library)->HardwareHandler(), nullptr);
  EXPECT_EQ(ZEPFake_Created(), 1);
  QuillonDestroy(library);
  EXPECT_EQ(ZEPFakeLog(), (std::vector<std::string>{"load 2.0.0.0", "ZEP_Create 1 0 connection button",
                                             "ZEP_Dispose", "unload 2.0.0.0"}));
}

}  // namespace
