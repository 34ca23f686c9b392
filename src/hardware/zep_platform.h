// What the hardware library's loader needs of the operating system. The
// Windows build calls the system's own; natively the same questions are
// answered with dladdr, stat and dlopen, with these choices:
//  - the files are "ZEPLib.so", "ZEPLibTesting.so" and "ZEPLibDebugging.so";
//  - the common folder is "/opt", so the shared copy lives in
//    "/opt/Kestrelwave Software/ZEP/";
//  - the version record is an ELF section named ".zep_version" that holds
//    one SFixedFileVersion, the same record a Windows version resource has.
#ifndef QUILLON_HARDWARE_ZEP_PLATFORM_H
#define QUILLON_HARDWARE_ZEP_PLATFORM_H

#include <cstdint>
#include <string>

namespace NSZEPGlue {

typedef std::u16string CPathText;

constexpr uint32_t kErrorModeFailCriticalErrors = 1;
constexpr uint32_t kErrorModeNoOpenFileErrorBox = 32768;
constexpr uint32_t kFileAttributesInvalid = 0xFFFFFFFFu;
constexpr uint32_t kFileAttributeDirectory = 16;
constexpr uint32_t kFolderProgramFilesCommon = 43;
constexpr uint32_t kErrorFileNotFound = 2;
constexpr uint32_t kFixedFileVersionSignature = 0xFEEF04BDu;

// The fixed part of a version record, as Windows lays it out.
struct SFixedFileVersion {
  uint32_t signature;
  uint32_t structVersion;
  uint32_t fileVersionMS;
  uint32_t fileVersionLS;
  uint32_t productVersionMS;
  uint32_t productVersionLS;
  uint32_t fileFlagsMask;
  uint32_t fileFlags;
  uint32_t fileOS;
  uint32_t fileType;
  uint32_t fileSubtype;
  uint32_t fileDateMS;
  uint32_t fileDateLS;
};
static_assert(sizeof(SFixedFileVersion) == 52, "the record of the platform");

class IZEPPlatform {
 public:
  // Returns the former mode.
  virtual uint32_t SetErrorMode(uint32_t mode) = 0;
  // The last error of the calling thread, after a call that failed.
  virtual uint32_t LastError() = 0;
  // The full file name of the module that holds the loader; false when the
  // module cannot be found.
  virtual bool LoaderModuleFileName(CPathText& path) = 0;
  virtual char16_t PathSeparator() = 0;
  // ".dll" or ".so".
  virtual const char16_t* LibrarySuffix() = 0;
  // kFileAttributesInvalid when there is no such file.
  virtual uint32_t FileAttributes(const CPathText& path) = 0;
  // 0 with LastError set when the file has no version record.
  virtual uint32_t FileVersionInfoSize(const CPathText& path) = 0;
  virtual bool FileVersionInfo(const CPathText& path, uint32_t size, void* data) = 0;
  // The fixed record inside what FileVersionInfo read.
  virtual bool QueryFixedFileVersion(const void* data, uint32_t size,
                                     SFixedFileVersion& version) = 0;
  // The folder of that number, not created; false when there is none.
  virtual bool SpecialFolderPath(uint32_t folder, CPathText& path) = 0;
  // Null with LastError set on failure.
  virtual void* LoadLibraryFile(const CPathText& path) = 0;
  virtual void* GetProcAddress(void* module, const char* name) = 0;
  virtual void FreeLibrary(void* module) = 0;

 protected:
  ~IZEPPlatform() = default;
};

// The operating system's own: lives as long as the process.
IZEPPlatform& SystemZEPPlatform();

}  // namespace NSZEPGlue

#endif
