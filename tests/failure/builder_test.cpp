#include <gtest/gtest.h>

#include "failure/builder.h"
#include "failure/scope.h"
#include "support/storage_fixture.h"

using namespace NSMarlet;
using namespace NSMarlet::NSMarletDetails;

namespace {

struct ForeignError : std::exception {
  const char* what() const noexcept override { return "foreign text"; }
};

// Catches what `raise` raises and hands its body to `check`.
template <class Raise, class Check>
void Expect(Raise raise, Check check) {
  try {
    raise();
    ADD_FAILURE() << "nothing raised";
  } catch (const std::exception& e) {
    check(e, BodyFromException(&e, CSourcePosition()));
  }
}

}  // namespace

class BuilderTest : public StorageTest {};

TEST_F(BuilderTest, RaisingSiteFormAddsOneEntryWithTheWord) {
  Expect([] { RaiseFailure(XOpen(), TargetWordAudioDriver()); },
         [&](const std::exception& e, const CExceptionBodyRef& body) {
           EXPECT_NE(dynamic_cast<const XOpen*>(&e), nullptr);
           EXPECT_EQ(storage->GetEntryCount(body.GetBodyId()), 1u);
           const CFailureEntry top = TopEntry(body);
           EXPECT_EQ(top.failureCode, kFailureCode_RuntimeError_Open);
           EXPECT_EQ(TargetWordOf(top), "audio_driver");
           EXPECT_TRUE(TargetObjectTypeIs(body, "audio_driver"));
           EXPECT_FALSE(TargetObjectTypeIs(body, "disk"));
         });
  EXPECT_TRUE(LiveBodies().empty());
}

TEST_F(BuilderTest, ThreeLayersGiveThreeEntriesAndTheLastWordRules) {
  auto layered = [] {
    try {
      try {
        RaiseFailure(XNotReady(), "disk");
      } catch (const XNotReady& e) {
        RaiseFailure(e, "file");
      }
    } catch (const XNotReady& e) {
      RaiseFailure(e, TargetWordAudioDriver());
    }
  };
  Expect(layered, [&](const std::exception& e, const CExceptionBodyRef& body) {
    EXPECT_NE(dynamic_cast<const XNotReady*>(&e), nullptr);
    ASSERT_EQ(storage->GetEntryCount(body.GetBodyId()), 3u);
    CFailureEntry first;
    storage->GetEntry(first, body.GetBodyId(), 0);
    EXPECT_EQ(TargetWordOf(first), "disk");
    EXPECT_EQ(TargetWordOf(TopEntry(body)), "audio_driver");
    EXPECT_EQ(TopEntry(body).failureCode, kFailureCode_RuntimeError_NotReady);
  });
}

TEST_F(BuilderTest, ForeignExceptionGetsABodyWhenAskedFor) {
  const ForeignError foreign;
  const CExceptionBodyRef body = BodyFromException(&foreign, CSourcePosition());
  ASSERT_TRUE(body.HasBody());
  const CFailureEntry top = TopEntry(body);
  EXPECT_EQ(top.failureCode, kFailureCode_NonMarletException);
  EXPECT_EQ(top.text, "foreign text");
  EXPECT_TRUE(top.parameters.empty());
  // An exception that already has a body gives another reference to it.
  XOpen withBody(body, "");
  const CExceptionBodyRef again = BodyFromException(&withBody, CSourcePosition());
  EXPECT_EQ(again.GetBodyId(), body.GetBodyId());
  EXPECT_EQ(storage->GetBodyRefCount(body.GetBodyId()), 3u);
}

TEST_F(BuilderTest, ParametersOfEveryKind) {
  CFailureBuilder builder{CSourcePosition()};
  builder.SetFromException(XRead("reading"))
      .SetTargetWord("file")
      .AddErrorCode(1234)
      .AddErrorString("narrow")
      .AddErrorString(u"wide")
      .AddVersionNumber(7)
      .AddVersionString("1.2")
      .AddSecondaryObjectType("dll");
  const CFailureEntry& entry = builder.Entry();
  EXPECT_EQ(entry.failureCode, kFailureCode_RuntimeError_ReadFailure);
  EXPECT_EQ(entry.text, "reading");
  ASSERT_EQ(entry.parameters.size(), 7u);
  EXPECT_EQ(entry.FindParameter("error_code")->Value(), CFailureValue::Integer(1234));
  EXPECT_EQ(entry.FindParameter("version_string")->Value(), CFailureValue::NarrowText("1.2"));
  EXPECT_EQ(entry.FindParameter("secondary_object_type")->Value(),
            CFailureValue::TargetWord("dll"));
  Expect([&] { RaiseBody(builder); },
         [&](const std::exception& e, const CExceptionBodyRef& body) {
           EXPECT_NE(dynamic_cast<const XRead*>(&e), nullptr);
           EXPECT_STREQ(e.what(), "reading");
           EXPECT_TRUE(TargetObjectTypeIs(body, "file"));
         });
}

TEST_F(BuilderTest, SetEntryReplacesTheEntry) {
  CFailureBuilder builder{CSourcePosition()};
  CFailureEntry entry;
  entry.failureCode = kFailureCode_RuntimeError_Timeout;
  entry.text = "late";
  builder.SetEntry(entry);
  Expect([&] { RaiseBody(builder); }, [](const std::exception& e, const CExceptionBodyRef&) {
    EXPECT_NE(dynamic_cast<const XTimeout*>(&e), nullptr);
    EXPECT_STREQ(e.what(), "late");
  });
}

TEST_F(BuilderTest, ScopesCountDepth) {
  EXPECT_EQ(storage->GetScopeDepth(), 0);
  {
    CFailureScope outer;
    COptionalFailureScope optional;
    EXPECT_TRUE(optional.IsOpen());
    CNamedFailureScope named(TargetWordAudioDriver());
    EXPECT_STREQ(named.Word(), "audio_driver");
    EXPECT_EQ(named.OuterDepth(), 2);
    EXPECT_EQ(storage->GetScopeDepth(), 3);
  }
  EXPECT_EQ(storage->GetScopeDepth(), 0);
}

TEST(OptionalScope, OpensNothingWithoutStorage) {
  ASSERT_EQ(GetExceptionBodyStorageUnchecked(), nullptr);
  COptionalFailureScope optional;
  EXPECT_FALSE(optional.IsOpen());
  EXPECT_THROW(CFailureScope(), std::exception);
}

TEST(PackFailure, Numbers) {
  const STargetWordList none = ProgramTargetWords();
  EXPECT_EQ(PackFailure(34, "", none), 570425530u);
  EXPECT_EQ(PackFailure(34, nullptr, none), 570425530u);
  const uint32_t disk = PackFailure(30, "disk", none);
  EXPECT_EQ((disk >> 24) & 0x7F, 30u);
  EXPECT_EQ((disk >> 16) & 0xFF, 1u);
  EXPECT_EQ((disk >> 8) & 0xFF, 6u);
  EXPECT_EQ(disk & 0xFF, 186u);
  // A word in no list packs as group 0 and is lost.
  EXPECT_EQ(PackFailure(30, "audio_driver", none), PackFailure(30, "", none));
  const char own[2][65] = {"first_word", "second_word"};
  const STargetWordList program = {own, 2};
  const uint32_t second = PackFailure(17, "second_word", program);
  EXPECT_EQ((second >> 16) & 0xFF, 2u);
  EXPECT_EQ((second >> 8) & 0xFF, 1u);
  EXPECT_TRUE(IsPackedFailure(second));
  EXPECT_FALSE(IsPackedFailure(0x80000000u | 186u));
  EXPECT_FALSE(IsPackedFailure(570425531u));
}
