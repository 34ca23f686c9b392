// Loading shared libraries at run time.
#ifndef QUILLON_PLATFORM_MODULE_H
#define QUILLON_PLATFORM_MODULE_H

namespace NSPlatform {

// Null when the library cannot be loaded.
void* OpenModule(const char* path);
void* ModuleSymbol(void* module, const char* name);
void CloseModule(void* module);

}  // namespace NSPlatform

#endif
