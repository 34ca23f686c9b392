#include "asio/asio_family.h"

#include <algorithm>
#include <new>

#include "asio/asio_driver_list.h"
#include "asio/asio_rules.h"
#include "driver/com_result.h"
#include "failure/builder.h"
#include "failure/scope.h"
#include "text/code_conversions.h"

namespace NSASIO {

using NSFerrand::CABCOpenSoundDriver;
using NSMarlet::RaiseFailure;
using NSFerrand::COpenSoundDriverInfo;
using NSFerrand::CRegisteredSoundDriverInfo;

const char16_t kASIOFamilyWord[] = u"ASIO";
const char16_t kASIOKeyFormat[] = u"Ferrand ASIO ^0";

namespace {

class CASIOFamily {
 public:
  CASIOFamily(IASIOPlatform& platform, bool filterByHardware);
  ~CASIOFamily();
  CASIOFamily(const CASIOFamily&) = delete;
  CASIOFamily& operator=(const CASIOFamily&) = delete;

  void Register();
  const std::vector<CWideString>& Names() const { return driverNames_; }

 private:
  bool filterByHardware_;
  NSFerrand::CRegistryRef registry_;
  std::vector<CWideString> driverNames_;
};

int32_t familyCount = 0;
CASIOFamily* familyObject = nullptr;
// The call layer talks to one current driver for the process: a second open
// driver would take it from under the first one's stream.
int32_t openDrivers = 0;

// Hosts whose render never came back from the driver's thread: kept for the
// life of the process, where they stay reachable.
CASIODriverHost* stuckHosts[64];
uint32_t stuckHostCount = 0;

// Closes the host and frees it, or keeps it when its render is stuck.
void CloseHost(CASIODriverHost* host) {
  host->Close();
  if (!host->RenderStuck()) {
    delete host;
  } else if (stuckHostCount < sizeof stuckHosts / sizeof stuckHosts[0]) {
    stuckHosts[stuckHostCount++] = host;
  }
}

CWideString KeyOf(const CWideString& driverName) {
  return NSTextPackage::FormatText(kASIOKeyFormat, 0, {driverName});
}

CASIOFamily::CASIOFamily(IASIOPlatform& platform, bool filterByHardware)
    : filterByHardware_(filterByHardware) {
  try {
    LoadDriverList(platform);
    if (driverList != nullptr) driverList->GetDriverNames(driverNames_, kMaxDriverNames);
    Register();
  } catch (...) {
    try {
      NSFerrand::RemoveFamily(kASIOFamilyWord);
    } catch (...) {
    }
    UnloadDriverList();
    throw;
  }
}

CASIOFamily::~CASIOFamily() {
  try {
    NSFerrand::RemoveFamily(kASIOFamilyWord);
  } catch (...) {
  }
  try {
    UnloadDriverList();
  } catch (...) {
  }
}

void CASIOFamily::Register() {
  std::vector<CWideString> alive;
  for (uint16_t index = 0; index < driverNames_.size(); ++index) {
    CASIORegisteredSoundDriver* driver = nullptr;
    try {
      const CWideString& name = driverNames_[index];
      const CWideString shown = StripASIOPrefix(name);
      if (shown.empty()) continue;
      if (filterByHardware_) {
        std::string identity;
        if (ProbeHardwareIdentity(name, identity) && identity.empty()) continue;
      }
      driver = new CASIORegisteredSoundDriver(name, shown);
      CRegisteredSoundDriverInfo info;
      driver->GetInfo(info);
      // The registry keeps the driver it has under a key it knows.
      if (!NSFerrand::AddRegisteredDriver(driver)) delete driver;
      driver = nullptr;
      alive.push_back(info.key);
    } catch (...) {
      delete driver;
    }
  }
  NSFerrand::RemoveFamilyDriversExcept(kASIOFamilyWord, alive);
}

}  // namespace

CWideString StripASIOPrefix(const CWideString& name) {
  if (name.compare(0, 5, u"ASIO ") == 0) return name.substr(5);
  return name;
}

bool ProbeHardwareIdentity(const CWideString& name, std::string& identity) {
  identity.clear();
  SGuid clsid = {};
  if (driverList == nullptr || !FindDriverClsid(name, clsid)) return false;
  if (IsQuarantined(clsid)) return false;
  IASIOPlatform* platform = &driverList->Platform();
  // The driver is made, asked and released on a thread of its own, as for
  // any load.
  CASIOCallThread* calls = new CASIOCallThread(*platform, clsid);
  struct SProbe {
    bool answered = false;
    std::string identity;
  } probe;
  calls->Call(kCreateCallMs, [platform, clsid, calls] {
    SProbe asked;
    void* object = nullptr;
    NSPlatform::ModuleSnapshot before;
    NSPlatform::TakeModuleSnapshot(before);
    if (NSFerrand::ComFailed(
            platform->CoCreateInstance(clsid, kContextInprocServer, clsid, &object)) ||
        object == nullptr) {
      return asked;
    }
    calls->ClaimModules(*static_cast<void**>(object), before);
    auto* driver = static_cast<IASIO*>(object);
    calls->SetDriver(driver);
    asked.answered = AskHardwareIdentity(driver, *platform, asked.identity);
    driver->Release();
    calls->SetDriver(nullptr);
    return asked;
  }, probe);
  CASIOCallThread::Finish(calls);
  identity = probe.identity;
  return probe.answered;
}

CASIORegisteredSoundDriver::CASIORegisteredSoundDriver(const CWideString& driverName,
                                                       const CWideString& displayName)
    : driverName_(driverName), displayName_(displayName) {}

CABCOpenSoundDriver* CASIORegisteredSoundDriver::OpenWithSettings(
    const CSoundDriverSettings& settings, NSFerrand::MSoundRenderer* renderer,
    void* hardwareContext) {
  return new COpenASIOSoundDriver(driverName_, &settings, renderer, hardwareContext);
}

CABCOpenSoundDriver* CASIORegisteredSoundDriver::OpenWithDefaults(
    NSFerrand::MSoundRenderer* renderer, void* hardwareContext) {
  return new COpenASIOSoundDriver(driverName_, nullptr, renderer, hardwareContext);
}

CRegisteredSoundDriverInfo& CASIORegisteredSoundDriver::GetInfo(CRegisteredSoundDriverInfo& info) {
  info.key = KeyOf(driverName_);
  info.family = kASIOFamilyWord;
  info.name = displayName_;
  info.version.clear();
  info.manufacturer.clear();
  for (uint8_t& flag : info.flags) flag = 1;
  return info;
}

COpenASIOSoundDriver::COpenASIOSoundDriver(const CWideString& driverName,
                                           const CSoundDriverSettings* settings,
                                           NSFerrand::MSoundRenderer* renderer,
                                           void* hardwareContext)
    : hardwareContext_(hardwareContext) {
  if (openDrivers != 0) RaiseFailure(NSMarlet::XOpen(), NSMarlet::TargetWordAudioDriver());
  const CSoundDriverSettings copy = settings != nullptr ? *settings : CSoundDriverSettings();
  host_ = new CASIODriverHost(driverName, renderer, hardwareContext,
                              settings != nullptr ? &copy : nullptr);
  // A host left behind would stream on into the renderer beside the
  // handle's silent thread, and keep the process's one driver loaded.
  try {
    BindHardwareDevice();
  } catch (...) {
    CloseHost(host_);
    host_ = nullptr;
    throw;
  }
  ++openDrivers;
}

COpenASIOSoundDriver::~COpenASIOSoundDriver() {
  --openDrivers;
  NSMarlet::COptionalFailureScope scope;
  try {
    CloseHost(host_);
  } catch (...) {
  }
  host_ = nullptr;
  hardwareDevice_.reset();
}

void COpenASIOSoundDriver::BindHardwareDevice() {
  if (hardwareContext_ == nullptr || host_->Identity().empty()) return;
  const NSZEPGlue::CGluePtr& glue = *static_cast<NSZEPGlue::CGluePtr*>(hardwareContext_);
  if (!glue || NSZEPGlue::HardwareCutOff()) return;
  try {
    NSZEPGlue::CSharedDevicePtr device(new NSZEPGlue::CSharedDeviceImpl(glue, host_->Identity()));
    hardwareDevice_.swap(device);
  } catch (const NSMarlet::XNotFound&) {
    // Cut off by the open itself: the driver plays without a device.
    if (!NSZEPGlue::HardwareCutOff()) throw;
  } catch (const NSMarlet::XOpen& cause) {
    // A new failure of this driver's own, with the library's as its cause.
    NSMarlet::CFailureBuilder builder{NSMarlet::CSourcePosition()};
    builder.SetFromException(cause);
    NSMarlet::CFailureEntry entry;
    entry.failureCode = NSMarlet::kFailureCode_RuntimeError_Open;
    builder.SetEntry(entry);
    NSMarlet::RaiseBody(builder);
  }
}

CSoundDriverSettings& COpenASIOSoundDriver::GetSettings(CSoundDriverSettings& settings) {
  settings.sampleRate = host_->EffectiveRate();
  settings.bufferFrames = host_->BufferFrames();
  settings.inputPairs = host_->InputPairs();
  settings.outputPairs = host_->OutputPairs();
  settings.clockSource = host_->CurrentClockSource();
  settings.monitorsValid = host_->MonitorsValid();
  settings.monitors.resize(static_cast<size_t>(settings.inputPairs.Count() * 2));
  for (size_t i = 0; i < settings.monitors.size(); ++i) {
    GetInputMonitor(static_cast<uint32_t>(i), settings.monitors[i]);
  }
  return settings;
}

void COpenASIOSoundDriver::ApplySettings(const CSoundDriverSettings& settings) {
  const CSoundDriverSettings copy = settings;
  host_->ApplyNewSettings(copy);
}

bool COpenASIOSoundDriver::TakeSettingsChanged() { return host_->TakeSettingsChanged(); }

COpenSoundDriverInfo& COpenASIOSoundDriver::GetDriverInfo(COpenSoundDriverInfo& info) {
  std::vector<CWideString> clocks = host_->ClockSourceNames();
  std::vector<uint32_t> sizes = host_->BufferSizes();
  if (!Holds(sizes, host_->BufferFrames())) sizes.push_back(host_->BufferFrames());
  std::sort(sizes.begin(), sizes.end());
  info.outputNames = host_->OutputNames();
  info.inputNames = host_->InputNames();
  info.sampleRates = host_->SampleRates();
  info.bufferSizes = sizes;
  info.clockSourceNames = clocks;
  return info;
}

int64_t COpenASIOSoundDriver::GetInputLatency() {
  const uint32_t rate = host_->EffectiveRate();
  return rate == 0 ? 0 : static_cast<int64_t>(host_->InputLatency()) * 1000000 / rate;
}

int64_t COpenASIOSoundDriver::GetOutputLatency() {
  const uint32_t rate = host_->EffectiveRate();
  return rate == 0 ? 0 : static_cast<int64_t>(host_->OutputLatency()) * 1000000 / rate;
}

bool COpenASIOSoundDriver::CanMonitorInputs() { return host_->CanMonitorInputs(); }

void COpenASIOSoundDriver::GetInputMonitor(uint32_t input, CInputMonitorSetting& setting) {
  // A channel the table does not have reads as a record off.
  const std::vector<CInputMonitorSetting>& monitors = host_->Monitors();
  setting = input < monitors.size() ? monitors[input] : CInputMonitorSetting();
}

void COpenASIOSoundDriver::SetInputMonitor(uint32_t input, const CInputMonitorSetting& setting) {
  host_->SetInputMonitor(input, setting);
}

bool COpenASIOSoundDriver::HasControlPanel() {
  if (GetHardwareDevice() == nullptr) return true;
  try {
    return hardwareDevice_->HasControlPanel();
  } catch (...) {
    // The hardware library was cut off by this very call: no device.
    if (NSZEPGlue::HardwareCutOff()) return true;
    throw;
  }
}

bool COpenASIOSoundDriver::HasHardwareDevice() { return GetHardwareDevice() != nullptr; }

NSFerrand::CHardwareDevice* COpenASIOSoundDriver::GetHardwareDevice() {
  // A hardware library that was cut off leaves the driver without a device.
  return NSZEPGlue::HardwareCutOff() ? nullptr : hardwareDevice_.get();
}

bool COpenASIOSoundDriver::ShowControlPanel() { return host_->ShowPanel(); }

void COpenASIOSoundDriver::CheckAlive() { host_->PeriodicCheck(); }

CASIOFamilyScope::CASIOFamilyScope(IASIOPlatform& platform, bool filterByHardware, void* window) {
  if (familyCount == 0) {
    hostWindow = window;
    // A family that cannot be made lists nothing; the library goes on.
    try {
      familyObject = new CASIOFamily(platform, filterByHardware);
    } catch (...) {
      familyObject = nullptr;
    }
  }
  ++familyCount;
}

CASIOFamilyScope::~CASIOFamilyScope() {
  if (--familyCount != 0) return;
  delete familyObject;
  familyObject = nullptr;
  hostWindow = nullptr;
}

void CASIOFamilyScope::RefreshRegistration() {
  if (familyObject != nullptr) familyObject->Register();
}

std::vector<CWideString> CASIOFamilyScope::DriverNames() {
  return familyObject != nullptr ? familyObject->Names() : std::vector<CWideString>();
}

bool CASIOFamilyScope::Exists() { return familyObject != nullptr; }

}  // namespace NSASIO
