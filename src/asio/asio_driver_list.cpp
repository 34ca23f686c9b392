#include "asio/asio_driver_list.h"

#include <cstring>
#include <memory>
#include <new>

#include "driver/com_result.h"

namespace NSASIO {

CASIODriverList* driverList = nullptr;
std::atomic<IASIO*> currentDriver{nullptr};
int32_t asioState = kASIOStateUnloaded;
void* hostWindow = nullptr;

namespace {

constexpr uint32_t kSubkeyUnits = 128;
constexpr uint32_t kClassKeyUnits = 512;
constexpr uint32_t kValueBytes = 256;
constexpr uint32_t kPathBytes = 512;

IASIO* Current() { return currentDriver.load(std::memory_order_acquire); }

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

CASIODriverList::~CASIODriverList() {
  FreeRecords();
  if (numDrivers_ != 0) platform_.CoUninitialize();
}

void CASIODriverList::FreeRecords() {
  // Last to first, as they were made; walked again for each, so that
  // freeing needs no memory of its own.
  while (first_ != nullptr) {
    CASIODriverRecord** last = &first_;
    while ((*last)->next != nullptr) last = &(*last)->next;
    if ((*last)->asioDriver != nullptr) (*last)->asioDriver->Release();
    delete *last;
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
  // A machine without drivers leaves COM alone.
  if (numDrivers_ != 0) platform_.CoInitialize();
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
  void* object = nullptr;
  const HResult result =
      platform_.CoCreateInstance(record->clsid, kContextInprocServer, record->clsid, &object);
  if (NSFerrand::ComFailed(result)) return result;
  if (object == nullptr) return kHResultNoInterface;
  record->asioDriver = static_cast<IASIO*>(object);
  *driver = record->asioDriver;
  return 0;
}

int32_t CASIODriverList::CloseDriverAt(int32_t index) {
  CASIODriverRecord* record = Record(index);
  if (record == nullptr || record->asioDriver == nullptr) return 0;
  IASIO* driver = record->asioDriver;
  record->asioDriver = nullptr;
  driver->Release();
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
  if (driver->init(info.sysRef) != 0) {
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

ASIOBool CASIOCallLayer::init(void* sysRef) {
  IASIO* driver = Current();
  return driver == nullptr ? ASE_NotPresent : driver->init(sysRef);
}

void CASIOCallLayer::getDriverName(char* name) {
  IASIO* driver = Current();
  if (driver != nullptr) driver->getDriverName(name);
}

int32_t CASIOCallLayer::getDriverVersion() {
  IASIO* driver = Current();
  return driver == nullptr ? 0 : driver->getDriverVersion();
}

void CASIOCallLayer::getErrorMessage(char* text) {
  IASIO* driver = Current();
  if (driver != nullptr) driver->getErrorMessage(text);
}

ASIOError CASIOCallLayer::start() {
  IASIO* driver = Current();
  return driver == nullptr ? ASE_NotPresent : driver->start();
}

ASIOError CASIOCallLayer::stop() {
  IASIO* driver = Current();
  return driver == nullptr ? ASE_NotPresent : driver->stop();
}

ASIOError CASIOCallLayer::getChannels(int32_t* inputs, int32_t* outputs) {
  IASIO* driver = Current();
  if (driver == nullptr) {
    *inputs = 0;
    *outputs = 0;
    return ASE_NotPresent;
  }
  return driver->getChannels(inputs, outputs);
}

ASIOError CASIOCallLayer::getLatencies(int32_t* input, int32_t* output) {
  IASIO* driver = Current();
  if (driver == nullptr) {
    *input = 0;
    *output = 0;
    return ASE_NotPresent;
  }
  return driver->getLatencies(input, output);
}

ASIOError CASIOCallLayer::getBufferSize(int32_t* minimum, int32_t* maximum, int32_t* preferred,
                                        int32_t* granularity) {
  IASIO* driver = Current();
  if (driver == nullptr) {
    *minimum = 0;
    *maximum = 0;
    *preferred = 0;
    *granularity = 0;
    return ASE_NotPresent;
  }
  return driver->getBufferSize(minimum, maximum, preferred, granularity);
}

ASIOError CASIOCallLayer::canSampleRate(ASIOSampleRate rate) {
  IASIO* driver = Current();
  return driver == nullptr ? ASE_NotPresent : driver->canSampleRate(rate);
}

ASIOError CASIOCallLayer::getSampleRate(ASIOSampleRate* rate) {
  IASIO* driver = Current();
  return driver == nullptr ? ASE_NotPresent : driver->getSampleRate(rate);
}

ASIOError CASIOCallLayer::setSampleRate(ASIOSampleRate rate) {
  IASIO* driver = Current();
  return driver == nullptr ? ASE_NotPresent : driver->setSampleRate(rate);
}

ASIOError CASIOCallLayer::getClockSources(ASIOClockSource* clocks, int32_t* count) {
  IASIO* driver = Current();
  if (driver == nullptr) {
    *count = 0;
    return ASE_NotPresent;
  }
  return driver->getClockSources(clocks, count);
}

ASIOError CASIOCallLayer::setClockSource(int32_t reference) {
  IASIO* driver = Current();
  return driver == nullptr ? ASE_NotPresent : driver->setClockSource(reference);
}

ASIOError CASIOCallLayer::getSamplePosition(ASIOSamples* position, ASIOTimeStamp* stamp) {
  IASIO* driver = Current();
  return driver == nullptr ? ASE_NotPresent : driver->getSamplePosition(position, stamp);
}

ASIOError CASIOCallLayer::getChannelInfo(ASIOChannelInfo* info) {
  IASIO* driver = Current();
  if (driver == nullptr) {
    info->channelGroup = -1;
    info->type = 0;
    std::memset(info->name, 0, sizeof info->name);
    std::strcpy(info->name, "None");
    return ASE_NotPresent;
  }
  return driver->getChannelInfo(info);
}

ASIOError CASIOCallLayer::createBuffers(ASIOBufferInfo* infos, int32_t count, int32_t frames,
                                        ASIOCallbacks* callbacks) {
  IASIO* driver = Current();
  if (driver == nullptr) {
    for (int32_t i = 0; i < count; ++i) {
      infos[i].buffers[0] = nullptr;
      infos[i].buffers[1] = nullptr;
    }
    return ASE_NotPresent;
  }
  return driver->createBuffers(infos, count, frames, callbacks);
}

ASIOError CASIOCallLayer::disposeBuffers() {
  IASIO* driver = Current();
  return driver == nullptr ? ASE_NotPresent : driver->disposeBuffers();
}

ASIOError CASIOCallLayer::controlPanel() {
  IASIO* driver = Current();
  return driver == nullptr ? ASE_NotPresent : driver->controlPanel();
}

ASIOError CASIOCallLayer::future(int32_t selector, void* opt) {
  IASIO* driver = Current();
  return driver == nullptr ? ASE_NotPresent : driver->future(selector, opt);
}

ASIOError CASIOCallLayer::outputReady() {
  IASIO* driver = Current();
  return driver == nullptr ? ASE_NotPresent : driver->outputReady();
}

}  // namespace NSASIO
