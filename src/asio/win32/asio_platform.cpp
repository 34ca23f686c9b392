#include "asio/asio_platform.h"

#include <windows.h>
#include <objbase.h>
#include <oleauto.h>

// The interface names the operations without the system's A and W forms;
// this file calls the W forms by name.
#undef RegOpenKey
#undef RegOpenKeyEx
#undef RegEnumKeyEx
#undef RegQueryValueEx

namespace NSASIO {

namespace {

static_assert(sizeof(GUID) == sizeof(SGuid), "GUID layout");
static_assert(sizeof(wchar_t) == sizeof(char16_t), "UTF-16 wide text");

HKEY Key(RegistryKey key) { return static_cast<HKEY>(key); }
const wchar_t* Wide(const char16_t* text) { return reinterpret_cast<const wchar_t*>(text); }
const GUID& Guid(const SGuid& guid) { return reinterpret_cast<const GUID&>(guid); }

class CSystemASIOPlatform final : public IASIOPlatform {
 public:
  int32_t RegOpenKey(RegistryKey parent, const char16_t* path, RegistryKey* key) override {
    HKEY opened = nullptr;
    const LONG result = RegOpenKeyW(Key(parent), Wide(path), &opened);
    *key = opened;
    return result;
  }
  int32_t RegOpenKeyEx(RegistryKey parent, const char16_t* path, uint32_t access,
                       RegistryKey* key) override {
    HKEY opened = nullptr;
    const LONG result = RegOpenKeyExW(Key(parent), Wide(path), 0, access, &opened);
    *key = opened;
    return result;
  }
  int32_t RegEnumKeyEx(RegistryKey key, uint32_t index, char16_t* name, uint32_t* units) override {
    DWORD length = *units;
    const LONG result = RegEnumKeyExW(Key(key), index, reinterpret_cast<wchar_t*>(name), &length,
                                      nullptr, nullptr, nullptr, nullptr);
    *units = length;
    return result;
  }
  int32_t RegQueryValueEx(RegistryKey key, const char16_t* value, uint32_t* type, uint8_t* data,
                          uint32_t* bytes) override {
    DWORD kind = 0;
    DWORD length = *bytes;
    const LONG result = RegQueryValueExW(Key(key), Wide(value), nullptr, &kind, data, &length);
    *type = kind;
    *bytes = length;
    return result;
  }
  int32_t RegCloseKey(RegistryKey key) override { return ::RegCloseKey(Key(key)); }
  HResult CLSIDFromString(const char16_t* text, SGuid* clsid) override {
    return ::CLSIDFromString(Wide(text), reinterpret_cast<CLSID*>(clsid));
  }
  HResult CoInitialize() override { return ::CoInitialize(nullptr); }
  void CoUninitialize() override { ::CoUninitialize(); }
  HResult CoCreateInstance(const SGuid& clsid, uint32_t context, const SGuid& iid,
                           void** object) override {
    return ::CoCreateInstance(Guid(clsid), nullptr, context, Guid(iid), object);
  }
  FileHandle CreateFileForReading(const char16_t* path) override {
    return CreateFileW(Wide(path), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
  }
  void CloseHandle(FileHandle file) override { ::CloseHandle(file); }
  uint32_t SysStringLen(const char16_t* text) override {
    return ::SysStringLen(reinterpret_cast<BSTR>(const_cast<char16_t*>(text)));
  }
  void SysFreeString(char16_t* text) override { ::SysFreeString(reinterpret_cast<BSTR>(text)); }
};

}  // namespace

IASIOPlatform& SystemASIOPlatform() {
  static CSystemASIOPlatform system;
  return system;
}

}  // namespace NSASIO
