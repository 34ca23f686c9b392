#include <gtest/gtest.h>

#include "failure/builder.h"
#include "public/status.h"
#include "support/storage_fixture.h"

using namespace NSMarlet;
using namespace NSMarlet::NSMarletDetails;
using namespace NSQuillon2;

namespace {

template <class Raise>
uint32_t StatusOf(Raise raise) {
  try {
    raise();
  } catch (...) {
    return StatusFromCurrentFailure();
  }
  return 0;
}

}  // namespace

class StatusTest : public StorageTest {};

TEST(StatusTable, RowsInTheirOrderWithTheEndMark) {
  const SStatusMapRow* t = StatusTable();
  const uint32_t expected[15][2] = {{16, 992},   {11, 993},   {15, 994},  {14, 995}, {9, 996},
                                    {30, 998},   {34, 999},   {25, 1000}, {26, 1001},
                                    {22, 1002},  {27, 1003},  {17, 1004}, {17, 1004},
                                    {39, 1005},  {44, 991}};
  const char* words[15] = {"", "", "", "", "", "audio_driver", "audio_driver", "", "", "",
                           "disk", "", "audio_driver", "audio_driver", ""};
  for (int i = 0; i < 15; ++i) {
    EXPECT_EQ(t[i].failureCode, expected[i][0]) << i;
    EXPECT_EQ(t[i].status, expected[i][1]) << i;
    EXPECT_STREQ(t[i].word, words[i]) << i;
  }
  EXPECT_EQ(StatusRange().base, 100000u);
  EXPECT_EQ(StatusRange().limit, 0xFFFFFFFFu);
}

TEST_F(StatusTest, FailuresWithRows) {
  EXPECT_EQ(StatusOf([] { throw std::bad_alloc(); }), 992u);
  EXPECT_EQ(StatusOf([] { throw std::invalid_argument("x"); }), 993u);
  EXPECT_EQ(StatusOf([] { throw XInvariantCorrupt(); }), 994u);
  EXPECT_EQ(StatusOf([] { throw XIllegalCallSequence(); }), 995u);
  EXPECT_EQ(StatusOf([] { throw std::logic_error("x"); }), 996u);
  EXPECT_EQ(StatusOf([] { RaiseFailure(XOpen(), TargetWordAudioDriver()); }), 998u);
  EXPECT_EQ(StatusOf([] { RaiseFailure(XNotFound(), TargetWordAudioDriver()); }), 999u);
  EXPECT_EQ(StatusOf([] { throw XRead(); }), 1000u);
  EXPECT_EQ(StatusOf([] { throw XWrite(); }), 1001u);
  EXPECT_EQ(StatusOf([] { throw XFormatViolation(); }), 1002u);
  EXPECT_EQ(StatusOf([] { RaiseFailure(XOutOfSpace(), TargetWordDisk()); }), 1003u);
  EXPECT_EQ(StatusOf([] { throw std::runtime_error("x"); }), 1004u);
  EXPECT_EQ(StatusOf([] { RaiseFailure(XStdRuntimeError(), TargetWordAudioDriver()); }), 1004u);
  EXPECT_EQ(StatusOf([] { RaiseFailure(XNotReady(), TargetWordAudioDriver()); }), 1005u);
}

TEST_F(StatusTest, FailuresWithoutRowsAreComputed) {
  // XNotFound without a word: 100000 + (34 << 24) + 186.
  EXPECT_EQ(StatusOf([] { throw XNotFound("GetRequiredZEPDeviceFromOpenSoundDriverHandle()"); }),
            570525530u);
  // A word that a row does not name misses that row.
  EXPECT_EQ(StatusOf([] { throw XNotReady(); }), 100000u + PackFailure(39, "", {}));
  EXPECT_EQ(StatusOf([] { RaiseFailure(XOutOfSpace(), TargetWordFile()); }),
            100000u + PackFailure(27, "file", ProgramTargetWords()));
  EXPECT_EQ(StatusOf([] { RaiseFailure(XOpen(), "disk"); }), 100000u + ((30u << 24) | (1u << 16) | (6u << 8) | 186u));
}

TEST_F(StatusTest, ForeignAndBareStandardExceptionsAreComputed) {
  struct Foreign : std::exception {};
  EXPECT_EQ(StatusOf([] { throw Foreign(); }), 100000u + PackFailure(6, "", {}));
  EXPECT_EQ(StatusOf([] { throw std::exception(); }), 117540698u);
}

TEST_F(StatusTest, AnythingThatIsNoStdExceptionIs1004) {
  EXPECT_EQ(StatusOf([] { throw 5; }), 1004u);
  EXPECT_EQ(StatusOf([] { ThrowByCode(kFailureCode_UndefinedException, CExceptionBodyRef(), ""); }),
            1004u);
  EXPECT_EQ(StatusOf([] { throw "text"; }), 1004u);
}

TEST_F(StatusTest, EveryStatusOfATableRowComesBackThroughThrowFromStatus) {
  for (uint32_t status : {992u, 993u, 994u, 995u, 996u, 998u, 999u, 1000u, 1001u, 1002u, 1003u,
                          1004u, 1005u}) {
    EXPECT_EQ(StatusOf([&] { ThrowFromStatus(status); }), status) << status;
  }
}

TEST_F(StatusTest, ThrowFromStatusClassesAndWords) {
  try {
    ThrowFromStatus(1005);
  } catch (const XNotReady& e) {
    EXPECT_TRUE(TargetObjectTypeIs(BodyFromException(&e, CSourcePosition()), "audio_driver"));
  }
  try {
    ThrowFromStatus(1004);
  } catch (const XStdRuntimeError& e) {
    EXPECT_EQ(TargetWordOf(TopEntry(BodyFromException(&e, CSourcePosition()))), "");
  }
  EXPECT_THROW(ThrowFromStatus(1001), XWrite);
}

TEST_F(StatusTest, ComputedStatusesTunnelThrough) {
  EXPECT_THROW(ThrowFromStatus(112345), XTunneledError);
  EXPECT_EQ(StatusOf([] { ThrowFromStatus(112345); }), 112345u);
  EXPECT_EQ(StatusOf([] { ThrowFromStatus(570525530u); }), 570525530u);
  EXPECT_EQ(StatusOf([] { ThrowFromStatus(100000); }), 100000u);
  EXPECT_EQ(StatusOf([] { ThrowFromStatus(0xFFFFFFFEu); }), 0xFFFFFFFEu);
}

TEST_F(StatusTest, StatusesWithoutRowsBelowTheBaseBecomeABareException) {
  // A host's write that answers with an unknown status.
  EXPECT_EQ(StatusOf([] { ThrowFromStatus(5); }), 117540698u);
  EXPECT_THROW(ThrowFromStatus(5), XStdException);
  // 991 is never found: the end mark stops the walk first.
  EXPECT_EQ(StatusOf([] { ThrowFromStatus(991); }), 117540698u);
  EXPECT_EQ(StatusOf([] { ThrowFromStatus(997); }), 117540698u);
  // The limit itself lies outside the range.
  EXPECT_EQ(StatusOf([] { ThrowFromStatus(0xFFFFFFFFu); }), 117540698u);
}

TEST(StatusWithoutStorage, TheClassAloneSpeaks) {
  ASSERT_EQ(GetExceptionBodyStorageUnchecked(), nullptr);
  EXPECT_EQ(StatusOf([] { throw std::bad_alloc(); }), 992u);
  EXPECT_EQ(StatusOf([] { throw std::invalid_argument(""); }), 993u);
  EXPECT_EQ(StatusOf([] { throw 1; }), 1004u);
}

TEST(PutOut, WritesOnlyWhereThereIsAPlace) {
  uint32_t value = 0;
  Put(&value, 7u);
  EXPECT_EQ(value, 7u);
  Put(static_cast<uint32_t*>(nullptr), 8u);
}
