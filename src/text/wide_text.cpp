#include "text/wide_text.h"

#include <stdexcept>

#include "failure/builder.h"
#include "platform/text_services.h"
#include "text/code_conversions.h"

namespace NSTextPackage {

namespace {

constexpr char16_t kCaret = u'^';
constexpr char16_t kByteOrderMark = 0xFEFF;

bool IsDigit(char16_t unit) { return unit >= u'0' && unit <= u'9'; }

uint32_t Compare(uint32_t flags, const CWideString& a, const CWideString& b) {
  const size_t skipA = !a.empty() && a[0] == kByteOrderMark ? 1 : 0;
  const size_t skipB = !b.empty() && b[0] == kByteOrderMark ? 1 : 0;
  const int32_t answer = NSPlatform::CompareLocaleText(
      flags, a.data() + skipA, static_cast<int32_t>(a.size() - skipA), b.data() + skipB,
      static_cast<int32_t>(b.size() - skipB));
  switch (answer) {
    case 1: return kCompareLess;
    case 2: return kCompareEqual;
    case 3: return kCompareGreater;
    case 0: NSMarlet::RaiseFailure(std::exception(), NSMarlet::TargetWordUnicode());
    default: NSMarlet::RaiseFailure(std::logic_error(""), NSMarlet::TargetWordUnicode());
  }
}

}  // namespace

CWideString FormatText(const CWideString& format, int32_t seed,
                       const std::vector<CWideString>& arguments) {
  CWideString result;
  // The format counts up to its first zero unit.
  const char16_t* p = format.c_str();
  while (*p != 0) {
    if (*p == kCaret && IsDigit(p[1])) {
      int64_t n = seed;
      ++p;
      while (IsDigit(*p)) {
        // A negative number never names an argument however it goes on, and
        // one past the argument count never comes back: both stay where
        // they are, without overflow.
        if (n >= 0 && n <= static_cast<int64_t>(arguments.size())) n = n * 10 + (*p - u'0');
        ++p;
      }
      if (n >= 0 && n < static_cast<int64_t>(arguments.size())) {
        result += arguments[static_cast<size_t>(n)];
      }
      continue;
    }
    result += *p++;
  }
  return result;
}

CWideString TruncateText(const CWideString& text, uint64_t maximum) {
  if (text.size() <= maximum) return text;
  CWideString result = text.substr(0, static_cast<size_t>(maximum));
  if (!result.empty() && result.back() >= 0xD800 && result.back() <= 0xDBFF) result.pop_back();
  return result;
}

void CopyToFixedBuffer(char16_t* target, const char16_t* source, uint64_t maximum) {
  uint64_t i = 0;
  if (source != nullptr) {
    for (; i < maximum && source[i] != 0; ++i) target[i] = source[i];
  }
  target[i] = 0;
}

uint32_t CompareTextIgnoreCase(const CWideString& a, const CWideString& b) {
  return Compare(NSPlatform::kCompareIgnoreCase | NSPlatform::kCompareStringSort |
                     NSPlatform::kCompareIgnoreWidth,
                 a, b);
}

uint32_t CompareTextExact(const CWideString& a, const CWideString& b) {
  return Compare(NSPlatform::kCompareIgnoreWidth, a, b);
}

CWideString ReplaceCharacters(const CWideString& text, const std::string& set,
                              char16_t replacement) {
  const CWideString wideSet = AsciiToWide(set);
  CWideString result = text;
  for (char16_t& unit : result) {
    if (wideSet.find(unit) != CWideString::npos) unit = replacement;
  }
  return result;
}

}  // namespace NSTextPackage
