#include "platform/threads.h"
#include "platform/fault_points.h"
#include "platform/wait_notice.h"

#include <windows.h>

namespace NSPlatform {

struct SThread {
  HANDLE handle;
  ThreadEntry entry;
  void* context;
};

namespace {

DWORD WINAPI ThreadMain(LPVOID parameter) {
  SThread* thread = static_cast<SThread*>(parameter);
  thread->entry(thread->context);
  return 0;
}

}  // namespace

SThread* StartThread(ThreadEntry entry, void* context, int32_t priority) {
  if (FailNow(kCallStartThread)) return nullptr;
  SThread* thread = new SThread{nullptr, entry, context};
  thread->handle = CreateThread(nullptr, 0, &ThreadMain, thread, CREATE_SUSPENDED, nullptr);
  if (thread->handle == nullptr) {
    delete thread;
    return nullptr;
  }
  SetThreadPriority(thread->handle, priority);
  ResumeThread(thread->handle);
  return thread;
}

bool ThreadHasEnded(SThread* thread) {
  return WaitForSingleObject(thread->handle, 0) == WAIT_OBJECT_0;
}

void JoinThread(SThread* thread) {
  NoticeWait(kNoticeBlockingWait);
  WaitForSingleObject(thread->handle, INFINITE);
}

bool JoinThreadFor(SThread* thread, uint32_t milliseconds) {
  if (FailNow(kCallJoinThreadFor)) return false;
  if (milliseconds != 0) NoticeWait(kNoticeBlockingWait);
  return WaitForSingleObject(thread->handle, milliseconds) == WAIT_OBJECT_0;
}

void TerminateThread(SThread* thread) { ::TerminateThread(thread->handle, 0); }

void ReleaseThread(SThread* thread) {
  if (thread == nullptr) return;
  CloseHandle(thread->handle);
  delete thread;
}

bool SetThreadAffinity(SThread* thread, int32_t idealProcessor, uint64_t mask) {
  if (FailNow(kCallSetThreadAffinity)) return false;
  bool ok = true;
  if (idealProcessor != -1) {
    ok = SetThreadIdealProcessor(thread->handle, static_cast<DWORD>(idealProcessor)) !=
         static_cast<DWORD>(-1);
  }
  return SetThreadAffinityMask(thread->handle, static_cast<DWORD_PTR>(mask)) != 0 && ok;
}

uint64_t ProcessAffinityMask() {
  DWORD_PTR process = 0;
  DWORD_PTR system = 0;
  if (!GetProcessAffinityMask(GetCurrentProcess(), &process, &system)) return 1;
  return process;
}

ERealtimeResult EnterRealtimeClass(SRealtimeClass& state) {
  if (FailNow(kCallEnterRealtimeClass)) return kRealtimeFailed;
  typedef HANDLE(WINAPI * SetCharacteristics)(LPCWSTR, LPDWORD);
  OSVERSIONINFOEXW version = {};
  version.dwOSVersionInfoSize = sizeof version;  // the extended record, 284 bytes
  if (!GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&version))) return kRealtimeFailed;
  if (version.dwPlatformId != VER_PLATFORM_WIN32_NT || version.dwMajorVersion < 6) {
    return kRealtimeUnavailable;
  }
  HMODULE avrt = LoadLibraryW(L"avrt.dll");
  if (avrt == nullptr) return kRealtimeUnavailable;
  state.module = avrt;
  auto set = reinterpret_cast<SetCharacteristics>(
      reinterpret_cast<void*>(GetProcAddress(avrt, "AvSetMmThreadCharacteristicsW")));
  if (set == nullptr) return kRealtimeFailed;
  DWORD taskIndex = 0;
  state.task = set(L"Pro Audio", &taskIndex);
  return state.task != nullptr ? kRealtimeEntered : kRealtimeFailed;
}

void LeaveRealtimeClass(SRealtimeClass& state) {
  typedef BOOL(WINAPI * RevertCharacteristics)(HANDLE);
  HMODULE avrt = static_cast<HMODULE>(state.module);
  if (avrt == nullptr) return;
  if (state.task != nullptr) {
    auto revert = reinterpret_cast<RevertCharacteristics>(
        reinterpret_cast<void*>(GetProcAddress(avrt, "AvRevertMmThreadCharacteristics")));
    if (revert != nullptr) revert(state.task);
    state.task = nullptr;
  }
  FreeLibrary(avrt);
  state.module = nullptr;
}

}  // namespace NSPlatform
