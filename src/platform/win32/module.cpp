#include "platform/module.h"

#include <windows.h>

namespace NSPlatform {

void* OpenModule(const char* path) {
  return reinterpret_cast<void*>(LoadLibraryA(path));
}

void* ModuleSymbol(void* module, const char* name) {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module), name));
}

void CloseModule(void* module) {
  if (module != nullptr) FreeLibrary(static_cast<HMODULE>(module));
}

}  // namespace NSPlatform
