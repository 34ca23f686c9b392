// Finding, loading and unloading the hardware library, its entries resolved
// on first use, and the one table between its result codes and failures.
#ifndef QUILLON_HARDWARE_ZEP_LOADER_H
#define QUILLON_HARDWARE_ZEP_LOADER_H

#include <atomic>
#include <cstdint>

#include <boost/shared_ptr.hpp>

#include "failure/report.h"
#include "hardware/zep_api.h"
#include "hardware/zep_call_thread.h"
#include "hardware/zep_platform.h"

namespace NSZEPGlue {
namespace NSPrivate {

constexpr uint32_t kZEPCodeBase = 1000;

const NSMarlet::SStatusMapRow* ZEPCodeTable();
const NSMarlet::SStatusRange& ZEPCodeRange();

// Raises the failure a result code stands for; 0 returns.
void ThrowByZEPCode(ZEPResult code);
// From inside a catch handler: the code of the failure being handled. Never
// raises.
ZEPResult ZEPCodeFromCurrentFailure();

// The names searched for, in order, with the platform's suffix.
CPathText ZEPLibraryName(IZEPPlatform& platform, uint32_t index);
constexpr uint32_t kZEPLibraryNameCount = 3;

// (major x 1000 + minor) x 1000 + third of a file's version record, in
// unsigned 32-bit arithmetic; raises when the file has none.
uint32_t FileVersionScore(IZEPPlatform& platform, const CPathText& path);
// The copy of the library that is to be loaded; raises when there is none
// beside the module.
CPathText FindZEPLibrary(IZEPPlatform& platform);

// The library, loaded for as long as this object lives, and the thread that
// every call into it runs on. A library that was cut off stays loaded for
// the rest of the process.
class CZEPLoader {
 public:
  explicit CZEPLoader(IZEPPlatform& platform);
  ~CZEPLoader();
  CZEPLoader(const CZEPLoader&) = delete;
  CZEPLoader& operator=(const CZEPLoader&) = delete;

  // The entry's address, looked up on the first call; a name the library
  // lacks raises XNotFound and is looked up again next time.
  void* Entry(EZEPEntry which);
  template <class Function>
  Function Get(EZEPEntry which) {
    return reinterpret_cast<Function>(Entry(which));
  }
  const CPathText& ChosenFile() const { return chosen_; }

  // Runs `work` on the library's thread and gives its answer. `work` holds
  // values only, never the caller's stack, and raises nothing of its own
  // (what escapes it is the library's crash). Raises as with no device when
  // the library is cut off, or is cut off by this call.
  template <class Result, class Work>
  Result Call(uint32_t deadlineMs, const Work& work) {
    Result result{};
    if (HardwareCutOff() || calls_->Call(deadlineMs, work, result) != NSFerrand::kCallAnswered) {
      RaiseNoHardwareDevice();
    }
    return result;
  }

 private:
  // Two threads that race store the same address.
  std::atomic<void*> entries_[kZEPEntryCount];
  void* module_ = nullptr;
  CZEPCallThread* calls_ = nullptr;
  IZEPPlatform& platform_;
  CPathText chosen_;
};

typedef boost::shared_ptr<CZEPLoader> CZEPLoaderPtr;

// Whether a loader lives in this process.
bool ZEPLoaderExists();

// One use of the process's loader: the first use loads the library, the
// last one gone unloads it. Control thread only.
class CScopedZEPLoader {
 public:
  // `platform` serves the load, when this use is the first.
  explicit CScopedZEPLoader(IZEPPlatform& platform);
  ~CScopedZEPLoader();
  CScopedZEPLoader(const CScopedZEPLoader&) = delete;
  CScopedZEPLoader& operator=(const CScopedZEPLoader&) = delete;

  CZEPLoader& Loader() const { return *own_; }

 private:
  CZEPLoaderPtr* global_;
  CZEPLoaderPtr own_;
};

}  // namespace NSPrivate
}  // namespace NSZEPGlue

#endif
