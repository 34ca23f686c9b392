#include "platform/module.h"

#include <dlfcn.h>

namespace NSPlatform {

void* OpenModule(const char* path) { return dlopen(path, RTLD_NOW | RTLD_LOCAL); }

void* ModuleSymbol(void* module, const char* name) { return dlsym(module, name); }

void CloseModule(void* module) {
  if (module != nullptr) dlclose(module);
}

}  // namespace NSPlatform
