// The system's own loader operations on real files, with the two folders
// the search starts from put where a test wants them, the error mode
// recorded, and any operation made to fail.
#ifndef QUILLON_TESTS_FAKES_ZEP_PLATFORM_FAKE_H
#define QUILLON_TESTS_FAKES_ZEP_PLATFORM_FAKE_H

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "hardware/zep_platform.h"

namespace NSTestFakes {

class CRedirectedZEPPlatform final : public NSZEPGlue::IZEPPlatform {
 public:
  CRedirectedZEPPlatform() = default;
  ~CRedirectedZEPPlatform() = default;

  // The folder the module seems to lie in.
  std::filesystem::path moduleFolder;
  // What the common folder is; empty: there is none.
  std::u16string commonFolder;
  bool failModuleName = false;
  // Non-zero: LoadLibrary fails with this error, and touches nothing.
  uint32_t loadError = 0;
  bool failVersionRead = false;
  bool failVersionQuery = false;
  // The one operation, by its name, that fails every time as the system
  // would: no file, no record, no folder, no module, no symbol.
  std::string failing;
  // Calls of each operation, by its name.
  std::map<std::string, uint32_t> calls;

  // Every mode set, in order.
  std::vector<uint32_t> errorModes;
  uint32_t loads = 0;
  uint32_t frees = 0;
  std::vector<std::string> lookups;
  std::vector<std::u16string> attributeQueries;

  uint32_t SetErrorMode(uint32_t mode) override;
  uint32_t LastError() override;
  bool LoaderModuleFileName(NSZEPGlue::CPathText& path) override;
  char16_t PathSeparator() override;
  const char16_t* LibrarySuffix() override;
  uint32_t FileAttributes(const NSZEPGlue::CPathText& path) override;
  uint32_t FileVersionInfoSize(const NSZEPGlue::CPathText& path) override;
  bool FileVersionInfo(const NSZEPGlue::CPathText& path, uint32_t size, void* data) override;
  bool QueryFixedFileVersion(const void* data, uint32_t size,
                             NSZEPGlue::SFixedFileVersion& version) override;
  bool SpecialFolderPath(uint32_t folder, NSZEPGlue::CPathText& path) override;
  void* LoadLibraryFile(const NSZEPGlue::CPathText& path) override;
  void* GetProcAddress(void* module, const char* name) override;
  void FreeLibrary(void* module) override;

 private:
  uint32_t mode_ = 0;
  uint32_t lastError_ = 0;
  bool ownError_ = false;
  bool Fails(const char* operation);
};

// A fresh folder of its own for one test, removed with the object.
class CScratchFolder {
 public:
  CScratchFolder();
  ~CScratchFolder();
  CScratchFolder(const CScratchFolder&) = delete;
  CScratchFolder& operator=(const CScratchFolder&) = delete;
  const std::filesystem::path& Path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// The folder of the running program.
std::filesystem::path ProgramFolder();
// A built copy of the test hardware library: "v1_999_999", "v2_0_0",
// "v1_999_999_7", "unversioned" or "old".
std::filesystem::path FakeZEPLibrary(const std::string& variant);
// The file name the platform gives one of the three searched names:
// "ZEPLib", "ZEPLibTesting" or "ZEPLibDebugging".
std::string ZEPFileName(const std::string& stem);
// Copies a variant to `folder` under that stem's file name.
void PlaceZEPLibrary(const std::string& variant, const std::filesystem::path& folder,
                     const std::string& stem);
// Where the loader looks for the shared copy under a common folder.
std::filesystem::path SharedZEPFolder(const std::filesystem::path& common);

}  // namespace NSTestFakes

#endif
