// The demo host: loads the library, creates it, checks it and destroys it.
#include <cstdio>
#include <cstring>

#include "platform/module.h"
#include "quillon/quillon.h"

int main(int argc, char** argv) {
  const char* path = QUILLON_DEFAULT_LIBRARY;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--library") == 0 && i + 1 < argc) {
      path = argv[++i];
    } else {
      std::fprintf(stderr, "usage: quillon_demo [--library PATH]\n");
      return 2;
    }
  }
  void* module = NSPlatform::OpenModule(path);
  if (module == nullptr) {
    std::fprintf(stderr, "quillon_demo: cannot load %s\n", path);
    return 1;
  }
  auto create = reinterpret_cast<QuillonCreateFunction>(
      NSPlatform::ModuleSymbol(module, "Quillon_Create"));
  if (create == nullptr) {
    std::fprintf(stderr, "quillon_demo: %s has no Quillon_Create\n", path);
    NSPlatform::CloseModule(module);
    return 1;
  }
  uint32_t status = 0;
  NSQuillon2::IQuillon* library = create("IQuillon2", nullptr, &status);
  if (library == nullptr) {
    std::fprintf(stderr, "quillon_demo: Quillon_Create failed with status %u\n", status);
    NSPlatform::CloseModule(module);
    return 1;
  }
  std::printf("loaded %s\n", path);
  std::printf("created IQuillon2 (status %u)\n", status);
  const uint32_t check = library->CheckLibrary();
  std::printf("CheckLibrary: %u%s\n", check, check == NSQuillon2::kStatusOk ? " (ok)" : "");
  NSQuillon2::QuillonDestroy(library);
  std::printf("library destroyed\n");
  NSPlatform::CloseModule(module);
  return check == NSQuillon2::kStatusOk ? 0 : 1;
}
