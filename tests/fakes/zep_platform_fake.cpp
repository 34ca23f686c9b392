#include "fakes/zep_platform_fake.h"

#include <atomic>
#include <chrono>

#if defined(_WIN32)
#include <windows.h>
#else
#include <unistd.h>
#endif

namespace NSTestFakes {

using NSZEPGlue::CPathText;
using NSZEPGlue::SystemZEPPlatform;

bool CRedirectedZEPPlatform::Fails(const char* operation) {
  ++calls[operation];
  if (failing != operation) return false;
  ownError_ = true;
  lastError_ = 2;  // not found
  return true;
}

uint32_t CRedirectedZEPPlatform::SetErrorMode(uint32_t mode) {
  errorModes.push_back(mode);
  const uint32_t former = mode_;
  mode_ = mode;
  return former;
}

uint32_t CRedirectedZEPPlatform::LastError() {
  return ownError_ ? lastError_ : SystemZEPPlatform().LastError();
}

bool CRedirectedZEPPlatform::LoaderModuleFileName(CPathText& path) {
  if (failModuleName || Fails("LoaderModuleFileName")) return false;
  path = (moduleFolder / "quillon_module").u16string();
  return true;
}

char16_t CRedirectedZEPPlatform::PathSeparator() { return SystemZEPPlatform().PathSeparator(); }

const char16_t* CRedirectedZEPPlatform::LibrarySuffix() {
  return SystemZEPPlatform().LibrarySuffix();
}

uint32_t CRedirectedZEPPlatform::FileAttributes(const CPathText& path) {
  attributeQueries.push_back(path);
  if (Fails("FileAttributes")) return 0xFFFFFFFFu;
  ownError_ = false;
  return SystemZEPPlatform().FileAttributes(path);
}

uint32_t CRedirectedZEPPlatform::FileVersionInfoSize(const CPathText& path) {
  if (Fails("FileVersionInfoSize")) return 0;
  ownError_ = false;
  return SystemZEPPlatform().FileVersionInfoSize(path);
}

bool CRedirectedZEPPlatform::FileVersionInfo(const CPathText& path, uint32_t size, void* data) {
  if (failVersionRead || Fails("FileVersionInfo")) return false;
  return SystemZEPPlatform().FileVersionInfo(path, size, data);
}

bool CRedirectedZEPPlatform::QueryFixedFileVersion(const void* data, uint32_t size,
                                                   NSZEPGlue::SFixedFileVersion& version) {
  if (failVersionQuery || Fails("QueryFixedFileVersion")) return false;
  return SystemZEPPlatform().QueryFixedFileVersion(data, size, version);
}

bool CRedirectedZEPPlatform::SpecialFolderPath(uint32_t folder, CPathText& path) {
  if (Fails("SpecialFolderPath")) return false;
  if (commonFolder.empty() || folder != NSZEPGlue::kFolderProgramFilesCommon) return false;
  path = commonFolder;
  return true;
}

void* CRedirectedZEPPlatform::LoadLibraryFile(const CPathText& path) {
  if (Fails("LoadLibraryFile")) return nullptr;
  if (loadError != 0) {
    ownError_ = true;
    lastError_ = loadError;
    return nullptr;
  }
  ownError_ = false;
  void* module = SystemZEPPlatform().LoadLibraryFile(path);
  if (module != nullptr) ++loads;
  return module;
}

void* CRedirectedZEPPlatform::GetProcAddress(void* module, const char* name) {
  lookups.push_back(name);
  if (Fails("GetProcAddress")) return nullptr;
  return SystemZEPPlatform().GetProcAddress(module, name);
}

void CRedirectedZEPPlatform::FreeLibrary(void* module) {
  if (module != nullptr) ++frees;
  SystemZEPPlatform().FreeLibrary(module);
}

CScratchFolder::CScratchFolder() {
  static std::atomic<uint32_t> counter{0};
#if defined(_WIN32)
  const unsigned long process = GetCurrentProcessId();
#else
  const unsigned long process = static_cast<unsigned long>(getpid());
#endif
  const auto ticks = std::chrono::steady_clock::now().time_since_epoch().count();
  path_ = std::filesystem::temp_directory_path() /
          ("quillon-zep-" + std::to_string(process) + "-" + std::to_string(ticks) + "-" +
           std::to_string(counter.fetch_add(1)));
  std::filesystem::create_directories(path_);
}

CScratchFolder::~CScratchFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::filesystem::path ProgramFolder() {
#if defined(_WIN32)
  wchar_t buffer[32768];
  const DWORD length = GetModuleFileNameW(nullptr, buffer, 32768);
  return std::filesystem::path(std::wstring(buffer, length)).parent_path();
#else
  return std::filesystem::canonical("/proc/self/exe").parent_path();
#endif
}

std::string ZEPFileName(const std::string& stem) {
#if defined(_WIN32)
  return stem + ".dll";
#else
  return stem + ".so";
#endif
}

std::filesystem::path FakeZEPLibrary(const std::string& variant) {
  return ProgramFolder() / "zep" / variant / ZEPFileName("ZEPLib");
}

void PlaceZEPLibrary(const std::string& variant, const std::filesystem::path& folder,
                     const std::string& stem) {
  std::filesystem::create_directories(folder);
  std::filesystem::copy_file(FakeZEPLibrary(variant), folder / ZEPFileName(stem),
                             std::filesystem::copy_options::overwrite_existing);
}

std::filesystem::path SharedZEPFolder(const std::filesystem::path& common) {
  return common / "Kestrelwave Software" / "ZEP";
}

}  // namespace NSTestFakes
