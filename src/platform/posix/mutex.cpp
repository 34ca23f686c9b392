#include "platform/mutex.h"
#include "platform/fault_points.h"
#include "platform/wait_notice.h"

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace NSPlatform {

// The owner is kept beside the system mutex, so that a release by another
// thread is refused without asking the system, and a mutex can be given
// back in full before it is destroyed.
struct SMutex {
  pthread_mutex_t mutex;
  std::atomic<uint64_t> owner{0};
  uint32_t depth = 0;  // touched by the owner alone
};

struct SEvent {
  pthread_mutex_t mutex;
  pthread_cond_t condition;
  bool manualReset;
  bool set;
};

namespace {

constexpr uint32_t kErrorNotOwner = 288;

std::atomic<uint64_t> gNextThreadToken{1};

uint64_t ThisThread() {
  thread_local uint64_t token = gNextThreadToken.fetch_add(1);
  return token;
}

void Acquired(SMutex* m) {
  if (m->owner.load(std::memory_order_relaxed) == ThisThread()) {
    ++m->depth;
  } else {
    m->owner.store(ThisThread(), std::memory_order_relaxed);
    m->depth = 1;
  }
}

timespec Deadline(clockid_t clock, uint32_t milliseconds) {
  timespec t;
  clock_gettime(clock, &t);
  t.tv_sec += milliseconds / 1000;
  t.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
  if (t.tv_nsec >= 1000000000L) {
    t.tv_sec += 1;
    t.tv_nsec -= 1000000000L;
  }
  return t;
}

EWaitResult FromLockResult(SMutex* m, int result) {
  switch (result) {
    case 0: Acquired(m); return kWaitObject;
    case EOWNERDEAD:
      // Its owner died holding it: it is ours now, and usable again.
      pthread_mutex_consistent(&m->mutex);
      m->owner.store(ThisThread(), std::memory_order_relaxed);
      m->depth = 1;
      return kWaitAbandoned;
    case EBUSY:
    case ETIMEDOUT: return kWaitTimeout;
    default: return kWaitFailed;
  }
}

}  // namespace

SMutex* NewMutex(bool initiallyOwned) {
  if (FailNow(kCallNewMutex)) return nullptr;
  SMutex* m = new SMutex;
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  const int made = pthread_mutex_init(&m->mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  if (made != 0) {
    delete m;
    return nullptr;
  }
  if (initiallyOwned) FromLockResult(m, pthread_mutex_lock(&m->mutex));
  return m;
}

void DestroyMutex(SMutex* m) {
  if (m == nullptr) return;
  const uint64_t owner = m->owner.load(std::memory_order_relaxed);
  if (owner == ThisThread()) {
    // Held by the caller: give back every count first.
    while (m->depth > 0) ReleaseMutex(m);
  } else if (owner != 0) {
    // Held by another thread: it cannot be destroyed, so it is left.
    return;
  }
  pthread_mutex_destroy(&m->mutex);
  delete m;
}

EWaitResult WaitMutex(SMutex* m, uint32_t milliseconds) {
  if (FailNow(kCallWaitMutex)) return kWaitFailed;
  if (milliseconds == 0) return FromLockResult(m, pthread_mutex_trylock(&m->mutex));
  NoticeWait(kNoticeBlockingWait);
  if (milliseconds == kWaitInfinite) return FromLockResult(m, pthread_mutex_lock(&m->mutex));
  const timespec deadline = Deadline(CLOCK_REALTIME, milliseconds);
  return FromLockResult(m, pthread_mutex_timedlock(&m->mutex, &deadline));
}

uint32_t ReleaseMutex(SMutex* m) {
  if (FailNow(kCallReleaseMutex)) return 6;  // an invalid handle
  if (m->owner.load(std::memory_order_relaxed) != ThisThread()) return kErrorNotOwner;
  if (--m->depth == 0) m->owner.store(0, std::memory_order_relaxed);
  const int result = pthread_mutex_unlock(&m->mutex);
  return result == 0 ? 0 : static_cast<uint32_t>(result);
}

SEvent* NewEvent(bool manualReset, bool initiallySet) {
  if (FailNow(kCallNewEvent)) return nullptr;
  SEvent* e = new SEvent;
  pthread_mutex_init(&e->mutex, nullptr);
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  pthread_cond_init(&e->condition, &attributes);
  pthread_condattr_destroy(&attributes);
  e->manualReset = manualReset;
  e->set = initiallySet;
  return e;
}

void DestroyEvent(SEvent* e) {
  if (e == nullptr) return;
  pthread_cond_destroy(&e->condition);
  pthread_mutex_destroy(&e->mutex);
  delete e;
}

bool SetEvent(SEvent* e) {
  if (FailNow(kCallSetEvent)) return false;
  pthread_mutex_lock(&e->mutex);
  e->set = true;
  pthread_cond_broadcast(&e->condition);
  pthread_mutex_unlock(&e->mutex);
  return true;
}

EWaitResult WaitEvent(SEvent* e, uint32_t milliseconds) {
  if (FailNow(kCallWaitEvent)) return kWaitFailed;
  if (milliseconds != 0) NoticeWait(kNoticeBlockingWait);
  const timespec deadline = Deadline(CLOCK_MONOTONIC, milliseconds);
  pthread_mutex_lock(&e->mutex);
  int result = 0;
  while (!e->set && result == 0) {
    if (milliseconds == 0) {
      result = ETIMEDOUT;
    } else if (milliseconds == kWaitInfinite) {
      result = pthread_cond_wait(&e->condition, &e->mutex);
    } else {
      result = pthread_cond_timedwait(&e->condition, &e->mutex, &deadline);
    }
  }
  const bool signalled = e->set;
  if (signalled && !e->manualReset) e->set = false;
  pthread_mutex_unlock(&e->mutex);
  if (signalled) return kWaitObject;
  return result == ETIMEDOUT ? kWaitTimeout : kWaitFailed;
}

void* SystemEventHandle(SEvent* event) { return event; }

EWaitResult WaitEventPumping(SEvent* e, uint32_t milliseconds) {
  if (FailNow(kCallWaitEventPumping)) return kWaitFailed;
  return WaitEvent(e, milliseconds);
}

}  // namespace NSPlatform
