// The second family of wrappers, for the failure framework and the hardware
// glue: every system failure raises, and threads may be given an affinity.
#ifndef QUILLON_DRIVER_SYSTEM_SYNC_H
#define QUILLON_DRIVER_SYSTEM_SYNC_H

#include <cstdint>

#include "driver/threading.h"

namespace NSFerrand {

class CSystemMutex {
 public:
  CSystemMutex();  // never initially owned
  ~CSystemMutex();
  CSystemMutex(const CSystemMutex&) = delete;
  CSystemMutex& operator=(const CSystemMutex&) = delete;

  // Waits 5000 ms, then without limit; raises on anything but success.
  void Lock();
  bool TryLock();
  bool TimedLock(uint32_t milliseconds);
  void Unlock();

 private:
  NSPlatform::SMutex* mutex_;
};

class CSystemEvent {
 public:
  CSystemEvent();  // auto-reset, unset
  ~CSystemEvent();
  CSystemEvent(const CSystemEvent&) = delete;
  CSystemEvent& operator=(const CSystemEvent&) = delete;

  void Set();
  bool TryWait();
  bool TimedWait(uint32_t milliseconds);
  void Wait();

 private:
  NSPlatform::SEvent* event_;
};

struct CThreadAffinity {
  int32_t idealProcessor = -1;
  uint32_t mask = 0xFFFFFFFFu;
  bool maskGiven = false;
  bool operator==(const CThreadAffinity& o) const {
    return idealProcessor == o.idealProcessor && mask == o.mask && maskGiven == o.maskGiven;
  }
  bool operator!=(const CThreadAffinity& o) const { return !(*this == o); }

  // The mask to give the system: the requested one where it lies within the
  // process's mask, else their intersection, else (that being empty, or no
  // mask given) the process's mask.
  uint64_t EffectiveMask(uint64_t processMask) const;
};

// As CTimedThread, but a thread that cannot be made raises XCreate, and the
// thread may be given an affinity.
class CSystemThread : public CTimedThread {
 public:
  CSystemThread(IThreadFunction* function, uint32_t priorityCode, const char* name)
      : CTimedThread(function, priorityCode, name, true) {}

  // True when the system took both the ideal processor and the mask.
  bool ApplyAffinity(const CThreadAffinity& affinity);
};

}  // namespace NSFerrand

#endif
