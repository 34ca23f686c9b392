/**
 * @file quillon_util.h
 * @brief Optional conveniences for hosts: owning pointers, status names and
 * views of UTF-16 text. Header-only; nothing here crosses the boundary, so
 * a host may use it or not without any change to the library.
 */
#ifndef QUILLON_QUILLON_UTIL_H
#define QUILLON_QUILLON_UTIL_H

#include <memory>
#include <string_view>

#include "quillon/quillon.h"

namespace NSQuillon2 {

/// Destroys a boundary object through its first virtual slot.
template <class T>
struct SQuillonDeleter {
  /// Destroys `object`; null is allowed.
  void operator()(T* object) const noexcept { QuillonDestroy(object); }
};

/// An owning pointer to an object the library handed out: the library
/// object, a client, a driver spec or a vector.
template <class T>
using TQuillonPtr = std::unique_ptr<T, SQuillonDeleter<T>>;

/// Takes ownership of `object` (which may be null).
template <class T>
inline TQuillonPtr<T> QuillonOwn(T* object) noexcept {
  return TQuillonPtr<T>(object);
}

/// The name of a status constant ("kStatusDriverNotFound"), "computed" for
/// kStatusBase and above, "unknown" for any other number.
inline const char* StatusName(uint32_t status) noexcept {
  switch (status) {
    case kStatusOk: return "kStatusOk";
    case kStatusOutOfMemory: return "kStatusOutOfMemory";
    case kStatusInvalidArgument: return "kStatusInvalidArgument";
    case kStatusNotValid: return "kStatusNotValid";
    case kStatusIllegalCall: return "kStatusIllegalCall";
    case kStatusLogicError: return "kStatusLogicError";
    case kStatusDriverOpenFailed: return "kStatusDriverOpenFailed";
    case kStatusDriverNotFound: return "kStatusDriverNotFound";
    case kStatusReadFailure: return "kStatusReadFailure";
    case kStatusWriteFailure: return "kStatusWriteFailure";
    case kStatusFormatViolation: return "kStatusFormatViolation";
    case kStatusDiskFull: return "kStatusDiskFull";
    case kStatusRuntimeError: return "kStatusRuntimeError";
    case kStatusNotReady: return "kStatusNotReady";
    default: return status >= kStatusBase ? "computed" : "unknown";
  }
}

/// A zero-terminated UTF-16 text of the library (a name in a string
/// vector) as a view; null gives an empty view. The view lives as long as
/// the text's owner.
inline std::u16string_view TextView(const unsigned short* text) noexcept {
  if (text == nullptr) return std::u16string_view();
  // The library writes these units as char16_t; unsigned short is only
  // their type at the boundary.
  const char16_t* units = reinterpret_cast<const char16_t*>(text);
  size_t length = 0;
  while (units[length] != 0) ++length;
  return std::u16string_view(units, length);
}

/// A text field of a record (SDriverSpecKey::name and the others) as a
/// view: up to its terminator, never past its 256 units.
inline std::u16string_view FieldView(const uint16_t (&field)[256]) noexcept {
  const char16_t* units = reinterpret_cast<const char16_t*>(field);
  size_t length = 0;
  while (length < 256 && units[length] != 0) ++length;
  return std::u16string_view(units, length);
}

}  // namespace NSQuillon2

#endif
