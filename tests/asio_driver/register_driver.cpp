// Registers the test ASIO driver the way drivers register themselves, by
// calling its DllRegisterServer; with --unregister, DllUnregisterServer.
#include <windows.h>

#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
  const bool unregister = argc == 3 && std::strcmp(argv[1], "--unregister") == 0;
  if (argc != 2 && !unregister) {
    std::fprintf(stderr, "usage: quillon_test_driver_register [--unregister] DLL\n");
    return 2;
  }
  HMODULE dll = LoadLibraryA(argv[argc - 1]);
  if (dll == nullptr) {
    std::fprintf(stderr, "cannot load the driver (error %lu)\n", GetLastError());
    return 1;
  }
  typedef HRESULT(WINAPI * Entry)();
  auto entry = reinterpret_cast<Entry>(
      reinterpret_cast<void*>(GetProcAddress(dll, unregister ? "DllUnregisterServer" : "DllRegisterServer")));
  const HRESULT result = entry != nullptr ? entry() : E_FAIL;
  std::printf("%s: 0x%08lX\n", unregister ? "unregistered" : "registered",
              static_cast<unsigned long>(result));
  FreeLibrary(dll);
  return result == S_OK ? 0 : 1;
}
