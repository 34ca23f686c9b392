#include "text/number_text.h"

#include <cstdio>
#include <sstream>

#include "text/code_conversions.h"

namespace NSTextPackage {

namespace {

// The standard library has no 16-bit number facets: locale work goes through
// the wide character streams, converted at the edges.
std::wstring ToWchar(const CWideString& text) {
  if constexpr (sizeof(wchar_t) == sizeof(char16_t)) {
    return std::wstring(text.begin(), text.end());
  } else {
    const CUtf32String wide = WideToUtf32(text);
    return std::wstring(wide.begin(), wide.end());
  }
}

CWideString FromWchar(const std::wstring& text) {
  if constexpr (sizeof(wchar_t) == sizeof(char16_t)) {
    return CWideString(text.begin(), text.end());
  } else {
    return Utf32ToWide(CUtf32String(text.begin(), text.end()));
  }
}

struct CLocalePair {
  bool initialised = false;
  std::locale* grouped = nullptr;
  std::locale* ungrouped = nullptr;
};

CLocalePair gLocales;

// The plain readers: a run of the allowed units after blanks and plus signs.
std::string NumberRun(const CWideString& text, bool point) {
  size_t i = 0;
  while (i < text.size() && (text[i] == u' ' || text[i] == u'+')) ++i;
  std::string run;
  for (; i < text.size(); ++i) {
    const char16_t u = text[i];
    if ((u >= u'0' && u <= u'9') || u == u'-' || (point && u == u'.')) {
      run.push_back(static_cast<char>(u));
    } else {
      break;
    }
  }
  return run;
}

template <class T>
bool ReadPlain(const CWideString& text, bool point, T& value) {
  const std::string run = NumberRun(text, point);
  value = 0;
  if (run.empty()) return false;
  std::istringstream stream(run);
  stream.imbue(std::locale::classic());
  stream >> value;
  return true;
}

template <class T>
bool ReadLocale(const CWideString& text, T& value) {
  const std::locale& locale = LocaleOfChoice(kLocaleGrouped);
  const auto& punct = std::use_facet<std::numpunct<wchar_t>>(locale);
  std::wstring allowed = L"0123456789abcdefABCDEF+- ";
  allowed += punct.decimal_point();
  allowed += punct.thousands_sep();
  const std::wstring wide = ToWchar(text);
  const size_t end = wide.find_first_not_of(allowed);
  std::wistringstream stream(wide.substr(0, end));
  stream.imbue(locale);
  stream >> value;
  return !stream.fail() && !stream.bad();
}

template <class T>
CWideString WriteLocale(T value, uint32_t choice, int precision) {
  std::wostringstream stream;
  stream.imbue(LocaleOfChoice(choice));
  if (precision >= 0) stream.precision(precision);
  stream << value;
  return FromWchar(stream.str());
}

std::locale UserLocale(const char* name) {
  try {
    return std::locale(name);
  } catch (const std::runtime_error&) {
    // A standard library that knows no locale but "C" cannot give the
    // user's; "C" stands in for it.
    if (name[0] == '\0') return std::locale::classic();
    throw;
  }
}

}  // namespace

CWideString IntegerToText(int64_t value) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%lld", static_cast<long long>(value));
  return AsciiToWide(buffer);
}

CWideString RealToText(double value, uint32_t decimals) {
  char buffer[512];
  std::snprintf(buffer, sizeof buffer, "%.*f", static_cast<int>(decimals), value);
  return AsciiToWide(buffer, 32);
}

bool TextToInteger(const CWideString& text, int64_t& value) {
  return ReadPlain(text, false, value);
}

bool TextToReal(const CWideString& text, double& value) { return ReadPlain(text, true, value); }

void InitialiseLocales(const char* name) {
  const std::locale user = UserLocale(name != nullptr ? name : "");
  std::locale ungrouped = user;
  SetLocaleGrouping(ungrouped, kLocaleUngrouped);
  delete gLocales.grouped;
  delete gLocales.ungrouped;
  gLocales.grouped = new std::locale(user);
  gLocales.ungrouped = new std::locale(ungrouped);
  gLocales.initialised = true;
}

bool LocalesInitialised() { return gLocales.initialised; }

const std::locale& LocaleOfChoice(uint32_t choice) {
  if (!gLocales.initialised) InitialiseLocales();
  return choice == kLocaleUngrouped ? *gLocales.ungrouped : *gLocales.grouped;
}

void SetLocaleGrouping(std::locale& locale, uint32_t choice) {
  const auto& current = std::use_facet<std::numpunct<wchar_t>>(locale);
  const auto* existing = dynamic_cast<const CNumPunctGroupingOverride*>(&current);
  const std::string name = existing != nullptr ? existing->LocaleName() : locale.name();
  if (choice == kLocaleUngrouped) {
    locale = std::locale(locale, new CNumPunctGroupingOverride(name, std::string()));
    return;
  }
  if (!current.grouping().empty()) return;
  const std::locale fresh(name.c_str());
  const std::string grouping = std::use_facet<std::numpunct<wchar_t>>(fresh).grouping();
  if (!grouping.empty()) locale = std::locale(locale, new CNumPunctGroupingOverride(name, grouping));
}

CWideString IntegerToLocaleText(int64_t value, uint32_t choice) {
  return WriteLocale(static_cast<long long>(value), choice, -1);
}

CWideString RealToLocaleText(double value, uint32_t decimals, uint32_t choice) {
  return WriteLocale(value, choice, static_cast<int>(decimals));
}

bool LocaleTextToInteger(const CWideString& text, int64_t& value) {
  long long read = value;
  const bool ok = ReadLocale(text, read);
  value = read;
  return ok;
}

bool LocaleTextToReal(const CWideString& text, double& value) { return ReadLocale(text, value); }

}  // namespace NSTextPackage
