#include <gtest/gtest.h>

#include "text/support.h"
#include "text/wide_text.h"

using namespace NSTextPackage;

class WideTextTest : public StorageTest {};

TEST(FormatText, Placeholders) {
  const std::vector<CWideString> one = {u"X"};
  EXPECT_EQ(FormatText(u"a^1b", 0, one), u"ab");
  EXPECT_EQ(FormatText(u"a^0b", 0, one), u"aXb");
  EXPECT_EQ(FormatText(u"100^", 0, one), u"100^");
  EXPECT_EQ(FormatText(u"^x", 0, one), u"^x");
  EXPECT_EQ(FormatText(u"^00", 0, one), u"X");
  EXPECT_EQ(FormatText(u"^^0", 0, one), u"^X");
  EXPECT_EQ(FormatText(u"^0^0-^0", 0, one), u"XX-X");
  EXPECT_EQ(FormatText(u"", 0, one), u"");
  EXPECT_EQ(FormatText(u"^0", 0, {}), u"");
}

TEST(FormatText, AnyNumberOfDigitsAndFreeOrder) {
  std::vector<CWideString> args;
  for (int i = 0; i < 13; ++i) args.push_back(CWideString(1, static_cast<char16_t>(u'a' + i)));
  EXPECT_EQ(FormatText(u"^12^1^10", 0, args), u"mbk");
  EXPECT_EQ(FormatText(u"^13", 0, args), u"");
  EXPECT_EQ(FormatText(u"^99999999999999999999999999", 0, args), u"");
  EXPECT_EQ(FormatText(u"Ferrand MME ^0: ^1 ^2 ^3", 0, {u"Out", u"1", u"2", u"3"}),
            u"Ferrand MME Out: 1 2 3");
  EXPECT_EQ(FormatText(u"Ferrand ASIO ^0", 0, {u"Card"}), u"Ferrand ASIO Card");
}

TEST(FormatText, ASeedLeadsTheDigits) {
  std::vector<CWideString> args(13, u"-");
  args[12] = u"twelve";
  EXPECT_EQ(FormatText(u"^2", 1, args), u"twelve");
}

TEST(FormatText, AZeroUnitEndsTheFormat) {
  const CWideString format(u"ab\0^0", 5);
  EXPECT_EQ(FormatText(format, 0, {u"X"}), u"ab");
  const CWideString zeroFirst(u"\0ab", 3);
  EXPECT_EQ(FormatText(zeroFirst, 0, {u"X"}), u"");
}

TEST(TruncateText, CutsButNeverHalfAPair) {
  EXPECT_EQ(TruncateText(u"abcdef", 3), u"abc");
  EXPECT_EQ(TruncateText(u"abc", 3), u"abc");
  EXPECT_EQ(TruncateText(u"abc", 10), u"abc");
  EXPECT_EQ(TruncateText(u"abc", 0), u"");
  const CWideString pair = u"ab\U0001F600cd";
  EXPECT_EQ(TruncateText(pair, 3), u"ab");
  EXPECT_EQ(TruncateText(pair, 4), u"ab\U0001F600");
}

TEST(CopyToFixedBuffer, BoundedWithTerminator) {
  char16_t target[256];
  const CWideString longText(300, u'n');
  CopyToFixedBuffer(target, longText.c_str(), 255);
  EXPECT_EQ(CWideString(target), CWideString(255, u'n'));
  CopyToFixedBuffer(target, u"short", 255);
  EXPECT_EQ(CWideString(target), u"short");
  CopyToFixedBuffer(target, nullptr, 255);
  EXPECT_EQ(target[0], 0);
  char16_t small[3] = {1, 1, 1};
  CopyToFixedBuffer(small, u"xyz", 2);
  EXPECT_EQ(CWideString(small), u"xy");
}

TEST_F(WideTextTest, ResultCodesKeepTheirOddOrder) {
  EXPECT_EQ(kCompareLess, 17014u);
  EXPECT_EQ(kCompareGreater, 17015u);
  EXPECT_EQ(kCompareEqual, 17016u);
}

TEST_F(WideTextTest, WidthIsIgnoredCaseOnlyByTheOne) {
  const CWideString fullwidth = u"\uFF21\uFF33\uFF29\uFF2F";
  EXPECT_EQ(CompareTextExact(fullwidth, u"ASIO"), kCompareEqual);
  EXPECT_NE(CompareTextExact(u"asio", u"ASIO"), kCompareEqual);
  EXPECT_EQ(CompareTextIgnoreCase(fullwidth, u"ASIO"), kCompareEqual);
  EXPECT_EQ(CompareTextIgnoreCase(u"asio", u"ASIO"), kCompareEqual);
  EXPECT_EQ(CompareTextIgnoreCase(u"\uFF41\uFF53\uFF49\uFF4F", u"ASIO"), kCompareEqual);
}

TEST_F(WideTextTest, OrderByTheLocale) {
  EXPECT_EQ(CompareTextExact(u"abc", u"abd"), kCompareLess);
  EXPECT_EQ(CompareTextExact(u"abd", u"abc"), kCompareGreater);
  EXPECT_EQ(CompareTextExact(u"a", u"B"), kCompareLess);
  EXPECT_EQ(CompareTextExact(u"B", u"a"), kCompareGreater);
  EXPECT_EQ(CompareTextExact(u"a", u"A"), kCompareLess);
  EXPECT_EQ(CompareTextExact(u"", u""), kCompareEqual);
  EXPECT_EQ(CompareTextExact(u"", u"a"), kCompareLess);
  EXPECT_EQ(CompareTextExact(u"No Sound", u"No Sound"), kCompareEqual);
  EXPECT_EQ(CompareTextExact(u"Off", u"MME"), kCompareGreater);
  EXPECT_EQ(CompareTextExact(u"\u00e9", u"e"), kCompareGreater);
}

TEST_F(WideTextTest, ALeadingMarkOnEitherSideIsSkipped) {
  EXPECT_EQ(CompareTextExact(u"\uFEFFASIO", u"ASIO"), kCompareEqual);
  EXPECT_EQ(CompareTextExact(u"ASIO", u"\uFEFFASIO"), kCompareEqual);
  EXPECT_EQ(CompareTextIgnoreCase(u"\uFEFFasio", u"\uFEFFASIO"), kCompareEqual);
  EXPECT_EQ(CompareTextExact(u"\uFEFF", u""), kCompareEqual);
}

TEST_F(WideTextTest, ReplaceCharacters) {
  EXPECT_EQ(ReplaceCharacters(u"a/b:c\\d", "/:\\", u'_'), u"a_b_c_d");
  EXPECT_EQ(ReplaceCharacters(u"", "/", u'_'), u"");
  EXPECT_EQ(ReplaceCharacters(u"\u00e9/", "/", u'-'), u"\u00e9-");
  EXPECT_EQ(UnicodeFailureText<NSMarlet::XFormatViolation>(
                [] { ReplaceCharacters(u"x", "\xE9", u'_'); }),
            "");
}

TEST(FormatText, ANegativeSeedAndALongDigitRunNeitherOverflowNorName) {
  const std::vector<CWideString> args = {u"a", u"b"};
  EXPECT_EQ(FormatText(u"[^99999999999999999999999999]", -1, args), u"[]");
  EXPECT_EQ(FormatText(u"[^0]", -2147483647 - 1, args), u"[]");
  EXPECT_EQ(FormatText(u"[^123456789012345678901234567890]", -2147483647 - 1, args), u"[]");
  EXPECT_EQ(FormatText(u"[^1]", 0, args), u"[b]");
}
