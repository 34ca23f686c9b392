// The failure framework's storage for the targets that raise its failures,
// installed once, and a check that one run leaves no failure body behind.
#ifndef QUILLON_TESTS_FUZZ_FUZZ_STORAGE_H
#define QUILLON_TESTS_FUZZ_FUZZ_STORAGE_H

#include <exception>
#include <vector>

#include "failure/builder.h"
#include "failure/thread_safe_storage.h"
#include "fuzz/fuzz_input.h"

namespace Fuzz {

class CStorageScope {
 public:
  CStorageScope() : before_(Live()) {}
  ~CStorageScope() { Require(Live() == before_, "every failure body is freed"); }
  CStorageScope(const CStorageScope&) = delete;
  CStorageScope& operator=(const CStorageScope&) = delete;

 private:
  static size_t Live() {
    static NSMarlet::CThreadSafeExceptionBodyStorage* storage = [] {
      auto* made = new NSMarlet::CThreadSafeExceptionBodyStorage();
      NSMarlet::SetExceptionBodyStorage(made);
      return made;
    }();
    std::vector<NSMarlet::BodyId> ids;
    storage->GetBodyIds(ids);
    return ids.size();
  }
  size_t before_;
};

// The target word of a failure being handled.
inline bool FailureWordIs(const std::exception& failure, const char* word) {
  return NSMarlet::TargetObjectTypeIs(
      NSMarlet::BodyFromException(&failure, NSMarlet::CSourcePosition()), word);
}

}  // namespace Fuzz

#endif
