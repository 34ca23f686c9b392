// A real in-process COM server with the ASIO driver interface, for the tests
// and the demo under Wine. One DLL serves every class whose server entry
// names it; each object finds its settings under the "software\asio" entry
// whose "clsid" is its class, read when the object is made and at init:
// channels, sample type, sizes, rates, clocks, latencies, and faults.
#include <windows.h>
#include <mmsystem.h>
#include <objbase.h>
#include <oleauto.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <new>
#include <string>
#include <vector>

#include "asio/asio_interface.h"
#include "asio_driver/test_driver_stats.h"
#include "fakes/asio_sample_bytes.h"
#include "kernels/reference.h"

using namespace NSASIO;

namespace {

HMODULE gModule = nullptr;
std::atomic<long> gServerLocks{0};
SQuillonTestDriverStats gStats;
std::map<std::wstring, uint32_t> gCalls;  // calls made, by entry and name
CRITICAL_SECTION gStatsLock;

// {6B1C0E2A-5D3F-4E8B-9A71-0C2D4E6F8A10}
const SGuid kDefaultClsid = {0x6B1C0E2Au, 0x5D3F, 0x4E8B,
                             {0x9A, 0x71, 0x0C, 0x2D, 0x4E, 0x6F, 0x8A, 0x10}};
const wchar_t kDefaultKeyName[] = L"Quillon Test";
const wchar_t kDefaultDescription[] = L"ASIO Quillon Test";

std::wstring GuidText(const SGuid& guid) {
  wchar_t text[40] = {};
  StringFromGUID2(reinterpret_cast<const GUID&>(guid), text, 40);
  return text;
}

bool SameText(const std::wstring& a, const std::wstring& b) {
  return CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_EQUAL;
}

// The settings of one class, from its "software\asio" entry.
struct SConfig {
  std::wstring keyName;
  DWORD inputs = 2;
  DWORD outputs = 2;
  DWORD sampleType = ASIOSTInt32LSB;
  int32_t minSize = 64;
  int32_t maxSize = 2048;
  int32_t preferredSize = 256;
  int32_t granularity = -1;
  std::vector<double> rates = {44100.0, 48000.0};
  double rate = 48000.0;
  DWORD clockCount = 1;
  int32_t inputLatency = 32;
  int32_t outputLatency = 64;
  std::wstring refuse;  // "name:code" or "name@N:code", separated by ";"
  DWORD resetAfter = 0;
  DWORD stopAfter = 0;
  DWORD rateChangeAfter = 0;
  DWORD rateChangeTo = 0;
  std::wstring slowCall;
  DWORD slowMs = 0;
  DWORD crashOnCreate = 0;
  // A call that never returns ("hang"), or that faults ("crash"): create,
  // init, getChannels, getBufferSize, createBuffers, start, stop,
  // disposeBuffers, release, or any other call by its name.
  std::wstring hang;
  std::wstring crash;
  DWORD crashAfter = 0;  // the streaming thread faults after that many buffers
  DWORD neverCalls = 0;  // started, it never calls back
  DWORD identityMode = 0;  // 0 no interface, 1 the text, 2 a failure, 3 an empty text
  std::wstring identity;
  DWORD checkOutputs = 0;
};

DWORD ReadNumber(HKEY key, const wchar_t* name, DWORD fallback) {
  DWORD value = 0;
  DWORD bytes = sizeof value;
  DWORD type = 0;
  if (RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&value), &bytes) !=
          ERROR_SUCCESS ||
      type != REG_DWORD) {
    return fallback;
  }
  return value;
}

std::wstring ReadText(HKEY key, const wchar_t* name) {
  wchar_t text[512] = {};
  DWORD bytes = sizeof text - sizeof(wchar_t);
  DWORD type = 0;
  if (RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(text), &bytes) !=
          ERROR_SUCCESS ||
      type != REG_SZ) {
    return std::wstring();
  }
  return text;
}

bool LoadConfig(const SGuid& clsid, SConfig& config) {
  HKEY root = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"software\\asio", 0, KEY_READ, &root) != ERROR_SUCCESS) {
    return false;
  }
  const std::wstring wanted = GuidText(clsid);
  bool found = false;
  for (DWORD index = 0; !found; ++index) {
    wchar_t name[256] = {};
    DWORD units = 256;
    if (RegEnumKeyExW(root, index, name, &units, nullptr, nullptr, nullptr, nullptr) !=
        ERROR_SUCCESS) {
      break;
    }
    HKEY key = nullptr;
    if (RegOpenKeyExW(root, name, 0, KEY_READ, &key) != ERROR_SUCCESS) continue;
    if (SameText(ReadText(key, L"clsid"), wanted)) {
      found = true;
      config.keyName = name;
      config.inputs = ReadNumber(key, L"inputs", config.inputs);
      config.outputs = ReadNumber(key, L"outputs", config.outputs);
      config.sampleType = ReadNumber(key, L"sampleType", config.sampleType);
      config.minSize = static_cast<int32_t>(ReadNumber(key, L"minSize", 64));
      config.maxSize = static_cast<int32_t>(ReadNumber(key, L"maxSize", 2048));
      config.preferredSize = static_cast<int32_t>(ReadNumber(key, L"preferredSize", 256));
      config.granularity = static_cast<int32_t>(ReadNumber(key, L"granularity", 0xFFFFFFFFu));
      const std::wstring rates = ReadText(key, L"rates");
      if (!rates.empty()) {
        config.rates.clear();
        for (const wchar_t* p = rates.c_str(); *p != 0;) {
          wchar_t* end = nullptr;
          const double rate = wcstod(p, &end);
          if (end == p) break;
          config.rates.push_back(rate);
          p = *end == L',' ? end + 1 : end;
        }
      }
      config.rate = static_cast<double>(ReadNumber(key, L"rate", 48000));
      config.clockCount = ReadNumber(key, L"clockCount", 1);
      config.inputLatency = static_cast<int32_t>(ReadNumber(key, L"inputLatency", 32));
      config.outputLatency = static_cast<int32_t>(ReadNumber(key, L"outputLatency", 64));
      config.refuse = ReadText(key, L"refuse");
      config.resetAfter = ReadNumber(key, L"resetAfter", 0);
      config.stopAfter = ReadNumber(key, L"stopAfter", 0);
      config.rateChangeAfter = ReadNumber(key, L"rateChangeAfter", 0);
      config.rateChangeTo = ReadNumber(key, L"rateChangeTo", 0);
      config.slowCall = ReadText(key, L"slowCall");
      config.slowMs = ReadNumber(key, L"slowMs", 0);
      config.crashOnCreate = ReadNumber(key, L"crashOnCreate", 0);
      config.hang = ReadText(key, L"hang");
      config.crash = ReadText(key, L"crash");
      config.crashAfter = ReadNumber(key, L"crashAfter", 0);
      config.neverCalls = ReadNumber(key, L"neverCalls", 0);
      config.identityMode = ReadNumber(key, L"identityMode", 0);
      config.identity = ReadText(key, L"identity");
      config.checkOutputs = ReadNumber(key, L"checkOutputs", 0);
    }
    RegCloseKey(key);
  }
  RegCloseKey(root);
  return found;
}

// The ramp the test host renders, and the bytes each type makes of it.
void ExpectedBytes(DWORD type, float value, uint8_t* out) {
  auto put32 = [&](uint32_t v, bool swap) {
    if (swap) v = Reference::Swap32(v);
    std::memcpy(out, &v, 4);
  };
  switch (type) {
    case ASIOSTInt16LSB:
    case ASIOSTInt16MSB: {
      uint16_t v = static_cast<uint16_t>(Reference::FloatToInt16(value));
      if (type == ASIOSTInt16MSB) v = static_cast<uint16_t>((v >> 8) | (v << 8));
      std::memcpy(out, &v, 2);
      return;
    }
    case ASIOSTInt24LSB:
    case ASIOSTInt24MSB: {
      const uint32_t v = static_cast<uint32_t>(Reference::FloatToInt24Value(value));
      const uint8_t bytes[3] = {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8),
                                static_cast<uint8_t>(v >> 16)};
      const bool swap = type == ASIOSTInt24MSB;
      for (int i = 0; i < 3; ++i) out[i] = bytes[swap ? 2 - i : i];
      return;
    }
    case ASIOSTInt32LSB: put32(static_cast<uint32_t>(Reference::FloatToInt32(value)), false); return;
    case ASIOSTInt32MSB: put32(static_cast<uint32_t>(Reference::FloatToInt32(value)), true); return;
    case ASIOSTFloat32LSB: std::memcpy(out, &value, 4); return;
    default: break;
  }
  static const uint32_t kBits[4] = {16, 18, 20, 24};
  if (type >= ASIOSTInt32LSB16 && type <= ASIOSTInt32LSB24) {
    put32(static_cast<uint32_t>(
              Reference::FloatToShiftedInt32(value, kBits[type - ASIOSTInt32LSB16], 93)),
          false);
  } else if (type >= ASIOSTInt32MSB16 && type <= ASIOSTInt32MSB24) {
    put32(static_cast<uint32_t>(
              Reference::FloatToShiftedInt32(value, kBits[type - ASIOSTInt32MSB16], 92)),
          false);
  }
}

// A fault of the driver's own code: a write through a null pointer.
void Fault() {
  // An address the compiler cannot see is null.
  volatile uintptr_t nowhere = 0;
  *reinterpret_cast<volatile int*>(nowhere) = 1;
}

// Hangs or faults when the settings say so for this call.
void Misbehave(const SConfig& config, const wchar_t* call) {
  if (!config.hang.empty() && SameText(config.hang, call)) {
    for (;;) Sleep(INFINITE);
  }
  if (!config.crash.empty() && SameText(config.crash, call)) Fault();
}

void AddStat(uint64_t SQuillonTestDriverStats::*field, uint64_t amount = 1) {
  EnterCriticalSection(&gStatsLock);
  gStats.*field += amount;
  LeaveCriticalSection(&gStatsLock);
}

class CTestDriver final : public IASIO, public IASIOHardwareIdentity {
 public:
  CTestDriver(const SGuid& clsid, const SConfig& config) : clsid_(clsid), config_(config) {
    EnterCriticalSection(&gStatsLock);
    ++gStats.liveObjects;
    ++gStats.createdObjects;
    if (gStats.liveObjects > gStats.mostLiveObjects) gStats.mostLiveObjects = gStats.liveObjects;
    LeaveCriticalSection(&gStatsLock);
    rate_ = config_.rate;
  }

  HResult QueryInterface(const SGuid& iid, void** object) override {
    static const SGuid kUnknown = {0, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
    if (iid == clsid_ || iid == kUnknown) {
      *object = static_cast<IASIO*>(this);
    } else if (iid == kIIDHardwareIdentity && config_.identityMode != 0) {
      *object = static_cast<IASIOHardwareIdentity*>(this);
    } else {
      *object = nullptr;
      return kHResultNoInterface;
    }
    AddRef();
    return kHResultOk;
  }
  uint32_t AddRef() override { return static_cast<uint32_t>(++references_); }
  uint32_t Release() override {
    if (references_.load() == 1) Misbehave(config_, L"release");
    const long left = --references_;
    if (left == 0) delete this;
    return static_cast<uint32_t>(left);
  }
  HResult GetHardwareIdentity(char16_t** identity) override {
    if (config_.identityMode == 2) return kHResultFail;
    const std::wstring text = config_.identityMode == 3 ? std::wstring() : config_.identity;
    *identity = reinterpret_cast<char16_t*>(SysAllocString(text.c_str()));
    return kHResultOk;
  }

  ASIOBool init(void*) override {
    ASIOError code = 0;
    LoadConfig(clsid_, config_);
    if (Refused(L"init", code)) return 0;
    return 1;
  }
  void getDriverName(char* name) override { std::strcpy(name, "Quillon Test"); }
  int32_t getDriverVersion() override { return 1; }
  void getErrorMessage(char* text) override { std::strcpy(text, "refused by its settings"); }

  ASIOError start() override {
    ASIOError code = 0;
    if (Refused(L"start", code)) return code;
    if (buffers_.empty() || callbacks_ == nullptr) return ASE_InvalidMode;
    running_ = true;
    thread_ = CreateThread(nullptr, 0, &CTestDriver::ThreadEntry, this, 0, nullptr);
    if (thread_ == nullptr) return ASE_HWMalfunction;
    SetThreadPriority(thread_, THREAD_PRIORITY_TIME_CRITICAL);
    return ASE_OK;
  }
  ASIOError stop() override {
    ASIOError code = 0;
    // A stop that never comes back leaves its thread calling.
    Misbehave(config_, L"stop");
    StopThread();
    if (Refused(L"stop", code)) return code;
    return ASE_OK;
  }
  ASIOError getChannels(int32_t* inputs, int32_t* outputs) override {
    ASIOError code = 0;
    if (Refused(L"getChannels", code)) return code;
    *inputs = static_cast<int32_t>(config_.inputs);
    *outputs = static_cast<int32_t>(config_.outputs);
    return ASE_OK;
  }
  ASIOError getLatencies(int32_t* input, int32_t* output) override {
    ASIOError code = 0;
    if (Refused(L"getLatencies", code)) return code;
    *input = config_.inputLatency;
    *output = config_.outputLatency;
    return ASE_OK;
  }
  ASIOError getBufferSize(int32_t* minimum, int32_t* maximum, int32_t* preferred,
                          int32_t* granularity) override {
    ASIOError code = 0;
    if (Refused(L"getBufferSize", code)) return code;
    *minimum = config_.minSize;
    *maximum = config_.maxSize;
    *preferred = config_.preferredSize;
    *granularity = config_.granularity;
    return ASE_OK;
  }
  ASIOError canSampleRate(ASIOSampleRate rate) override {
    ASIOError code = 0;
    if (Refused(L"canSampleRate", code)) return code;
    for (double offered : config_.rates) {
      if (offered == rate) return ASE_OK;
    }
    return ASE_NoClock;
  }
  ASIOError getSampleRate(ASIOSampleRate* rate) override {
    ASIOError code = 0;
    if (Refused(L"getSampleRate", code)) return code;
    *rate = rate_;
    return ASE_OK;
  }
  ASIOError setSampleRate(ASIOSampleRate rate) override {
    ASIOError code = 0;
    if (Refused(L"setSampleRate", code)) return code;
    if (canSampleRate(rate) != ASE_OK) return ASE_NoClock;
    rate_ = rate;
    return ASE_OK;
  }
  ASIOError getClockSources(ASIOClockSource* clocks, int32_t* count) override {
    ASIOError code = 0;
    if (Refused(L"getClockSources", code)) return code;
    const int32_t given = static_cast<int32_t>(config_.clockCount) < *count
                              ? static_cast<int32_t>(config_.clockCount)
                              : *count;
    for (int32_t i = 0; i < given; ++i) {
      std::memset(&clocks[i], 0, sizeof clocks[i]);
      clocks[i].index = i;
      clocks[i].associatedChannel = -1;
      clocks[i].isCurrentSource = i == clock_ ? 1 : 0;
      std::snprintf(clocks[i].name, sizeof clocks[i].name, i == 0 ? "Internal" : "External %d",
                    static_cast<int>(i));
    }
    *count = given;
    return ASE_OK;
  }
  ASIOError setClockSource(int32_t reference) override {
    ASIOError code = 0;
    if (Refused(L"setClockSource", code)) return code;
    if (reference < 0 || reference >= static_cast<int32_t>(config_.clockCount)) {
      return ASE_InvalidParameter;
    }
    clock_ = reference;
    return ASE_OK;
  }
  ASIOError getSamplePosition(ASIOSamples* position, ASIOTimeStamp* stamp) override {
    ASIOError code = 0;
    if (Refused(L"getSamplePosition", code)) return code;
    const uint64_t samples = position_.load();
    const uint64_t time = stamp_.load();
    *position = {static_cast<uint32_t>(samples >> 32), static_cast<uint32_t>(samples)};
    *stamp = {static_cast<uint32_t>(time >> 32), static_cast<uint32_t>(time)};
    return ASE_OK;
  }
  ASIOError getChannelInfo(ASIOChannelInfo* info) override {
    ASIOError code = 0;
    if (Refused(L"getChannelInfo", code)) return code;
    const DWORD count = info->isInput ? config_.inputs : config_.outputs;
    if (info->channel < 0 || static_cast<DWORD>(info->channel) >= count) {
      return ASE_InvalidParameter;
    }
    info->type = static_cast<ASIOSampleType>(config_.sampleType);
    info->channelGroup = 0;
    info->isActive = 0;
    std::snprintf(info->name, sizeof info->name, "%s %d", info->isInput ? "Test In" : "Test Out",
                  static_cast<int>(info->channel + 1));
    return ASE_OK;
  }
  ASIOError createBuffers(ASIOBufferInfo* infos, int32_t count, int32_t frames,
                          ASIOCallbacks* callbacks) override {
    ASIOError code = 0;
    if (Refused(L"createBuffers", code)) return code;
    if (frames < config_.minSize || frames > config_.maxSize) return ASE_InvalidMode;
    buffers_.clear();
    outputs_.clear();
    const size_t bytes = static_cast<size_t>(frames) * Fakes::BytesPerSample(config_.sampleType);
    buffers_.reserve(static_cast<size_t>(count) * 2);
    for (int32_t i = 0; i < count; ++i) {
      const DWORD limit = infos[i].isInput ? config_.inputs : config_.outputs;
      if (infos[i].channelNum < 0 || static_cast<DWORD>(infos[i].channelNum) >= limit) {
        buffers_.clear();
        return ASE_InvalidParameter;
      }
      for (int half = 0; half < 2; ++half) {
        buffers_.emplace_back(bytes, static_cast<uint8_t>(0));
        infos[i].buffers[half] = buffers_.back().data();
      }
      if (!infos[i].isInput) outputs_.push_back({infos[i].channelNum, i});
    }
    frames_ = frames;
    callbacks_ = callbacks;
    return ASE_OK;
  }
  ASIOError disposeBuffers() override {
    ASIOError code = 0;
    Misbehave(config_, L"disposeBuffers");
    StopThread();
    if (Refused(L"disposeBuffers", code)) return code;
    buffers_.clear();
    outputs_.clear();
    callbacks_ = nullptr;
    return ASE_OK;
  }
  ASIOError controlPanel() override { return ASE_OK; }
  ASIOError future(int32_t selector, void* opt) override {
    ASIOError code = 0;
    if (Refused(L"future", code)) return code;
    if (selector == kAsioCanInputMonitor) {
      *static_cast<uint32_t*>(opt) = 1;
      return ASE_SUCCESS;
    }
    if (selector == kAsioSetInputMonitor) return ASE_SUCCESS;
    return ASE_InvalidParameter;
  }
  ASIOError outputReady() override {
    AddStat(&SQuillonTestDriverStats::outputReadyCalls);
    return ASE_OK;
  }

 private:
  ~CTestDriver() {
    StopThread();
    EnterCriticalSection(&gStatsLock);
    --gStats.liveObjects;
    LeaveCriticalSection(&gStatsLock);
  }

  // Whether the settings refuse this call now, and with what.
  bool Refused(const wchar_t* call, ASIOError& code) {
    const std::wstring name = call;
    // Counted per driver entry across its objects: a restart makes a new one.
    EnterCriticalSection(&gStatsLock);
    const uint32_t made = ++gCalls[config_.keyName + L"/" + name];
    LeaveCriticalSection(&gStatsLock);
    Misbehave(config_, call);
    if (!config_.slowCall.empty() && SameText(config_.slowCall, name)) Sleep(config_.slowMs);
    size_t start = 0;
    while (start < config_.refuse.size()) {
      size_t end = config_.refuse.find(L';', start);
      if (end == std::wstring::npos) end = config_.refuse.size();
      const std::wstring rule = config_.refuse.substr(start, end - start);
      start = end + 1;
      const size_t colon = rule.find(L':');
      if (colon == std::wstring::npos) continue;
      std::wstring target = rule.substr(0, colon);
      uint32_t from = 1;
      const size_t at = target.find(L'@');
      if (at != std::wstring::npos) {
        from = static_cast<uint32_t>(_wtoi(target.c_str() + at + 1));
        target.resize(at);
      }
      if (SameText(target, name) && made >= from) {
        code = static_cast<ASIOError>(_wtoi(rule.c_str() + colon + 1));
        return true;
      }
    }
    return false;
  }

  static DWORD WINAPI ThreadEntry(void* self) {
    static_cast<CTestDriver*>(self)->Run();
    return 0;
  }

  void Run() {
    LARGE_INTEGER frequency, begin, now;
    QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&begin);
    int32_t half = 0;
    bool timeInfo = false;
    for (uint64_t n = 1; running_; ++n) {
      // Buffer n is due when n buffers of time have passed: the pace holds
      // on average whatever one wait costs.
      const double due = static_cast<double>(n) * frames_ / rate_;
      for (;;) {
        QueryPerformanceCounter(&now);
        const double elapsed = static_cast<double>(now.QuadPart - begin.QuadPart) /
                               static_cast<double>(frequency.QuadPart);
        if (elapsed >= due || !running_) break;
        const double left = due - elapsed;
        Sleep(left > 0.002 ? 1 : 0);
      }
      if (!running_) break;
      if (config_.stopAfter != 0 && n > config_.stopAfter) continue;
      if (config_.neverCalls != 0) continue;
      if (config_.crashAfter != 0 && n > config_.crashAfter) Fault();
      if (n == 1) {
        // Asked on the first buffer, when the host is there to answer.
        timeInfo = callbacks_->asioMessage(kAsioSupportsTimeInfo, 0, nullptr, nullptr) == 1;
        EnterCriticalSection(&gStatsLock);
        gStats.timeInfo = timeInfo ? 1 : 0;
        LeaveCriticalSection(&gStatsLock);
      }
      position_ = (n - 1) * static_cast<uint64_t>(frames_);
      stamp_ = static_cast<uint64_t>(timeGetTime()) * 1000000u;
      if (timeInfo) {
        ASIOTime time;
        std::memset(&time, 0, sizeof time);
        time.timeInfo.flags = kSystemTimeValid | kSamplePositionValid | kSampleRateValid;
        time.timeInfo.sampleRate = rate_;
        const uint64_t position = position_;
        const uint64_t stamp = stamp_;
        time.timeInfo.samplePosition = {static_cast<uint32_t>(position >> 32),
                                        static_cast<uint32_t>(position)};
        time.timeInfo.systemTime = {static_cast<uint32_t>(stamp >> 32),
                                    static_cast<uint32_t>(stamp)};
        callbacks_->bufferSwitchTimeInfo(&time, half, 1);
      } else {
        callbacks_->bufferSwitch(half, 1);
      }
      AddStat(&SQuillonTestDriverStats::switches);
      if (config_.checkOutputs != 0) CheckOutputs(half);
      if (config_.resetAfter != 0 && n == config_.resetAfter) {
        callbacks_->asioMessage(kAsioResetRequest, 0, nullptr, nullptr);
      }
      if (config_.rateChangeAfter != 0 && n == config_.rateChangeAfter) {
        rate_ = config_.rateChangeTo;
        callbacks_->sampleRateDidChange(config_.rateChangeTo);
      }
      half = 1 - half;
    }
  }

  void CheckOutputs(int32_t half) {
    const size_t size = Fakes::BytesPerSample(config_.sampleType);
    uint64_t wrong = 0;
    for (const SOutput& output : outputs_) {
      const uint8_t* buffer = buffers_[static_cast<size_t>(output.entry) * 2 +
                                       static_cast<size_t>(half)].data();
      for (int32_t f = 0; f < frames_; ++f) {
        uint8_t expected[8] = {};
        ExpectedBytes(config_.sampleType, QuillonTestRamp(f, output.channel), expected);
        if (std::memcmp(expected, buffer + static_cast<size_t>(f) * size, size) != 0) ++wrong;
      }
    }
    AddStat(&SQuillonTestDriverStats::checkedBuffers);
    if (wrong != 0) AddStat(&SQuillonTestDriverStats::mismatches, wrong);
  }

  void StopThread() {
    running_ = false;
    if (thread_ != nullptr) {
      WaitForSingleObject(thread_, INFINITE);
      CloseHandle(thread_);
      thread_ = nullptr;
    }
  }

  struct SOutput {
    int32_t channel;
    int32_t entry;
  };

  SGuid clsid_;
  SConfig config_;
  std::atomic<long> references_{1};
  std::vector<std::vector<uint8_t>> buffers_;
  std::vector<SOutput> outputs_;
  ASIOCallbacks* callbacks_ = nullptr;
  int32_t frames_ = 0;
  double rate_ = 48000.0;
  int32_t clock_ = 0;
  std::atomic<bool> running_{false};
  HANDLE thread_ = nullptr;
  std::atomic<uint64_t> position_{0};
  std::atomic<uint64_t> stamp_{0};
};

// The class factory's COM layout, declared as the driver's own interface is.
class IClassFactoryLayout : public IUnknownLayout {
 public:
  virtual HResult CreateInstance(void* outer, const SGuid& iid, void** object) = 0;
  virtual HResult LockServer(int32_t lock) = 0;

 protected:
  ~IClassFactoryLayout() = default;
};

const SGuid kIIDUnknown = {0x00000000u, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
const SGuid kIIDClassFactory = {0x00000001u, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};

class CFactory final : public IClassFactoryLayout {
 public:
  explicit CFactory(const SGuid& clsid) : clsid_(clsid) {}
  HResult QueryInterface(const SGuid& iid, void** object) override {
    if (iid == kIIDUnknown || iid == kIIDClassFactory) {
      *object = static_cast<IClassFactoryLayout*>(this);
      AddRef();
      return kHResultOk;
    }
    *object = nullptr;
    return kHResultNoInterface;
  }
  uint32_t AddRef() override { return static_cast<uint32_t>(++references_); }
  uint32_t Release() override {
    const long left = --references_;
    if (left == 0) delete this;
    return static_cast<uint32_t>(left);
  }
  HResult CreateInstance(void* outer, const SGuid& iid, void** object) override {
    *object = nullptr;
    if (outer != nullptr) return static_cast<HResult>(CLASS_E_NOAGGREGATION);
    SConfig config;
    LoadConfig(clsid_, config);
    Misbehave(config, L"create");
    if (config.crashOnCreate != 0) {
      // A driver that takes its host down when made: listing must not make it.
      RaiseException(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_NONCONTINUABLE, 0, nullptr);
    }
    CTestDriver* driver = new (std::nothrow) CTestDriver(clsid_, config);
    if (driver == nullptr) return kHResultOutOfMemory;
    const HResult result = driver->QueryInterface(iid, object);
    driver->Release();
    return result;
  }
  HResult LockServer(int32_t lock) override {
    if (lock != 0) {
      ++gServerLocks;
    } else {
      --gServerLocks;
    }
    return kHResultOk;
  }

 private:
  ~CFactory() = default;
  SGuid clsid_;
  std::atomic<long> references_{1};
};

LONG WriteText(HKEY root, const std::wstring& path, const wchar_t* name, const std::wstring& text) {
  HKEY key = nullptr;
  LONG result = RegCreateKeyExW(root, path.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr);
  if (result != ERROR_SUCCESS) return result;
  result = RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                          static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
  RegCloseKey(key);
  return result;
}

}  // namespace

extern "C" {

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, void*) {
  if (reason == DLL_PROCESS_ATTACH) {
    gModule = instance;
    InitializeCriticalSection(&gStatsLock);
    DisableThreadLibraryCalls(instance);
  } else if (reason == DLL_PROCESS_DETACH) {
    DeleteCriticalSection(&gStatsLock);
  }
  return TRUE;
}

HRESULT WINAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void** object) {
  *object = nullptr;
  CFactory* factory = new (std::nothrow) CFactory(reinterpret_cast<const SGuid&>(clsid));
  if (factory == nullptr) return E_OUTOFMEMORY;
  const HResult result = factory->QueryInterface(reinterpret_cast<const SGuid&>(iid), object);
  factory->Release();
  return result;
}

HRESULT WINAPI DllCanUnloadNow() {
  EnterCriticalSection(&gStatsLock);
  const bool idle = gStats.liveObjects == 0;
  LeaveCriticalSection(&gStatsLock);
  return idle && gServerLocks == 0 ? S_OK : S_FALSE;
}

HRESULT WINAPI DllRegisterServer() {
  wchar_t path[MAX_PATH] = {};
  if (GetModuleFileNameW(gModule, path, MAX_PATH) == 0) return E_FAIL;
  const std::wstring clsid = GuidText(kDefaultClsid);
  const std::wstring classKey = L"CLSID\\" + clsid;
  if (WriteText(HKEY_CLASSES_ROOT, classKey, nullptr, L"Quillon test ASIO driver") != ERROR_SUCCESS ||
      WriteText(HKEY_CLASSES_ROOT, classKey + L"\\InprocServer32", nullptr, path) != ERROR_SUCCESS ||
      WriteText(HKEY_CLASSES_ROOT, classKey + L"\\InprocServer32", L"ThreadingModel", L"Both") !=
          ERROR_SUCCESS) {
    return E_FAIL;
  }
  const std::wstring driverKey = std::wstring(L"software\\asio\\") + kDefaultKeyName;
  if (WriteText(HKEY_LOCAL_MACHINE, driverKey, L"clsid", clsid) != ERROR_SUCCESS ||
      WriteText(HKEY_LOCAL_MACHINE, driverKey, L"description", kDefaultDescription) !=
          ERROR_SUCCESS) {
    return E_FAIL;
  }
  return S_OK;
}

HRESULT WINAPI DllUnregisterServer() {
  const std::wstring clsid = GuidText(kDefaultClsid);
  RegDeleteTreeW(HKEY_CLASSES_ROOT, (L"CLSID\\" + clsid).c_str());
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, (std::wstring(L"software\\asio\\") + kDefaultKeyName).c_str());
  return S_OK;
}

void WINAPI QuillonTestDriverStats(SQuillonTestDriverStats* stats) {
  EnterCriticalSection(&gStatsLock);
  *stats = gStats;
  LeaveCriticalSection(&gStatsLock);
}

void WINAPI QuillonTestDriverResetStats() {
  EnterCriticalSection(&gStatsLock);
  const int64_t live = gStats.liveObjects;
  gStats = SQuillonTestDriverStats();
  gCalls.clear();
  gStats.liveObjects = live;
  gStats.mostLiveObjects = live;
  LeaveCriticalSection(&gStatsLock);
}

}  // extern "C"
