// The ASIO drivers installed on the machine, one record each, and the one
// current driver of the process with a flat call layer over it. All of it
// runs on the control thread, except the three calls the buffer switch
// makes: outputReady, getSamplePosition and future.
#ifndef QUILLON_ASIO_ASIO_DRIVER_LIST_H
#define QUILLON_ASIO_ASIO_DRIVER_LIST_H

#include <atomic>
#include <cstdint>
#include <vector>

#include "asio/asio_call_thread.h"
#include "asio/asio_interface.h"
#include "asio/asio_platform.h"
#include "text/wide_text.h"

namespace NSASIO {

using NSTextPackage::CWideString;

// The process's ASIO state; each step back runs only from the state it leaves.
enum : int32_t {
  kASIOStateUnloaded = 900,
  kASIOStateLoaded = 901,
  kASIOStateInitialised = 902,
  kASIOStatePrepared = 903,
  kASIOStateRunning = 904
};

enum : int32_t {
  kDriverListNullParameter = -5001,
  kDriverListAlreadyOpen = -5002,
  kDriverListNoSuchDriver = -5003
};

// Names given out by the list are cut to this many units and "..." when
// they reach the limit; hence at most 31 units.
constexpr uint32_t kDriverNameUnits = 32;
constexpr uint32_t kDriverNameKeptUnits = 28;
// Callers of GetDriverNames take at most this many.
constexpr int32_t kMaxDriverNames = 200;

struct CASIODriverRecord {
  int32_t drvID = 0;
  SGuid clsid = {};  // all zero when the text did not convert
  CWideString dllPath;  // stays empty
  CWideString driverName;
  IASIO* asioDriver = nullptr;
  // The thread every call into asioDriver runs on, while it exists.
  CASIOCallThread* calls = nullptr;
  CASIODriverRecord* next = nullptr;
};

class CASIODriverList {
 public:
  // Scans the registry; an entry that does not hold up is left out.
  explicit CASIODriverList(IASIOPlatform& platform);
  ~CASIODriverList();
  CASIODriverList(const CASIODriverList&) = delete;
  CASIODriverList& operator=(const CASIODriverList&) = delete;

  // The name as given out, cut to `size` - 1 units at most.
  int32_t GetDriverNameAt(int32_t index, CWideString& name, uint32_t size = kDriverNameUnits) const;
  // At most `max` names, in list order; gives their count.
  int32_t GetDriverNames(std::vector<CWideString>& names, int32_t max) const;
  bool GetCurrentDriverName(CWideString& name) const;
  // Creates the driver on a thread of its own. A quarantined class is not
  // created again: kHResultFail.
  int32_t OpenDriverAt(int32_t index, IASIO** driver);
  // Releases the driver on its thread and ends the thread; a quarantined
  // driver is abandoned as it is.
  int32_t CloseDriverAt(int32_t index);
  void CloseCurrentDriver();
  // Makes the named driver current; on failure brings the former one back.
  bool LoadDriverByName(const CWideString& name);
  bool FindClsid(const CWideString& name, SGuid& clsid) const;

  int32_t NumDrivers() const { return numDrivers_; }
  int32_t CurrentIndex() const { return currentIndex_; }
  const CASIODriverRecord* First() const { return first_; }
  IASIOPlatform& Platform() const { return platform_; }

 private:
  void Scan();
  void FreeRecords();
  CASIODriverRecord* ScanDriverKey(RegistryKey parent, const CWideString& subkey, int32_t drvID);
  int32_t FindDriverModule(CWideString clsidText, CWideString& path, uint32_t pathBytes);
  CASIODriverRecord* Record(int32_t index) const;

  IASIOPlatform& platform_;
  CASIODriverRecord* first_ = nullptr;
  int32_t numDrivers_ = 0;
  int32_t currentIndex_ = -1;
};

// The process-wide part, touched by the control thread; the buffer switch
// only reads `currentDriver`, which stays put while a run is active.
extern CASIODriverList* driverList;
extern std::atomic<IASIO*> currentDriver;
// The thread of the current driver, for the control thread.
extern CASIOCallThread* currentCalls;
extern int32_t asioState;
extern void* hostWindow;

// The whole of `name` against each driver's full name; a cut name matches
// no long one.
bool FindDriverClsid(const CWideString& name, SGuid& clsid);

// Reads a text value of at most `maxBytes` bytes; the registry's result.
int32_t ReadRegistryText(IASIOPlatform& platform, RegistryKey key, const char16_t* value,
                         uint32_t maxBytes, CWideString& text);

// Builds the list (900 to 901) and frees it again (901 to 900).
void LoadDriverList(IASIOPlatform& platform);
void UnloadDriverList();

// The steps back, each a no-op unless the state is the one it leaves:
// 904 to 903, 903 to 902, 902 to 901.
void StopIfRunning();
void DisposeIfPrepared();
void ExitIfInitialised();

// Fills the record and initialises the current driver: 0 on success, else
// ASE_NotPresent with the current driver cleared but still held by its
// record.
ASIOError ASIOInit(ASIODriverInfo& info);
void ASIOExit();

// One function per operation of the current driver. Without one each
// answers ASE_NotPresent, its outputs made harmless first.
// Every call but the three the buffer switch makes runs on the driver's
// thread within its deadline; a quarantined or busy driver is not asked, and
// those calls answer ASE_NotPresent.
struct CASIOCallLayer {
  // The current driver was quarantined: it missed a deadline or crashed.
  static bool Quarantined();
  // Its panel is open on its thread.
  static bool Busy();
  // The driver hangs on a thread of its own: it is asked nothing more.
  static void QuarantineCurrent();
  static ASIOBool init(void* sysRef);
  static void getDriverName(char* name);
  static int32_t getDriverVersion();
  static void getErrorMessage(char* text);
  static ASIOError start();
  static ASIOError stop();
  static ASIOError getChannels(int32_t* inputs, int32_t* outputs);
  static ASIOError getLatencies(int32_t* input, int32_t* output);
  static ASIOError getBufferSize(int32_t* minimum, int32_t* maximum, int32_t* preferred,
                                 int32_t* granularity);
  static ASIOError canSampleRate(ASIOSampleRate rate);
  static ASIOError getSampleRate(ASIOSampleRate* rate);
  static ASIOError setSampleRate(ASIOSampleRate rate);
  static ASIOError getClockSources(ASIOClockSource* clocks, int32_t* count);
  static ASIOError setClockSource(int32_t reference);
  static ASIOError getSamplePosition(ASIOSamples* position, ASIOTimeStamp* stamp);
  static ASIOError getChannelInfo(ASIOChannelInfo* info);
  static ASIOError createBuffers(ASIOBufferInfo* infos, int32_t count, int32_t frames,
                                 ASIOCallbacks* callbacks);
  static ASIOError disposeBuffers();
  static ASIOError controlPanel();
  static ASIOError future(int32_t selector, void* opt);
  static ASIOError outputReady();
  // The control thread's outputReady after the block before the start.
  static ASIOError outputReadyBeforeStart();
};

}  // namespace NSASIO

#endif
