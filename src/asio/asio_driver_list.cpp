#include "asio/asio_driver_list.h"

#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "driver/com_result.h"

namespace NSASIO {

CASIODriverList* driverList = nullptr;
std::atomic<IASIO*> currentDriver{nullptr};
CASIOCallThread* currentCalls = nullptr;
int32_t asioState = kASIOStateUnloaded;
void* hostWindow = nullptr;

namespace {

constexpr uint32_t kSubkeyUnits = 128;
constexpr uint32_t kClassKeyUnits = 512;
constexpr uint32_t kValueBytes = 256;
constexpr uint32_t kPathBytes = 512;
// More clock sources than this are not asked for.
constexpr int32_t kMaxClockSourcesAsked = 1024;

IASIO* Current() { return currentDriver.load(std::memory_order_acquire); }

// Runs `work` on the current driver's thread; false when it was not asked
// or gave no answer in time.
template <class Work, class Result>
bool OnDriverThread(uint32_t deadlineMs, const Work& work, Result& result) {
  if (currentCalls == nullptr) return false;
  return currentCalls->Call(deadlineMs, work, result) == kCallAnswered;
}

// The driver's own answer to `work`, or ASE_NotPresent when there is no
// driver or no answer in time.
template <class Work>
ASIOError Answer(IASIO* driver, uint32_t deadlineMs, const Work& work) {
  ASIOError result = ASE_NotPresent;
  if (driver == nullptr || !OnDriverThread(deadlineMs, work, result)) return ASE_NotPresent;
  return result;
}

// Releases a driver on its thread and ends the thread.
void ReleaseOnItsThread(IASIO* driver, CASIOCallThread* calls) {
  if (calls == nullptr) {
    if (driver != nullptr) driver->Release();
    return;
  }
  if (driver != nullptr) {
    uint32_t left = 0;
    calls->Call(kStreamCallMs, [driver] { return driver->Release(); }, left);
  }
  CASIOCallThread::Finish(calls);
}

// Class ids are hexadecimal text: folding the seven-bit letters is what
// any locale's table does to them.
void LowerCase(CWideString& text) {
  for (char16_t& unit : text) {
    if (unit >= u'A' && unit <= u'Z') unit = static_cast<char16_t>(unit + (u'a' - u'A'));
  }
}

// Names that reach the limit are cut, and marked as cut.
CWideString GivenName(const CWideString& name) {
  if (name.size() < kDriverNameUnits) return name;
  return name.substr(0, kDriverNameKeptUnits) + u"...";
}

class CKey {
 public:
  explicit CKey(IASIOPlatform& platform) : platform_(platform) {}
  ~CKey() {
    if (key_ != nullptr) platform_.RegCloseKey(key_);
  }
  CKey(const CKey&) = delete;
  CKey& operator=(const CKey&) = delete;
  RegistryKey* Out() { return &key_; }
  RegistryKey Get() const { return key_; }

 private:
  IASIOPlatform& platform_;
  RegistryKey key_ = nullptr;
};

int32_t EnumSubkey(IASIOPlatform& platform, RegistryKey key, uint32_t index, uint32_t room,
                   CWideString& name) {
  std::vector<char16_t> buffer(room + 1, u'\0');
  uint32_t units = room;
  const int32_t result = platform.RegEnumKeyEx(key, index, buffer.data(), &units);
  if (result != kRegistryOk) return result;
  if (units > room) units = room;
  size_t length = 0;
  while (length < units && buffer[length] != u'\0') ++length;
  name.assign(buffer.data(), length);
  return kRegistryOk;
}

}  // namespace

int32_t ReadRegistryText(IASIOPlatform& platform, RegistryKey key, const char16_t* value,
                         uint32_t maxBytes, CWideString& text) {
  std::vector<uint8_t> buffer(maxBytes + 2, 0);
  uint32_t type = 0;
  uint32_t bytes = maxBytes;
  const int32_t result = platform.RegQueryValueEx(key, value, &type, buffer.data(), &bytes);
  if (result != kRegistryOk) return result;
  if (type != kRegistryValueText && type != 2) return kRegistryFileNotFound;
  if (bytes > maxBytes) bytes = maxBytes;
  // The stored text need not end in a terminator.
  size_t units = 0;
  while (units < bytes / 2) {
    char16_t unit;
    std::memcpy(&unit, buffer.data() + units * 2, 2);
    if (unit == u'\0') break;
    ++units;
  }
  text.resize(units);
  if (units != 0) std::memcpy(&text[0], buffer.data(), units * 2);
  return kRegistryOk;
}

CASIODriverList::CASIODriverList(IASIOPlatform& platform) : platform_(platform) {
  try {
    Scan();
  } catch (...) {
    // A scan that ran out of memory half way leaves no record behind.
    FreeRecords();
    throw;
  }
}

CASIODriverList::~CASIODriverList() { FreeRecords(); }

void CASIODriverList::FreeRecords() {
  // Last to first, as they were made; walked again for each, so that
  // freeing needs no memory of its own.
  while (first_ != nullptr) {
    CASIODriverRecord** last = &first_;
    while ((*last)->next != nullptr) last = &(*last)->next;
    CASIODriverRecord* record = *last;
    if (record->calls == currentCalls) currentCalls = nullptr;
    ReleaseOnItsThread(record->asioDriver, record->calls);
    delete record;
    *last = nullptr;
  }
}

void CASIODriverList::Scan() {
  CKey root(platform_);
  if (platform_.RegOpenKey(kLocalMachine, u"software\\asio", root.Out()) == kRegistryOk) {
    CASIODriverRecord** tail = &first_;
    int32_t nextId = 0;
    for (uint32_t index = 0;; ++index) {
      CWideString subkey;
      if (EnumSubkey(platform_, root.Get(), index, kSubkeyUnits, subkey) != kRegistryOk) break;
      CASIODriverRecord* record = ScanDriverKey(root.Get(), subkey, nextId);
      if (record == nullptr) continue;
      *tail = record;
      tail = &record->next;
      ++nextId;
    }
  }
  for (CASIODriverRecord* record = first_; record != nullptr; record = record->next) ++numDrivers_;
}

CASIODriverRecord* CASIODriverList::ScanDriverKey(RegistryKey parent, const CWideString& subkey,
                                                  int32_t drvID) {
  CKey key(platform_);
  if (platform_.RegOpenKeyEx(parent, subkey.c_str(), kRegistryKeyRead, key.Out()) != kRegistryOk) {
    return nullptr;
  }
  CWideString clsidText;
  if (ReadRegistryText(platform_, key.Get(), u"clsid", kValueBytes, clsidText) != kRegistryOk) {
    return nullptr;
  }
  CWideString path;
  if (FindDriverModule(clsidText, path, kPathBytes) != 0) return nullptr;
  std::unique_ptr<CASIODriverRecord> record(new (std::nothrow) CASIODriverRecord());
  if (!record) return nullptr;
  record->drvID = drvID;
  CWideString again;
  SGuid clsid = {};
  if (ReadRegistryText(platform_, key.Get(), u"clsid", kValueBytes, again) == kRegistryOk &&
      NSFerrand::ComSucceeded(platform_.CLSIDFromString(again.c_str(), &clsid))) {
    record->clsid = clsid;
  }
  if (ReadRegistryText(platform_, key.Get(), u"description", kValueBytes, record->driverName) !=
      kRegistryOk) {
    record->driverName = subkey;
  }
  return record.release();
}

int32_t CASIODriverList::FindDriverModule(CWideString clsidText, CWideString& path,
                                          uint32_t pathBytes) {
  LowerCase(clsidText);
  CKey classes(platform_);
  if (platform_.RegOpenKey(kClassesRoot, u"clsid", classes.Out()) != kRegistryOk) return -1;
  for (uint32_t index = 0;; ++index) {
    CWideString name;
    if (EnumSubkey(platform_, classes.Get(), index, kClassKeyUnits, name) != kRegistryOk) {
      return -1;
    }
    LowerCase(name);
    if (name != clsidText) continue;
    CKey classKey(platform_);
    if (platform_.RegOpenKeyEx(classes.Get(), name.c_str(), kRegistryKeyRead, classKey.Out()) !=
        kRegistryOk) {
      return -1;
    }
    CKey server(platform_);
    if (platform_.RegOpenKeyEx(classKey.Get(), u"InprocServer32", kRegistryKeyRead,
                               server.Out()) != kRegistryOk) {
      return -1;
    }
    if (ReadRegistryText(platform_, server.Get(), nullptr, pathBytes, path) != kRegistryOk) {
      return -1;
    }
    // Only a null handle counts as missing: a file that cannot be opened
    // still leaves the driver listed. The class and its server entry decide.
    const FileHandle file = platform_.CreateFileForReading(path.c_str());
    if (file == nullptr) return -1;
    if (file != kInvalidFile) platform_.CloseHandle(file);
    return 0;
  }
}

CASIODriverRecord* CASIODriverList::Record(int32_t index) const {
  for (CASIODriverRecord* record = first_; record != nullptr; record = record->next) {
    if (record->drvID == index) return record;
  }
  return nullptr;
}

int32_t CASIODriverList::GetDriverNameAt(int32_t index, CWideString& name, uint32_t size) const {
  const CASIODriverRecord* record = Record(index);
  if (record == nullptr) return kDriverListNoSuchDriver;
  if (size == 0) return kDriverListNullParameter;
  name = GivenName(record->driverName);
  if (name.size() > size - 1) name.resize(size - 1);
  return 0;
}

int32_t CASIODriverList::GetDriverNames(std::vector<CWideString>& names, int32_t max) const {
  names.clear();
  int32_t count = 0;
  for (const CASIODriverRecord* record = first_; record != nullptr && count < max;
       record = record->next, ++count) {
    names.push_back(GivenName(record->driverName));
  }
  return count;
}

bool CASIODriverList::GetCurrentDriverName(CWideString& name) const {
  name.clear();
  if (currentIndex_ < 0) return false;
  return GetDriverNameAt(currentIndex_, name) == 0;
}

int32_t CASIODriverList::OpenDriverAt(int32_t index, IASIO** driver) {
  if (driver == nullptr) return kDriverListNullParameter;
  CASIODriverRecord* record = Record(index);
  if (record == nullptr) return kDriverListNoSuchDriver;
  if (record->asioDriver != nullptr) return kDriverListAlreadyOpen;
  if (IsQuarantined(record->clsid)) return kHResultFail;
  CASIOCallThread* calls = nullptr;
  try {
    calls = new CASIOCallThread(platform_, record->clsid);
  } catch (...) {
    return kHResultOutOfMemory;
  }
  struct SCreated {
    HResult result = kHResultFail;
    void* object = nullptr;
  } created;
  IASIOPlatform* platform = &platform_;
  const SGuid clsid = record->clsid;
  const ECallEnd end = calls->Call(
      kCreateCallMs,
      [platform, clsid, calls] {
        SCreated answer;
        NSPlatform::ModuleSnapshot before;
        NSPlatform::TakeModuleSnapshot(before);
        answer.result = platform->CoCreateInstance(clsid, kContextInprocServer, clsid, &answer.object);
        if (answer.object != nullptr) calls->ClaimModules(*static_cast<void**>(answer.object), before);
        return answer;
      },
      created);
  if (end != kCallAnswered || NSFerrand::ComFailed(created.result) || created.object == nullptr) {
    ReleaseOnItsThread(end == kCallAnswered ? static_cast<IASIO*>(created.object) : nullptr, calls);
    if (end != kCallAnswered) return kHResultFail;
    return NSFerrand::ComFailed(created.result) ? created.result : kHResultNoInterface;
  }
  record->asioDriver = static_cast<IASIO*>(created.object);
  record->calls = calls;
  calls->SetDriver(record->asioDriver);
  *driver = record->asioDriver;
  return 0;
}

int32_t CASIODriverList::CloseDriverAt(int32_t index) {
  CASIODriverRecord* record = Record(index);
  if (record == nullptr || record->asioDriver == nullptr) return 0;
  IASIO* driver = record->asioDriver;
  CASIOCallThread* calls = record->calls;
  record->asioDriver = nullptr;
  record->calls = nullptr;
  if (calls == currentCalls) currentCalls = nullptr;
  ReleaseOnItsThread(driver, calls);
  return 0;
}

void CASIODriverList::CloseCurrentDriver() {
  const int32_t index = currentIndex_;
  currentIndex_ = -1;
  if (index >= 0) CloseDriverAt(index);
}

bool CASIODriverList::LoadDriverByName(const CWideString& name) {
  if (numDrivers_ < 1) return false;
  int32_t index = 0;
  for (;; ++index) {
    CWideString candidate;
    if (GetDriverNameAt(index, candidate) != 0) return false;
    if (candidate == name) break;
  }
  CWideString former;
  GetCurrentDriverName(former);
  CloseCurrentDriver();
  IASIO* driver = nullptr;
  if (OpenDriverAt(index, &driver) == 0) {
    currentDriver.store(driver, std::memory_order_release);
    const CASIODriverRecord* record = Record(index);
    currentCalls = record != nullptr ? record->calls : nullptr;
    currentIndex_ = index;
    return true;
  }
  currentDriver.store(nullptr, std::memory_order_release);
  if (!former.empty() && former != name) LoadDriverByName(former);
  return false;
}

bool CASIODriverList::FindClsid(const CWideString& name, SGuid& clsid) const {
  for (const CASIODriverRecord* record = first_; record != nullptr; record = record->next) {
    if (record->driverName == name) {
      clsid = record->clsid;
      return true;
    }
  }
  return false;
}

bool FindDriverClsid(const CWideString& name, SGuid& clsid) {
  return driverList != nullptr && driverList->FindClsid(name, clsid);
}

void LoadDriverList(IASIOPlatform& platform) {
  if (asioState != kASIOStateUnloaded) return;
  driverList = new CASIODriverList(platform);
  asioState = kASIOStateLoaded;
}

void UnloadDriverList() {
  if (asioState != kASIOStateLoaded) return;
  CASIODriverList* list = driverList;
  driverList = nullptr;
  asioState = kASIOStateUnloaded;
  delete list;
}

void StopIfRunning() {
  if (asioState != kASIOStateRunning) return;
  try {
    CASIOCallLayer::stop();
  } catch (...) {
  }
  asioState = kASIOStatePrepared;
}

void DisposeIfPrepared() {
  if (asioState != kASIOStatePrepared) return;
  try {
    CASIOCallLayer::disposeBuffers();
  } catch (...) {
  }
  asioState = kASIOStateInitialised;
}

void ExitIfInitialised() {
  if (asioState != kASIOStateInitialised) return;
  asioState = kASIOStateLoaded;
  try {
    ASIOExit();
  } catch (...) {
  }
  // A driver whose init failed is no longer current but still held.
  if (driverList != nullptr) driverList->CloseCurrentDriver();
}

ASIOError ASIOInit(ASIODriverInfo& info) {
  info.driverVersion = 0;
  std::memset(info.name, 0, sizeof info.name);
  std::strcpy(info.name, "No ASIO Driver");
  IASIO* driver = Current();
  if (driver == nullptr) return ASE_NotPresent;
  void* const sysRef = info.sysRef;
  ASIOBool initialised = 0;
  if (OnDriverThread(kCreateCallMs, [driver, sysRef] { return driver->init(sysRef); },
                     initialised) &&
      initialised != 0) {
    std::memset(info.errorMessage, 0, sizeof info.errorMessage);
    std::strcpy(info.errorMessage, "No ASIO Driver Error");
    CASIOCallLayer::getDriverName(info.name);
    info.name[sizeof info.name - 1] = '\0';
    info.driverVersion = CASIOCallLayer::getDriverVersion();
    return ASE_OK;
  }
  CASIOCallLayer::getErrorMessage(info.errorMessage);
  info.errorMessage[sizeof info.errorMessage - 1] = '\0';
  // The record still holds the object, so closing the driver releases it.
  currentDriver.store(nullptr, std::memory_order_release);
  return ASE_NotPresent;
}

void ASIOExit() {
  if (Current() != nullptr && driverList != nullptr) {
    try {
      driverList->CloseCurrentDriver();
    } catch (...) {
      currentDriver.store(nullptr, std::memory_order_release);
      throw;
    }
  }
  currentDriver.store(nullptr, std::memory_order_release);
}

bool CASIOCallLayer::Quarantined() { return currentCalls != nullptr && currentCalls->Quarantined(); }

bool CASIOCallLayer::Busy() { return currentCalls != nullptr && currentCalls->Busy(); }

void CASIOCallLayer::QuarantineCurrent() {
  if (currentCalls != nullptr) currentCalls->QuarantineStuck();
}

ASIOBool CASIOCallLayer::init(void* sysRef) {
  IASIO* driver = Current();
  return Answer(driver, kCreateCallMs, [driver, sysRef] { return driver->init(sysRef); });
}

namespace {

// A text the driver writes into a buffer of its own size.
struct SText {
  char text[128];
};

}  // namespace

void CASIOCallLayer::getDriverName(char* name) {
  IASIO* driver = Current();
  SText answer = {};
  if (driver == nullptr || !OnDriverThread(kQueryCallMs, [driver] {
        SText named = {};
        driver->getDriverName(named.text);
        return named;
      }, answer)) {
    return;
  }
  std::memcpy(name, answer.text, 32);
}

int32_t CASIOCallLayer::getDriverVersion() {
  IASIO* driver = Current();
  int32_t version = 0;
  if (driver == nullptr ||
      !OnDriverThread(kQueryCallMs, [driver] { return driver->getDriverVersion(); }, version)) {
    return 0;
  }
  return version;
}

void CASIOCallLayer::getErrorMessage(char* text) {
  IASIO* driver = Current();
  SText answer = {};
  if (driver == nullptr || !OnDriverThread(kQueryCallMs, [driver] {
        SText message = {};
        driver->getErrorMessage(message.text);
        return message;
      }, answer)) {
    return;
  }
  std::memcpy(text, answer.text, 124);
}

ASIOError CASIOCallLayer::start() {
  IASIO* driver = Current();
  return Answer(driver, kStreamCallMs, [driver] { return driver->start(); });
}

ASIOError CASIOCallLayer::stop() {
  IASIO* driver = Current();
  return Answer(driver, kStreamCallMs, [driver] { return driver->stop(); });
}

namespace {

struct SPair {
  ASIOError result;
  int32_t first;
  int32_t second;
};

struct SSizes {
  ASIOError result;
  int32_t minimum;
  int32_t maximum;
  int32_t preferred;
  int32_t granularity;
};

}  // namespace

ASIOError CASIOCallLayer::getChannels(int32_t* inputs, int32_t* outputs) {
  IASIO* driver = Current();
  SPair answer = {ASE_NotPresent, *inputs, *outputs};
  if (driver == nullptr || !OnDriverThread(kQueryCallMs, [driver, answer] {
        SPair asked = answer;
        asked.result = driver->getChannels(&asked.first, &asked.second);
        return asked;
      }, answer)) {
    *inputs = 0;
    *outputs = 0;
    return ASE_NotPresent;
  }
  *inputs = answer.first;
  *outputs = answer.second;
  return answer.result;
}

ASIOError CASIOCallLayer::getLatencies(int32_t* input, int32_t* output) {
  IASIO* driver = Current();
  SPair answer = {ASE_NotPresent, *input, *output};
  if (driver == nullptr || !OnDriverThread(kQueryCallMs, [driver, answer] {
        SPair asked = answer;
        asked.result = driver->getLatencies(&asked.first, &asked.second);
        return asked;
      }, answer)) {
    *input = 0;
    *output = 0;
    return ASE_NotPresent;
  }
  *input = answer.first;
  *output = answer.second;
  return answer.result;
}

ASIOError CASIOCallLayer::getBufferSize(int32_t* minimum, int32_t* maximum, int32_t* preferred,
                                        int32_t* granularity) {
  IASIO* driver = Current();
  SSizes answer = {ASE_NotPresent, *minimum, *maximum, *preferred, *granularity};
  if (driver == nullptr || !OnDriverThread(kQueryCallMs, [driver, answer] {
        SSizes asked = answer;
        asked.result = driver->getBufferSize(&asked.minimum, &asked.maximum, &asked.preferred,
                                             &asked.granularity);
        return asked;
      }, answer)) {
    *minimum = 0;
    *maximum = 0;
    *preferred = 0;
    *granularity = 0;
    return ASE_NotPresent;
  }
  *minimum = answer.minimum;
  *maximum = answer.maximum;
  *preferred = answer.preferred;
  *granularity = answer.granularity;
  return answer.result;
}

ASIOError CASIOCallLayer::canSampleRate(ASIOSampleRate rate) {
  IASIO* driver = Current();
  return Answer(driver, kQueryCallMs, [driver, rate] { return driver->canSampleRate(rate); });
}

ASIOError CASIOCallLayer::getSampleRate(ASIOSampleRate* rate) {
  IASIO* driver = Current();
  struct SRate {
    ASIOError result;
    ASIOSampleRate rate;
  } answer = {ASE_NotPresent, *rate};
  if (driver == nullptr || !OnDriverThread(kQueryCallMs, [driver, answer] {
        SRate asked = answer;
        asked.result = driver->getSampleRate(&asked.rate);
        return asked;
      }, answer)) {
    return ASE_NotPresent;
  }
  *rate = answer.rate;
  return answer.result;
}

ASIOError CASIOCallLayer::setSampleRate(ASIOSampleRate rate) {
  IASIO* driver = Current();
  return Answer(driver, kStreamCallMs, [driver, rate] { return driver->setSampleRate(rate); });
}

ASIOError CASIOCallLayer::getClockSources(ASIOClockSource* clocks, int32_t* count) {
  IASIO* driver = Current();
  if (driver == nullptr || *count < 0 || *count > kMaxClockSourcesAsked) {
    *count = 0;
    return ASE_NotPresent;
  }
  struct SClocks {
    ASIOError result = ASE_NotPresent;
    int32_t count = 0;
    std::vector<ASIOClockSource> clocks;
  } answer;
  answer.count = *count;
  answer.clocks.assign(clocks, clocks + *count);
  if (!OnDriverThread(kQueryCallMs, [driver, answer] {
        SClocks asked = answer;
        asked.result = driver->getClockSources(asked.clocks.data(), &asked.count);
        return asked;
      }, answer)) {
    *count = 0;
    return ASE_NotPresent;
  }
  std::memcpy(clocks, answer.clocks.data(), answer.clocks.size() * sizeof(ASIOClockSource));
  *count = answer.count;
  return answer.result;
}

ASIOError CASIOCallLayer::setClockSource(int32_t reference) {
  IASIO* driver = Current();
  ASIOError result = ASE_NotPresent;
  if (driver == nullptr || !OnDriverThread(kStreamCallMs, [driver, reference] {
        return driver->setClockSource(reference);
      }, result)) {
    return ASE_NotPresent;
  }
  return result;
}

ASIOError CASIOCallLayer::getSamplePosition(ASIOSamples* position, ASIOTimeStamp* stamp) {
  IASIO* driver = Current();
  return driver == nullptr ? ASE_NotPresent : driver->getSamplePosition(position, stamp);
}

ASIOError CASIOCallLayer::getChannelInfo(ASIOChannelInfo* info) {
  IASIO* driver = Current();
  struct SInfo {
    ASIOError result;
    ASIOChannelInfo info;
  } answer = {ASE_NotPresent, *info};
  if (driver == nullptr || !OnDriverThread(kQueryCallMs, [driver, answer] {
        SInfo asked = answer;
        asked.result = driver->getChannelInfo(&asked.info);
        return asked;
      }, answer)) {
    info->channelGroup = -1;
    info->type = 0;
    std::memset(info->name, 0, sizeof info->name);
    std::strcpy(info->name, "None");
    return ASE_NotPresent;
  }
  *info = answer.info;
  return answer.result;
}

ASIOError CASIOCallLayer::createBuffers(ASIOBufferInfo* infos, int32_t count, int32_t frames,
                                        ASIOCallbacks* callbacks) {
  IASIO* driver = Current();
  struct SBuffers {
    ASIOError result = ASE_NotPresent;
    std::vector<ASIOBufferInfo> infos;
  } answer;
  bool answered = false;
  if (driver != nullptr && count >= 0) {
    answer.infos.assign(infos, infos + count);
    // The driver keeps the table of this load, which outlives it.
    ASIOCallbacks* table = currentCalls != nullptr ? currentCalls->CallbacksFor(callbacks) : nullptr;
    answered = OnDriverThread(kStreamCallMs, [driver, answer, frames, table] {
      SBuffers asked = answer;
      asked.result = driver->createBuffers(asked.infos.data(),
                                           static_cast<int32_t>(asked.infos.size()), frames, table);
      return asked;
    }, answer);
  }
  if (!answered) {
    for (int32_t i = 0; i < count; ++i) {
      infos[i].buffers[0] = nullptr;
      infos[i].buffers[1] = nullptr;
    }
    return ASE_NotPresent;
  }
  std::memcpy(infos, answer.infos.data(), answer.infos.size() * sizeof(ASIOBufferInfo));
  return answer.result;
}

ASIOError CASIOCallLayer::disposeBuffers() {
  IASIO* driver = Current();
  return Answer(driver, kStreamCallMs, [driver] { return driver->disposeBuffers(); });
}

ASIOError CASIOCallLayer::controlPanel() {
  IASIO* driver = Current();
  return Answer(driver, kPanelCallMs, [driver] { return driver->controlPanel(); });
}

ASIOError CASIOCallLayer::future(int32_t selector, void* opt) {
  IASIO* driver = Current();
  if (driver == nullptr) return ASE_NotPresent;
  // The two selectors asked: a monitor record goes in, a 32-bit answer comes
  // back. Either travels by value.
  struct SFuture {
    ASIOError result = ASE_NotPresent;
    ASIOInputMonitor monitor = {};
    uint32_t answer = 0;
  } answer;
  if (selector == kAsioSetInputMonitor && opt != nullptr) {
    answer.monitor = *static_cast<const ASIOInputMonitor*>(opt);
  } else if (opt != nullptr) {
    std::memcpy(&answer.answer, opt, sizeof answer.answer);
  }
  const bool withRecord = opt != nullptr;
  if (!OnDriverThread(kQueryCallMs, [driver, selector, answer, withRecord] {
        SFuture asked = answer;
        void* record = nullptr;
        if (withRecord) {
          record = selector == kAsioSetInputMonitor ? static_cast<void*>(&asked.monitor)
                                                    : static_cast<void*>(&asked.answer);
        }
        asked.result = driver->future(selector, record);
        return asked;
      }, answer)) {
    return ASE_NotPresent;
  }
  if (opt != nullptr && selector != kAsioSetInputMonitor) {
    std::memcpy(opt, &answer.answer, sizeof answer.answer);
  }
  return answer.result;
}

ASIOError CASIOCallLayer::outputReadyBeforeStart() {
  IASIO* driver = Current();
  return Answer(driver, kQueryCallMs, [driver] { return driver->outputReady(); });
}

ASIOError CASIOCallLayer::outputReady() {
  IASIO* driver = Current();
  return driver == nullptr ? ASE_NotPresent : driver->outputReady();
}

}  // namespace NSASIO
