// The entry point of Quillon.dll.
#include <windows.h>

#include "public/process_entry.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
  switch (reason) {
    case DLL_PROCESS_ATTACH:
      // No per-thread work here, so spare every thread start the call.
      DisableThreadLibraryCalls(instance);
      return NSQuillon2::OnProcessAttach() ? TRUE : FALSE;
    case DLL_PROCESS_DETACH:
      return NSQuillon2::OnProcessDetach() ? TRUE : FALSE;
    default:
      return TRUE;
  }
}
