#include "platform/module.h"
#include "platform/fault_points.h"

#include <windows.h>

namespace NSPlatform {

void* OpenModule(const char* path) {
  if (FailNow(kCallOpenModule)) return nullptr;
  return reinterpret_cast<void*>(LoadLibraryA(path));
}

void* ModuleSymbol(void* module, const char* name) {
  if (FailNow(kCallModuleSymbol)) return nullptr;
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module), name));
}

void CloseModule(void* module) {
  if (module != nullptr) FreeLibrary(static_cast<HMODULE>(module));
}

}  // namespace NSPlatform
