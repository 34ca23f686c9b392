// A fake ASIO world: a registry with driver keys and classes, COM creation,
// files, strings, and drivers with any channels, formats, sizes, rates,
// clocks and latencies, any answer on any call, and a thread that calls
// back at a chosen pace.
#ifndef QUILLON_TESTS_FAKES_FAKE_ASIO_H
#define QUILLON_TESTS_FAKES_FAKE_ASIO_H

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "asio/asio_interface.h"
#include "asio/asio_platform.h"
#include "fakes/failure_plan.h"

namespace Fakes {

enum EASIOCall : uint32_t {
  kAsioInit,
  kAsioStart,
  kAsioStop,
  kAsioGetChannels,
  kAsioGetLatencies,
  kAsioGetBufferSize,
  kAsioCanSampleRate,
  kAsioGetSampleRate,
  kAsioSetSampleRate,
  kAsioGetClockSources,
  kAsioSetClockSource,
  kAsioGetSamplePosition,
  kAsioGetChannelInfo,
  kAsioCreateBuffers,
  kAsioDisposeBuffers,
  kAsioControlPanel,
  kAsioFuture,
  kAsioOutputReady,
  kAsioQueryInterface,
  kAsioHardwareIdentity,
  kAsioCreate,   // the object's creation, through the platform
  kAsioRelease,  // the release that ends the object
  kAsioCallCount
};

class CFakeASIODriver;

// What a fake driver is: shared by every object created for its class, so
// that a test sets it up before the library creates the object and reads
// it afterwards.
struct SFakeASIODevice {
  std::string name = "Fake ASIO";
  int32_t version = 7;
  int32_t inputs = 2;
  int32_t outputs = 2;
  // Per channel; missing entries use the default.
  std::vector<NSASIO::ASIOSampleType> inputTypes;
  std::vector<NSASIO::ASIOSampleType> outputTypes;
  NSASIO::ASIOSampleType defaultType = NSASIO::ASIOSTInt32LSB;
  std::vector<std::string> inputNames;
  std::vector<std::string> outputNames;
  int32_t minimumSize = 64;
  int32_t maximumSize = 2048;
  std::atomic<int32_t> preferredSize{256};
  // When not 0, becomes the preferred size once the next answer has gone.
  std::atomic<int32_t> nextPreferredSize{0};
  int32_t granularity = -1;
  std::set<uint32_t> rates = {44100, 48000};
  std::atomic<double> rate{48000.0};
  // getSampleRate answers ASE_OK without writing the rate.
  bool rateWritesNothing = false;
  std::vector<NSASIO::ASIOClockSource> clocks;
  // Overrides the count getClockSources reports, when set.
  int32_t clockCount = INT32_MIN;
  NSASIO::ASIOError clockResult = NSASIO::ASE_OK;
  int32_t inputLatency = 32;
  int32_t outputLatency = 64;
  NSASIO::ASIOBool initResult = 1;
  std::string errorMessage = "fake failure";
  // createBuffers gives this entry no second buffer.
  int32_t nullBufferAt = -1;
  // Monitoring: the answer to kAsioCanInputMonitor, and to a monitor record.
  bool canMonitor = true;
  NSASIO::ASIOError monitorAnswer = NSASIO::ASE_SUCCESS;
  // The panel sets this preferred size, when not 0.
  int32_t panelPreferredSize = 0;
  // Hardware identity: none, or the text it answers.
  bool hasIdentity = false;
  std::u16string identity;
  // What the identity query answers while it hands out the string: a success
  // code other than S_OK, or a failure code of a driver that still gives one.
  NSASIO::HResult identityAnswer = 0;

  // The pace of the callback thread: a buffer's time at the rate, else this.
  std::atomic<uint32_t> periodMs{0};
  std::atomic<bool> timeInfo{false};
  std::atomic<bool> stopCalling{false};
  std::atomic<bool> callInsideStart{false};
  // Time info flags and rate sent with each bufferSwitchTimeInfo.
  std::atomic<uint32_t> timeFlags{NSASIO::kSystemTimeValid | NSASIO::kSamplePositionValid};
  std::atomic<double> timeRate{48000.0};
  // Stamps given out by getSamplePosition and the time info.
  std::atomic<uint64_t> systemTimeNs{1000000000ull};
  std::atomic<uint64_t> position{0};
  std::atomic<uint64_t> switches{0};

  // Answer `result` on the next `times` calls of that kind (-1: always).
  void Fail(EASIOCall call, NSASIO::ASIOError result, int32_t times = -1);
  // The next call of that kind never returns, as a driver stuck in its own
  // code: the thread that made it stays blocked for the life of the process.
  void Hang(EASIOCall call) { hangAt = static_cast<int32_t>(call); }
  // The next call of that kind throws out of the driver, which no COM
  // method may: the nearest thing to a crash that every build can contain.
  void Crash(EASIOCall call) { crashAt = static_cast<int32_t>(call); }
  std::atomic<int32_t> crashAt{-1};
  // Calls that hung or crashed so far.
  std::atomic<uint64_t> misbehaved{0};
  // Blocks the calling thread forever when the call is the one to hang.
  void MaybeHang(EASIOCall call);
  std::atomic<int32_t> hangAt{-1};
  // Calls that are blocked now.
  std::atomic<int32_t> hanging{0};
  // While set, the panel stays open (the call does not return).
  std::atomic<bool> holdPanel{false};
  std::atomic<bool> panelOpen{false};
  // The threads that made the driver's calls, but the buffer switch's own
  // (getSamplePosition and outputReady).
  std::set<std::thread::id> CallThreads();
  void NoteCallThread();
  bool TakeFailure(EASIOCall call, NSASIO::ASIOError& result);
  uint64_t Calls(EASIOCall call) const { return calls[call].load(); }
  std::vector<std::string> Log();
  void Record(const std::string& entry);
  // Empties the log and the record of calling threads: long runs measure
  // their memory.
  void ForgetLog();
  // The object that exists now, or null.
  CFakeASIODriver* Live();

  std::atomic<uint64_t> calls[kAsioCallCount] = {};
  std::atomic<int32_t> liveObjects{0};
  std::atomic<int32_t> createdObjects{0};
  NSASIO::ASIOInputMonitor lastMonitor = {};
  std::atomic<int32_t> monitorsSent{0};
  std::atomic<int32_t> lastClockSet{-1};
  std::atomic<double> lastRateSet{0.0};

 private:
  friend class CFakeASIODriver;
  std::mutex lock_;
  CFailurePlan failures_;
  std::vector<std::string> log_;
  std::set<std::thread::id> callThreads_;
  CFakeASIODriver* live_ = nullptr;
};

class CFakeASIODriver final : public NSASIO::IASIO, public NSASIO::IASIOHardwareIdentity {
 public:
  explicit CFakeASIODriver(std::shared_ptr<SFakeASIODevice> device);

  NSASIO::HResult QueryInterface(const NSASIO::SGuid& iid, void** object) override;
  uint32_t AddRef() override;
  uint32_t Release() override;
  NSASIO::HResult GetHardwareIdentity(char16_t** identity) override;

  NSASIO::ASIOBool init(void* sysHandle) override;
  void getDriverName(char* name) override;
  int32_t getDriverVersion() override;
  void getErrorMessage(char* text) override;
  NSASIO::ASIOError start() override;
  NSASIO::ASIOError stop() override;
  NSASIO::ASIOError getChannels(int32_t* inputs, int32_t* outputs) override;
  NSASIO::ASIOError getLatencies(int32_t* input, int32_t* output) override;
  NSASIO::ASIOError getBufferSize(int32_t* minimum, int32_t* maximum, int32_t* preferred,
                                  int32_t* granularity) override;
  NSASIO::ASIOError canSampleRate(NSASIO::ASIOSampleRate rate) override;
  NSASIO::ASIOError getSampleRate(NSASIO::ASIOSampleRate* rate) override;
  NSASIO::ASIOError setSampleRate(NSASIO::ASIOSampleRate rate) override;
  NSASIO::ASIOError getClockSources(NSASIO::ASIOClockSource* clocks, int32_t* count) override;
  NSASIO::ASIOError setClockSource(int32_t reference) override;
  NSASIO::ASIOError getSamplePosition(NSASIO::ASIOSamples* position,
                                      NSASIO::ASIOTimeStamp* stamp) override;
  NSASIO::ASIOError getChannelInfo(NSASIO::ASIOChannelInfo* info) override;
  NSASIO::ASIOError createBuffers(NSASIO::ASIOBufferInfo* infos, int32_t count, int32_t frames,
                                  NSASIO::ASIOCallbacks* callbacks) override;
  NSASIO::ASIOError disposeBuffers() override;
  NSASIO::ASIOError controlPanel() override;
  NSASIO::ASIOError future(int32_t selector, void* opt) override;
  NSASIO::ASIOError outputReady() override;

  // Calls the host as the driver's own thread would, from the caller's.
  void SwitchNow(int32_t index);
  int32_t Message(int32_t selector, int32_t value);
  void ReportRate(double rate);
  NSASIO::ASIOCallbacks* Callbacks() const { return callbacks_; }
  int32_t Frames() const { return frames_; }
  bool Streaming() const { return thread_.joinable(); }
  // The driver's buffer of an entry of createBuffers.
  void* Buffer(int32_t entry, int32_t half);

 private:
  ~CFakeASIODriver();
  bool Failing(EASIOCall call, NSASIO::ASIOError& result);
  void Run();
  void StopThread();

  std::shared_ptr<SFakeASIODevice> device_;
  std::atomic<uint32_t> references_{1};
  NSASIO::ASIOCallbacks* callbacks_ = nullptr;
  int32_t frames_ = 0;
  std::vector<std::vector<uint8_t>> buffers_;
  std::vector<NSASIO::ASIOBufferInfo*> entries_;
  std::thread thread_;
  std::atomic<bool> running_{false};
  std::atomic<int32_t> half_{0};
};

enum EASIOPlatformCall : uint32_t {
  kPlatformOpenKey,
  kPlatformOpenKeyEx,
  kPlatformEnumKey,
  kPlatformQueryValue,
  kPlatformClsidFromString,
  kPlatformCoInitialize,
  kPlatformCoUninitialize,
  kPlatformCoCreate,
  kPlatformCreateFile,
  kPlatformCloseKey,
  kPlatformCallCount
};

class CFakeASIOPlatform final : public NSASIO::IASIOPlatform {
 public:
  CFakeASIOPlatform();
  ~CFakeASIOPlatform() override;

  // A driver key under "software\asio" with its "clsid" and "description"
  // (none when empty), and the class with its server path; a device null
  // leaves the class uncreatable.
  std::shared_ptr<SFakeASIODevice> AddDriver(const std::u16string& keyName,
                                             const std::u16string& clsidText,
                                             const std::u16string& description,
                                             bool withServer = true, bool fileExists = true);
  // A key with no "clsid" value.
  void AddKeyWithoutClsid(const std::u16string& keyName);
  // Removes the ASIO key altogether.
  void RemoveASIOKey();
  // Sets or removes a value of a key by its path from a root, "\" separated.
  void SetValue(NSASIO::RegistryKey root, const std::u16string& path, const std::u16string& name,
                const std::u16string& text, uint32_t type = NSASIO::kRegistryValueText);
  void Fail(EASIOPlatformCall call, int32_t result, int32_t times = -1);
  uint64_t Calls(EASIOPlatformCall call) const { return calls_[call].load(); }
  int32_t OpenKeys() const { return openKeys_.load(); }
  // The threads that initialised and uninitialised COM, in order.
  std::vector<std::thread::id> ComThreads(EASIOPlatformCall call);
  // Empties those records: long runs measure their memory.
  void ForgetComThreads();
  int32_t LiveStrings() const { return liveStrings_.load(); }
  // CreateFile answers a null handle rather than the invalid one.
  bool nullFileHandle = false;
  // What CoCreateInstance answers when it makes an object: S_OK, or another
  // success code.
  NSASIO::HResult createdAnswer = 0;

  int32_t RegOpenKey(NSASIO::RegistryKey parent, const char16_t* path,
                     NSASIO::RegistryKey* key) override;
  int32_t RegOpenKeyEx(NSASIO::RegistryKey parent, const char16_t* path, uint32_t access,
                       NSASIO::RegistryKey* key) override;
  int32_t RegEnumKeyEx(NSASIO::RegistryKey key, uint32_t index, char16_t* name,
                       uint32_t* units) override;
  int32_t RegQueryValueEx(NSASIO::RegistryKey key, const char16_t* value, uint32_t* type,
                          uint8_t* data, uint32_t* bytes) override;
  int32_t RegCloseKey(NSASIO::RegistryKey key) override;
  NSASIO::HResult CLSIDFromString(const char16_t* text, NSASIO::SGuid* clsid) override;
  NSASIO::HResult CoInitialize() override;
  void CoUninitialize() override;
  NSASIO::HResult CoCreateInstance(const NSASIO::SGuid& clsid, uint32_t context,
                                   const NSASIO::SGuid& iid, void** object) override;
  NSASIO::FileHandle CreateFileForReading(const char16_t* path) override;
  void CloseHandle(NSASIO::FileHandle file) override;
  uint32_t SysStringLen(const char16_t* text) override;
  void SysFreeString(char16_t* text) override;

  // A string as the system's string allocator would give it.
  static char16_t* AllocString(const std::u16string& text);

 private:
  struct SKey {
    std::vector<std::pair<std::u16string, std::unique_ptr<SKey>>> subkeys;
    std::map<std::u16string, std::pair<uint32_t, std::u16string>> values;
  };
  SKey* Find(SKey* parent, const std::u16string& path, bool create);
  SKey* Root(NSASIO::RegistryKey key);
  int32_t OpenKey(EASIOPlatformCall call, NSASIO::RegistryKey parent, const char16_t* path,
                  NSASIO::RegistryKey* key);
  bool TakeFailure(EASIOPlatformCall call, int32_t& result);

  SKey localMachine_;
  SKey classesRoot_;
  std::vector<std::pair<NSASIO::SGuid, std::shared_ptr<SFakeASIODevice>>> classes_;
  std::set<std::u16string> files_;
  CFailurePlan failures_;
  std::mutex comLock_;
  std::vector<std::thread::id> comInit_;
  std::vector<std::thread::id> comUninit_;
  std::atomic<uint64_t> calls_[kPlatformCallCount] = {};
  std::atomic<int32_t> openKeys_{0};
  static std::atomic<int32_t> liveStrings_;
};

// "{...}" text of a class id made from a small number, and the id itself.
std::u16string FakeClsidText(uint32_t number);
NSASIO::SGuid FakeClsid(uint32_t number);

}  // namespace Fakes

#endif
