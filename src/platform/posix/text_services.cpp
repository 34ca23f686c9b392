// Code pages from the tables recorded from the system's own conversions, and
// locale comparison through ICU with character width folded first.
#include "platform/text_services.h"
#include "platform/fault_points.h"

#include <unicode/coll.h>
#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace NSPlatform {

namespace {

struct SUnitToByte {
  char16_t unit;
  unsigned char byte;
};

#include "platform/code_page_tables.inc"

struct SCodePage {
  const char16_t* toWide;
  const SUnitToByte* fromWide;
  size_t fromWideCount;
};

const SCodePage* FindCodePage(uint32_t codePage) {
  static const SCodePage k1252 = {kCodePage1252ToWide, kCodePage1252FromWide,
                                  sizeof kCodePage1252FromWide / sizeof kCodePage1252FromWide[0]};
  static const SCodePage k10000 = {
      kCodePage10000ToWide, kCodePage10000FromWide,
      sizeof kCodePage10000FromWide / sizeof kCodePage10000FromWide[0]};
  switch (codePage) {
    case 1252: return &k1252;
    case 10000: return &k10000;
    default: return nullptr;
  }
}

int32_t Fail(uint32_t* error, uint32_t code) {
  *error = code;
  return 0;
}

// Fullwidth and halfwidth forms become their ordinary forms.
icu::UnicodeString FoldWidth(const char16_t* text, int32_t length) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* nfkc = icu::Normalizer2::getNFKCInstance(status);
  icu::UnicodeString folded;
  for (int32_t i = 0; i < length; ++i) {
    const char16_t u = text[i];
    if (U_SUCCESS(status) && (u == 0x3000 || (u >= 0xFF01 && u <= 0xFFEE))) {
      folded.append(nfkc->normalize(icu::UnicodeString(u), status));
    } else {
      folded.append(u);
    }
  }
  return folded;
}

// The user's locale, where it has one of its own: the POSIX locale's
// collation is the order of the code points, which no user means.
icu::Locale CollationLocale() {
  const icu::Locale user = icu::Locale::getDefault();
  const char* name = user.getName();
  if (std::strncmp(name, "en_US_POSIX", 11) == 0 || std::strcmp(name, "c") == 0) {
    return icu::Locale::getRoot();
  }
  return user;
}

std::unique_ptr<icu::Collator> MakeCollator(bool ignoreCase) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::Collator> collator(icu::Collator::createInstance(CollationLocale(), status));
  if (U_FAILURE(status)) return nullptr;
  collator->setStrength(ignoreCase ? icu::Collator::SECONDARY : icu::Collator::TERTIARY);
  collator->setAttribute(UCOL_NORMALIZATION_MODE, UCOL_ON, status);
  if (U_FAILURE(status)) return nullptr;
  return collator;
}

}  // namespace

uint32_t AnsiCodePage() { return 1252; }

int32_t MultiByteToWide(uint32_t codePage, uint32_t flags, const char* text, int32_t length,
                        char16_t* out, int32_t capacity, uint32_t* error) {
  if (FailNow(kCallMultiByteToWide)) {
    *error = 1113;  // no mapping
    return 0;
  }
  *error = 0;
  const SCodePage* page = FindCodePage(codePage);
  if (page == nullptr || text == nullptr || capacity < 0) return Fail(error, kErrorInvalidParameter);
  if ((flags & ~kStopOnInvalidInput) != 0) return Fail(error, kErrorInvalidFlags);
  if (length < 0) length = static_cast<int32_t>(std::strlen(text)) + 1;
  if (length == 0) return Fail(error, kErrorInvalidParameter);
  if (capacity > 0 && capacity < length) return Fail(error, kErrorInsufficientBuffer);
  for (int32_t i = 0; i < length; ++i) {
    const unsigned char byte = static_cast<unsigned char>(text[i]);
    char16_t unit = page->toWide[byte];
    if (unit == 0 && byte != 0) {
      if ((flags & kStopOnInvalidInput) != 0) return Fail(error, kErrorNoUnicodeTranslation);
      unit = u'?';
    }
    if (capacity > 0) out[i] = unit;
  }
  return length;
}

int32_t WideToMultiByte(uint32_t codePage, const char16_t* text, int32_t length, char* out,
                        int32_t capacity, const char* defaultChar, bool* usedDefault,
                        uint32_t* error) {
  if (FailNow(kCallWideToMultiByte)) {
    *error = 1113;
    return 0;
  }
  *error = 0;
  if (usedDefault != nullptr) *usedDefault = false;
  const SCodePage* page = FindCodePage(codePage);
  if (page == nullptr || text == nullptr || capacity < 0) return Fail(error, kErrorInvalidParameter);
  if (length < 0) length = static_cast<int32_t>(std::char_traits<char16_t>::length(text)) + 1;
  if (length == 0) return Fail(error, kErrorInvalidParameter);
  if (capacity > 0 && capacity < length) return Fail(error, kErrorInsufficientBuffer);
  const char fallback = defaultChar != nullptr ? defaultChar[0] : '?';
  const SUnitToByte* begin = page->fromWide;
  const SUnitToByte* end = page->fromWide + page->fromWideCount;
  for (int32_t i = 0; i < length; ++i) {
    const char16_t unit = text[i];
    char byte = fallback;
    if (unit == 0) {
      byte = 0;
    } else {
      const SUnitToByte* found = std::lower_bound(
          begin, end, unit, [](const SUnitToByte& m, char16_t u) { return m.unit < u; });
      if (found != end && found->unit == unit) {
        byte = static_cast<char>(found->byte);
      } else if (usedDefault != nullptr) {
        *usedDefault = true;
      }
    }
    if (capacity > 0) out[i] = byte;
  }
  return length;
}

int32_t CompareLocaleText(uint32_t flags, const char16_t* a, int32_t aLength, const char16_t* b,
                          int32_t bLength) {
  if (FailNow(kCallCompareLocaleText)) return 0;
  const uint32_t known = kCompareIgnoreCase | kCompareStringSort | kCompareIgnoreWidth;
  if ((flags & ~known) != 0 || a == nullptr || b == nullptr || aLength < 0 || bLength < 0) {
    return 0;
  }
  static const std::unique_ptr<icu::Collator> exact = MakeCollator(false);
  static const std::unique_ptr<icu::Collator> ignoringCase = MakeCollator(true);
  const icu::Collator* collator = (flags & kCompareIgnoreCase) != 0 ? ignoringCase.get()
                                                                     : exact.get();
  if (collator == nullptr) return 0;
  const bool foldWidth = (flags & kCompareIgnoreWidth) != 0;
  const icu::UnicodeString left = foldWidth ? FoldWidth(a, aLength)
                                            : icu::UnicodeString(a, aLength);
  const icu::UnicodeString right = foldWidth ? FoldWidth(b, bLength)
                                             : icu::UnicodeString(b, bLength);
  UErrorCode status = U_ZERO_ERROR;
  const UCollationResult result = collator->compare(left, right, status);
  if (U_FAILURE(status)) return 0;
  return result == UCOL_LESS ? 1 : result == UCOL_EQUAL ? 2 : 3;
}

}  // namespace NSPlatform
