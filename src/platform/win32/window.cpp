#include "platform/window.h"
#include "platform/fault_points.h"

#include <windows.h>

namespace NSPlatform {

bool IsUsableWindow(void* handle) {
  if (FailNow(kCallIsUsableWindow)) return false;
  return IsWindow(static_cast<HWND>(handle)) != FALSE;
}

}  // namespace NSPlatform
