// Whether a window handle from the host can be used.
#ifndef QUILLON_PLATFORM_WINDOW_H
#define QUILLON_PLATFORM_WINDOW_H

namespace NSPlatform {

// Win32: IsWindow. Elsewhere there is no window system to ask, so a handle
// counts as usable when it is an address mapped in this process.
bool IsUsableWindow(void* handle);

}  // namespace NSPlatform

#endif
