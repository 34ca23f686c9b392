// Conversions between UTF-16, UTF-8, UTF-32, seven-bit text and code pages.
// The decoders are liberal and the encoder strict, on purpose. Every failure
// carries the target word "unicode".
#ifndef QUILLON_TEXT_CODE_CONVERSIONS_H
#define QUILLON_TEXT_CODE_CONVERSIONS_H

#include <cstdint>
#include <string>

#include "text/wide_text.h"

namespace NSTextPackage {

typedef std::u32string CUtf32String;

// Bytes below 128 become their unit; others the replacement, or with
// replacement 0 an XFormatViolation.
CWideString AsciiToWide(const std::string& text, uint32_t replacement = 0);

CWideString Utf8ToWide(const std::string& utf8);
// With `mark`, EF BB BF goes in front.
std::string WideToUtf8(const CWideString& text, bool mark = false);
CUtf32String WideToUtf32(const CWideString& text);
CWideString Utf32ToWide(const CUtf32String& text);
std::string Utf32ToUtf8(const CUtf32String& text);
// Stops at a zero byte.
CUtf32String Utf8ToUtf32(const std::string& utf8);

constexpr uint32_t kCodePageWestern = 1252;
constexpr uint32_t kCodePageRoman = 10000;

CWideString CodePageToWide(const std::string& text, uint32_t codePage);
// Strict: a unit the code page cannot show raises instead of becoming "?".
std::string WideToCodePage(const CWideString& text, bool strict, uint32_t codePage);

// The three ready forms: the system's ANSI code page, 1252 and 10000.
CWideString SystemCodePageToWide(const std::string& text);
CWideString CodePage1252ToWide(const std::string& text);
CWideString CodePage10000ToWide(const std::string& text);
std::string WideToSystemCodePage(const CWideString& text, bool strict);
std::string WideToCodePage1252(const CWideString& text, bool strict);
std::string WideToCodePage10000(const CWideString& text, bool strict);

}  // namespace NSTextPackage

#endif
