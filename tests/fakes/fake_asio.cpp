#include "fakes/fake_asio.h"

#include "fakes/asio_sample_bytes.h"

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <stdexcept>

using namespace NSASIO;

namespace Fakes {

namespace {

char16_t Lower(char16_t unit) {
  return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit + 32) : unit;
}

bool SameName(const std::u16string& a, const std::u16string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (Lower(a[i]) != Lower(b[i])) return false;
  }
  return true;
}

void CopyName(char* target, const std::string& text) {
  std::memset(target, 0, 32);
  std::memcpy(target, text.data(), text.size() < 32 ? text.size() : 32);
}

int HexValue(char16_t unit) {
  if (unit >= u'0' && unit <= u'9') return unit - u'0';
  if (unit >= u'a' && unit <= u'f') return unit - u'a' + 10;
  if (unit >= u'A' && unit <= u'F') return unit - u'A' + 10;
  return -1;
}

HResult ParseClsid(const char16_t* text, SGuid* clsid) {
  const std::u16string t = text;
  const HResult bad = static_cast<HResult>(0x800401F3u);
  if (t.size() != 38 || t[0] != u'{' || t[37] != u'}') return bad;
  static const int kDashes[4] = {9, 14, 19, 24};
  for (int d : kDashes) {
    if (t[static_cast<size_t>(d)] != u'-') return bad;
  }
  std::vector<int> digits;
  for (size_t i = 1; i < 37; ++i) {
    if (t[i] == u'-') continue;
    const int v = HexValue(t[i]);
    if (v < 0) return bad;
    digits.push_back(v);
  }
  auto number = [&](size_t from, size_t count) {
    uint32_t n = 0;
    for (size_t i = 0; i < count; ++i) n = n * 16 + static_cast<uint32_t>(digits[from + i]);
    return n;
  };
  clsid->data1 = number(0, 8);
  clsid->data2 = static_cast<uint16_t>(number(8, 4));
  clsid->data3 = static_cast<uint16_t>(number(12, 4));
  for (size_t i = 0; i < 8; ++i) clsid->data4[i] = static_cast<uint8_t>(number(16 + i * 2, 2));
  return kHResultOk;
}

}  // namespace

void SFakeASIODevice::Fail(EASIOCall call, ASIOError result, int32_t times) {
  failures_.Fail(call, result, times);
}

bool SFakeASIODevice::TakeFailure(EASIOCall call, ASIOError& result) {
  return failures_.Take(call, result);
}

void SFakeASIODevice::MaybeHang(EASIOCall call) {
  int32_t crashing = static_cast<int32_t>(call);
  if (crashAt.compare_exchange_strong(crashing, -1)) {
    ++misbehaved;
    throw std::runtime_error("driver fault");
  }
  int32_t expected = static_cast<int32_t>(call);
  if (!hangAt.compare_exchange_strong(expected, -1)) return;
  ++misbehaved;
  ++hanging;
  // Never set free: the gate outlives every test of the process.
  static auto* gate = new std::pair<std::mutex, std::condition_variable>();
  std::unique_lock<std::mutex> hold(gate->first);
  gate->second.wait(hold, [] { return false; });
}

std::set<std::thread::id> SFakeASIODevice::CallThreads() {
  std::lock_guard<std::mutex> hold(lock_);
  return callThreads_;
}

void SFakeASIODevice::NoteCallThread() {
  std::lock_guard<std::mutex> hold(lock_);
  callThreads_.insert(std::this_thread::get_id());
}

std::vector<std::string> SFakeASIODevice::Log() {
  std::lock_guard<std::mutex> hold(lock_);
  return log_;
}

void SFakeASIODevice::ForgetLog() {
  std::lock_guard<std::mutex> hold(lock_);
  std::vector<std::string>().swap(log_);
  std::set<std::thread::id>().swap(callThreads_);
}

void SFakeASIODevice::Record(const std::string& entry) {
  std::lock_guard<std::mutex> hold(lock_);
  log_.push_back(entry);
}

CFakeASIODriver* SFakeASIODevice::Live() {
  std::lock_guard<std::mutex> hold(lock_);
  return live_;
}

CFakeASIODriver::CFakeASIODriver(std::shared_ptr<SFakeASIODevice> device)
    : device_(std::move(device)) {
  ++device_->liveObjects;
  ++device_->createdObjects;
  std::lock_guard<std::mutex> hold(device_->lock_);
  device_->live_ = this;
}

CFakeASIODriver::~CFakeASIODriver() {
  StopThread();
  --device_->liveObjects;
  std::lock_guard<std::mutex> hold(device_->lock_);
  if (device_->live_ == this) device_->live_ = nullptr;
}

HResult CFakeASIODriver::QueryInterface(const SGuid& iid, void** object) {
  ASIOError failure = 0;
  if (Failing(kAsioQueryInterface, failure)) {
    *object = nullptr;
    return static_cast<HResult>(0x80004005u);
  }
  if (iid == kIIDHardwareIdentity && device_->hasIdentity) {
    AddRef();
    *object = static_cast<IASIOHardwareIdentity*>(this);
    return kHResultOk;
  }
  *object = nullptr;
  return kHResultNoInterface;
}

uint32_t CFakeASIODriver::AddRef() { return ++references_; }

uint32_t CFakeASIODriver::Release() {
  device_->NoteCallThread();
  if (references_.load() == 1) device_->MaybeHang(kAsioRelease);
  const uint32_t left = --references_;
  if (left == 0) delete this;
  return left;
}

HResult CFakeASIODriver::GetHardwareIdentity(char16_t** identity) {
  ASIOError failure = 0;
  if (Failing(kAsioHardwareIdentity, failure)) {
    *identity = nullptr;
    return static_cast<HResult>(0x80004005u);
  }
  *identity = CFakeASIOPlatform::AllocString(device_->identity);
  return device_->identityAnswer;
}

bool CFakeASIODriver::Failing(EASIOCall call, ASIOError& result) {
  if (call != kAsioGetSamplePosition && call != kAsioOutputReady) device_->NoteCallThread();
  device_->MaybeHang(call);
  ++device_->calls[call];
  return device_->TakeFailure(call, result);
}

ASIOBool CFakeASIODriver::init(void*) {
  device_->NoteCallThread();
  device_->MaybeHang(kAsioInit);
  ++device_->calls[kAsioInit];
  device_->Record("init");
  return device_->initResult;
}

void CFakeASIODriver::getDriverName(char* name) { CopyName(name, device_->name); }

int32_t CFakeASIODriver::getDriverVersion() { return device_->version; }

void CFakeASIODriver::getErrorMessage(char* text) {
  std::memset(text, 0, 124);
  std::memcpy(text, device_->errorMessage.data(),
              device_->errorMessage.size() < 123 ? device_->errorMessage.size() : 123);
}

ASIOError CFakeASIODriver::start() {
  ASIOError result = ASE_OK;
  device_->Record("start");
  if (Failing(kAsioStart, result)) return result;
  if (device_->callInsideStart) SwitchNow(0);
  running_ = true;
  thread_ = std::thread([this] { Run(); });
  return ASE_OK;
}

ASIOError CFakeASIODriver::stop() {
  ASIOError result = ASE_OK;
  device_->Record("stop");
  // A stop that never returns leaves the stream calling back.
  device_->MaybeHang(kAsioStop);
  StopThread();
  if (Failing(kAsioStop, result)) return result;
  return ASE_OK;
}

void CFakeASIODriver::StopThread() {
  running_ = false;
  if (thread_.joinable()) thread_.join();
}

void CFakeASIODriver::Run() {
  auto next = std::chrono::steady_clock::now();
  while (running_) {
    uint32_t period = device_->periodMs;
    if (period == 0) {
      const double rate = device_->rate.load() > 0 ? device_->rate.load() : 48000.0;
      period = static_cast<uint32_t>(frames_ * 1000.0 / rate);
      if (period == 0) period = 1;
    }
    next += std::chrono::milliseconds(period);
    std::this_thread::sleep_until(next);
    if (!running_) break;
    if (device_->stopCalling) continue;
    SwitchNow(half_);
    half_ = 1 - half_;
  }
}

void CFakeASIODriver::SwitchNow(int32_t index) {
  if (callbacks_ == nullptr) return;
  device_->position += static_cast<uint64_t>(frames_);
  device_->systemTimeNs += 1000000;
  ++device_->switches;
  if (device_->timeInfo) {
    ASIOTime time;
    std::memset(&time, 0, sizeof time);
    time.timeInfo.flags = device_->timeFlags;
    time.timeInfo.sampleRate = device_->timeRate;
    const uint64_t position = device_->position;
    const uint64_t stamp = device_->systemTimeNs;
    time.timeInfo.samplePosition = {static_cast<uint32_t>(position >> 32),
                                    static_cast<uint32_t>(position)};
    time.timeInfo.systemTime = {static_cast<uint32_t>(stamp >> 32), static_cast<uint32_t>(stamp)};
    callbacks_->bufferSwitchTimeInfo(&time, index, 1);
  } else {
    callbacks_->bufferSwitch(index, 1);
  }
}

int32_t CFakeASIODriver::Message(int32_t selector, int32_t value) {
  return callbacks_ == nullptr ? 0 : callbacks_->asioMessage(selector, value, nullptr, nullptr);
}

void CFakeASIODriver::ReportRate(double rate) {
  if (callbacks_ != nullptr) callbacks_->sampleRateDidChange(rate);
}

ASIOError CFakeASIODriver::getChannels(int32_t* inputs, int32_t* outputs) {
  ASIOError result = ASE_OK;
  if (Failing(kAsioGetChannels, result)) return result;
  *inputs = device_->inputs;
  *outputs = device_->outputs;
  return ASE_OK;
}

ASIOError CFakeASIODriver::getLatencies(int32_t* input, int32_t* output) {
  ASIOError result = ASE_OK;
  if (Failing(kAsioGetLatencies, result)) return result;
  *input = device_->inputLatency;
  *output = device_->outputLatency;
  return ASE_OK;
}

ASIOError CFakeASIODriver::getBufferSize(int32_t* minimum, int32_t* maximum, int32_t* preferred,
                                         int32_t* granularity) {
  ASIOError result = ASE_OK;
  if (Failing(kAsioGetBufferSize, result)) return result;
  *minimum = device_->minimumSize;
  *maximum = device_->maximumSize;
  *preferred = device_->preferredSize;
  *granularity = device_->granularity;
  const int32_t next = device_->nextPreferredSize.exchange(0);
  if (next != 0) device_->preferredSize = next;
  return ASE_OK;
}

ASIOError CFakeASIODriver::canSampleRate(ASIOSampleRate rate) {
  ASIOError result = ASE_OK;
  if (Failing(kAsioCanSampleRate, result)) return result;
  return device_->rates.count(static_cast<uint32_t>(rate)) != 0 ? ASE_OK : ASE_NoClock;
}

ASIOError CFakeASIODriver::getSampleRate(ASIOSampleRate* rate) {
  ASIOError result = ASE_OK;
  if (Failing(kAsioGetSampleRate, result)) return result;
  if (!device_->rateWritesNothing) *rate = device_->rate;
  return ASE_OK;
}

ASIOError CFakeASIODriver::setSampleRate(ASIOSampleRate rate) {
  ASIOError result = ASE_OK;
  device_->lastRateSet = rate;
  if (Failing(kAsioSetSampleRate, result)) return result;
  if (device_->rates.count(static_cast<uint32_t>(rate)) == 0) return ASE_NoClock;
  device_->rate = rate;
  return ASE_OK;
}

ASIOError CFakeASIODriver::getClockSources(ASIOClockSource* clocks, int32_t* count) {
  ASIOError result = ASE_OK;
  if (Failing(kAsioGetClockSources, result)) return result;
  const size_t room = static_cast<size_t>(*count);
  const size_t given = device_->clocks.size() < room ? device_->clocks.size() : room;
  for (size_t i = 0; i < given; ++i) clocks[i] = device_->clocks[i];
  *count = device_->clockCount != INT32_MIN ? device_->clockCount : static_cast<int32_t>(given);
  return device_->clockResult;
}

ASIOError CFakeASIODriver::setClockSource(int32_t reference) {
  ASIOError result = ASE_OK;
  device_->lastClockSet = reference;
  if (Failing(kAsioSetClockSource, result)) return result;
  for (ASIOClockSource& clock : device_->clocks) clock.isCurrentSource = clock.index == reference;
  return ASE_OK;
}

ASIOError CFakeASIODriver::getSamplePosition(ASIOSamples* position, ASIOTimeStamp* stamp) {
  ASIOError result = ASE_OK;
  if (Failing(kAsioGetSamplePosition, result)) return result;
  const uint64_t samples = device_->position;
  const uint64_t time = device_->systemTimeNs;
  *position = {static_cast<uint32_t>(samples >> 32), static_cast<uint32_t>(samples)};
  *stamp = {static_cast<uint32_t>(time >> 32), static_cast<uint32_t>(time)};
  return ASE_OK;
}

ASIOError CFakeASIODriver::getChannelInfo(ASIOChannelInfo* info) {
  ASIOError result = ASE_OK;
  if (Failing(kAsioGetChannelInfo, result)) return result;
  const bool input = info->isInput != 0;
  const int32_t count = input ? device_->inputs : device_->outputs;
  if (info->channel < 0 || info->channel >= count) return ASE_InvalidParameter;
  const size_t c = static_cast<size_t>(info->channel);
  const std::vector<ASIOSampleType>& types = input ? device_->inputTypes : device_->outputTypes;
  const std::vector<std::string>& names = input ? device_->inputNames : device_->outputNames;
  info->type = c < types.size() ? types[c] : device_->defaultType;
  info->channelGroup = 0;
  info->isActive = 0;
  CopyName(info->name, c < names.size() ? names[c]
                                        : (input ? "In " : "Out ") + std::to_string(c + 1));
  return ASE_OK;
}

ASIOError CFakeASIODriver::createBuffers(ASIOBufferInfo* infos, int32_t count, int32_t frames,
                                         ASIOCallbacks* callbacks) {
  ASIOError result = ASE_OK;
  device_->Record("createBuffers " + std::to_string(count) + " " + std::to_string(frames));
  if (Failing(kAsioCreateBuffers, result)) return result;
  buffers_.clear();
  entries_.clear();
  frames_ = frames;
  callbacks_ = callbacks;
  for (int32_t i = 0; i < count; ++i) {
    ASIOBufferInfo& info = infos[i];
    const int32_t channelCount = info.isInput ? device_->inputs : device_->outputs;
    if (info.channelNum < 0 || info.channelNum >= channelCount) return ASE_InvalidParameter;
    const size_t c = static_cast<size_t>(info.channelNum);
    const std::vector<ASIOSampleType>& types =
        info.isInput ? device_->inputTypes : device_->outputTypes;
    const size_t bytes = static_cast<size_t>(frames) *
                         BytesPerSample(c < types.size() ? types[c] : device_->defaultType);
    for (int half = 0; half < 2; ++half) {
      buffers_.emplace_back(bytes, static_cast<uint8_t>(0xA5));
      info.buffers[half] = buffers_.back().data();
    }
    if (i == device_->nullBufferAt) info.buffers[1] = nullptr;
    entries_.push_back(&info);
  }
  return ASE_OK;
}

void* CFakeASIODriver::Buffer(int32_t entry, int32_t half) {
  return buffers_[static_cast<size_t>(entry * 2 + half)].data();
}

ASIOError CFakeASIODriver::disposeBuffers() {
  ASIOError result = ASE_OK;
  device_->Record("disposeBuffers");
  StopThread();
  callbacks_ = nullptr;
  if (Failing(kAsioDisposeBuffers, result)) return result;
  buffers_.clear();
  entries_.clear();
  return ASE_OK;
}

ASIOError CFakeASIODriver::controlPanel() {
  ASIOError result = ASE_OK;
  device_->Record("controlPanel");
  if (Failing(kAsioControlPanel, result)) return result;
  device_->panelOpen = true;
  while (device_->holdPanel) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  device_->panelOpen = false;
  if (device_->panelPreferredSize != 0) device_->preferredSize = device_->panelPreferredSize;
  return ASE_OK;
}

ASIOError CFakeASIODriver::future(int32_t selector, void* opt) {
  ASIOError result = ASE_OK;
  if (Failing(kAsioFuture, result)) return result;
  if (selector == kAsioCanInputMonitor) {
    if (!device_->canMonitor) return ASE_InvalidParameter;
    *static_cast<uint32_t*>(opt) = 1;
    return ASE_SUCCESS;
  }
  if (selector == kAsioSetInputMonitor) {
    device_->lastMonitor = *static_cast<ASIOInputMonitor*>(opt);
    ++device_->monitorsSent;
    return device_->monitorAnswer;
  }
  return ASE_InvalidParameter;
}

ASIOError CFakeASIODriver::outputReady() {
  ASIOError result = ASE_OK;
  if (Failing(kAsioOutputReady, result)) return result;
  return ASE_OK;
}

std::atomic<int32_t> CFakeASIOPlatform::liveStrings_{0};

CFakeASIOPlatform::CFakeASIOPlatform() { Find(&localMachine_, u"software\\asio", true); }

CFakeASIOPlatform::~CFakeASIOPlatform() = default;

CFakeASIOPlatform::SKey* CFakeASIOPlatform::Find(SKey* parent, const std::u16string& path,
                                                 bool create) {
  SKey* key = parent;
  size_t start = 0;
  while (key != nullptr && start <= path.size()) {
    size_t end = path.find(u'\\', start);
    if (end == std::u16string::npos) end = path.size();
    const std::u16string part = path.substr(start, end - start);
    start = end + 1;
    if (part.empty()) continue;
    SKey* next = nullptr;
    for (auto& entry : key->subkeys) {
      if (SameName(entry.first, part)) next = entry.second.get();
    }
    if (next == nullptr && create) {
      key->subkeys.emplace_back(part, std::unique_ptr<SKey>(new SKey()));
      next = key->subkeys.back().second.get();
    }
    key = next;
  }
  return key;
}

CFakeASIOPlatform::SKey* CFakeASIOPlatform::Root(RegistryKey key) {
  if (key == kLocalMachine) return &localMachine_;
  if (key == kClassesRoot) return &classesRoot_;
  return static_cast<SKey*>(key);
}

std::shared_ptr<SFakeASIODevice> CFakeASIOPlatform::AddDriver(const std::u16string& keyName,
                                                              const std::u16string& clsidText,
                                                              const std::u16string& description,
                                                              bool withServer, bool fileExists) {
  const std::u16string key = u"software\\asio\\" + keyName;
  SetValue(kLocalMachine, key, u"clsid", clsidText);
  if (!description.empty()) SetValue(kLocalMachine, key, u"description", description);
  const std::u16string path = u"C:\\drivers\\" + keyName + u".dll";
  if (withServer) {
    SetValue(kClassesRoot, u"clsid\\" + clsidText + u"\\InprocServer32", u"", path);
  } else {
    Find(&classesRoot_, u"clsid\\" + clsidText, true);
  }
  if (fileExists) files_.insert(path);
  auto device = std::make_shared<SFakeASIODevice>();
  SGuid clsid = {};
  if (ParseClsid(clsidText.c_str(), &clsid) == kHResultOk) classes_.emplace_back(clsid, device);
  return device;
}

void CFakeASIOPlatform::AddKeyWithoutClsid(const std::u16string& keyName) {
  SetValue(kLocalMachine, u"software\\asio\\" + keyName, u"description", keyName);
}

void CFakeASIOPlatform::RemoveASIOKey() {
  SKey* software = Find(&localMachine_, u"software", false);
  if (software != nullptr) software->subkeys.clear();
}

void CFakeASIOPlatform::SetValue(RegistryKey root, const std::u16string& path,
                                 const std::u16string& name, const std::u16string& text,
                                 uint32_t type) {
  SKey* key = Find(Root(root), path, true);
  key->values[name] = {type, text};
}

void CFakeASIOPlatform::Fail(EASIOPlatformCall call, int32_t result, int32_t times) {
  failures_.Fail(call, result, times);
}

bool CFakeASIOPlatform::TakeFailure(EASIOPlatformCall call, int32_t& result) {
  ++calls_[call];
  return failures_.Take(call, result);
}

int32_t CFakeASIOPlatform::OpenKey(EASIOPlatformCall call, RegistryKey parent,
                                   const char16_t* path, RegistryKey* key) {
  *key = nullptr;
  int32_t result = 0;
  if (TakeFailure(call, result)) return result;
  SKey* found = Find(Root(parent), path, false);
  if (found == nullptr) return kRegistryFileNotFound;
  *key = found;
  ++openKeys_;
  return kRegistryOk;
}

int32_t CFakeASIOPlatform::RegOpenKey(RegistryKey parent, const char16_t* path,
                                      RegistryKey* key) {
  return OpenKey(kPlatformOpenKey, parent, path, key);
}

int32_t CFakeASIOPlatform::RegOpenKeyEx(RegistryKey parent, const char16_t* path, uint32_t,
                                        RegistryKey* key) {
  return OpenKey(kPlatformOpenKeyEx, parent, path, key);
}

int32_t CFakeASIOPlatform::RegEnumKeyEx(RegistryKey key, uint32_t index, char16_t* name,
                                        uint32_t* units) {
  int32_t result = 0;
  if (TakeFailure(kPlatformEnumKey, result)) return result;
  SKey* node = Root(key);
  if (index >= node->subkeys.size()) return kRegistryNoMoreItems;
  const std::u16string& text = node->subkeys[index].first;
  if (text.size() + 1 > *units) return kRegistryMoreData;
  std::memcpy(name, text.c_str(), (text.size() + 1) * 2);
  *units = static_cast<uint32_t>(text.size());
  return kRegistryOk;
}

int32_t CFakeASIOPlatform::RegQueryValueEx(RegistryKey key, const char16_t* value, uint32_t* type,
                                           uint8_t* data, uint32_t* bytes) {
  int32_t result = 0;
  if (TakeFailure(kPlatformQueryValue, result)) return result;
  SKey* node = Root(key);
  std::u16string wanted = value == nullptr ? u"" : value;
  for (auto& entry : node->values) {
    if (!SameName(entry.first, wanted)) continue;
    const std::u16string& text = entry.second.second;
    const uint32_t needed = static_cast<uint32_t>((text.size() + 1) * 2);
    *type = entry.second.first;
    if (needed > *bytes) {
      *bytes = needed;
      return kRegistryMoreData;
    }
    std::memcpy(data, text.c_str(), needed);
    *bytes = needed;
    return kRegistryOk;
  }
  return kRegistryFileNotFound;
}

int32_t CFakeASIOPlatform::RegCloseKey(RegistryKey) {
  // The key is gone whatever the answer.
  --openKeys_;
  int32_t result = 0;
  if (TakeFailure(kPlatformCloseKey, result)) return result;
  return kRegistryOk;
}

HResult CFakeASIOPlatform::CLSIDFromString(const char16_t* text, SGuid* clsid) {
  int32_t result = 0;
  if (TakeFailure(kPlatformClsidFromString, result)) return result;
  return ParseClsid(text, clsid);
}

HResult CFakeASIOPlatform::CoInitialize() {
  int32_t result = 0;
  {
    std::lock_guard<std::mutex> hold(comLock_);
    comInit_.push_back(std::this_thread::get_id());
  }
  if (TakeFailure(kPlatformCoInitialize, result)) return result;
  return kHResultOk;
}

void CFakeASIOPlatform::CoUninitialize() {
  std::lock_guard<std::mutex> hold(comLock_);
  comUninit_.push_back(std::this_thread::get_id());
  ++calls_[kPlatformCoUninitialize];
}

void CFakeASIOPlatform::ForgetComThreads() {
  std::lock_guard<std::mutex> hold(comLock_);
  std::vector<std::thread::id>().swap(comInit_);
  std::vector<std::thread::id>().swap(comUninit_);
}

std::vector<std::thread::id> CFakeASIOPlatform::ComThreads(EASIOPlatformCall call) {
  std::lock_guard<std::mutex> hold(comLock_);
  return call == kPlatformCoInitialize ? comInit_ : comUninit_;
}

HResult CFakeASIOPlatform::CoCreateInstance(const SGuid& clsid, uint32_t context, const SGuid& iid,
                                            void** object) {
  *object = nullptr;
  int32_t result = 0;
  if (TakeFailure(kPlatformCoCreate, result)) return result;
  if (context != kContextInprocServer || clsid != iid) return kHResultNoInterface;
  for (auto& entry : classes_) {
    if (entry.first != clsid) continue;
    // A creation that never returns keeps its device alive.
    const std::shared_ptr<SFakeASIODevice> device = entry.second;
    device->NoteCallThread();
    device->MaybeHang(kAsioCreate);
    *object = static_cast<IASIO*>(new CFakeASIODriver(entry.second));
    return createdAnswer;
  }
  return kHResultClassNotRegistered;
}

FileHandle CFakeASIOPlatform::CreateFileForReading(const char16_t* path) {
  ++calls_[kPlatformCreateFile];
  if (nullFileHandle) return nullptr;
  if (files_.count(path) == 0) return kInvalidFile;
  return reinterpret_cast<FileHandle>(static_cast<uintptr_t>(0x44));
}

void CFakeASIOPlatform::CloseHandle(FileHandle) {}

char16_t* CFakeASIOPlatform::AllocString(const std::u16string& text) {
  // The length goes in front, as the system's strings have it.
  auto* block = new char16_t[text.size() + 3];
  const uint32_t length = static_cast<uint32_t>(text.size());
  std::memcpy(block, &length, sizeof length);
  std::memcpy(block + 2, text.c_str(), (text.size() + 1) * 2);
  ++liveStrings_;
  return block + 2;
}

uint32_t CFakeASIOPlatform::SysStringLen(const char16_t* text) {
  if (text == nullptr) return 0;
  uint32_t length = 0;
  std::memcpy(&length, text - 2, sizeof length);
  return length;
}

void CFakeASIOPlatform::SysFreeString(char16_t* text) {
  if (text == nullptr) return;
  --liveStrings_;
  delete[] (text - 2);
}

std::u16string FakeClsidText(uint32_t number) {
  const char* digits = "0123456789ABCDEF";
  std::u16string text = u"{";
  for (int shift = 28; shift >= 0; shift -= 4) text += static_cast<char16_t>(digits[(number >> shift) & 15]);
  text += u"-AB12-4000-8000-0000000000";
  text += static_cast<char16_t>(digits[(number >> 4) & 15]);
  text += static_cast<char16_t>(digits[number & 15]);
  text += u"}";
  return text;
}

SGuid FakeClsid(uint32_t number) {
  return SGuid{number, 0xAB12, 0x4000,
               {0x80, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(number & 0xFF)}};
}

}  // namespace Fakes
