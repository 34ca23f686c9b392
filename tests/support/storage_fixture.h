// Installs a fresh thread-safe body storage around each test.
#ifndef QUILLON_TESTS_STORAGE_FIXTURE_H
#define QUILLON_TESTS_STORAGE_FIXTURE_H

#include <gtest/gtest.h>

#include "failure/thread_safe_storage.h"

class StorageTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  NSMarlet::CThreadSafeExceptionBodyStorage* storage = nullptr;
};

// The body ids alive on the calling thread.
std::vector<NSMarlet::BodyId> LiveBodies();

#endif
