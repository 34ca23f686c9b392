#include "platform/text_services.h"
#include "platform/fault_points.h"

#include <windows.h>

namespace NSPlatform {

namespace {
static_assert(sizeof(wchar_t) == sizeof(char16_t), "UTF-16 wide characters");
const wchar_t* Wide(const char16_t* text) { return reinterpret_cast<const wchar_t*>(text); }
}  // namespace

uint32_t AnsiCodePage() { return GetACP(); }

int32_t MultiByteToWide(uint32_t codePage, uint32_t flags, const char* text, int32_t length,
                        char16_t* out, int32_t capacity, uint32_t* error) {
  if (FailNow(kCallMultiByteToWide)) {
    *error = 1113;  // no mapping
    return 0;
  }
  SetLastError(0);
  const int result = MultiByteToWideChar(codePage, flags, text, length,
                                         reinterpret_cast<wchar_t*>(out), capacity);
  *error = result == 0 ? GetLastError() : 0;
  return result;
}

int32_t WideToMultiByte(uint32_t codePage, const char16_t* text, int32_t length, char* out,
                        int32_t capacity, const char* defaultChar, bool* usedDefault,
                        uint32_t* error) {
  if (FailNow(kCallWideToMultiByte)) {
    *error = 1113;
    return 0;
  }
  SetLastError(0);
  BOOL used = FALSE;
  const int result =
      WideCharToMultiByte(codePage, 0, Wide(text), length, out, capacity,
                          usedDefault != nullptr ? defaultChar : nullptr,
                          usedDefault != nullptr ? &used : nullptr);
  if (usedDefault != nullptr) *usedDefault = used != FALSE;
  *error = result == 0 ? GetLastError() : 0;
  return result;
}

int32_t CompareLocaleText(uint32_t flags, const char16_t* a, int32_t aLength, const char16_t* b,
                          int32_t bLength) {
  if (FailNow(kCallCompareLocaleText)) return 0;
  return CompareStringW(LOCALE_USER_DEFAULT, flags, Wide(a), aLength, Wide(b), bLength);
}

}  // namespace NSPlatform
