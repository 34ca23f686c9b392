#include "hardware/zep_platform.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "text/code_conversions.h"

namespace NSZEPGlue {

namespace {

// The Windows numbers the loader's table knows, for the same causes here.
constexpr uint32_t kErrorNotEnoughMemory = 8;
constexpr uint32_t kErrorBadFormat = 193;
constexpr uint32_t kErrorDependencyNotFound = 1157;
constexpr uint32_t kErrorNoVersionRecord = 1813;

const char kVersionSection[] = ".zep_version";
const char kAnchor = 0;

thread_local uint32_t lastError = 0;

std::string Narrow(const CPathText& path) { return NSTextPackage::WideToUtf8(path); }

// One file read by offsets, never past its end.
class CFileBytes {
 public:
  explicit CFileBytes(const std::string& path) : file_(std::fopen(path.c_str(), "rb")) {
    if (file_ == nullptr) return;
    struct stat status;
    if (fstat(fileno(file_), &status) == 0 && S_ISREG(status.st_mode)) {
      size_ = static_cast<uint64_t>(status.st_size);
    }
  }
  ~CFileBytes() {
    if (file_ != nullptr) std::fclose(file_);
  }
  CFileBytes(const CFileBytes&) = delete;
  CFileBytes& operator=(const CFileBytes&) = delete;

  bool Opened() const { return file_ != nullptr; }
  bool Read(uint64_t offset, void* data, uint64_t count) {
    if (file_ == nullptr || offset > size_ || count > size_ - offset) return false;
    if (fseeko(file_, static_cast<off_t>(offset), SEEK_SET) != 0) return false;
    return std::fread(data, 1, count, file_) == count;
  }

 private:
  std::FILE* file_;
  uint64_t size_ = 0;
};

// Where the version section lies in a 64-bit little-endian ELF file.
bool FindVersionSection(CFileBytes& file, uint64_t& offset, uint64_t& size) {
  Elf64_Ehdr header;
  if (!file.Read(0, &header, sizeof(header))) return false;
  if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64 ||
      header.e_ident[EI_DATA] != ELFDATA2LSB || header.e_shentsize != sizeof(Elf64_Shdr) ||
      header.e_shstrndx >= header.e_shnum) {
    return false;
  }
  std::vector<Elf64_Shdr> sections(header.e_shnum);
  if (!file.Read(header.e_shoff, sections.data(), sections.size() * sizeof(Elf64_Shdr))) {
    return false;
  }
  const Elf64_Shdr& names = sections[header.e_shstrndx];
  for (const Elf64_Shdr& section : sections) {
    char name[sizeof(kVersionSection)] = {};
    if (section.sh_name >= names.sh_size || names.sh_size - section.sh_name < sizeof(name)) {
      continue;
    }
    if (!file.Read(names.sh_offset + section.sh_name, name, sizeof(name))) continue;
    if (std::memcmp(name, kVersionSection, sizeof(name)) != 0) continue;
    if (section.sh_type == SHT_NOBITS || section.sh_size > 0xFFFFFFFFu) return false;
    offset = section.sh_offset;
    size = section.sh_size;
    return true;
  }
  return false;
}

class CPosixZEPPlatform final : public IZEPPlatform {
 public:
  uint32_t SetErrorMode(uint32_t mode) override { return errorMode_.exchange(mode); }

  uint32_t LastError() override { return lastError; }

  bool LoaderModuleFileName(CPathText& path) override {
    Dl_info info;
    link_map* map = nullptr;
    if (dladdr1(&kAnchor, &info, reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP) == 0 ||
        map == nullptr) {
      return false;
    }
    // The program itself has no name in its link map.
    if (map->l_name != nullptr && map->l_name[0] != '\0') {
      path = NSTextPackage::Utf8ToWide(map->l_name);
      return true;
    }
    std::vector<char> buffer(32768);
    const ssize_t length = readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
    if (length <= 0) return false;
    path = NSTextPackage::Utf8ToWide(std::string(buffer.data(), static_cast<size_t>(length)));
    return true;
  }

  char16_t PathSeparator() override { return u'/'; }

  const char16_t* LibrarySuffix() override { return u".so"; }

  uint32_t FileAttributes(const CPathText& path) override {
    struct stat status;
    if (stat(Narrow(path).c_str(), &status) != 0) {
      lastError = kErrorFileNotFound;
      return kFileAttributesInvalid;
    }
    return S_ISDIR(status.st_mode) ? kFileAttributeDirectory : 128u;
  }

  uint32_t FileVersionInfoSize(const CPathText& path) override {
    CFileBytes file(Narrow(path));
    if (!file.Opened()) {
      lastError = kErrorFileNotFound;
      return 0;
    }
    uint64_t offset = 0;
    uint64_t size = 0;
    if (!FindVersionSection(file, offset, size) || size == 0) {
      lastError = kErrorNoVersionRecord;
      return 0;
    }
    return static_cast<uint32_t>(size);
  }

  bool FileVersionInfo(const CPathText& path, uint32_t size, void* data) override {
    CFileBytes file(Narrow(path));
    uint64_t offset = 0;
    uint64_t found = 0;
    if (!FindVersionSection(file, offset, found) || found != size) return false;
    return file.Read(offset, data, size);
  }

  bool QueryFixedFileVersion(const void* data, uint32_t size,
                             SFixedFileVersion& version) override {
    if (data == nullptr || size < sizeof(SFixedFileVersion)) return false;
    std::memcpy(&version, data, sizeof(version));
    return version.signature == kFixedFileVersionSignature;
  }

  bool SpecialFolderPath(uint32_t folder, CPathText& path) override {
    if (folder != kFolderProgramFilesCommon) return false;
    path = u"/opt";
    return true;
  }

  void* LoadLibraryFile(const CPathText& path) override {
    const std::string narrow = Narrow(path);
    void* module = dlopen(narrow.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module != nullptr) return module;
    const char* reason = dlerror();
    const std::string text = reason != nullptr ? reason : "";
    struct stat status;
    if (stat(narrow.c_str(), &status) != 0) {
      lastError = kErrorFileNotFound;
    } else if (text.find("cannot allocate") != std::string::npos ||
               text.find("out of memory") != std::string::npos) {
      lastError = kErrorNotEnoughMemory;
    } else if (text.find("No such file") != std::string::npos ||
               text.find("undefined symbol") != std::string::npos) {
      // The file is there: what is missing is something it needs.
      lastError = kErrorDependencyNotFound;
    } else {
      lastError = kErrorBadFormat;
    }
    return nullptr;
  }

  void* GetProcAddress(void* module, const char* name) override { return dlsym(module, name); }

  void FreeLibrary(void* module) override {
    if (module != nullptr) dlclose(module);
  }

 private:
  std::atomic<uint32_t> errorMode_{0};
};

}  // namespace

IZEPPlatform& SystemZEPPlatform() {
  static CPosixZEPPlatform platform;
  return platform;
}

}  // namespace NSZEPGlue
