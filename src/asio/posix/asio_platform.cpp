#include "asio/asio_platform.h"

namespace NSASIO {

namespace {

// No ASIO key and no COM here: the family lists nothing, and creates
// nothing.
class CNoASIOPlatform final : public IASIOPlatform {
 public:
  int32_t RegOpenKey(RegistryKey, const char16_t*, RegistryKey* key) override {
    *key = nullptr;
    return kRegistryFileNotFound;
  }
  int32_t RegOpenKeyEx(RegistryKey, const char16_t*, uint32_t, RegistryKey* key) override {
    *key = nullptr;
    return kRegistryFileNotFound;
  }
  int32_t RegEnumKeyEx(RegistryKey, uint32_t, char16_t*, uint32_t*) override {
    return kRegistryNoMoreItems;
  }
  int32_t RegQueryValueEx(RegistryKey, const char16_t*, uint32_t*, uint8_t*, uint32_t*) override {
    return kRegistryFileNotFound;
  }
  int32_t RegCloseKey(RegistryKey) override { return kRegistryOk; }
  HResult CLSIDFromString(const char16_t*, SGuid*) override { return kHResultFail; }
  HResult CoInitialize() override { return kHResultOk; }
  void CoUninitialize() override {}
  HResult CoCreateInstance(const SGuid&, uint32_t, const SGuid&, void** object) override {
    *object = nullptr;
    return kHResultClassNotRegistered;
  }
  FileHandle CreateFileForReading(const char16_t*) override { return kInvalidFile; }
  void CloseHandle(FileHandle) override {}
  uint32_t SysStringLen(const char16_t*) override { return 0; }
  void SysFreeString(char16_t*) override {}
};

}  // namespace

IASIOPlatform& SystemASIOPlatform() {
  static CNoASIOPlatform none;
  return none;
}

}  // namespace NSASIO
