#include "platform/threads.h"
#include "platform/fault_points.h"
#include "platform/wait_notice.h"

#include <pthread.h>
#include <sched.h>
#include <time.h>

#include <atomic>

namespace NSPlatform {

// Owned by the starter and by the thread itself: the last to let go frees
// it, so that an abandoned thread never writes into freed memory.
struct SThread {
  pthread_t handle;
  ThreadEntry entry;
  void* context;
  std::atomic<bool> ended{false};
  std::atomic<int> owners{2};
  bool joined = false;
};

namespace {

void LetGo(SThread* thread) {
  if (thread->owners.fetch_sub(1, std::memory_order_acq_rel) == 1) delete thread;
}

void* ThreadMain(void* parameter) {
  SThread* thread = static_cast<SThread*>(parameter);
  thread->entry(thread->context);
  thread->ended.store(true, std::memory_order_release);
  LetGo(thread);
  return nullptr;
}

}  // namespace

SThread* StartThread(ThreadEntry entry, void* context, int32_t priority) {
  if (FailNow(kCallStartThread)) return nullptr;
  SThread* thread = new SThread;
  thread->entry = entry;
  thread->context = context;
  if (pthread_create(&thread->handle, nullptr, &ThreadMain, thread) != 0) {
    delete thread;
    return nullptr;
  }
  if (priority == kThreadPriorityTimeCritical) {
    // Where the process may not use a real-time policy the thread keeps
    // its normal one.
    sched_param param = {};
    param.sched_priority = sched_get_priority_min(SCHED_FIFO) + 1;
    pthread_setschedparam(thread->handle, SCHED_FIFO, &param);
  }
  return thread;
}

bool ThreadHasEnded(SThread* thread) { return thread->ended.load(std::memory_order_acquire); }

void JoinThread(SThread* thread) {
  if (thread->joined) return;
  NoticeWait(kNoticeBlockingWait);
  pthread_join(thread->handle, nullptr);
  thread->joined = true;
}

bool JoinThreadFor(SThread* thread, uint32_t milliseconds) {
  if (FailNow(kCallJoinThreadFor)) return false;
  if (milliseconds != 0) NoticeWait(kNoticeBlockingWait);
  for (uint32_t waited = 0; !ThreadHasEnded(thread); ++waited) {
    if (waited >= milliseconds) return false;
    const timespec pause = {0, 1000000L};
    nanosleep(&pause, nullptr);
  }
  JoinThread(thread);
  return true;
}

void TerminateThread(SThread* thread) {
  // No safe forced end exists here: the thread is left to finish alone.
  if (!thread->joined) {
    pthread_detach(thread->handle);
    thread->joined = true;
  }
}

void ReleaseThread(SThread* thread) {
  if (thread == nullptr) return;
  if (!thread->joined) {
    if (ThreadHasEnded(thread)) {
      pthread_join(thread->handle, nullptr);
    } else {
      pthread_detach(thread->handle);
    }
    thread->joined = true;
  }
  LetGo(thread);
}

uint64_t ProcessAffinityMask() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof set, &set) != 0) return 1;
  uint64_t mask = 0;
  for (int cpu = 0; cpu < 64; ++cpu) {
    if (CPU_ISSET(cpu, &set)) mask |= uint64_t{1} << cpu;
  }
  return mask;
}

bool SetThreadAffinity(SThread* thread, int32_t, uint64_t mask) {
  if (FailNow(kCallSetThreadAffinity)) return false;
  // There is no ideal processor here: the mask alone.
  cpu_set_t set;
  CPU_ZERO(&set);
  for (int cpu = 0; cpu < 64; ++cpu) {
    if ((mask >> cpu) & 1) CPU_SET(cpu, &set);
  }
  return pthread_setaffinity_np(thread->handle, sizeof set, &set) == 0;
}

ERealtimeResult EnterRealtimeClass(SRealtimeClass& state) {
  if (FailNow(kCallEnterRealtimeClass)) return kRealtimeFailed;
  sched_param former = {};
  int policy = 0;
  if (pthread_getschedparam(pthread_self(), &policy, &former) != 0) return kRealtimeUnavailable;
  sched_param param = {};
  param.sched_priority = sched_get_priority_min(SCHED_FIFO) + 1;
  if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) != 0) {
    return kRealtimeUnavailable;  // not permitted: normal priority, as before
  }
  state.formerPolicy = policy;
  state.formerPriority = former.sched_priority;
  state.changed = true;
  return kRealtimeEntered;
}

void LeaveRealtimeClass(SRealtimeClass& state) {
  if (!state.changed) return;
  sched_param param = {};
  param.sched_priority = state.formerPriority;
  pthread_setschedparam(pthread_self(), state.formerPolicy, &param);
  state.changed = false;
}

}  // namespace NSPlatform
