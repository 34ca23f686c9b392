// Waiting on a condition with a generous deadline, for tests of threads.
#ifndef QUILLON_TESTS_DRIVER_WAIT_H
#define QUILLON_TESTS_DRIVER_WAIT_H

#include <chrono>
#include <thread>

template <class Condition>
bool WaitFor(Condition condition, int milliseconds = 10000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

#endif
