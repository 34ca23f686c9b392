// A thread of the library's own for calls into code it does not trust (a
// driver, the hardware library). The control thread hands each call over and
// waits for the answer at most a deadline. Code that misses one, or crashes
// inside a call, is quarantined: never called again, its thread abandoned
// (never ended by force) with whatever it holds, and its modules claimed, so
// that a fault on one of its own threads is told here too.
#ifndef QUILLON_DRIVER_GUARDED_THREAD_H
#define QUILLON_DRIVER_GUARDED_THREAD_H

#include <atomic>
#include <cstdint>
#include <utility>

#include "platform/fault_guard.h"
#include "platform/mutex.h"
#include "platform/threads.h"

namespace NSFerrand {

// A deadline that is none: the call may take as long as it takes.
constexpr uint32_t kNoDeadline = NSPlatform::kWaitInfinite;
// Threads of this kind alive or abandoned at once in a process.
constexpr uint32_t kGuardedThreads = 256;

// How a hand-over ended.
enum ECallEnd : uint32_t {
  kCallAnswered,
  kCallRefused,   // quarantined before; nothing was asked
  kCallBusy,      // a call without deadline runs; nothing was asked, nothing is lost
  kCallTimedOut,  // missed its deadline: quarantined now
  kCallCrashed    // a fault inside the call ended it: quarantined now
};

// For tests that meet many hung calls: every deadline is this many
// hundredths of its own. 100 unless a test says otherwise.
void SetCallDeadlineScale(uint32_t percent);

class CGuardedThread {
 public:
  CGuardedThread(const CGuardedThread&) = delete;
  CGuardedThread& operator=(const CGuardedThread&) = delete;

  // Runs `work` (copied; it must capture values only, never the caller's
  // stack) on the thread, and on an answer in time moves its result out.
  template <class Work, class Result>
  ECallEnd Call(uint32_t deadlineMs, const Work& work, Result& result);

  bool Quarantined() const { return quarantined_.load(); }
  // A call without deadline runs: the periodic checks ask nothing meanwhile.
  bool Busy() const { return busy_.load(); }
  // From a fault on one of the untrusted code's threads.
  void QuarantineCrashed();
  // The code is stuck on one of its own threads, found by its caller.
  void QuarantineStuck() { Quarantine(); }
  // The untrusted modules: the one holding `address` and those loaded since
  // `before`.
  void ClaimModules(const void* address, const NSPlatform::ModuleSnapshot& before);

  // Ends the thread once its last call has run and frees it; a quarantined
  // thread, or one that does not end in time, is abandoned as it is.
  static void Finish(CGuardedThread* thread);

  // One hand-over: the work and its result, shared by the two threads until
  // both are done with it.
  class CCall {
   public:
    virtual ~CCall() = default;
    virtual void Invoke() = 0;
    void Drop() {
      if (references_.fetch_sub(1) == 1) delete this;
    }
    enum : uint32_t { kWaiting, kRunning, kCancelled, kDone, kFaulted };
    std::atomic<uint32_t> state{kWaiting};
    bool threw = false;  // the thread's own

   private:
    std::atomic<int32_t> references_{2};
  };

 protected:
  CGuardedThread();
  virtual ~CGuardedThread();
  // Starts the thread: the last step of a derived constructor. Raises XCreate.
  void Start();
  // On the thread, first and (unless quarantined) last.
  virtual void Begin() {}
  virtual void End() {}
  // Once, from whichever thread quarantines.
  virtual void OnQuarantined() {}
  // Once, from Finish, when the thread ended cleanly.
  virtual void OnFinished() {}
  uint32_t Owner() const { return owner_; }

 private:
  static void Entry(void* self);
  void Serve();
  ECallEnd Submit(CCall* call, uint32_t deadlineMs);
  void Quarantine();

  uint32_t owner_ = kGuardedThreads;
  NSPlatform::SEvent* request_ = nullptr;
  NSPlatform::SEvent* answer_ = nullptr;
  NSPlatform::SThread* thread_ = nullptr;
  std::atomic<CCall*> pending_{nullptr};
  std::atomic<bool> quit_{false};
  std::atomic<bool> quarantined_{false};
  std::atomic<bool> busy_{false};
};

template <class Work, class Result>
ECallEnd CGuardedThread::Call(uint32_t deadlineMs, const Work& work, Result& result) {
  class CCallOf final : public CCall {
   public:
    explicit CCallOf(const Work& work) : work_(work) {}
    void Invoke() override { result_ = work_(); }
    Work work_;
    Result result_{};
  };
  if (Quarantined()) return kCallRefused;
  if (Busy()) return kCallBusy;
  auto* call = new CCallOf(work);
  const ECallEnd end = Submit(call, deadlineMs);
  if (end == kCallAnswered) result = std::move(call->result_);
  call->Drop();
  return end;
}

}  // namespace NSFerrand

#endif
