// The thread of one loaded ASIO driver. Every call into the driver's object,
// from its creation to its last release, runs there: a thread of the
// library's own, in a single-threaded COM apartment of its own, pumping its
// messages. The control thread hands each call over and waits for the answer
// at most a deadline. A driver that misses one, or crashes inside a call, is
// quarantined: never called again, its thread and object abandoned, its
// callbacks cut off from every host, and its class refused for the rest of
// the process. The host's thread never touches COM for ASIO.
#ifndef QUILLON_ASIO_ASIO_CALL_THREAD_H
#define QUILLON_ASIO_ASIO_CALL_THREAD_H

#include <atomic>
#include <cstdint>
#include <new>
#include <utility>

#include "asio/asio_interface.h"
#include "asio/asio_platform.h"
#include "platform/fault_guard.h"
#include "platform/mutex.h"
#include "platform/threads.h"

namespace NSASIO {

// How long each kind of call may take. Creating and starting a driver may
// load firmware or wake a device; a question is answered from what it knows.
constexpr uint32_t kCreateCallMs = 5000;  // creation, init, the identity query
constexpr uint32_t kQueryCallMs = 2000;   // the get and can questions, names, future
constexpr uint32_t kStreamCallMs = 5000;  // set rate or clock, buffers, start, stop, release
// The panel is a modal window that stays as long as its user wants.
constexpr uint32_t kPanelCallMs = NSPlatform::kWaitInfinite;

// Loads at once, and quarantined loads in a process, that the callback
// tables can tell apart.
constexpr uint32_t kCallbackSlots = 64;

// How a hand-over ended.
enum ECallEnd : uint32_t {
  kCallAnswered,
  kCallRefused,   // the driver was quarantined before; nothing was asked
  kCallBusy,      // its panel is open; nothing was asked, nothing is lost
  kCallTimedOut,  // missed its deadline: quarantined now
  kCallCrashed    // a fault inside the driver ended it: quarantined now
};

class CASIOCallThread {
 public:
  // Starts the thread for a driver of that class. Raises when no thread or
  // no callback table can be had.
  CASIOCallThread(IASIOPlatform& platform, const SGuid& clsid);
  CASIOCallThread(const CASIOCallThread&) = delete;
  CASIOCallThread& operator=(const CASIOCallThread&) = delete;

  // Runs `work` (copied; it must capture values only, never the caller's
  // stack) on the thread, and on an answer in time copies its result out.
  template <class Work, class Result>
  ECallEnd Call(uint32_t deadlineMs, const Work& work, Result& result);

  bool Quarantined() const { return quarantined_.load(); }
  // Crashed on one of its own threads, or inside a call.
  bool Crashed() const { return crashed_.load(); }
  // From a fault on one of the driver's threads: quarantined, and told at
  // the next periodic check.
  void QuarantineCrashed();
  // The driver's modules: the one of `object` and those loaded since
  // `before`. Runs on the driver's thread, inside the creation.
  void ClaimModules(const void* object, const NSPlatform::ModuleSnapshot& before);
  // True while the panel is open on the thread: the calls of the periodic
  // check wait for it to close rather than queue behind it.
  bool Busy() const { return busy_.load(); }
  // The table the driver is given: it reaches `target`'s functions while
  // this load is neither finished nor quarantined.
  ASIOCallbacks* CallbacksFor(const ASIOCallbacks* target);
  const SGuid& Clsid() const { return clsid_; }
  // The driver object made on this thread, kept so that an abandoned one
  // stays reachable.
  void SetDriver(IASIO* driver) { driver_ = driver; }
  IASIO* Driver() const { return driver_; }

  // Ends the thread once the driver is released and frees it; a quarantined
  // thread, or one that does not end in time, is abandoned with its driver.
  static void Finish(CASIOCallThread* thread);

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

 private:
  ~CASIOCallThread();
  static void Entry(void* self);
  void Serve();
  ECallEnd Submit(CCall* call, uint32_t deadlineMs);
  void Quarantine();

  IASIOPlatform& platform_;
  SGuid clsid_;
  uint32_t slot_ = kCallbackSlots;
  IASIO* driver_ = nullptr;
  NSPlatform::SEvent* request_ = nullptr;
  NSPlatform::SEvent* answer_ = nullptr;
  NSPlatform::SThread* thread_ = nullptr;
  std::atomic<CCall*> pending_{nullptr};
  std::atomic<bool> quit_{false};
  std::atomic<bool> quarantined_{false};
  std::atomic<bool> busy_{false};
  std::atomic<bool> crashed_{false};
};

template <class Work, class Result>
ECallEnd CASIOCallThread::Call(uint32_t deadlineMs, const Work& work, Result& result) {
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

// Whether a driver of that class was quarantined in this process.
bool IsQuarantined(const SGuid& clsid);
// Quarantined drivers so far, and abandoned threads still serving none.
uint32_t QuarantinedCount();

}  // namespace NSASIO

#endif
