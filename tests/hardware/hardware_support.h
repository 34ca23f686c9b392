// The hardware glue's tests: the test hardware library on disk, found
// through folders of each test's own, its log read back.
#ifndef QUILLON_TESTS_HARDWARE_SUPPORT_H
#define QUILLON_TESTS_HARDWARE_SUPPORT_H

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "failure/builder.h"
#include "fakes/zep_platform_fake.h"
#include "support/storage_fixture.h"
#include "zep_fake/zep_fake_log.h"

class HardwareTest : public StorageTest {
 protected:
  void SetUp() override {
    StorageTest::SetUp();
    ZEPFake_Reset();
    platform.moduleFolder = module.Path();
    platform.commonFolder = common.Path().u16string();
  }

  // The library beside the module, as "ZEPLib".
  void PlaceBeside(const std::string& variant, const std::string& stem = "ZEPLib") {
    NSTestFakes::PlaceZEPLibrary(variant, module.Path(), stem);
  }
  void PlaceShared(const std::string& variant, const std::string& stem) {
    NSTestFakes::PlaceZEPLibrary(variant, NSTestFakes::SharedZEPFolder(common.Path()), stem);
  }

  static std::vector<std::string> Log() { return ZEPFakeLog(); }
  static bool Logged(const std::string& line) { return ZEPFakeLogged(line); }
  static int Position(const std::string& prefix) { return ZEPFakeLogPosition(prefix); }
  static size_t Count(const std::string& prefix) { return ZEPFakeLogCount(prefix); }

  NSTestFakes::CScratchFolder module;
  NSTestFakes::CScratchFolder common;
  NSTestFakes::CRedirectedZEPPlatform platform;
};

// What a failure says of itself: its code, target word and text.
struct SFailureSeen {
  uint32_t code = 0;
  std::string word;
  std::string text;
  bool raised = false;
};

template <class Work>
SFailureSeen FailureOf(Work work) {
  SFailureSeen seen;
  try {
    work();
  } catch (const std::exception& e) {
    const NSMarlet::CFailureEntry top =
        NSMarlet::TopEntry(NSMarlet::BodyFromException(&e, NSMarlet::CSourcePosition()));
    seen.code = top.failureCode;
    seen.word = NSMarlet::TargetWordOf(top);
    seen.text = e.what();
    seen.raised = true;
  }
  return seen;
}

#endif
