#include "public/body_storage.h"

#include <cstdint>

#include "failure/thread_safe_storage.h"

namespace NSQuillon2 {

namespace {
// Library objects are made and destroyed on the host's control thread.
int32_t gStorageUsers = 0;
}  // namespace

void AcquireLibraryBodyStorage() {
  if (gStorageUsers == 0 || NSMarlet::GetExceptionBodyStorageUnchecked() == nullptr) {
    NSMarlet::SetExceptionBodyStorage(new NSMarlet::CThreadSafeExceptionBodyStorage());
    gStorageUsers = 0;
  }
  ++gStorageUsers;
}

void ReleaseLibraryBodyStorage() {
  if (gStorageUsers > 0 && --gStorageUsers > 0) return;
  NSMarlet::IExceptionBodyStorage* storage = NSMarlet::GetExceptionBodyStorageUnchecked();
  NSMarlet::SetExceptionBodyStorage(nullptr);
  delete storage;
}

}  // namespace NSQuillon2
