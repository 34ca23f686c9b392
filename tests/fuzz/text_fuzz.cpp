// The liberal decoders take any bytes; the strict encoders either raise the
// "unicode" failure or give text that decodes to what they were given.
#include <string>

#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_storage.h"
#include "text/code_conversions.h"

using namespace NSTextPackage;

namespace {

// The decoders are liberal on purpose: a high surrogate takes whatever unit
// follows, and overlong or oversized forms pass. Text comes back whole only
// where it was well formed to begin with.
bool WellFormed(const CWideString& text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const char16_t unit = text[i];
    if (unit >= 0xDC00 && unit < 0xE000) return false;
    if (unit >= 0xD800 && unit < 0xDC00) {
      if (i + 1 >= text.size() || text[i + 1] < 0xDC00 || text[i + 1] >= 0xE000) return false;
      ++i;
    }
  }
  return true;
}
bool WellFormed(const CUtf32String& text) {
  for (char32_t cp : text) {
    if (cp == 0 || cp >= 0x110000 || (cp >= 0xD800 && cp < 0xE000)) return false;
  }
  return true;
}

// Runs an encoding that may refuse the text; true when it gave a result.
template <class F>
bool Encoded(F encode) {
  try {
    encode();
    return true;
  } catch (const std::exception& failure) {
    Fuzz::Require(Fuzz::FailureWordIs(failure, "unicode"), "a refusal names \"unicode\"");
    return false;
  }
}

void Utf8Trip(const std::string& bytes) {
  const CWideString wide = Utf8ToWide(bytes);
  std::string utf8;
  if (Encoded([&] { utf8 = WideToUtf8(wide); }) && WellFormed(wide)) {
    Fuzz::Require(Utf8ToWide(utf8) == wide, "UTF-8 written reads back");
    std::string marked;
    Fuzz::Require(Encoded([&] { marked = WideToUtf8(wide, true); }), "a mark changes nothing");
    Fuzz::Require(marked == "\xEF\xBB\xBF" + utf8, "the mark goes in front");
  }
  const CUtf32String wide32 = Utf8ToUtf32(bytes);
  std::string back;
  if (Encoded([&] { back = Utf32ToUtf8(wide32); }) && WellFormed(wide32)) {
    Fuzz::Require(Utf8ToUtf32(back) == wide32, "UTF-32 written as UTF-8 reads back");
  }
}

void WideTrip(const CWideString& wide) {
  CUtf32String wide32;
  if (Encoded([&] { wide32 = WideToUtf32(wide); }) && WellFormed(wide)) {
    CWideString back;
    Fuzz::Require(Encoded([&] { back = Utf32ToWide(wide32); }), "UTF-32 from UTF-16 encodes");
    Fuzz::Require(back == wide, "UTF-16 through UTF-32 comes back");
  }
  std::string ascii;
  Encoded([&] { AsciiToWide(ascii = std::string(wide.begin(), wide.end())); });
  AsciiToWide(ascii, u'?');
}

void CodePageTrip(const std::string& bytes, uint32_t codePage) {
  CWideString wide;
  if (!Encoded([&] { wide = CodePageToWide(bytes, codePage); })) return;
  std::string loose;
  Encoded([&] { loose = WideToCodePage(wide, false, codePage); });
  std::string strict;
  if (Encoded([&] { strict = WideToCodePage(wide, true, codePage); })) {
    Fuzz::Require(CodePageToWide(strict, codePage) == wide, "a code page written reads back");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::CStorageScope storage;
  Fuzz::CInput input(data, size);
  const uint8_t choice = input.Byte();
  const uint32_t codePages[] = {kCodePageWestern, kCodePageRoman, 0, 65001, 437, 932};
  try {
    switch (choice % 4) {
      case 0: Utf8Trip(input.Rest()); break;
      case 1: WideTrip(input.Wide(256)); break;
      case 2: CodePageTrip(input.Rest(), codePages[(choice >> 2) % 6]); break;
      default: {
        const CWideString wide = input.Wide(256);
        std::string bytes;
        Encoded([&] { bytes = WideToSystemCodePage(wide, (choice >> 2) & 1); });
        SystemCodePageToWide(bytes);
        Encoded([&] { CodePage1252ToWide(WideToCodePage1252(wide, (choice >> 3) & 1)); });
        Encoded([&] { CodePage10000ToWide(WideToCodePage10000(wide, (choice >> 4) & 1)); });
      }
    }
  } catch (const std::exception& failure) {
    // A refusal is an answer; only a crash or a broken property is not.
    Fuzz::Require(Fuzz::FailureWordIs(failure, "unicode"), "a refusal names \"unicode\"");
  }
  return 0;
}
