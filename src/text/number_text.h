// Numbers to text and back: plainly, for what the program reads back itself,
// and by locale, for what a user sees.
#ifndef QUILLON_TEXT_NUMBER_TEXT_H
#define QUILLON_TEXT_NUMBER_TEXT_H

#include <cstdint>
#include <locale>
#include <string>

#include "text/wide_text.h"

namespace NSTextPackage {

CWideString IntegerToText(int64_t value);
CWideString RealToText(double value, uint32_t decimals);
// Skips blanks and plus signs, then reads what digits and minus signs (and
// for reals, points) follow. False, with 0, when nothing is there.
bool TextToInteger(const CWideString& text, int64_t& value);
bool TextToReal(const CWideString& text, double& value);

enum : uint32_t { kLocaleGrouped = 7481, kLocaleUngrouped = 7482 };

// Sets up the two locales from the named one ("" is the user's default);
// call once before the locale operations.
void InitialiseLocales(const char* name = "");
bool LocalesInitialised();
// The locale of a choice: the ungrouped one for kLocaleUngrouped, else grouped.
const std::locale& LocaleOfChoice(uint32_t choice);

CWideString IntegerToLocaleText(int64_t value, uint32_t choice);
CWideString RealToLocaleText(double value, uint32_t decimals, uint32_t choice);
// Both read with the grouped locale.
bool LocaleTextToInteger(const CWideString& text, int64_t& value);
bool LocaleTextToReal(const CWideString& text, double& value);

// kLocaleUngrouped takes the grouping away from the locale; kLocaleGrouped
// gives a locale whose grouping was taken away the grouping of its name back.
void SetLocaleGrouping(std::locale& locale, uint32_t choice);

// The number punctuation of a named locale with its grouping replaced.
class CNumPunctGroupingOverride : public std::numpunct_byname<wchar_t> {
 public:
  CNumPunctGroupingOverride(const std::string& localeName, const std::string& grouping)
      : std::numpunct_byname<wchar_t>(localeName), localeName_(localeName), grouping_(grouping) {}

  // A locale with a facet of its own is named "*": this is the name behind it.
  const std::string& LocaleName() const { return localeName_; }

 protected:
  std::string do_grouping() const override { return grouping_; }

 private:
  std::string localeName_;
  std::string grouping_;
};

}  // namespace NSTextPackage

#endif
