// The thread of one loaded ASIO driver. Every call into the driver's object,
// from its creation to its last release, runs there, in a single-threaded
// COM apartment of the thread's own, within a deadline. A driver that misses
// one, or crashes, is quarantined: never called again, its callbacks cut off
// from every host, and its class refused for the rest of the process. The
// host's thread never touches COM for ASIO.
#ifndef QUILLON_ASIO_ASIO_CALL_THREAD_H
#define QUILLON_ASIO_ASIO_CALL_THREAD_H

#include <atomic>
#include <cstdint>

#include "asio/asio_interface.h"
#include "asio/asio_platform.h"
#include "driver/guarded_thread.h"

namespace NSASIO {

using NSFerrand::ECallEnd;
using NSFerrand::kCallAnswered;
using NSFerrand::kCallBusy;
using NSFerrand::kCallCrashed;
using NSFerrand::kCallRefused;
using NSFerrand::kCallTimedOut;
using NSFerrand::SetCallDeadlineScale;

// How long each kind of call may take. Creating and starting a driver may
// load firmware or wake a device; a question is answered from what it knows.
constexpr uint32_t kCreateCallMs = 5000;  // creation, init, the identity query
constexpr uint32_t kQueryCallMs = 2000;   // the get and can questions, names, future
constexpr uint32_t kStreamCallMs = 5000;  // set rate or clock, buffers, start, stop, release
// The panel is a modal window that stays as long as its user wants.
constexpr uint32_t kPanelCallMs = NSFerrand::kNoDeadline;

// Loads at once, and quarantined loads in a process, that the callback
// tables can tell apart.
constexpr uint32_t kCallbackSlots = 256;

class CASIOCallThread final : public NSFerrand::CGuardedThread {
 public:
  // Starts the thread for a driver of that class. Raises when no thread or
  // no callback table can be had.
  CASIOCallThread(IASIOPlatform& platform, const SGuid& clsid);

  // The table the driver is given: it reaches `target`'s functions while
  // this load is neither finished nor quarantined.
  ASIOCallbacks* CallbacksFor(const ASIOCallbacks* target);
  const SGuid& Clsid() const { return clsid_; }
  // The driver object made on this thread, kept so that an abandoned one
  // stays reachable.
  void SetDriver(IASIO* driver) { driver_ = driver; }

 private:
  ~CASIOCallThread() override = default;
  void Begin() override;
  void End() override;
  void OnQuarantined() override;
  void OnFinished() override;

  IASIOPlatform& platform_;
  SGuid clsid_;
  uint32_t slot_ = kCallbackSlots;
  IASIO* driver_ = nullptr;
  HResult com_ = kHResultFail;
};

// Whether a driver of that class was quarantined in this process.
bool IsQuarantined(const SGuid& clsid);
// Quarantined drivers so far.
uint32_t QuarantinedCount();

}  // namespace NSASIO

#endif
