#include "platform/module.h"
#include "platform/fault_points.h"

#include <dlfcn.h>

namespace NSPlatform {

void* OpenModule(const char* path) {
  if (FailNow(kCallOpenModule)) return nullptr;
  return dlopen(path, RTLD_NOW | RTLD_LOCAL);
}

void* ModuleSymbol(void* module, const char* name) {
  if (FailNow(kCallModuleSymbol)) return nullptr;
  return dlsym(module, name);
}

void CloseModule(void* module) {
  if (module != nullptr) dlclose(module);
}

}  // namespace NSPlatform
