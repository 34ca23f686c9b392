// The DirectSound family: "dsound.dll" bound at run time, its output devices
// that play 16-bit stereo on a real driver, each a registered driver under
// "DX", and the one translation of its results into failures.
#ifndef QUILLON_DIRECTSOUND_DSOUND_FAMILY_H
#define QUILLON_DIRECTSOUND_DSOUND_FAMILY_H

#include <cstdint>

#include "directsound/dsound_api.h"
#include "driver/registry.h"

namespace NSDirectSound {

using NSFerrand::CWideString;

// Raises the failure a result stands for; returns on 0 alone.
void ThrowOnDirectSoundResult(HResult result);

// Removes `prefix` when the text starts with it.
bool StripLeadingText(CWideString& text, const CWideString& prefix);
// Removes the first `suffix` and the one unit behind it, when exactly one
// unit follows it: "(Foo)x" loses ")x", "(Foo)" keeps its ")".
bool StripTrailingText(CWideString& text, const CWideString& suffix);
// The name a device is shown by.
CWideString CleanDisplayName(const CWideString& description);
// The key of a device: fixed for the default device, from the GUID else.
CWideString MakeDirectSoundDriverName(const SGuid* guid);

// The bound library, one for the process; entries are null while unloaded.
struct SDirectSoundEntries {
  DSModule module = nullptr;
  DSEntry create = nullptr;
  DSEntry captureCreate = nullptr;
  DSEntry enumerate = nullptr;
  DSEntry captureEnumerate = nullptr;
};
const SDirectSoundEntries& DirectSoundEntries();
// The host's window, for the cooperative level; null without a family.
void* DirectSoundWindow();
IDirectSoundApi& DirectSoundApi();

class CDirectSoundRegisteredSoundDriver final : public NSFerrand::CABCRegisteredSoundDriver {
 public:
  CDirectSoundRegisteredSoundDriver(const SGuid* guid, const CWideString& name,
                                    const CWideString& manufacturer, const CWideString& version,
                                    bool isOutput);
  NSFerrand::CABCOpenSoundDriver* OpenWithSettings(const NSFerrand::CSoundDriverSettings& settings,
                                                   NSFerrand::MSoundRenderer* renderer,
                                                   void* hardwareContext) override;
  NSFerrand::CABCOpenSoundDriver* OpenWithDefaults(NSFerrand::MSoundRenderer* renderer,
                                                   void* hardwareContext) override;
  NSFerrand::CRegisteredSoundDriverInfo& GetInfo(
      NSFerrand::CRegisteredSoundDriverInfo& info) override;

  // Null for the system's default device.
  const SGuid* Guid() const { return hasGuid_ ? &guid_ : nullptr; }
  bool IsOutput() const { return isOutput_; }

 private:
  bool hasGuid_;
  SGuid guid_;
  CWideString name_;
  CWideString manufacturer_;
  CWideString version_;
  bool isOutput_;
};

// The family's registration, counted: the first scope binds and scans, the
// last one gone removes the family and unbinds.
class CDirectSoundFamilyScope {
 public:
  CDirectSoundFamilyScope(IDirectSoundApi& api, void* window);
  ~CDirectSoundFamilyScope();
  CDirectSoundFamilyScope(const CDirectSoundFamilyScope&) = delete;
  CDirectSoundFamilyScope& operator=(const CDirectSoundFamilyScope&) = delete;
};

}  // namespace NSDirectSound

#endif
