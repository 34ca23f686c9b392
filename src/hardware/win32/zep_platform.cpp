#include "hardware/zep_platform.h"

#include <windows.h>
#include <shlobj.h>
#include <winver.h>

#include <cstring>
#include <vector>

namespace NSZEPGlue {

namespace {

const char kAnchor = 0;

const wchar_t* Wide(const CPathText& path) { return reinterpret_cast<const wchar_t*>(path.c_str()); }

class CWin32ZEPPlatform final : public IZEPPlatform {
 public:
  uint32_t SetErrorMode(uint32_t mode) override { return ::SetErrorMode(mode); }

  uint32_t LastError() override { return ::GetLastError(); }

  bool LoaderModuleFileName(CPathText& path) override {
    HMODULE module = nullptr;
    if (!GetModuleHandleExW(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            reinterpret_cast<LPCWSTR>(&kAnchor), &module)) {
      return false;
    }
    std::vector<wchar_t> buffer(32768);
    const DWORD length = GetModuleFileNameW(module, buffer.data(), static_cast<DWORD>(buffer.size()));
    if (length == 0 || length >= buffer.size()) return false;
    path.assign(reinterpret_cast<const char16_t*>(buffer.data()), length);
    return true;
  }

  char16_t PathSeparator() override { return u'\\'; }

  const char16_t* LibrarySuffix() override { return u".dll"; }

  uint32_t FileAttributes(const CPathText& path) override {
    return GetFileAttributesW(Wide(path));
  }

  uint32_t FileVersionInfoSize(const CPathText& path) override {
    DWORD handle = 0;
    return GetFileVersionInfoSizeW(Wide(path), &handle);
  }

  bool FileVersionInfo(const CPathText& path, uint32_t size, void* data) override {
    return GetFileVersionInfoW(Wide(path), 0, size, data) != FALSE;
  }

  bool QueryFixedFileVersion(const void* data, uint32_t, SFixedFileVersion& version) override {
    void* fixed = nullptr;
    UINT length = 0;
    if (!VerQueryValueW(data, L"\\", &fixed, &length) || fixed == nullptr ||
        length < sizeof(SFixedFileVersion)) {
      return false;
    }
    std::memcpy(&version, fixed, sizeof(version));
    return true;
  }

  bool SpecialFolderPath(uint32_t folder, CPathText& path) override {
    wchar_t buffer[MAX_PATH] = {};
    if (!SHGetSpecialFolderPathW(nullptr, buffer, static_cast<int>(folder), FALSE)) return false;
    path.assign(reinterpret_cast<const char16_t*>(buffer));
    return true;
  }

  void* LoadLibraryFile(const CPathText& path) override {
    return reinterpret_cast<void*>(LoadLibraryW(Wide(path)));
  }

  void* GetProcAddress(void* module, const char* name) override {
    return reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(module), name));
  }

  void FreeLibrary(void* module) override {
    if (module != nullptr) ::FreeLibrary(static_cast<HMODULE>(module));
  }
};

}  // namespace

IZEPPlatform& SystemZEPPlatform() {
  static CWin32ZEPPlatform platform;
  return platform;
}

}  // namespace NSZEPGlue
