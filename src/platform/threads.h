// Threads of the operating system.
#ifndef QUILLON_PLATFORM_THREADS_H
#define QUILLON_PLATFORM_THREADS_H

#include <cstdint>

namespace NSPlatform {

struct SThread;
typedef void (*ThreadEntry)(void* context);

// Win32 priority values: -2, -1, 0, 1, 15 (time critical).
constexpr int32_t kThreadPriorityTimeCritical = 15;

// Starts `entry(context)` at that priority (best effort where the system
// does not allow it). Null when no thread could be made.
SThread* StartThread(ThreadEntry entry, void* context, int32_t priority);
// True once the thread has returned (a wait of 0 ms).
bool ThreadHasEnded(SThread* thread);
void JoinThread(SThread* thread);
// Waits at most that long; true when the thread has ended (and is joined).
bool JoinThreadFor(SThread* thread, uint32_t milliseconds);
// Forced end. Where the system cannot end a thread safely, the thread is
// abandoned to finish by itself and nobody waits for it.
void TerminateThread(SThread* thread);
// Gives back the system's resources of an ended or terminated thread.
void ReleaseThread(SThread* thread);

// Ideal processor -1 for none. True when the system took both.
bool SetThreadAffinity(SThread* thread, int32_t idealProcessor, uint64_t mask);
uint64_t ProcessAffinityMask();

// The real-time class of the calling thread: "Pro Audio" where the system
// has it, the closest available elsewhere.
enum ERealtimeResult : uint32_t {
  kRealtimeEntered = 0,
  kRealtimeUnavailable = 1,  // the system has no such service: go on without
  kRealtimeFailed = 2        // the service refused
};
struct SRealtimeClass {
  void* module = nullptr;
  void* task = nullptr;
  int32_t formerPolicy = 0;
  int32_t formerPriority = 0;
  bool changed = false;
};
ERealtimeResult EnterRealtimeClass(SRealtimeClass& state);
void LeaveRealtimeClass(SRealtimeClass& state);

}  // namespace NSPlatform

#endif
