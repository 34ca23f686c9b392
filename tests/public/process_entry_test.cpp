#include <gtest/gtest.h>

#include <new>

#include "public/process_entry.h"

using namespace NSQuillon2;

namespace {
void HostHandler() { throw std::bad_alloc(); }
}  // namespace

TEST(ProcessEntry, AttachInstallsTheRaisingHandlerAndDetachRestores) {
  std::set_new_handler(&HostHandler);
  ASSERT_TRUE(OnProcessAttach());
  std::new_handler installed = std::get_new_handler();
  ASSERT_NE(installed, nullptr);
  EXPECT_NE(installed, &HostHandler);
  try {
    installed();
    ADD_FAILURE() << "the handler returned";
  } catch (const std::bad_alloc& e) {
    EXPECT_STREQ(e.what(), "bad allocation");
  }
  ASSERT_TRUE(OnProcessDetach());
  EXPECT_EQ(std::get_new_handler(), &HostHandler);
  // A second detach has nothing kept and changes nothing.
  ASSERT_TRUE(OnProcessDetach());
  EXPECT_EQ(std::get_new_handler(), &HostHandler);
  std::set_new_handler(nullptr);
}

TEST(ProcessEntry, AnEmptyFormerHandlerIsRestoredToo) {
  std::set_new_handler(nullptr);
  ASSERT_TRUE(OnProcessAttach());
  EXPECT_NE(std::get_new_handler(), nullptr);
  ASSERT_TRUE(OnProcessDetach());
  EXPECT_EQ(std::get_new_handler(), nullptr);
}
