#include "text/code_conversions.h"

#include <stdexcept>
#include <vector>

#include "failure/builder.h"
#include "platform/text_services.h"

namespace NSTextPackage {

using NSMarlet::RaiseFailure;
using NSMarlet::TargetWordUnicode;
using NSMarlet::XFormatViolation;

namespace {

constexpr uint32_t kMaxCodePoint = 0x400000;  // first value the encoder refuses
const char* const kLowSurrogateAlone = "High-surrogate missing! Broken Unicode";
const char* const kTooBig = "Character code bigger than max Unicode";

[[noreturn]] void RaiseFormat(const char* text = "") {
  RaiseFailure(XFormatViolation(text), TargetWordUnicode());
}

// How many bytes a lead byte starts, and its payload; 0 for a bad lead.
int SequenceLength(unsigned char lead, uint32_t& payload) {
  if (lead < 0x80) { payload = lead; return 1; }
  if (lead < 0xC0) return 0;
  if (lead < 0xE0) { payload = lead & 0x1Fu; return 2; }
  if (lead < 0xF0) { payload = lead & 0x0Fu; return 3; }
  if (lead < 0xF8) { payload = lead & 0x07u; return 4; }
  if (lead < 0xFC) { payload = lead & 0x03u; return 5; }
  if (lead < 0xFE) { payload = lead & 0x01u; return 6; }
  if (lead == 0xFE) { payload = 0; return 7; }
  return 0;
}

// Decodes one sequence at `i`; continuation bytes are masked, not checked,
// and bytes past the end read as zero.
uint32_t DecodeOne(const std::string& utf8, size_t& i) {
  uint32_t value = 0;
  const int length = SequenceLength(static_cast<unsigned char>(utf8[i]), value);
  if (length == 0) RaiseFormat();
  auto next = [&](size_t k) -> uint32_t {
    return k < utf8.size() ? static_cast<unsigned char>(utf8[k]) : 0u;
  };
  if (length == 7) {
    // Six continuation bytes: the first goes in whole above the 30 bits of
    // the other five.
    uint32_t low = 0;
    for (int k = 2; k < 7; ++k) low = (low << 6) | (next(i + k) & 63u);
    value = (next(i + 1) << 30) | low;
  } else {
    for (int k = 1; k < length; ++k) value = (value << 6) | (next(i + k) & 63u);
  }
  i += static_cast<size_t>(length);
  return value;
}

void AppendUtf16(CWideString& out, uint32_t value) {
  if (value < 0x10000) {
    out.push_back(static_cast<char16_t>(value));
  } else {
    out.push_back(static_cast<char16_t>(((value - 0x10000) >> 10) + 0xD800));
    out.push_back(static_cast<char16_t>((value & 0x3FF) + 0xDC00));
  }
}

void AppendUtf8(std::string& out, uint32_t cp) {
  auto put = [&](uint32_t byte) { out.push_back(static_cast<char>(byte)); };
  if (cp < 0x80) {
    put(cp);
  } else if (cp < 0x800) {
    put(0xC0 | (cp >> 6));
    put(0x80 | (cp & 63));
  } else if (cp < 0x10000) {
    put(0xE0 | (cp >> 12));
    put(0x80 | ((cp >> 6) & 63));
    put(0x80 | (cp & 63));
  } else if (cp < kMaxCodePoint) {
    put(0xF0 | ((cp >> 18) & 7));
    put(0x80 | ((cp >> 12) & 63));
    put(0x80 | ((cp >> 6) & 63));
    put(0x80 | (cp & 63));
  } else {
    RaiseFormat(kTooBig);
  }
}

// The code point at `i` of UTF-16 text; a high surrogate takes the next
// unit unchecked, and at the very end that unit is the terminator.
uint32_t CodePointAt(const CWideString& text, size_t& i) {
  const uint32_t u = text[i];
  if (u >= 0xDC00 && u < 0xE000) RaiseFormat(kLowSurrogateAlone);
  if (u >= 0xD800 && u < 0xDC00) {
    const uint32_t low = i + 1 < text.size() ? text[i + 1] : 0u;
    i += 2;
    return ((u - 0xD7F7u) << 10) + low;
  }
  ++i;
  return u;
}

}  // namespace

CWideString AsciiToWide(const std::string& text, uint32_t replacement) {
  CWideString result;
  result.reserve(text.size());
  for (char c : text) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (byte < 128) {
      result.push_back(byte);
    } else if (replacement != 0) {
      result.push_back(static_cast<char16_t>(replacement));
    } else {
      RaiseFormat();
    }
  }
  return result;
}

CWideString Utf8ToWide(const std::string& utf8) {
  CWideString result;
  if (utf8.empty()) return result;
  result.reserve(utf8.size() + 1);
  for (size_t i = 0; i < utf8.size();) AppendUtf16(result, DecodeOne(utf8, i));
  return result;
}

CUtf32String Utf8ToUtf32(const std::string& utf8) {
  CUtf32String result;
  if (utf8.empty()) return result;
  result.reserve(utf8.size() + 1);
  for (size_t i = 0; i < utf8.size() && utf8[i] != '\0';) result.push_back(DecodeOne(utf8, i));
  return result;
}

std::string WideToUtf8(const CWideString& text, bool mark) {
  std::string result;
  result.reserve(text.size() * 2 + (mark ? 3 : 0));
  if (mark) result += "\xEF\xBB\xBF";
  for (size_t i = 0; i < text.size();) AppendUtf8(result, CodePointAt(text, i));
  return result;
}

CUtf32String WideToUtf32(const CWideString& text) {
  CUtf32String result;
  result.reserve(text.size());
  for (size_t i = 0; i < text.size();) result.push_back(CodePointAt(text, i));
  return result;
}

CWideString Utf32ToWide(const CUtf32String& text) {
  CWideString result;
  result.reserve(text.size());
  for (char32_t cp : text) AppendUtf16(result, cp);
  return result;
}

std::string Utf32ToUtf8(const CUtf32String& text) {
  std::string result;
  result.reserve(text.size() * 2);
  for (char32_t cp : text) AppendUtf8(result, cp);
  return result;
}

CWideString CodePageToWide(const std::string& text, uint32_t codePage) {
  if (text.empty()) return CWideString();
  std::vector<char16_t> buffer(text.size() * 3);
  uint32_t error = 0;
  const int32_t written = NSPlatform::MultiByteToWide(
      codePage, NSPlatform::kStopOnInvalidInput, text.data(), static_cast<int32_t>(text.size()),
      buffer.data(), static_cast<int32_t>(buffer.size()), &error);
  if (written == 0) {
    if (error == 0) return CWideString();
    RaiseFailure(std::exception(), TargetWordUnicode());
  }
  return CWideString(buffer.data(), static_cast<size_t>(written));
}

std::string WideToCodePage(const CWideString& text, bool strict, uint32_t codePage) {
  if (text.empty()) return std::string();
  std::vector<char> buffer(text.size() * 6);
  uint32_t error = 0;
  bool usedDefault = false;
  const int32_t written = NSPlatform::WideToMultiByte(
      codePage, text.data(), static_cast<int32_t>(text.size()), buffer.data(),
      static_cast<int32_t>(buffer.size()), strict ? "?" : nullptr,
      strict ? &usedDefault : nullptr, &error);
  if (written < 0) RaiseFailure(std::exception(), TargetWordUnicode());
  if (written == 0) {
    switch (error) {
      case 0: return std::string();
      case NSPlatform::kErrorInvalidParameter:
      case NSPlatform::kErrorInsufficientBuffer:
      case NSPlatform::kErrorInvalidFlags:
        RaiseFailure(std::logic_error(""), TargetWordUnicode());
      default: RaiseFailure(std::exception(), TargetWordUnicode());
    }
  }
  if (usedDefault) RaiseFormat();
  return std::string(buffer.data(), static_cast<size_t>(written));
}

CWideString SystemCodePageToWide(const std::string& text) {
  return CodePageToWide(text, NSPlatform::AnsiCodePage());
}
CWideString CodePage1252ToWide(const std::string& text) {
  return CodePageToWide(text, kCodePageWestern);
}
CWideString CodePage10000ToWide(const std::string& text) {
  return CodePageToWide(text, kCodePageRoman);
}
std::string WideToSystemCodePage(const CWideString& text, bool strict) {
  return WideToCodePage(text, strict, NSPlatform::AnsiCodePage());
}
std::string WideToCodePage1252(const CWideString& text, bool strict) {
  return WideToCodePage(text, strict, kCodePageWestern);
}
std::string WideToCodePage10000(const CWideString& text, bool strict) {
  return WideToCodePage(text, strict, kCodePageRoman);
}

}  // namespace NSTextPackage
