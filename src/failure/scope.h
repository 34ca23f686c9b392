// Failure scopes: the stretch of code in which failures may be made.
#ifndef QUILLON_FAILURE_SCOPE_H
#define QUILLON_FAILURE_SCOPE_H

#include "failure/body.h"

namespace NSMarlet {

class CFailureScope {
 public:
  CFailureScope() { GetExceptionBodyStorage()->EnterScope(); }
  ~CFailureScope() {
    try {
      GetExceptionBodyStorage()->LeaveScope();
    } catch (...) {
    }
  }
  CFailureScope(const CFailureScope&) = delete;
  CFailureScope& operator=(const CFailureScope&) = delete;
};

// A scope only where a storage exists: for destructors that may run after the
// library object, and its storage, are gone.
class COptionalFailureScope {
 public:
  COptionalFailureScope() : storage_(GetExceptionBodyStorageUnchecked()) {
    if (storage_ != nullptr) storage_->EnterScope();
  }
  ~COptionalFailureScope() {
    if (storage_ == nullptr || GetExceptionBodyStorageUnchecked() != storage_) return;
    try {
      storage_->LeaveScope();
    } catch (...) {
    }
  }
  bool IsOpen() const { return storage_ != nullptr; }
  COptionalFailureScope(const COptionalFailureScope&) = delete;
  COptionalFailureScope& operator=(const COptionalFailureScope&) = delete;

 private:
  IExceptionBodyStorage* storage_;
};

// A scope that names what its code works on.
class CNamedFailureScope {
 public:
  explicit CNamedFailureScope(const char* word);
  ~CNamedFailureScope();
  const char* Word() const { return word_; }
  // The depth found on entry.
  int32_t OuterDepth() const { return outerDepth_; }
  CNamedFailureScope(const CNamedFailureScope&) = delete;
  CNamedFailureScope& operator=(const CNamedFailureScope&) = delete;

 private:
  char word_[kTargetWordLength + 1];
  int32_t outerDepth_;
};

}  // namespace NSMarlet

#endif
