#include <gtest/gtest.h>

#include <cstring>

#include "failure/assertion.h"
#include "failure/report.h"
#include "support/storage_fixture.h"

using namespace NSMarlet;
using namespace NSMarlet::NSMarletDetails;

namespace {

// A boundary of its own, as the hardware glue has: the framework has no table.
const SStatusMapRow kTable[] = {
    {kFailureCode_RuntimeError_Open, "disk", 7},
    {kFailureCode_RuntimeError_Open, "", 8},
    {kFailureCode_LogicError_InvalidArgument, "", 9},
    {kFailureCode_EndMark, "", 1},
};
const SStatusRange kRange = {1000, 0xFFFFFFF0u};

template <class Raise>
std::pair<uint32_t, std::string> Decode(Raise raise) {
  try {
    raise();
  } catch (const std::exception& e) {
    const CExceptionBodyRef body = BodyFromException(&e, CSourcePosition());
    const CFailureEntry top = TopEntry(body);
    return {top.failureCode, TargetWordOf(top)};
  }
  return {0, "nothing raised"};
}

std::string DomainText(uint32_t number) {
  try {
    UnpackFailure(number, ProgramTargetWords());
  } catch (const XStdDomainError& e) {
    return e.what();
  }
  return "";
}

}  // namespace

class ReportTest : public StorageTest {};

TEST_F(ReportTest, UnpackIsTheInverseOfPack) {
  const SDecodedFailure notFound = UnpackFailure(570425530u, ProgramTargetWords());
  EXPECT_EQ(notFound.failureCode, 34u);
  EXPECT_EQ(notFound.word, "");
  const SDecodedFailure disk = UnpackFailure(PackFailure(30, "disk", ProgramTargetWords()),
                                             ProgramTargetWords());
  EXPECT_EQ(disk.failureCode, 30u);
  EXPECT_EQ(disk.word, "disk");
  // The top byte is masked to seven bits.
  EXPECT_EQ(UnpackFailure(0x80000000u | 570425530u, ProgramTargetWords()).failureCode, 34u);
}

TEST_F(ReportTest, UnpackRefusesIllegalCodesAndGroups) {
  EXPECT_EQ(DomainText((4u << 24) | 186u), "Illegal Marlet failure_code!");
  EXPECT_EQ(DomainText((44u << 24) | 186u), "Illegal Marlet failure_code!");
  EXPECT_EQ(DomainText((34u << 24) | (3u << 16) | 186u), "Unknown group for target object type!");
  // An index beyond the program's (empty) list is no word either.
  EXPECT_EQ(DomainText((34u << 24) | (2u << 16) | 186u), "Unknown group for target object type!");
}

TEST_F(ReportTest, StatusFromExceptionWalksTheCallersTable) {
  auto status = [](const std::exception& e) {
    return StatusFromException(&e, kRange, kTable, CSourcePosition());
  };
  try {
    RaiseFailure(XOpen(), "disk");
  } catch (const std::exception& e) {
    EXPECT_EQ(status(e), 7u);
  }
  try {
    RaiseFailure(XOpen(), "file");
  } catch (const std::exception& e) {
    EXPECT_EQ(status(e), 8u);
  }
  EXPECT_EQ(status(std::invalid_argument("")), 9u);
  // No row: the packed failure above the base.
  EXPECT_EQ(status(XNotFound()), 1000u + 570425530u);
}

TEST_F(ReportTest, ThrowFromStatusFindsTheRowsFailure) {
  EXPECT_EQ(Decode([] { ThrowFromStatus(7, kRange, kTable, CSourcePosition()); }),
            std::make_pair(30u, std::string("disk")));
  EXPECT_EQ(Decode([] { ThrowFromStatus(8, kRange, kTable, CSourcePosition()); }),
            std::make_pair(30u, std::string()));
}

TEST_F(ReportTest, ThrowFromStatusTunnelsAComputedStatus) {
  try {
    ThrowFromStatus(1000 + 12345, kRange, kTable, CSourcePosition());
    ADD_FAILURE() << "nothing raised";
  } catch (const XTunneledError& e) {
    const CExceptionBodyRef body = BodyFromException(&e, CSourcePosition());
    std::u16string text;
    GetParameterText(body, kParamErrorCode, text);
    EXPECT_EQ(text, u"12345");
    EXPECT_EQ(StatusFromException(&e, kRange, kTable, CSourcePosition()), 1000u + 12345u);
  }
}

TEST_F(ReportTest, ThrowFromStatusOutsideEverythingIsABareException) {
  EXPECT_EQ(Decode([] { ThrowFromStatus(5, kRange, kTable, CSourcePosition()); }).first,
            kFailureCode_Exception);
  try {
    ThrowFromStatus(5, kRange, kTable, CSourcePosition());
    ADD_FAILURE() << "nothing raised";
  } catch (const XStdException& e) {
    EXPECT_EQ(StatusFromException(&e, kRange, kTable, CSourcePosition()),
              1000u + PackFailure(7, "", ProgramTargetWords()));
  }
}

TEST_F(ReportTest, DecodedThrowRestoresClassCodeAndWord) {
  const uint32_t status = kRange.base + PackFailure(30, "disk", ProgramTargetWords());
  try {
    ThrowFromStatusDecoded(status, kRange, nullptr, CSourcePosition());
    ADD_FAILURE() << "nothing raised";
  } catch (const XOpen& e) {
    const CExceptionBodyRef body = BodyFromException(&e, CSourcePosition());
    EXPECT_TRUE(TargetObjectTypeIs(body, "disk"));
  }
  // A row of the table comes first.
  EXPECT_EQ(Decode([] { ThrowFromStatusDecoded(9, kRange, kTable, CSourcePosition()); }).first,
            kFailureCode_LogicError_InvalidArgument);
  const SDecodedFailure decoded =
      DecodeStatus(kRange.base + 570425530u, kRange, kTable, ProgramTargetWords());
  EXPECT_EQ(decoded.failureCode, 34u);
}

TEST_F(ReportTest, DecodeOfAnUnknownStatusRaisesABareException) {
  EXPECT_EQ(Decode([] { DecodeStatus(3, kRange, kTable, ProgramTargetWords()); }).first,
            kFailureCode_Exception);
  // In the range, but not a packed failure.
  EXPECT_EQ(Decode([] { DecodeStatus(kRange.base + 12, kRange, kTable, ProgramTargetWords()); })
                .first,
            kFailureCode_Exception);
}

TEST(FormatFailureValue, EveryTag) {
  std::u16string text = u"stale";
  FormatFailureValue(CFailureValue(), text);
  EXPECT_EQ(text, u"<nil>");
  FormatFailureValue(CFailureValue::Integer(42), text);
  EXPECT_EQ(text, u"42");
  FormatFailureValue(CFailureValue::Integer(0xFFFFFFFFull), text);
  EXPECT_EQ(text, u"-1");
  FormatFailureValue(CFailureValue::Float(1.5f), text);
  EXPECT_EQ(text, u"1.500000");
  FormatFailureValue(CFailureValue::NarrowText("caf\xE9"), text);
  EXPECT_EQ(text, (std::u16string{u'c', u'a', u'f', char16_t(0xFFE9)}));
  FormatFailureValue(CFailureValue::WideText(u"\u00e9t\u00e9"), text);
  EXPECT_EQ(text, u"\u00e9t\u00e9");
  FormatFailureValue(CFailureValue::TargetWord("audio_driver"), text);
  EXPECT_EQ(text, u"audio_driver");
}

TEST_F(ReportTest, ParameterTextOfAMissingKeyIsNil) {
  try {
    RaiseFailure(XOpen(), "disk");
  } catch (const std::exception& e) {
    const CExceptionBodyRef body = BodyFromException(&e, CSourcePosition());
    std::u16string text;
    GetParameterText(body, kParamErrorCode, text);
    EXPECT_EQ(text, u"<nil>");
    GetParameterText(body, kParamTargetObjectType, text);
    EXPECT_EQ(text, u"disk");
  }
}

namespace {

class RecordingHandler final : public IAssertionHandler {
 public:
  void OnMessageText(intptr_t value, const char* text) override {
    log += "text(" + std::to_string(value) + "," + std::to_string(std::strlen(text)) + ")";
    last = text;
  }
  void OnMessageValue(intptr_t value) override { log += "value(" + std::to_string(value) + ")"; }
  void OnAssertionFailed(intptr_t a, intptr_t b) override {
    log += "failed(" + std::to_string(a) + "," + std::to_string(b) + ")";
  }
  void OnMessageEnd() override { log += "end"; }
  void OnMessageBegin() override { log += "begin"; }
  virtual ~RecordingHandler() = default;
  std::string log;
  std::string last;
};

}  // namespace

TEST(AssertionHook, WithoutHandlerOnlyTheAssertionRaises) {
  ASSERT_EQ(GetAssertionHandler(), nullptr);
  NotifyMessageText(1, "x");
  NotifyMessageValue(2);
  NotifyFormattedMessage(3, "%d", 4);
  try {
    NotifyAssertionFailed(1, 2);
    ADD_FAILURE();
  } catch (const XUnitTestFailure& e) {
    EXPECT_STREQ(e.what(), "OnAssertionFailed");
  }
}

TEST(AssertionHook, HandlerReceivesEverythingInOrder) {
  RecordingHandler handler;
  SetAssertionHandler(&handler);
  NotifyMessageValue(5);
  NotifyAssertionFailed(6, 7);
  NotifyFormattedMessage(8, "n=%d %s", 9, "ok");
  EXPECT_EQ(handler.last, "n=9 ok");
  const std::string longText(5000, 'z');
  NotifyFormattedMessage(1, "%s", longText.c_str());
  SetAssertionHandler(nullptr);
  EXPECT_EQ(handler.log, "value(5)failed(6,7)begintext(8,6)endbegintext(1,1023)end");
}

TEST_F(ReportTest, NoTableIsAnEmptyTable) {
  const uint32_t computed = StatusFromFailure(kFailureCode_RuntimeError_Open, "", kRange, nullptr);
  EXPECT_EQ(computed, kRange.base + PackFailure(kFailureCode_RuntimeError_Open, "",
                                                ProgramTargetWords()));
  try {
    RaiseFailure(XOpen());
  } catch (const std::exception& e) {
    EXPECT_EQ(StatusFromException(&e, kRange, nullptr, CSourcePosition()), computed);
  }
  // A number in the range comes back tunnelled, and gives itself back; one
  // outside it bare.
  EXPECT_THROW(ThrowFromStatus(kRange.base + 5, kRange, nullptr, CSourcePosition()),
               XTunneledError);
  EXPECT_EQ(Decode([] { ThrowFromStatus(kRange.base + 5, kRange, nullptr, CSourcePosition()); })
                .first,
            kFailureCode_TunneledError);
  try {
    ThrowFromStatus(kRange.base + 5, kRange, nullptr, CSourcePosition());
  } catch (const std::exception& e) {
    EXPECT_EQ(StatusFromException(&e, kRange, nullptr, CSourcePosition()), kRange.base + 5);
  }
  EXPECT_THROW(ThrowFromStatus(7, kRange, nullptr, CSourcePosition()), XStdException);
  EXPECT_EQ(Decode([] { ThrowFromStatus(7, kRange, nullptr, CSourcePosition()); }).first,
            kFailureCode_Exception);
}
