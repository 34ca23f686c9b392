#include "support/storage_fixture.h"

void StorageTest::SetUp() {
  ASSERT_EQ(NSMarlet::GetExceptionBodyStorageUnchecked(), nullptr);
  storage = new NSMarlet::CThreadSafeExceptionBodyStorage();
  NSMarlet::SetExceptionBodyStorage(storage);
}

void StorageTest::TearDown() {
  NSMarlet::SetExceptionBodyStorage(nullptr);
  delete storage;
}

std::vector<NSMarlet::BodyId> LiveBodies() {
  std::vector<NSMarlet::BodyId> ids;
  NSMarlet::GetExceptionBodyStorage()->GetBodyIds(ids);
  return ids;
}
