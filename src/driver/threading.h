// The driver layer's only lock and thread types.
#ifndef QUILLON_DRIVER_THREADING_H
#define QUILLON_DRIVER_THREADING_H

#include <atomic>
#include <cstdint>
#include <string>

#include "platform/clock.h"
#include "platform/mutex.h"
#include "platform/threads.h"

namespace NSFerrand {

// A mutex that only its owner releases. Audio threads only ever try it.
enum EStopWaitStep : uint32_t;

class CLockableMutex {
 public:
  explicit CLockableMutex(bool initiallyOwned);
  ~CLockableMutex();
  CLockableMutex(const CLockableMutex&) = delete;
  CLockableMutex& operator=(const CLockableMutex&) = delete;

  // True when taken, also from an owner that died holding it. Never waits.
  bool TryLock();
  void Lock();
  // Tries, then tries every millisecond until the time is over; 0 ms is one try.
  bool TimedLock(uint32_t milliseconds);
  // One wait of the system, at most that long, telling a time-out from a
  // wait that failed.
  NSPlatform::EWaitResult WaitResult(uint32_t milliseconds);
  // As WaitResult, for a streaming thread waiting on its stop signal until
  // its next period: the one wait an audio thread makes, told apart as such.
  NSPlatform::EWaitResult WaitForPeriod(uint32_t milliseconds);
  // The opener's stop signal to the thread that waits on this mutex: a
  // flag the thread reads, and the release that wakes it. A release the
  // system refuses still stops the thread, at its next period.
  void SignalStop();
  // A streaming thread's wait for its next period (0 ms: a look), which the
  // stop signal ends; a mutex taken for the stop is given back.
  EStopWaitStep WaitForStop(uint32_t milliseconds);
  // Whether the stop signal was given, read without asking the system: a
  // thread woken by something else looks here, and takes the mutex through
  // WaitForStop once this says so.
  bool StopSignalled() const { return stopSignalled_.load(std::memory_order_acquire); }
  // Raises when the caller is not the owner.
  void Unlock();

 private:
  NSPlatform::SMutex* mutex_;
  std::atomic<bool> stopSignalled_{false};
};

class CScopedLock {
 public:
  explicit CScopedLock(CLockableMutex* mutex) : mutex_(mutex) { mutex_->Lock(); }
  ~CScopedLock() {
    try {
      mutex_->Unlock();
    } catch (...) {
    }
  }
  CScopedLock(const CScopedLock&) = delete;
  CScopedLock& operator=(const CScopedLock&) = delete;

 private:
  CLockableMutex* mutex_;
};

// The try form: releases at the end only what it got.
class CTryScopedLock {
 public:
  explicit CTryScopedLock(CLockableMutex* mutex) : mutex_(mutex), locked_(mutex->TryLock()) {}
  ~CTryScopedLock() {
    if (!locked_) return;
    try {
      mutex_->Unlock();
    } catch (...) {
    }
  }
  bool Locked() const { return locked_; }
  CTryScopedLock(const CTryScopedLock&) = delete;
  CTryScopedLock& operator=(const CTryScopedLock&) = delete;

 private:
  CLockableMutex* mutex_;
  bool locked_;
};

class CTimedThread;

// Tries until the attempt succeeds or the time is over, a millisecond apart;
// 0 ms is one try. For locks that are only tried, and for waits that the
// system may refuse at once.
template <class Attempt>
bool TryFor(uint32_t milliseconds, Attempt attempt) {
  const uint32_t started = NSPlatform::MillisecondTicks();
  for (;;) {
    if (attempt()) return true;
    if (NSPlatform::MillisecondTicks() - started >= milliseconds) return false;
    NSPlatform::SleepMilliseconds(1);
  }
}

// How long a streaming thread has to end after its stop signal.
constexpr uint32_t kStreamingStopWaitMs = 4000;
// Gives a streaming thread its stop signal, the release of the mutex that
// its opener holds; waits for it to end, terminates it when it does not in
// time, and frees both. Either may be null; both are null afterwards.
// `wake`: the event the thread waits on for its period, set with the signal
// so that the thread sees it at once.
void StopStreamingThread(CTimedThread*& thread, CLockableMutex*& stopMutex,
                         NSPlatform::SEvent* wake = nullptr);

// What a streaming thread does after its short wait on the stop mutex. A
// wait that failed would make the loop spin: the thread ends, and its
// driver reports itself failed, since the stream is no longer kept up.
enum EStopWaitStep : uint32_t { kPumpAgain, kStopAsked, kWaitBroken };
EStopWaitStep StopWaitStep(NSPlatform::EWaitResult result);

class IThreadFunction {
 public:
  virtual void Run() = 0;
  virtual ~IThreadFunction() = default;
};

enum : uint32_t {
  kPriorityLowest = 79,
  kPriorityBelowNormal = 80,
  kPriorityNormal = 81,
  kPriorityAboveNormal = 82,
  kPriorityTimeCritical = 83
};

// The system priority of a code; 0 for a code outside the table.
int32_t SystemPriorityOf(uint32_t priorityCode);

// A started thread running `function->Run()`, which may raise: that ends
// the thread quietly.
class CTimedThread {
 public:
  CTimedThread(IThreadFunction* function, uint32_t priorityCode, const char* name);
  // Sets the stop event and waits for a thread still running.
  ~CTimedThread();
  CTimedThread(const CTimedThread&) = delete;
  CTimedThread& operator=(const CTimedThread&) = delete;

  void Join();
  // Waits at most that long; true when the thread has ended.
  bool JoinFor(uint32_t milliseconds);
  void Terminate();
  bool Running() const { return running_.load(std::memory_order_acquire); }
  bool Ended() const;
  uint32_t PriorityCode() const { return priorityCode_; }
  const std::string& Name() const { return name_; }
  // Manual-reset, set by the destructor of a thread still running.
  NSPlatform::SEvent* StopEvent() const { return stopEvent_; }

 protected:
  // `createFailure`: a thread that cannot be made raises XCreate rather than
  // a plain failure.
  CTimedThread(IThreadFunction* function, uint32_t priorityCode, const char* name,
               bool createFailure);
  NSPlatform::SThread* SystemThread() const { return thread_; }

 private:
  static void Entry(void* self);

  IThreadFunction* function_;
  std::atomic<bool> running_{false};
  uint32_t priorityCode_;
  NSPlatform::SThread* thread_ = nullptr;
  NSPlatform::SEvent* stopEvent_ = nullptr;
  std::string name_;
};

}  // namespace NSFerrand

#endif
