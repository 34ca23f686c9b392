// A thread that calls back at a fixed period, at time-critical priority and
// in the real-time class; the null driver and the silent handle run on it.
#ifndef QUILLON_DRIVER_PERIODIC_THREAD_H
#define QUILLON_DRIVER_PERIODIC_THREAD_H

#include <cstdint>

#include "driver/threading.h"

namespace NSFerrand {

class CPeriodicCallbackThread final : public IThreadFunction {
 public:
  typedef void (*Callback)(CPeriodicCallbackThread* thread);

  // The first call comes at once. Must be destroyed on the constructing
  // thread: the release of the mutex it holds is the stop signal, which
  // wakes the thread from its wait and is seen between any two calls, so
  // destruction takes one callback at most.
  CPeriodicCallbackThread(uint32_t periodMs, Callback callback, void* userData);
  ~CPeriodicCallbackThread() override;
  CPeriodicCallbackThread(const CPeriodicCallbackThread&) = delete;
  CPeriodicCallbackThread& operator=(const CPeriodicCallbackThread&) = delete;

  void* UserData() const { return userData_; }
  uint32_t PeriodMs() const { return periodMs_; }
  const CTimedThread& Thread() const { return *thread_; }

  void Run() override;

 private:
  // Calls until stopped; false when the callback raised.
  void Loop();

  CLockableMutex stopMutex_;
  uint32_t lastTick_;
  const uint32_t periodMs_;
  void* const userData_;
  const Callback callback_;
  CTimedThread* thread_ = nullptr;
};

}  // namespace NSFerrand

#endif
