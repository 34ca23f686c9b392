#include "platform/window.h"
#include "platform/fault_points.h"

#include <cerrno>
#include <cstdint>
#include <sys/mman.h>
#include <unistd.h>

namespace NSPlatform {

bool IsUsableWindow(void* handle) {
  if (FailNow(kCallIsUsableWindow)) return false;
  if (handle == nullptr) return false;
  const uintptr_t pageSize = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  void* page = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(handle) & ~(pageSize - 1));
  unsigned char resident = 0;
  // mincore fails with ENOMEM exactly when the page is not mapped.
  return mincore(page, 1, &resident) == 0 || errno != ENOMEM;
}

}  // namespace NSPlatform
