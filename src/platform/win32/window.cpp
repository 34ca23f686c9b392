#include "platform/window.h"

#include <windows.h>

namespace NSPlatform {

bool IsUsableWindow(void* handle) { return IsWindow(static_cast<HWND>(handle)) != FALSE; }

}  // namespace NSPlatform
