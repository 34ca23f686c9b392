// Links against the installed library and its headers alone.
#include <cstdio>

#include <quillon/quillon.h>

int main() {
  uint32_t status = 0;
  NSQuillon2::IQuillon* library = Quillon_Create("IQuillon2", nullptr, &status);
  if (library == nullptr) {
    std::printf("consumer: Quillon_Create gave %u\n", status);
    return 1;
  }
  const uint32_t check = library->CheckLibrary();
  NSQuillon2::QuillonDestroy(library);
  std::printf("consumer: CheckLibrary %u\n", check);
  return check == NSQuillon2::kStatusOk ? 0 : 1;
}
