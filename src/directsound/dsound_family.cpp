#include "directsound/dsound_family.h"

#include <cstring>
#include <new>
#include <stdexcept>
#include <vector>

#include "directsound/dsound_driver.h"
#include "driver/com_result.h"
#include "failure/builder.h"
#include "failure/scope.h"
#include "text/wide_text.h"

namespace NSDirectSound {

using NSMarlet::RaiseFailure;
using NSMarlet::TargetWordAudioDriver;

namespace {

const char16_t kFamilyWord[] = u"DX";

struct SDeviceEntry {
  bool hasGuid = false;
  SGuid guid = {};
  CWideString description;
  CWideString module;  // carried, never used
};

class CDirectSoundFamily {
 public:
  CDirectSoundFamily(IDirectSoundApi& api, void* window);
  ~CDirectSoundFamily();
  CDirectSoundFamily(const CDirectSoundFamily&) = delete;
  CDirectSoundFamily& operator=(const CDirectSoundFamily&) = delete;

 private:
  void Bind();
  void Scan();
  bool Probe(const SDeviceEntry& entry);
  void Unload();
  NSFerrand::CRegistryRef registry_;
};

uint32_t familyUses = 0;
CDirectSoundFamily* familyObject = nullptr;
SDirectSoundEntries entries;
IDirectSoundApi* boundApi = nullptr;
void* hostWindow = nullptr;

CWideString Hex(uint32_t value, int width) {
  static const char16_t kDigits[] = u"0123456789abcdef";
  CWideString text(static_cast<size_t>(width), u'0');
  for (int i = width - 1; i >= 0; --i, value >>= 4) text[static_cast<size_t>(i)] = kDigits[value & 15];
  return text;
}

bool AddDevice(const SGuid* guid, const char16_t* description, const char16_t* module,
               void* context) {
  try {
    SDeviceEntry entry;
    if (guid != nullptr) {
      entry.hasGuid = true;
      entry.guid = *guid;
    }
    if (description != nullptr) entry.description = description;
    if (module != nullptr) entry.module = module;
    static_cast<std::vector<SDeviceEntry>*>(context)->push_back(entry);
  } catch (...) {
  }
  // Every device is seen, whatever happened to one.
  return true;
}

CDirectSoundFamily::CDirectSoundFamily(IDirectSoundApi& api, void* window) {
  NSMarlet::COptionalFailureScope scope;
  boundApi = &api;
  hostWindow = window;
  entries.module = api.LoadLibrary("dsound.dll");
  if (entries.module == nullptr) return;
  try {
    Bind();
    Scan();
  } catch (...) {
    // A machine whose DirectSound will not serve lists no DirectSound drivers.
    Unload();
  }
}

CDirectSoundFamily::~CDirectSoundFamily() {
  try {
    Unload();
  } catch (...) {
  }
  hostWindow = nullptr;
  boundApi = nullptr;
}

void CDirectSoundFamily::Bind() {
  IDirectSoundApi& api = *boundApi;
  entries.create = api.GetProcAddress(entries.module, "DirectSoundCreate");
  entries.captureCreate = api.GetProcAddress(entries.module, "DirectSoundCaptureCreate");
  entries.enumerate = api.GetProcAddress(entries.module, "DirectSoundEnumerateW");
  entries.captureEnumerate = api.GetProcAddress(entries.module, "DirectSoundCaptureEnumerateW");
  // Capture is never used, yet its creation entry is required all the same.
  if (entries.create == nullptr || entries.captureCreate == nullptr ||
      entries.enumerate == nullptr) {
    RaiseFailure(std::runtime_error(""), TargetWordAudioDriver());
  }
}

bool CDirectSoundFamily::Probe(const SDeviceEntry& entry) {
  IDirectSoundApi& api = *boundApi;
  SDSCaps caps;
  std::memset(&caps, 0, sizeof caps);
  DSDevice device = nullptr;
  if (NSFerrand::ComFailed(
          api.DirectSoundCreate(entries.create, entry.hasGuid ? &entry.guid : nullptr, &device)) ||
      device == nullptr) {
    return false;
  }
  try {
    caps.size = sizeof caps;
    ThrowOnDirectSoundResult(api.GetCaps(device, &caps));
  } catch (...) {
    api.ReleaseDevice(device);
    throw;
  }
  api.ReleaseDevice(device);
  return (caps.flags & kCapsPrimary16Bit) != 0 && (caps.flags & kCapsPrimaryStereo) != 0 &&
         (caps.flags & kCapsEmulatedDriver) == 0;
}

void CDirectSoundFamily::Scan() {
  std::vector<SDeviceEntry> devices;
  ThrowOnDirectSoundResult(boundApi->DirectSoundEnumerate(entries.enumerate, &AddDevice, &devices));
  for (const SDeviceEntry& entry : devices) {
    CDirectSoundRegisteredSoundDriver* driver = nullptr;
    try {
      if (!Probe(entry)) continue;
      const CWideString name = CleanDisplayName(entry.description);
      const SGuid* guid = entry.hasGuid ? &entry.guid : nullptr;
      MakeDirectSoundDriverName(guid);
      driver = new CDirectSoundRegisteredSoundDriver(guid, name, CWideString(), CWideString(), true);
      if (!NSFerrand::AddRegisteredDriver(driver)) delete driver;
      driver = nullptr;
    } catch (...) {
      // One bad device never hides the others.
      delete driver;
    }
  }
}

void CDirectSoundFamily::Unload() {
  if (entries.module == nullptr) return;
  NSFerrand::RemoveFamily(kFamilyWord);
  entries.create = nullptr;
  entries.enumerate = nullptr;
  entries.captureEnumerate = nullptr;
  boundApi->FreeLibrary(entries.module);
  entries.module = nullptr;
}

}  // namespace

void ThrowOnDirectSoundResult(HResult result) {
  const char* word = TargetWordAudioDriver();
  // Informational successes are successes: what the call made is handed out.
  if (NSFerrand::ComSucceeded(result)) return;
  switch (static_cast<uint32_t>(result)) {
    case 0x80004001u:
    case 0x80070057u:
    case 0x88780046u:
    case 0x887800AAu: RaiseFailure(std::invalid_argument(""));
    case 0x8007000Eu: RaiseFailure(std::bad_alloc());
    case 0x80004005u:
    case 0x80040110u:
    case 0x88780032u:
    case 0x88780082u: RaiseFailure(std::runtime_error(""), word);
    case 0x88780096u: RaiseFailure(NSMarlet::XNotReady(), word);
    default: RaiseFailure(NSMarlet::XOpen(), word);
  }
}

bool StripLeadingText(CWideString& text, const CWideString& prefix) {
  if (prefix.empty() || text.find(prefix) != 0) return false;
  text.erase(0, prefix.size());
  return true;
}

bool StripTrailingText(CWideString& text, const CWideString& suffix) {
  const size_t at = text.find(suffix);
  if (suffix.empty() || at == CWideString::npos) return false;
  // One short of the end, on purpose: exactly one unit must follow.
  if (at + suffix.size() != text.size() - 1) return false;
  text.resize(at);
  return true;
}

CWideString CleanDisplayName(const CWideString& description) {
  CWideString text = description;
  if (!StripLeadingText(text, u"DirectSound ")) StripLeadingText(text, u"DirectX ");
  if (text.empty()) return description;
  CWideString inner = text;
  if (StripLeadingText(inner, u"(") && StripTrailingText(inner, u")")) text = inner;
  return text;
}

CWideString MakeDirectSoundDriverName(const SGuid* guid) {
  if (guid == nullptr) return u"Ferrand Default DirectSound Sound Output Driver";
  CWideString head;
  CWideString tail;
  for (int i = 0; i < 4; ++i) head += Hex(guid->data4[i], 2);
  for (int i = 4; i < 8; ++i) tail += Hex(guid->data4[i], 2);
  return NSTextPackage::FormatText(
      u"Ferrand DirectSound ^0-^1-^2-^3", 0,
      {Hex(guid->data1, 8), Hex(guid->data2, 4) + Hex(guid->data3, 4), head, tail});
}

const SDirectSoundEntries& DirectSoundEntries() { return entries; }
void* DirectSoundWindow() { return hostWindow; }
IDirectSoundApi& DirectSoundApi() { return boundApi != nullptr ? *boundApi : SystemDirectSoundApi(); }

CDirectSoundRegisteredSoundDriver::CDirectSoundRegisteredSoundDriver(
    const SGuid* guid, const CWideString& name, const CWideString& manufacturer,
    const CWideString& version, bool isOutput)
    : hasGuid_(guid != nullptr),
      guid_(guid != nullptr ? *guid : SGuid{}),
      name_(name),
      manufacturer_(manufacturer),
      version_(version),
      isOutput_(isOutput) {}

NSFerrand::CABCOpenSoundDriver* CDirectSoundRegisteredSoundDriver::OpenWithSettings(
    const NSFerrand::CSoundDriverSettings& settings, NSFerrand::MSoundRenderer* renderer, void*) {
  return new (std::nothrow) COpenDirectSoundDriver(*this, renderer, &settings);
}

NSFerrand::CABCOpenSoundDriver* CDirectSoundRegisteredSoundDriver::OpenWithDefaults(
    NSFerrand::MSoundRenderer* renderer, void*) {
  return new (std::nothrow) COpenDirectSoundDriver(*this, renderer, nullptr);
}

NSFerrand::CRegisteredSoundDriverInfo& CDirectSoundRegisteredSoundDriver::GetInfo(
    NSFerrand::CRegisteredSoundDriverInfo& info) {
  info.key = MakeDirectSoundDriverName(Guid());
  info.family = kFamilyWord;
  info.name = name_;
  info.version = version_;
  info.manufacturer = manufacturer_;
  info.flags[0] = isOutput_ ? 1 : 0;
  info.flags[1] = isOutput_ ? 0 : 1;
  info.flags[2] = 0;
  info.flags[3] = 0;
  return info;
}

CDirectSoundFamilyScope::CDirectSoundFamilyScope(IDirectSoundApi& api, void* window) {
  if (familyUses == 0) familyObject = new CDirectSoundFamily(api, window);
  ++familyUses;
}

CDirectSoundFamilyScope::~CDirectSoundFamilyScope() {
  if (--familyUses != 0) return;
  delete familyObject;
  familyObject = nullptr;
}

}  // namespace NSDirectSound
