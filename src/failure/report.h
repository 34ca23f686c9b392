// Failures across number boundaries, and failure details as text.
#ifndef QUILLON_FAILURE_REPORT_H
#define QUILLON_FAILURE_REPORT_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "failure/builder.h"

namespace NSMarlet {

// One row of a boundary's table; the walk stops at failure code 44.
struct SStatusMapRow {
  uint32_t failureCode;
  char word[kTargetWordLength + 1];  // "" matches any word
  uint32_t status;
};

// Computed statuses lie in [base, limit).
struct SStatusRange {
  uint32_t base;
  uint32_t limit;
};

struct SDecodedFailure {
  uint32_t failureCode;
  std::string word;
};

// Translates a failure into a status with the caller's table and range.
uint32_t StatusFromException(const std::exception* exception, const SStatusRange& range,
                             const SStatusMapRow* table, const CSourcePosition& position);

// The status of a failure code and word: the first matching row, else the
// packed failure above the range's base.
uint32_t StatusFromFailure(uint32_t failureCode, const std::string& word,
                           const SStatusRange& range, const SStatusMapRow* table);

// From inside a catch handler: the number of the failure being handled, by
// the caller's table and range; `outOfMemory` when the number itself cannot
// be made, `foreign` for what is not a std::exception. Never raises.
uint32_t NumberFromCurrentFailure(const SStatusRange& range, const SStatusMapRow* table,
                                  uint32_t outOfMemory, uint32_t foreign);

// Raises the failure a status stands for; a computed status with no row comes
// back as XTunneledError carrying it.
[[noreturn]] void ThrowFromStatus(uint32_t status, const SStatusRange& range,
                                  const SStatusMapRow* table, const CSourcePosition& position);

// As ThrowFromStatus, but a computed status is unpacked into the failure that
// made it: class, code and word survive the trip through a number.
[[noreturn]] void ThrowFromStatusDecoded(uint32_t status, const SStatusRange& range,
                                         const SStatusMapRow* table,
                                         const CSourcePosition& position);

SDecodedFailure UnpackFailure(uint32_t number, const STargetWordList& programList);
SDecodedFailure DecodeStatus(uint32_t status, const SStatusRange& range,
                             const SStatusMapRow* table, const STargetWordList& programList);

void FormatFailureValue(const CFailureValue& value, std::u16string& text);
void GetParameterText(const CExceptionBodyRef& body, const char* key, std::u16string& text);

}  // namespace NSMarlet

#endif
