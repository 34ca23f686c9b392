#include <new>
#include <stdexcept>

#include "hardware/zep_loader.h"
#include "public/status.h"
#include "hardware_support.h"

using namespace NSZEPGlue;
using namespace NSZEPGlue::NSPrivate;
using namespace NSMarlet;
using NSTestFakes::ZEPFileName;

namespace {

class LoaderTest : public HardwareTest {
 protected:
  // Loads through a scoped use; the chosen file, relative to the test's
  // folders, and the version the loaded copy reports.
  std::string LoadAndName() {
    CScopedZEPLoader use(platform);
    const std::filesystem::path chosen(use.Loader().ChosenFile());
    EXPECT_EQ(ZEPFake_LoadedCopies(), 1);
    if (chosen.parent_path() == module.Path()) return "beside/" + chosen.filename().string();
    if (chosen.parent_path() == NSTestFakes::SharedZEPFolder(common.Path())) {
      return "shared/" + chosen.filename().string();
    }
    return chosen.string();
  }
  // The version of the copy loaded last.
  std::string LoadedVersion() {
    std::string version;
    for (const std::string& line : Log()) {
      if (line.compare(0, 5, "load ") == 0) version = line.substr(5);
    }
    return version;
  }
};

TEST_F(LoaderTest, TheCopyBesideTheModuleIsLoadedAndUnloadedWithItsLastUse) {
  PlaceBeside("v1_999_999");
  {
    CScopedZEPLoader first(platform);
    EXPECT_TRUE(ZEPLoaderExists());
    EXPECT_EQ(std::filesystem::path(first.Loader().ChosenFile()),
              module.Path() / ZEPFileName("ZEPLib"));
    {
      CScopedZEPLoader second(platform);
      EXPECT_EQ(&second.Loader(), &first.Loader());
      EXPECT_EQ(platform.loads, 1u);
    }
    EXPECT_TRUE(ZEPLoaderExists());
    EXPECT_EQ(ZEPFake_LoadedCopies(), 1);
  }
  EXPECT_FALSE(ZEPLoaderExists());
  EXPECT_EQ(platform.frees, 1u);
  EXPECT_EQ(ZEPFake_LoadedCopies(), 0);
  EXPECT_EQ(Log(), (std::vector<std::string>{"load 1.999.999.0", "unload 1.999.999.0"}));
}

TEST_F(LoaderTest, TheThreeNamesAreTriedInOrder) {
  PlaceBeside("v1_999_999", "ZEPLibDebugging");
  EXPECT_EQ(LoadAndName(), "beside/" + ZEPFileName("ZEPLibDebugging"));
  PlaceBeside("v1_999_999", "ZEPLibTesting");
  EXPECT_EQ(LoadAndName(), "beside/" + ZEPFileName("ZEPLibTesting"));
  PlaceBeside("v1_999_999", "ZEPLib");
  EXPECT_EQ(LoadAndName(), "beside/" + ZEPFileName("ZEPLib"));
}

TEST_F(LoaderTest, WithoutACopyBesideTheModuleTheSharedOneIsNotLookedFor) {
  PlaceShared("v2_0_0", "ZEPLib");
  const SFailureSeen seen = FailureOf([&] { CScopedZEPLoader use(platform); });
  EXPECT_EQ(seen.code, kFailureCode_RuntimeError_NotFound);
  EXPECT_EQ(seen.word, "dll");
  EXPECT_FALSE(ZEPLoaderExists());
  EXPECT_EQ(platform.loads, 0u);
  EXPECT_EQ(ZEPFake_LoadedCopies(), 0);
  for (const std::u16string& path : platform.attributeQueries) {
    EXPECT_EQ(path.find(common.Path().u16string()), std::u16string::npos);
  }
}

TEST_F(LoaderTest, ADirectoryNamedLikeTheLibraryIsNoHit) {
  std::filesystem::create_directories(module.Path() / ZEPFileName("ZEPLib"));
  const SFailureSeen none = FailureOf([&] { CScopedZEPLoader use(platform); });
  EXPECT_EQ(none.code, kFailureCode_RuntimeError_NotFound);
  EXPECT_EQ(none.word, "dll");
  PlaceBeside("v1_999_999", "ZEPLibTesting");
  EXPECT_EQ(LoadAndName(), "beside/" + ZEPFileName("ZEPLibTesting"));
}

TEST_F(LoaderTest, ASharedCopyUnderAnotherNameWithAHigherVersionWins) {
  PlaceBeside("v1_999_999", "ZEPLib");
  PlaceShared("v2_0_0", "ZEPLibTesting");
  EXPECT_EQ(LoadAndName(), "shared/" + ZEPFileName("ZEPLibTesting"));
  EXPECT_EQ(LoadedVersion(), "2.0.0.0");
}

TEST_F(LoaderTest, ASharedCopyOfEqualVersionIsNotUsed) {
  PlaceBeside("v1_999_999", "ZEPLib");
  PlaceShared("v1_999_999", "ZEPLib");
  EXPECT_EQ(LoadAndName(), "beside/" + ZEPFileName("ZEPLib"));
}

TEST_F(LoaderTest, TheFourthVersionFieldChangesNothing) {
  PlaceBeside("v1_999_999", "ZEPLib");
  PlaceShared("v1_999_999_7", "ZEPLib");
  EXPECT_EQ(LoadAndName(), "beside/" + ZEPFileName("ZEPLib"));
  EXPECT_EQ(LoadedVersion(), "1.999.999.0");
}

TEST_F(LoaderTest, AnOlderSharedCopyIsNotUsed) {
  PlaceBeside("v2_0_0", "ZEPLib");
  PlaceShared("v1_999_999", "ZEPLib");
  EXPECT_EQ(LoadAndName(), "beside/" + ZEPFileName("ZEPLib"));
}

TEST_F(LoaderTest, ASharedCopyWithoutAVersionRecordLeavesTheOneBesideWithoutAFailure) {
  PlaceBeside("v1_999_999", "ZEPLib");
  PlaceShared("unversioned", "ZEPLib");
  EXPECT_EQ(LoadAndName(), "beside/" + ZEPFileName("ZEPLib"));
  // Nor does a copy beside without a record lose to a newer shared one.
  PlaceBeside("unversioned", "ZEPLib");
  PlaceShared("v2_0_0", "ZEPLib");
  EXPECT_EQ(LoadAndName(), "beside/" + ZEPFileName("ZEPLib"));
  EXPECT_EQ(LoadedVersion(), "none");
}

TEST_F(LoaderTest, AVersionThatCannotBeReadLeavesTheOneBeside) {
  PlaceBeside("v1_999_999", "ZEPLib");
  PlaceShared("v2_0_0", "ZEPLib");
  platform.failVersionRead = true;
  EXPECT_EQ(LoadAndName(), "beside/" + ZEPFileName("ZEPLib"));
  platform.failVersionRead = false;
  platform.failVersionQuery = true;
  EXPECT_EQ(LoadAndName(), "beside/" + ZEPFileName("ZEPLib"));
}

TEST_F(LoaderTest, NoCommonFolderLeavesTheOneBeside) {
  PlaceBeside("v1_999_999", "ZEPLib");
  PlaceShared("v2_0_0", "ZEPLib");
  platform.commonFolder.clear();
  EXPECT_EQ(LoadAndName(), "beside/" + ZEPFileName("ZEPLib"));
}

// The shared path is built from a common folder of a chosen length: the
// candidate is probed only while it stays below 260 units.
TEST_F(LoaderTest, ASharedPathThatReaches260UnitsIsAFailedTryNeverAFailure) {
  PlaceBeside("v1_999_999", "ZEPLib");
  const std::u16string tail = u"/Kestrelwave Software/ZEP/" +
                              std::filesystem::path(ZEPFileName("ZEPLib")).u16string();
  auto probed = [&](size_t candidateLength) {
    platform.commonFolder = u"/" + std::u16string(candidateLength - tail.size() - 1, u'c');
    platform.attributeQueries.clear();
    EXPECT_EQ(LoadAndName(), "beside/" + ZEPFileName("ZEPLib"));
    const std::u16string candidate = platform.commonFolder + tail;
    EXPECT_EQ(candidate.size(), candidateLength);
    for (std::u16string path : platform.attributeQueries) {
      for (char16_t& unit : path) {
        if (unit == u'\\') unit = u'/';
      }
      if (path == candidate) return true;
    }
    return false;
  };
  EXPECT_TRUE(probed(258));
  EXPECT_FALSE(probed(259));
  EXPECT_FALSE(probed(400));
}

TEST_F(LoaderTest, AModuleThatCannotBeFoundGivesAnOpenFailureWithoutAWord) {
  PlaceBeside("v1_999_999", "ZEPLib");
  platform.failModuleName = true;
  const SFailureSeen seen = FailureOf([&] { CScopedZEPLoader use(platform); });
  EXPECT_EQ(seen.code, kFailureCode_RuntimeError_Open);
  EXPECT_EQ(seen.word, "");
  EXPECT_FALSE(ZEPLoaderExists());
}

TEST_F(LoaderTest, EachLoadErrorRaisesItsFailure) {
  PlaceBeside("v1_999_999", "ZEPLib");
  struct SRow {
    uint32_t error;
    uint32_t code;
    const char* word;
  };
  const SRow rows[] = {
      {4, kFailureCode_RuntimeError_OutOfSpace, ""},
      {8, kFailureCode_RuntimeError_OutOfSpace, ""},
      {14, kFailureCode_RuntimeError_OutOfSpace, ""},
      {11, kFailureCode_RuntimeError_ReadFailure, "dll"},
      {30, kFailureCode_RuntimeError_ReadFailure, "dll"},
      {31, kFailureCode_RuntimeError_ReadFailure, "dll"},
      {1157, kFailureCode_RuntimeError_NotFound, "dll"},
      {2, kFailureCode_RuntimeError_Open, "dll"},
      {5, kFailureCode_RuntimeError_Open, "dll"},
      {193, kFailureCode_RuntimeError_Open, "dll"},
  };
  for (const SRow& row : rows) {
    platform.loadError = row.error;
    const SFailureSeen seen = FailureOf([&] { CScopedZEPLoader use(platform); });
    EXPECT_EQ(seen.code, row.code) << row.error;
    EXPECT_EQ(seen.word, row.word) << row.error;
    EXPECT_FALSE(ZEPLoaderExists());
  }
  EXPECT_EQ(ZEPFake_LoadedCopies(), 0);
}

TEST_F(LoaderTest, TheErrorModeIsPutBackOnEveryWayOut) {
  PlaceBeside("v1_999_999", "ZEPLib");
  PlaceShared("v2_0_0", "ZEPLib");
  { CScopedZEPLoader use(platform); }
  EXPECT_EQ(platform.errorModes,
            (std::vector<uint32_t>{1, 32768, 1, 32768, 1, 0}));
  platform.errorModes.clear();
  platform.loadError = 8;
  FailureOf([&] { CScopedZEPLoader use(platform); });
  EXPECT_EQ(platform.errorModes, (std::vector<uint32_t>{1, 32768, 1, 32768, 1, 0}));
  platform.errorModes.clear();
  std::filesystem::remove(module.Path() / ZEPFileName("ZEPLib"));
  FailureOf([&] { CScopedZEPLoader use(platform); });
  EXPECT_EQ(platform.errorModes, (std::vector<uint32_t>{1, 0}));
}

TEST_F(LoaderTest, EntriesAreLookedUpOnFirstUseAndKept) {
  PlaceBeside("v1_999_999", "ZEPLib");
  CScopedZEPLoader use(platform);
  EXPECT_TRUE(platform.lookups.empty());
  void* first = use.Loader().Entry(kZEPTestCommand);
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(use.Loader().Entry(kZEPTestCommand), first);
  EXPECT_EQ(platform.lookups, (std::vector<std::string>{"ZEP_TestCommand"}));
  for (uint32_t i = 0; i < kZEPEntryCount; ++i) {
    EXPECT_NE(use.Loader().Entry(static_cast<EZEPEntry>(i)), nullptr) << kZEPEntryNames[i];
  }
}

TEST_F(LoaderTest, AnOlderLibraryLoadsAndFailsOnlyAtTheOperationItLacks) {
  PlaceBeside("old", "ZEPLib");
  CScopedZEPLoader use(platform);
  EXPECT_NE(use.Loader().Entry(kZEPCreate), nullptr);
  for (int attempt = 0; attempt < 2; ++attempt) {
    const SFailureSeen seen = FailureOf([&] { use.Loader().Entry(kZEPSetDirectMonitoring); });
    EXPECT_EQ(seen.code, kFailureCode_RuntimeError_NotFound);
    EXPECT_EQ(seen.word, "symbol");
    EXPECT_STREQ(seen.text.c_str(), "ZEP_SetDirectMonitoring");
  }
  // Nothing was kept: each call looked again.
  EXPECT_EQ(std::count(platform.lookups.begin(), platform.lookups.end(),
                       std::string("ZEP_SetDirectMonitoring")),
            2);
}

TEST_F(LoaderTest, VersionScoresUseThreeFields) {
  PlaceBeside("v2_0_0", "ZEPLib");
  PlaceBeside("v1_999_999", "ZEPLibTesting");
  PlaceBeside("v1_999_999_7", "ZEPLibDebugging");
  auto score = [&](const char* stem) {
    return FileVersionScore(platform, (module.Path() / ZEPFileName(stem)).u16string());
  };
  EXPECT_EQ(score("ZEPLib"), 2000000u);
  EXPECT_EQ(score("ZEPLibTesting"), 1999999u);
  EXPECT_EQ(score("ZEPLibDebugging"), 1999999u);
  const SFailureSeen missing = FailureOf([&] { score("Missing"); });
  EXPECT_EQ(missing.code, kFailureCode_RuntimeError_NotFound);
  EXPECT_EQ(missing.word, "file");
  PlaceBeside("unversioned", "Bare");
  const SFailureSeen bare = FailureOf([&] { score("Bare"); });
  EXPECT_TRUE(bare.raised);
  EXPECT_EQ(bare.code, kFailureCode_Exception);
  platform.failVersionQuery = true;
  const SFailureSeen query = FailureOf([&] { score("ZEPLib"); });
  EXPECT_EQ(query.code, kFailureCode_Exception);
}

// Codes and failures cross in both directions through one table.
TEST_F(LoaderTest, ResultCodesRaiseTheirFailures) {
  EXPECT_FALSE(FailureOf([] { ThrowByZEPCode(0); }).raised);
  struct SRow {
    ZEPResult code;
    uint32_t failure;
    const char* word;
  };
  const SRow rows[] = {
      {1, kFailureCode_RuntimeError_AlreadyExists, ""},
      {2, kFailureCode_LogicError_InvalidArgument, "handle"},
      {3, kFailureCode_RuntimeError_Open, ""},
      {4, kFailureCode_LogicError_InvalidArgument, ""},
      {5, kFailureCode_RuntimeError_VersionTooOld, ""},
      {6, kFailureCode_LogicError_IllegalCallSequence, ""},
      {7, kFailureCode_LogicError_OutOfRange, ""},
      {8, kFailureCode_BadAlloc, ""},
      {9, kFailureCode_NonMarletException, ""},
  };
  for (const SRow& row : rows) {
    const SFailureSeen seen = FailureOf([&] { ThrowByZEPCode(row.code); });
    EXPECT_EQ(seen.code, row.failure) << row.code;
    EXPECT_EQ(seen.word, row.word) << row.code;
    // And back again.
    ZEPResult back = 0;
    try {
      ThrowByZEPCode(row.code);
    } catch (...) {
      back = ZEPCodeFromCurrentFailure();
    }
    EXPECT_EQ(back, row.code);
  }
  // A computed code comes back as the same number.
  const ZEPResult computed = kZEPCodeBase + PackFailure(kFailureCode_RuntimeError_NotFound, "dll",
                                                        ProgramTargetWords());
  ZEPResult back = 0;
  try {
    ThrowByZEPCode(computed);
  } catch (...) {
    back = ZEPCodeFromCurrentFailure();
  }
  EXPECT_EQ(back, computed);
  EXPECT_TRUE(FailureOf([] { ThrowByZEPCode(500); }).raised);
}

// A computed code is the failure that made it, unpacked: its class, code and
// word, and so its place in the host's table of statuses.
TEST_F(LoaderTest, AComputedCodeIsRaisedAsTheFailureThatMadeIt) {
  const ZEPResult notFound = kZEPCodeBase + PackFailure(kFailureCode_RuntimeError_NotFound, "dll",
                                                        ProgramTargetWords());
  const SFailureSeen seen = FailureOf([&] { ThrowByZEPCode(notFound); });
  EXPECT_EQ(seen.code, kFailureCode_RuntimeError_NotFound);
  EXPECT_EQ(seen.word, "dll");

  // A computed XOpen is caught as one.
  const ZEPResult open =
      kZEPCodeBase + PackFailure(kFailureCode_RuntimeError_Open, "", ProgramTargetWords());
  bool caughtAsOpen = false;
  try {
    ThrowByZEPCode(open);
  } catch (const XOpen&) {
    caughtAsOpen = true;
  } catch (...) {
  }
  EXPECT_TRUE(caughtAsOpen);

  // At the public boundary: a computed illegal call sequence is the fixed
  // status of its class, and a code that packs nothing is a bare exception.
  auto statusOf = [](ZEPResult code) -> uint32_t {
    try {
      ThrowByZEPCode(code);
    } catch (...) {
      return NSQuillon2::StatusFromCurrentFailure();
    }
    return NSQuillon2::kStatusOk;
  };
  const ZEPResult illegal = kZEPCodeBase + PackFailure(kFailureCode_LogicError_IllegalCallSequence,
                                                       "", ProgramTargetWords());
  EXPECT_EQ(statusOf(illegal), 995u);
  EXPECT_EQ(statusOf(kZEPCodeBase + 12), 117540698u);
  const SFailureSeen unpacked = FailureOf([&] { ThrowByZEPCode(kZEPCodeBase + 12); });
  EXPECT_EQ(unpacked.code, kFailureCode_Exception);
}

TEST_F(LoaderTest, FailuresGiveTheirCodes) {
  auto codeOf = [](auto raise) {
    try {
      raise();
    } catch (...) {
      return ZEPCodeFromCurrentFailure();
    }
    return ZEPResult{0};
  };
  EXPECT_EQ(codeOf([] { RaiseFailure(XAlreadyExists("")); }), 1u);
  EXPECT_EQ(codeOf([] { RaiseFailure(std::invalid_argument(""), "handle"); }), 2u);
  EXPECT_EQ(codeOf([] { RaiseFailure(std::invalid_argument("")); }), 4u);
  EXPECT_EQ(codeOf([] { throw std::invalid_argument("plain"); }), 4u);
  EXPECT_EQ(codeOf([] { RaiseFailure(XOpen(""), "dll"); }), 3u);
  EXPECT_EQ(codeOf([] { throw std::bad_alloc(); }), 8u);
  EXPECT_EQ(codeOf([] { throw std::out_of_range("x"); }), 7u);
  EXPECT_EQ(codeOf([] { throw 42; }), 9u);
  EXPECT_EQ(codeOf([] { RaiseFailure(XNotFound(""), "dll"); }),
            kZEPCodeBase +
                PackFailure(kFailureCode_RuntimeError_NotFound, "dll", ProgramTargetWords()));
}

}  // namespace
