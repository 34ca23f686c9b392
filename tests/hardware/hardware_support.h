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
#include "zep_fake/zep_fake_control.h"

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

  static std::vector<std::string> Log() {
    std::vector<std::string> lines;
    for (uint32_t i = 0; i < ZEPFake_LogCount(); ++i) {
      std::string line(ZEPFake_LogLine(i, nullptr, 0), '\0');
      std::vector<char> text(line.size() + 1);
      ZEPFake_LogLine(i, text.data(), static_cast<uint32_t>(text.size()));
      lines.emplace_back(text.data());
    }
    return lines;
  }
  static bool Logged(const std::string& line) {
    const std::vector<std::string> lines = Log();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }
  // Position of the first line that starts with `prefix`; -1 when none.
  static int Position(const std::string& prefix) {
    const std::vector<std::string> lines = Log();
    for (size_t i = 0; i < lines.size(); ++i) {
      if (lines[i].compare(0, prefix.size(), prefix) == 0) return static_cast<int>(i);
    }
    return -1;
  }
  static size_t Count(const std::string& prefix) {
    size_t count = 0;
    for (const std::string& line : Log()) {
      if (line.compare(0, prefix.size(), prefix) == 0) ++count;
    }
    return count;
  }

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
