// The ASIO family as the driver layer sees it: one registered driver per
// installed ASIO driver, the open driver over a CASIODriverHost, and the
// counted scope that lists and registers them.
#ifndef QUILLON_ASIO_ASIO_FAMILY_H
#define QUILLON_ASIO_ASIO_FAMILY_H

#include <cstdint>
#include <string>
#include <vector>

#include "asio/asio_host.h"
#include "asio/asio_platform.h"
#include "driver/registry.h"
#include "hardware/glue.h"

namespace NSASIO {

// The family word, and the key of a driver with its name as ^0.
extern const char16_t kASIOFamilyWord[];
extern const char16_t kASIOKeyFormat[];

// The name a driver is shown by: without one leading "ASIO ".
CWideString StripASIOPrefix(const CWideString& name);

// Whether the driver names a hardware device, and which. False when it
// cannot be asked; true with an empty identity when it answers nothing.
bool ProbeHardwareIdentity(const CWideString& name, std::string& identity);

class CASIORegisteredSoundDriver final : public NSFerrand::CABCRegisteredSoundDriver {
 public:
  CASIORegisteredSoundDriver(const CWideString& driverName, const CWideString& displayName);
  NSFerrand::CABCOpenSoundDriver* OpenWithSettings(const CSoundDriverSettings& settings,
                                                   NSFerrand::MSoundRenderer* renderer,
                                                   void* hardwareContext) override;
  NSFerrand::CABCOpenSoundDriver* OpenWithDefaults(NSFerrand::MSoundRenderer* renderer,
                                                   void* hardwareContext) override;
  NSFerrand::CRegisteredSoundDriverInfo& GetInfo(
      NSFerrand::CRegisteredSoundDriverInfo& info) override;

  const CWideString& DriverName() const { return driverName_; }
  const CWideString& DisplayName() const { return displayName_; }

 private:
  CWideString driverName_;
  CWideString displayName_;
};

class COpenASIOSoundDriver final : public NSFerrand::CABCOpenSoundDriver {
 public:
  // `settings` null: the driver's defaults. Streams from the end of the
  // constructor until the destructor.
  COpenASIOSoundDriver(const CWideString& driverName, const CSoundDriverSettings* settings,
                       NSFerrand::MSoundRenderer* renderer, void* hardwareContext);
  ~COpenASIOSoundDriver() override;
  COpenASIOSoundDriver(const COpenASIOSoundDriver&) = delete;
  COpenASIOSoundDriver& operator=(const COpenASIOSoundDriver&) = delete;

  CSoundDriverSettings& GetSettings(CSoundDriverSettings& settings) override;
  void ApplySettings(const CSoundDriverSettings& settings) override;
  bool TakeSettingsChanged() override;
  NSFerrand::COpenSoundDriverInfo& GetDriverInfo(NSFerrand::COpenSoundDriverInfo& info) override;
  int64_t GetInputLatency() override;
  int64_t GetOutputLatency() override;
  bool CanMonitorInputs() override;
  void GetInputMonitor(uint32_t input, CInputMonitorSetting& setting) override;
  void SetInputMonitor(uint32_t input, const CInputMonitorSetting& setting) override;
  bool HasControlPanel() override;
  bool HasHardwareDevice() override;
  NSFerrand::CHardwareDevice* GetHardwareDevice() override;
  bool ShowControlPanel() override;
  void CheckAlive() override;

  CASIODriverHost& Host() { return *host_; }

 private:
  // Opens the device the driver names, through the glue that the context
  // points to; a driver that names none has no device.
  void BindHardwareDevice();

  CASIODriverHost* host_ = nullptr;
  void* hardwareContext_;
  NSZEPGlue::CSharedDevicePtr hardwareDevice_;
};

// The family's registration, counted: the first scope lists the drivers and
// registers them, the last one gone removes them and frees the list.
class CASIOFamilyScope {
 public:
  // `filterByHardware` counts only for the first scope.
  CASIOFamilyScope(IASIOPlatform& platform, bool filterByHardware, void* window);
  ~CASIOFamilyScope();
  CASIOFamilyScope(const CASIOFamilyScope&) = delete;
  CASIOFamilyScope& operator=(const CASIOFamilyScope&) = delete;

  // Registers the names read at creation again, and removes those that no
  // longer qualify; reads no registry.
  static void RefreshRegistration();
  // The names the list gave at creation; empty without a family.
  static std::vector<CWideString> DriverNames();
  static bool Exists();
};

}  // namespace NSASIO

#endif
