#include <gtest/gtest.h>

#include <algorithm>

#include "platform/text_services.h"
#include "text/code_conversions.h"
#include "text/support.h"

using namespace NSTextPackage;
using NSMarlet::XFormatViolation;

namespace {

struct SUnitToByte {
  char16_t unit;
  unsigned char byte;
};

// The reference: what the system's own conversions gave under Wine.
#include "platform/code_page_tables.inc"

CUtf32String AllScalarValues() {
  CUtf32String all;
  all.reserve(1112064);
  for (char32_t cp = 0; cp <= 0x10FFFF; ++cp) {
    if (cp < 0xD800 || cp > 0xDFFF) all.push_back(cp);
  }
  return all;
}

std::string Bytes(std::initializer_list<int> values) {
  std::string s;
  for (int v : values) s.push_back(static_cast<char>(v));
  return s;
}

}  // namespace

class ConversionTest : public StorageTest {};

TEST_F(ConversionTest, EveryScalarValueRoundTripsInEveryDirection) {
  const CUtf32String all = AllScalarValues();
  ASSERT_EQ(all.size(), 1112064u);
  const std::string utf8 = Utf32ToUtf8(all);
  const CWideString utf16 = Utf32ToWide(all);
  EXPECT_TRUE(Utf8ToUtf32(utf8).empty());  // it stops at U+0000
  EXPECT_EQ(Utf8ToUtf32(utf8.substr(1)), all.substr(1));
  EXPECT_EQ(Utf8ToWide(utf8), utf16);
  EXPECT_EQ(WideToUtf8(utf16), utf8);
  EXPECT_EQ(WideToUtf32(utf16), all);
  EXPECT_EQ(Utf32ToWide(WideToUtf32(utf16)), utf16);
  EXPECT_EQ(Utf32ToUtf8(Utf8ToUtf32(utf8.substr(1))), utf8.substr(1));
}

TEST_F(ConversionTest, EncodingsOfKnownValues) {
  EXPECT_EQ(Utf8ToWide(Bytes({0xF4, 0x8F, 0xBF, 0xBF})), (CWideString{0xDBFF, 0xDFFF}));
  EXPECT_EQ(WideToUtf8(CWideString{0xDBFF, 0xDFFF}), Bytes({0xF4, 0x8F, 0xBF, 0xBF}));
  EXPECT_EQ(WideToUtf8(u"\u00e9\u20ac"), Bytes({0xC3, 0xA9, 0xE2, 0x82, 0xAC}));
  EXPECT_EQ(WideToUtf8(u"A", true), Bytes({0xEF, 0xBB, 0xBF, 'A'}));
  EXPECT_EQ(Utf32ToUtf8(CUtf32String{0x3FFFFF}), Bytes({0xF7, 0xBF, 0xBF, 0xBF}));
  EXPECT_EQ(Utf32ToWide(CUtf32String{0x110000}), (CWideString{0xDC00, 0xDC00}));
}

TEST_F(ConversionTest, TheDecodersAreLiberal) {
  EXPECT_EQ(Utf8ToWide(Bytes({0xC0, 0x80})), CWideString(1, u'\0'));
  EXPECT_EQ(Utf8ToWide(Bytes({0xE0, 0x81, 0x81})), u"A");  // overlong
  EXPECT_EQ(Utf8ToWide(Bytes({0xC3, 0x29})), u"\u00e9");   // continuation unchecked
  EXPECT_EQ(Utf8ToUtf32(Bytes({0xF8, 0x88, 0x80, 0x80, 0x80})), CUtf32String{0x200000});
  EXPECT_EQ(Utf8ToUtf32(Bytes({0xFC, 0x84, 0x80, 0x80, 0x80, 0x80})), CUtf32String{0x4000000});
  EXPECT_EQ(Utf8ToUtf32(Bytes({0xFE, 0x83, 0xBF, 0xBF, 0xBF, 0xBF, 0xBF})),
            CUtf32String{0xFFFFFFFF});
  EXPECT_EQ(Utf8ToUtf32(Bytes({0xFE, 0x01, 0x80, 0x80, 0x80, 0x80, 0x81})),
            CUtf32String{0x40000001});
  // Beyond 16 bits, without a test of the limit: kept to 16 bits.
  EXPECT_EQ(Utf8ToWide(Bytes({0xF8, 0x88, 0x80, 0x80, 0x80})), (CWideString{0xDFC0, 0xDC00}));
  // A sequence cut off by the end reads zeros.
  EXPECT_EQ(Utf8ToWide(Bytes({'a', 0xE2, 0x82})), (CWideString{u'a', 0x2080}));
  // A mark inside a text is a character like any other.
  EXPECT_EQ(Utf8ToWide(Bytes({'a', 0xEF, 0xBB, 0xBF, 'b'})), u"a\uFEFFb");
  // Utf8ToWide goes by length; Utf8ToUtf32 stops at a zero byte.
  EXPECT_EQ(Utf8ToWide(Bytes({'a', 0, 'b'})), CWideString(u"a\0b", 3));
  EXPECT_EQ(Utf8ToUtf32(Bytes({'a', 0, 'b'})), CUtf32String{U'a'});
  EXPECT_EQ(Utf8ToWide(""), u"");
  EXPECT_EQ(Utf8ToUtf32(""), CUtf32String());
}

TEST_F(ConversionTest, BadLeadBytesRaise) {
  for (int lead : {0x80, 0x9F, 0xBF, 0xFF}) {
    EXPECT_EQ(UnicodeFailureText<XFormatViolation>([&] { Utf8ToWide(Bytes({'a', lead})); }), "")
        << lead;
    EXPECT_EQ(UnicodeFailureText<XFormatViolation>([&] { Utf8ToUtf32(Bytes({lead})); }), "");
  }
}

TEST_F(ConversionTest, TheEncoderIsStrict) {
  EXPECT_EQ(UnicodeFailureText<XFormatViolation>([] { WideToUtf8(CWideString{u'a', 0xDC00}); }),
            "High-surrogate missing! Broken Unicode");
  EXPECT_EQ(UnicodeFailureText<XFormatViolation>([] { WideToUtf32(CWideString{0xDFFF}); }),
            "High-surrogate missing! Broken Unicode");
  EXPECT_EQ(UnicodeFailureText<XFormatViolation>([] { Utf32ToUtf8(CUtf32String{0x400000}); }),
            "Character code bigger than max Unicode");
}

TEST_F(ConversionTest, AHighSurrogateAtTheEndTakesTheTerminator) {
  // ((0xD800 - 0xD7F7) << 10) + 0 is U+2400.
  EXPECT_EQ(WideToUtf8(CWideString{u'a', 0xD800}), Bytes({'a', 0xE2, 0x90, 0x80}));
  EXPECT_EQ(WideToUtf32(CWideString{0xD800}), CUtf32String{0x2400});
}

TEST_F(ConversionTest, SevenBitText) {
  EXPECT_EQ(AsciiToWide("abc\x7F"), u"abc\x7F");
  EXPECT_EQ(AsciiToWide("a\xE9z", 32), u"a z");
  EXPECT_EQ(UnicodeFailureText<XFormatViolation>([] { AsciiToWide("a\x80"); }), "");
}

TEST_F(ConversionTest, CodePageBytesAsTheSystemGivesThem) {
  struct SPage {
    uint32_t codePage;
    const char16_t* toWide;
  };
  for (const SPage& page : {SPage{1252, kCodePage1252ToWide}, SPage{10000, kCodePage10000ToWide}}) {
    for (int b = 0; b < 256; ++b) {
      const std::string byte(1, static_cast<char>(b));
      if (page.toWide[b] == 0 && b != 0) {
        // A byte the code page does not define: a bare failure.
        EXPECT_EQ(UnicodeFailureText<std::exception>([&] { CodePageToWide(byte, page.codePage); }),
                  "std::exception")
            << page.codePage << " " << b;
        continue;
      }
      const CWideString wide = CodePageToWide(byte, page.codePage);
      ASSERT_EQ(wide, CWideString(1, page.toWide[b])) << page.codePage << " " << b;
      EXPECT_EQ(WideToCodePage(wide, false, page.codePage), byte) << page.codePage << " " << b;
      EXPECT_EQ(WideToCodePage(wide, true, page.codePage), byte) << page.codePage << " " << b;
    }
  }
}

TEST_F(ConversionTest, CodePageUnitsAsTheSystemGivesThem) {
  struct SPage {
    uint32_t codePage;
    const SUnitToByte* begin;
    const SUnitToByte* end;
  };
  const SPage pages[] = {
      {1252, std::begin(kCodePage1252FromWide), std::end(kCodePage1252FromWide)},
      {10000, std::begin(kCodePage10000FromWide), std::end(kCodePage10000FromWide)}};
  for (const SPage& page : pages) {
    ASSERT_TRUE(std::is_sorted(page.begin, page.end, [](const SUnitToByte& a,
                                                        const SUnitToByte& b) {
      return a.unit < b.unit;
    }));
    const SUnitToByte* next = page.begin;
    int mismatches = 0;
    for (uint32_t u = 1; u < 0x10000; ++u) {
      if (u >= 0xD800 && u < 0xE000) continue;
      const CWideString unit(1, static_cast<char16_t>(u));
      const bool mapped = next != page.end && next->unit == u;
      const std::string expected(1, mapped ? static_cast<char>(next->byte) : '?');
      if (mapped) ++next;
      if (WideToCodePage(unit, false, page.codePage) != expected) ++mismatches;
      if (!mapped && u % 97 == 0) {
        EXPECT_EQ(UnicodeFailureText<XFormatViolation>(
                      [&] { WideToCodePage(unit, true, page.codePage); }),
                  "")
            << page.codePage << " " << u;
      }
    }
    EXPECT_EQ(mismatches, 0) << page.codePage;
  }
}

TEST_F(ConversionTest, CodePageTexts) {
  EXPECT_EQ(CodePage1252ToWide("caf\xE9 \x80"), u"caf\u00e9 \u20ac");
  EXPECT_EQ(WideToCodePage1252(u"caf\u00e9 \u20ac", true), "caf\xE9 \x80");
  EXPECT_EQ(CodePage10000ToWide("caf\x8E"), u"caf\u00e9");
  EXPECT_EQ(WideToCodePage10000(u"caf\u00e9", true), "caf\x8E");
  EXPECT_EQ(CodePageToWide("", 1252), u"");
  EXPECT_EQ(WideToCodePage(u"", true, 1252), "");
  EXPECT_EQ(SystemCodePageToWide("abc\xE9"),
            CodePageToWide("abc\xE9", NSPlatform::AnsiCodePage()));
  EXPECT_EQ(WideToSystemCodePage(u"abc", true), "abc");
}

TEST_F(ConversionTest, TheAnsiCodePageIsWestern) {
  EXPECT_EQ(NSPlatform::AnsiCodePage(), 1252u);
}

TEST_F(ConversionTest, UnknownCodePagesFail) {
  EXPECT_EQ(UnicodeFailureText<std::exception>([] { CodePageToWide("a", 54321); }),
            "std::exception");
  EXPECT_EQ(UnicodeFailureText<std::logic_error>([] { WideToCodePage(u"a", false, 54321); }), "");
}
