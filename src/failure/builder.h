// Making failures with details, reading them back, and folding them into numbers.
#ifndef QUILLON_FAILURE_BUILDER_H
#define QUILLON_FAILURE_BUILDER_H

#include <string>

#include "failure/exceptions.h"

namespace NSMarlet {

class CFailureBuilder;

// Appends the builder's entry to its body and raises the class of that entry.
[[noreturn]] void RaiseBody(CFailureBuilder& builder);

// A failure under construction: a body (none yet, or the exception's) and
// the entry that the raise appends to it.
class CFailureBuilder {
 public:
  explicit CFailureBuilder(const CSourcePosition& position);

  // Takes the exception's body and its last entry's code and text; a failure
  // without a body is classified instead.
  CFailureBuilder& SetFromException(const std::exception& exception);
  CFailureBuilder& SetTargetWord(const char* word);
  CFailureBuilder& AddErrorCode(uint64_t code);
  CFailureBuilder& AddErrorString(const char* text);
  CFailureBuilder& AddErrorString(const std::u16string& text);
  CFailureBuilder& AddVersionNumber(uint64_t number);
  CFailureBuilder& AddVersionString(const char* text);
  CFailureBuilder& AddSecondaryObjectType(const char* word);
  CFailureBuilder& AddParameter(const CFailureParameter& parameter);
  CFailureBuilder& SetEntry(const CFailureEntry& entry);

  const CExceptionBodyRef& Body() const { return body_; }
  const CFailureEntry& Entry() const { return entry_; }

 private:
  friend void RaiseBody(CFailureBuilder& builder);
  CExceptionBodyRef body_;
  CFailureEntry entry_;
};

// The exception's own body, or a new one made from its classification.
CExceptionBodyRef BodyFromException(const std::exception* exception,
                                    const CSourcePosition& position);

// A copy of the body's last entry (a default entry when it has none).
CFailureEntry TopEntry(const CExceptionBodyRef& body);

// The last entry's target word, or "" when it has none.
std::string TargetWordOf(const CFailureEntry& entry);

bool TargetObjectTypeIs(const CExceptionBodyRef& body, const char* word);

constexpr uint32_t kPackedMark = 186;

uint32_t PackFailure(uint32_t failureCode, const char* word, const STargetWordList& programList);
inline bool IsPackedFailure(uint32_t number) {
  return (number & 0x80000000u) == 0 && (number & 0xFFu) == kPackedMark;
}

// The raising-site form: a failure of that exception, with a target word
// when one is given.
template <class X>
[[noreturn]] void RaiseFailure(const X& exception, const char* word = nullptr) {
  CFailureBuilder builder{CSourcePosition()};
  builder.SetFromException(exception);
  if (word != nullptr && word[0] != '\0') builder.SetTargetWord(word);
  RaiseBody(builder);
}

}  // namespace NSMarlet

#endif
