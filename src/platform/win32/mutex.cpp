#include "platform/mutex.h"
#include "platform/fault_points.h"
#include "platform/wait_notice.h"

#include <windows.h>

namespace NSPlatform {

struct SMutex {
  HANDLE handle;
};
struct SEvent {
  HANDLE handle;
};

namespace {
EWaitResult Wait(HANDLE handle, uint32_t milliseconds) {
  if (milliseconds != 0) NoticeWait(kNoticeBlockingWait);
  switch (WaitForSingleObject(handle, milliseconds)) {
    case WAIT_OBJECT_0: return kWaitObject;
    case WAIT_ABANDONED: return kWaitAbandoned;
    case WAIT_TIMEOUT: return kWaitTimeout;
    default: return kWaitFailed;
  }
}
}  // namespace

SMutex* NewMutex(bool initiallyOwned) {
  if (FailNow(kCallNewMutex)) return nullptr;
  HANDLE handle = CreateMutexW(nullptr, initiallyOwned ? TRUE : FALSE, nullptr);
  return handle != nullptr ? new SMutex{handle} : nullptr;
}

void DestroyMutex(SMutex* mutex) {
  if (mutex == nullptr) return;
  CloseHandle(mutex->handle);
  delete mutex;
}

EWaitResult WaitMutex(SMutex* mutex, uint32_t milliseconds) {
  if (FailNow(kCallWaitMutex)) return kWaitFailed;
  return Wait(mutex->handle, milliseconds);
}

uint32_t ReleaseMutex(SMutex* mutex) {
  if (FailNow(kCallReleaseMutex)) return 6;  // an invalid handle
  if (::ReleaseMutex(mutex->handle)) return 0;
  return GetLastError();
}

SEvent* NewEvent(bool manualReset, bool initiallySet) {
  if (FailNow(kCallNewEvent)) return nullptr;
  HANDLE handle = CreateEventW(nullptr, manualReset ? TRUE : FALSE, initiallySet ? TRUE : FALSE,
                               nullptr);
  return handle != nullptr ? new SEvent{handle} : nullptr;
}

void DestroyEvent(SEvent* event) {
  if (event == nullptr) return;
  CloseHandle(event->handle);
  delete event;
}

bool SetEvent(SEvent* event) {
  if (FailNow(kCallSetEvent)) return false;
  return ::SetEvent(event->handle) != FALSE;
}
EWaitResult WaitEvent(SEvent* event, uint32_t milliseconds) {
  if (FailNow(kCallWaitEvent)) return kWaitFailed;
  return Wait(event->handle, milliseconds);
}

void* SystemEventHandle(SEvent* event) { return event != nullptr ? event->handle : nullptr; }

EWaitResult WaitEventPumping(SEvent* event, uint32_t milliseconds) {
  if (FailNow(kCallWaitEventPumping)) return kWaitFailed;
  if (milliseconds != 0) NoticeWait(kNoticeBlockingWait);
  const ULONGLONG started = GetTickCount64();
  for (;;) {
    DWORD left = INFINITE;
    if (milliseconds != kWaitInfinite) {
      const ULONGLONG spent = GetTickCount64() - started;
      left = spent >= milliseconds ? 0 : static_cast<DWORD>(milliseconds - spent);
    }
    const DWORD woken =
        MsgWaitForMultipleObjectsEx(1, &event->handle, left, QS_ALLINPUT, MWMO_INPUTAVAILABLE);
    if (woken == WAIT_OBJECT_0) return kWaitObject;
    if (woken == WAIT_TIMEOUT) return kWaitTimeout;
    if (woken != WAIT_OBJECT_0 + 1) return kWaitFailed;
    MSG message;
    while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
      TranslateMessage(&message);
      DispatchMessageW(&message);
    }
  }
}

}  // namespace NSPlatform
