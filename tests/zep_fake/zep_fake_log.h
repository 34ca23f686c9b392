// The test hardware library's log, read as lines, and a host's receiver of
// its button events.
#ifndef QUILLON_TESTS_ZEP_FAKE_LOG_H
#define QUILLON_TESTS_ZEP_FAKE_LOG_H

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "quillon/quillon.h"
#include "zep_fake/zep_fake_control.h"

inline std::vector<std::string> ZEPFakeLog() {
  std::vector<std::string> lines;
  for (uint32_t i = 0; i < ZEPFake_LogCount(); ++i) {
    std::vector<char> text(ZEPFake_LogLine(i, nullptr, 0) + 1);
    ZEPFake_LogLine(i, text.data(), static_cast<uint32_t>(text.size()));
    lines.emplace_back(text.data());
  }
  return lines;
}

inline bool ZEPFakeLogged(const std::string& line) {
  const std::vector<std::string> lines = ZEPFakeLog();
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// Position of the first line that starts with `prefix`; -1 when none.
inline int ZEPFakeLogPosition(const std::string& prefix) {
  const std::vector<std::string> lines = ZEPFakeLog();
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].compare(0, prefix.size(), prefix) == 0) return static_cast<int>(i);
  }
  return -1;
}

inline size_t ZEPFakeLogCount(const std::string& prefix) {
  size_t count = 0;
  for (const std::string& line : ZEPFakeLog()) {
    if (line.compare(0, prefix.size(), prefix) == 0) ++count;
  }
  return count;
}

class RecordingEventSink final : public NSQuillon2::IHardwareEventSink {
 public:
  uint32_t OnHardwareEvent(uint32_t event) override {
    std::lock_guard<std::mutex> hold(mutex_);
    events_.push_back(event);
    entered = true;
    if (holdUntil != nullptr) {
      // Keeps the caller's lock until the test says, or 10 s at most.
      const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      while (!holdUntil->load() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
    return 0;
  }
  std::vector<uint32_t> Events() {
    std::lock_guard<std::mutex> hold(mutex_);
    return events_;
  }
  std::atomic<bool> entered{false};
  std::atomic<bool>* holdUntil = nullptr;

 private:
  std::mutex mutex_;
  std::vector<uint32_t> events_;
};

#endif
