#include "hardware/zep_loader.h"

#include <exception>
#include <memory>
#include <vector>


namespace NSZEPGlue {

const char* const kZEPEntryNames[kZEPEntryCount] = {
    "ZEP_GetVersion",
    "ZEP_Create",
    "ZEP_Dispose",
    "ZEP_GetCurrentDevices",
    "ZEP_DeviceOpen",
    "ZEP_DeviceClose",
    "ZEP_GetDeviceChannelCount",
    "ZEP_GetDeviceChannelGainSafePaddedChannel",
    "ZEP_GetDeviceChannelGainSafePaddingDB",
    "ZEP_SetDeviceChannelGainSafeRoutingEnable",
    "ZEP_SetDeviceGainSafeIndicator",
    "ZEP_SetDeviceChannelActiveIndicator",
    "ZEP_GetPreferredSampleRate",
    "ZEP_GetPreferredBufferSize",
    "ZEP_SetDirectMonitoring",
    "ZEP_HasControlPanel",
    "ZEP_TestCommand",
};

namespace NSPrivate {

using namespace NSMarlet;

namespace {

constexpr SStatusMapRow kZEPCodeTable[] = {
    {kFailureCode_RuntimeError_AlreadyExists, "", 1},
    {kFailureCode_LogicError_InvalidArgument, "handle", 2},
    {kFailureCode_RuntimeError_Open, "", 3},
    {kFailureCode_LogicError_InvalidArgument, "", 4},
    {kFailureCode_RuntimeError_VersionTooOld, "", 5},
    {kFailureCode_LogicError_IllegalCallSequence, "", 6},
    {kFailureCode_LogicError_OutOfRange, "", 7},
    {kFailureCode_BadAlloc, "", 8},
    {kFailureCode_NonMarletException, "", 9},
    {kFailureCode_EndMark, "", 0},
};

constexpr SStatusRange kZEPCodeRange = {kZEPCodeBase, 0xFFFFFFFFu};
constexpr ZEPResult kZEPCodeOutOfMemory = 8;
constexpr ZEPResult kZEPCodeForeign = 9;

const char16_t* const kLibraryStems[kZEPLibraryNameCount] = {u"ZEPLib", u"ZEPLibTesting",
                                                             u"ZEPLibDebugging"};
const char16_t kMakerFolder[] = u"Kestrelwave Software";
const char16_t kLibraryFolder[] = u"ZEP";
constexpr size_t kMaxPath = 260;

// Puts the former error mode back on every way out.
class CErrorModeScope {
 public:
  CErrorModeScope(IZEPPlatform& platform, uint32_t mode)
      : platform_(platform), former_(platform.SetErrorMode(mode)) {}
  ~CErrorModeScope() { platform_.SetErrorMode(former_); }
  CErrorModeScope(const CErrorModeScope&) = delete;
  CErrorModeScope& operator=(const CErrorModeScope&) = delete;

 private:
  IZEPPlatform& platform_;
  uint32_t former_;
};

bool IsFile(IZEPPlatform& platform, const CPathText& path) {
  const uint32_t attributes = platform.FileAttributes(path);
  return attributes != kFileAttributesInvalid && (attributes & kFileAttributeDirectory) == 0;
}

void AppendChecked(CPathText& path, const CPathText& piece) {
  if (path.size() + piece.size() + 1 >= kMaxPath) RaiseFailure(XOutOfSpace(""), "path");
  path += piece;
}

CPathText SharedCandidate(IZEPPlatform& platform, const CPathText& name) {
  CPathText path;
  if (!platform.SpecialFolderPath(kFolderProgramFilesCommon, path)) {
    RaiseFailure(XNotFound(""), "directory");
  }
  const CPathText separator(1, platform.PathSeparator());
  AppendChecked(path, separator);
  AppendChecked(path, kMakerFolder);
  AppendChecked(path, separator);
  AppendChecked(path, kLibraryFolder);
  AppendChecked(path, separator);
  AppendChecked(path, name);
  return path;
}

[[noreturn]] void RaiseLoadError(uint32_t error) {
  switch (error) {
    case 4:
    case 8:
    case 14:
      RaiseFailure(XOutOfSpace(""));
    case 11:
    case 30:
    case 31:
      RaiseFailure(XRead(""), "dll");
    case 1157:
      RaiseFailure(XNotFound(""), "dll");
    default:
      RaiseFailure(XOpen(""), "dll");
  }
}

}  // namespace

const SStatusMapRow* ZEPCodeTable() { return kZEPCodeTable; }

const SStatusRange& ZEPCodeRange() { return kZEPCodeRange; }

void ThrowByZEPCode(ZEPResult code) {
  if (code == kZEPSuccess) return;
  // A computed code is unpacked, so the failure that made it is raised again
  // with its class and word: a catch of XOpen sees a computed XOpen too.
  NSMarlet::ThrowFromStatusDecoded(code, kZEPCodeRange, kZEPCodeTable, CSourcePosition());
}

ZEPResult ZEPCodeFromCurrentFailure() {
  return NumberFromCurrentFailure(kZEPCodeRange, kZEPCodeTable, kZEPCodeOutOfMemory,
                                  kZEPCodeForeign);
}

CPathText ZEPLibraryName(IZEPPlatform& platform, uint32_t index) {
  return CPathText(kLibraryStems[index]) + platform.LibrarySuffix();
}

uint32_t FileVersionScore(IZEPPlatform& platform, const CPathText& path) {
  CErrorModeScope mode(platform, kErrorModeNoOpenFileErrorBox);
  const uint32_t size = platform.FileVersionInfoSize(path);
  if (size == 0) {
    if (platform.LastError() == kErrorFileNotFound) RaiseFailure(XNotFound(""), "file");
    RaiseFailure(std::exception());
  }
  std::vector<uint8_t> data(size);
  SFixedFileVersion fixed = {};
  if (!platform.FileVersionInfo(path, size, data.data()) ||
      !platform.QueryFixedFileVersion(data.data(), size, fixed)) {
    RaiseFailure(std::exception());
  }
  const uint32_t major = fixed.fileVersionMS >> 16;
  const uint32_t minor = fixed.fileVersionMS & 0xFFFFu;
  const uint32_t third = fixed.fileVersionLS >> 16;
  return (major * 1000u + minor) * 1000u + third;
}

CPathText FindZEPLibrary(IZEPPlatform& platform) {
  CPathText module;
  if (!platform.LoaderModuleFileName(module)) RaiseFailure(XOpen(""));
  const size_t cut = module.rfind(platform.PathSeparator());
  const CPathText folder = cut == CPathText::npos ? CPathText() : module.substr(0, cut);
  CPathText chosen;
  for (uint32_t i = 0; i < kZEPLibraryNameCount && chosen.empty(); ++i) {
    const CPathText candidate = folder + platform.PathSeparator() + ZEPLibraryName(platform, i);
    if (IsFile(platform, candidate)) chosen = candidate;
  }
  // A copy beside the module is the precondition of everything else.
  if (chosen.empty()) RaiseFailure(XNotFound(""), "dll");
  CPathText shared;
  for (uint32_t i = 0; i < kZEPLibraryNameCount && shared.empty(); ++i) {
    try {
      const CPathText candidate = SharedCandidate(platform, ZEPLibraryName(platform, i));
      if (IsFile(platform, candidate)) shared = candidate;
    } catch (...) {
    }
  }
  if (!shared.empty()) {
    try {
      const uint32_t beside = FileVersionScore(platform, chosen);
      if (FileVersionScore(platform, shared) > beside) chosen = shared;
    } catch (...) {
    }
  }
  return chosen;
}

CZEPLoader::CZEPLoader(IZEPPlatform& platform) : platform_(platform) {
  for (std::atomic<void*>& entry : entries_) entry.store(nullptr);
  // Once cut off, the library is never loaded again in this process.
  if (HardwareCutOff()) RaiseNoHardwareDevice();
  CErrorModeScope mode(platform, kErrorModeFailCriticalErrors);
  chosen_ = FindZEPLibrary(platform);
  calls_ = new CZEPCallThread();
  try {
    // The library and whatever it loads are its own: a fault there, on any
    // thread, is told apart from the host's.
    std::unique_ptr<NSPlatform::ModuleSnapshot> before(new NSPlatform::ModuleSnapshot());
    NSPlatform::TakeModuleSnapshot(*before);
    module_ = platform.LoadLibraryFile(chosen_);
    if (module_ == nullptr) RaiseLoadError(platform.LastError());
    calls_->ClaimModules(module_, *before);
  } catch (...) {
    NSFerrand::CGuardedThread::Finish(calls_);
    throw;
  }
}

CZEPLoader::~CZEPLoader() {
  const bool quarantined = calls_->Quarantined();
  // A thread that does not end in time is quarantined by the finish itself.
  NSFerrand::CGuardedThread::Finish(calls_);
  calls_ = nullptr;
  // A library that was cut off may still run on its threads: it stays.
  if (!quarantined && !HardwareCutOff()) platform_.FreeLibrary(module_);
}

void* CZEPLoader::Entry(EZEPEntry which) {
  void* entry = entries_[which].load(std::memory_order_acquire);
  if (entry != nullptr) return entry;
  entry = platform_.GetProcAddress(module_, kZEPEntryNames[which]);
  if (entry == nullptr) RaiseFailure(XNotFound(kZEPEntryNames[which]), "symbol");
  entries_[which].store(entry, std::memory_order_release);
  return entry;
}

namespace {

// The sign that a loader exists. Not locked: only the control thread makes
// and ends uses.
CZEPLoaderPtr& ProcessLoader() {
  static CZEPLoaderPtr loader;
  return loader;
}

}  // namespace

bool ZEPLoaderExists() { return ProcessLoader().get() != nullptr; }

CScopedZEPLoader::CScopedZEPLoader(IZEPPlatform& platform) : global_(&ProcessLoader()) {
  if (!*global_) global_->reset(new CZEPLoader(platform));
  own_ = *global_;
}

CScopedZEPLoader::~CScopedZEPLoader() {
  own_.reset();
  if (*global_ && global_->use_count() == 1) global_->reset();
}

}  // namespace NSPrivate
}  // namespace NSZEPGlue
