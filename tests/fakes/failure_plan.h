// The answers a fake gives instead of doing its work: the next `times` calls
// of a kind (-1: every one) answer a chosen result. A driver's thread asks
// on every call, so the question takes no lock while nothing is planned.
#ifndef QUILLON_TESTS_FAKES_FAILURE_PLAN_H
#define QUILLON_TESTS_FAKES_FAILURE_PLAN_H

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <utility>

namespace Fakes {

class CFailurePlan {
 public:
  void Fail(uint32_t call, int32_t result, int32_t times) {
    std::lock_guard<std::mutex> hold(lock_);
    plans_[call] = {result, times};
    any_ = true;
  }
  // True, with the result, when this call is to fail.
  bool Take(uint32_t call, int32_t& result) {
    if (!any_) return false;
    std::lock_guard<std::mutex> hold(lock_);
    auto it = plans_.find(call);
    if (it == plans_.end() || it->second.second == 0) return false;
    result = it->second.first;
    if (it->second.second > 0) --it->second.second;
    return true;
  }

 private:
  std::mutex lock_;
  std::atomic<bool> any_{false};
  std::map<uint32_t, std::pair<int32_t, int32_t>> plans_;
};

}  // namespace Fakes

#endif
