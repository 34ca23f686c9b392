// The system's text services: code pages and locale comparison.
#ifndef QUILLON_PLATFORM_TEXT_SERVICES_H
#define QUILLON_PLATFORM_TEXT_SERVICES_H

#include <cstdint>

namespace NSPlatform {

// The system's 8-bit code page (GetACP).
uint32_t AnsiCodePage();

// Error codes as the system reports them.
constexpr uint32_t kErrorInvalidParameter = 87;
constexpr uint32_t kErrorInsufficientBuffer = 122;
constexpr uint32_t kErrorInvalidFlags = 1004;
constexpr uint32_t kErrorNoUnicodeTranslation = 1113;

// Flag of MultiByteToWide: fail on bytes the code page does not define.
constexpr uint32_t kStopOnInvalidInput = 8;

// As MultiByteToWideChar: the units written, or 0 with `error` set.
int32_t MultiByteToWide(uint32_t codePage, uint32_t flags, const char* text, int32_t length,
                        char16_t* out, int32_t capacity, uint32_t* error);

// As WideCharToMultiByte with flags 0. With `usedDefault` non-null the
// default character is given too, and unmappable units are reported.
int32_t WideToMultiByte(uint32_t codePage, const char16_t* text, int32_t length, char* out,
                        int32_t capacity, const char* defaultChar, bool* usedDefault,
                        uint32_t* error);

// Flags of CompareLocaleText.
constexpr uint32_t kCompareIgnoreCase = 0x1;
constexpr uint32_t kCompareStringSort = 0x1000;
constexpr uint32_t kCompareIgnoreWidth = 0x20000;

// As CompareStringW for the user's default locale: 1 less, 2 equal,
// 3 greater, 0 failure.
int32_t CompareLocaleText(uint32_t flags, const char16_t* a, int32_t aLength, const char16_t* b,
                          int32_t bLength);

}  // namespace NSPlatform

#endif
