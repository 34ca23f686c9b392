// A window handle the platform accepts, for tests of the families that need
// one: the desktop's under Win32, any mapped address elsewhere.
#ifndef QUILLON_TESTS_SUPPORT_USABLE_WINDOW_H
#define QUILLON_TESTS_SUPPORT_USABLE_WINDOW_H

#if defined(_WIN32)
#include <windows.h>
#endif

inline void* UsableWindow() {
#if defined(_WIN32)
  return GetDesktopWindow();
#else
  static int someObject = 0;
  return &someObject;
#endif
}

#endif
