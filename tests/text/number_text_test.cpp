#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "text/number_text.h"

using namespace NSTextPackage;

namespace {

// A locale that groups digits by three, where the platform has one.
bool HaveGroupingLocale() {
  try {
    std::locale probe("en_US.UTF-8");
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

std::wstring Write(const std::locale& locale, long long value) {
  std::wostringstream stream;
  stream.imbue(locale);
  stream << value;
  return stream.str();
}

}  // namespace

TEST(PlainNumberText, Writing) {
  EXPECT_EQ(IntegerToText(0), u"0");
  EXPECT_EQ(IntegerToText(-123), u"-123");
  EXPECT_EQ(IntegerToText(std::numeric_limits<int64_t>::min()), u"-9223372036854775808");
  EXPECT_EQ(IntegerToText(std::numeric_limits<int64_t>::max()), u"9223372036854775807");
  EXPECT_EQ(RealToText(1.5, 2), u"1.50");
  EXPECT_EQ(RealToText(-0.125, 1), u"-0.1");
  EXPECT_EQ(RealToText(2.0, 0), u"2");
  EXPECT_EQ(RealToText(1e300, 2).size(), 304u);
}

TEST(PlainNumberText, ReadingIntegers) {
  int64_t value = 7;
  EXPECT_TRUE(TextToInteger(u"  ++42", value));
  EXPECT_EQ(value, 42);
  EXPECT_FALSE(TextToInteger(u"x42", value));
  EXPECT_EQ(value, 0);
  EXPECT_TRUE(TextToInteger(u"12-3", value));
  EXPECT_EQ(value, 12);
  EXPECT_TRUE(TextToInteger(u"-", value));
  EXPECT_EQ(value, 0);
  EXPECT_TRUE(TextToInteger(u" + -17 apples", value));
  EXPECT_EQ(value, -17);
  EXPECT_FALSE(TextToInteger(u"", value));
  EXPECT_FALSE(TextToInteger(u"  ", value));
  EXPECT_TRUE(TextToInteger(u"3.9", value));
  EXPECT_EQ(value, 3);
}

TEST(PlainNumberText, ReadingReals) {
  double value = 7;
  EXPECT_TRUE(TextToReal(u"1,5", value));
  EXPECT_EQ(value, 1.0);
  EXPECT_TRUE(TextToReal(u" +3.25", value));
  EXPECT_EQ(value, 3.25);
  EXPECT_TRUE(TextToReal(u"-0.5x", value));
  EXPECT_EQ(value, -0.5);
  EXPECT_FALSE(TextToReal(u"e5", value));
  EXPECT_EQ(value, 0.0);
}

TEST(GroupingOverride, TakesGroupingAwayAndGivesItToAnyLocale) {
  const std::locale grouped(std::locale::classic(), new CNumPunctGroupingOverride("C", "\3"));
  EXPECT_EQ(Write(grouped, 1234567), L"1,234,567");
  const auto& punct = std::use_facet<std::numpunct<wchar_t>>(grouped);
  EXPECT_EQ(punct.decimal_point(), L'.');
  EXPECT_EQ(punct.thousands_sep(), L',');
  std::locale ungrouped = grouped;
  SetLocaleGrouping(ungrouped, kLocaleUngrouped);
  EXPECT_EQ(Write(ungrouped, 1234567), L"1234567");
}

TEST(LocalePair, UserDefaultLocaleStartsUp) {
  InitialiseLocales();
  EXPECT_TRUE(LocalesInitialised());
  EXPECT_TRUE(std::use_facet<std::numpunct<wchar_t>>(LocaleOfChoice(kLocaleUngrouped))
                  .grouping()
                  .empty());
  int64_t value = 0;
  EXPECT_TRUE(LocaleTextToInteger(IntegerToLocaleText(-98765, kLocaleUngrouped), value));
  EXPECT_EQ(value, -98765);
}

TEST(LocalePair, ABadNameRaises) {
  EXPECT_THROW(InitialiseLocales("no_such_locale.really"), std::runtime_error);
}

TEST(LocalePair, GroupedAndUngroupedInAGroupingLocale) {
  if (!HaveGroupingLocale()) GTEST_SKIP() << "this standard library knows only the C locale";
  InitialiseLocales("en_US.UTF-8");
  EXPECT_EQ(IntegerToLocaleText(1234567, kLocaleGrouped), u"1,234,567");
  EXPECT_EQ(IntegerToLocaleText(1234567, kLocaleUngrouped), u"1234567");
  // Any other choice is the grouped locale.
  EXPECT_EQ(IntegerToLocaleText(1234567, 0), u"1,234,567");
  EXPECT_EQ(RealToLocaleText(1234.5, 6, kLocaleGrouped), u"1,234.5");
  int64_t value = 0;
  EXPECT_TRUE(LocaleTextToInteger(u"1,234,567 and more", value));
  EXPECT_EQ(value, 1234567);
  double real = 0;
  EXPECT_TRUE(LocaleTextToReal(u"1,234.25", real));
  EXPECT_EQ(real, 1234.25);
  EXPECT_FALSE(LocaleTextToInteger(u"zz", value));
  InitialiseLocales();
}

TEST(LocalePair, GroupingComesBackByTheLocalesName) {
  if (!HaveGroupingLocale()) GTEST_SKIP() << "this standard library knows only the C locale";
  std::locale locale("en_US.UTF-8");
  SetLocaleGrouping(locale, kLocaleUngrouped);
  EXPECT_EQ(Write(locale, 1234567), L"1234567");
  SetLocaleGrouping(locale, kLocaleGrouped);
  EXPECT_EQ(Write(locale, 1234567), L"1,234,567");
  // A locale that still groups is left as it is.
  SetLocaleGrouping(locale, kLocaleGrouped);
  EXPECT_EQ(Write(locale, 1234567), L"1,234,567");
}
