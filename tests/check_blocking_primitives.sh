#!/usr/bin/env bash
# The wait observer sees every wait that goes through the platform layer.
# The proof that audio threads never wait rests on there being no other:
# outside src/platform/ the library may use no lock, sleep or wait of the
# language or the system, except the engine's event of the WASAPI family,
# which its streaming thread waits on for its period (and marks so).
#   check_blocking_primitives.sh SOURCE_DIR
set -u
src=$1/src
pattern='std::(mutex|recursive_mutex|timed_mutex|shared_mutex|condition_variable|lock_guard|unique_lock|scoped_lock|counting_semaphore|binary_semaphore|latch|barrier)|this_thread|\.wait\(|pthread_|WaitForSingleObject|WaitForMultipleObjects|SignalObjectAndWait|MsgWaitFor|CoWaitForMultiple|EnterCriticalSection|AcquireSRWLock|SleepConditionVariable|\bSleep(Ex)?\(|usleep|nanosleep|sem_wait|futex'
found=$(grep -rnE "$pattern" "$src" --include='*.cpp' --include='*.h' --include='*.inc' |
  grep -v "^$src/platform/" |
  grep -v "^$src/wasapi/win32/wasapi_api.cpp:.*WaitForSingleObject(static_cast<HANDLE>(event)" || true)
if [ -n "$found" ]; then
  echo "blocking primitives outside the platform layer:"
  echo "$found"
  exit 1
fi
# The one exception must stay marked as the period wait where it is called.
grep -q "CPeriodWait period;" "$src/wasapi/wasapi_driver.cpp" || {
  echo "the WASAPI engine wait is no longer marked as the period wait"
  exit 1
}
echo "blocking primitives: only in the platform layer"
