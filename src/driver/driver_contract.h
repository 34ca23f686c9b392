// The contract between the driver layer and its families: the two abstract
// classes each family implements, the renderer, and the records in which a
// driver describes itself and its settings.
#ifndef QUILLON_DRIVER_DRIVER_CONTRACT_H
#define QUILLON_DRIVER_DRIVER_CONTRACT_H

#include <cstdint>
#include <vector>

#include "text/wide_text.h"

namespace NSZEPGlue {
class CSharedDeviceImpl;
}

namespace NSFerrand {

using NSTextPackage::CWideString;

class CRegisteredSoundDriverInfo {
 public:
  virtual ~CRegisteredSoundDriverInfo() = default;

  CWideString key;  // unique in the registry
  CWideString family;
  CWideString name;
  CWideString version;
  CWideString manufacturer;
  // Output channels, input channels, and two the ASIO family alone sets.
  uint8_t flags[4] = {0, 0, 0, 0};
};

class COpenSoundDriverInfo {
 public:
  // What is in force while no driver is open: 44100, 1024, "Internal".
  COpenSoundDriverInfo();
  virtual ~COpenSoundDriverInfo() = default;
  COpenSoundDriverInfo(const COpenSoundDriverInfo&) = default;
  COpenSoundDriverInfo& operator=(const COpenSoundDriverInfo&) = default;

  bool operator==(const COpenSoundDriverInfo& other) const;
  bool operator!=(const COpenSoundDriverInfo& other) const { return !(*this == other); }

  std::vector<uint32_t> sampleRates;
  std::vector<CWideString> inputNames;
  std::vector<CWideString> outputNames;
  std::vector<uint32_t> bufferSizes;
  std::vector<CWideString> clockSourceNames;
};

// One bit per stereo pair: bit p covers channels 2p and 2p + 1.
class CChannelBitVector {
 public:
  CChannelBitVector() = default;
  explicit CChannelBitVector(uint64_t count) { Resize(count); }

  uint64_t Count() const { return count_; }
  // New bits are clear.
  void Resize(uint64_t count);
  bool Get(uint64_t bit) const { return (words_[bit / 32] >> (bit % 32)) & 1u; }
  void Set(uint64_t bit, bool value);
  uint64_t SetCount() const;

  bool operator==(const CChannelBitVector& other) const;
  bool operator!=(const CChannelBitVector& other) const { return !(*this == other); }

 private:
  uint64_t count_ = 0;
  std::vector<uint32_t> words_;
};

struct CInputMonitorSetting {
  bool enabled = false;
  float pan = 0.0f;  // -1 full left to 1 full right
  uint32_t outputPair = 0;
  float gainDb = 0.0f;

  // Floats differ only when one is less or greater: a not-a-number equals
  // any value.
  bool operator==(const CInputMonitorSetting& other) const;
  bool operator!=(const CInputMonitorSetting& other) const { return !(*this == other); }
};

struct CSoundDriverSettings {
  uint32_t sampleRate = 44100;
  uint32_t bufferFrames = 1024;
  CChannelBitVector inputPairs;
  CChannelBitVector outputPairs;
  uint32_t clockSource = 0;
  bool monitorsValid = false;
  std::vector<CInputMonitorSetting> monitors;

  bool operator==(const CSoundDriverSettings& other) const;
  bool operator!=(const CSoundDriverSettings& other) const { return !(*this == other); }
};

// One buffer pointer per channel, null for an inactive one.
typedef std::vector<float*> CChannelPointers;

// Whoever produces audio. Called on the driver's thread: may raise, and each
// caller catches everything.
class MSoundRenderer {
 public:
  virtual uint32_t Render(uint32_t frames, const CChannelPointers& inputs,
                          CChannelPointers& outputs, uint64_t inputSystemTime,
                          uint64_t inputSamplePosition, uint64_t outputSystemTime,
                          uint64_t outputSamplePosition) = 0;

 protected:
  ~MSoundRenderer() = default;
};

typedef NSZEPGlue::CSharedDeviceImpl CHardwareDevice;

// An open driver: audio runs from the end of its constructor until its
// destructor has stopped the thread. Control operations come from one
// thread at a time, the host's.
class CABCOpenSoundDriver {
 public:
  virtual ~CABCOpenSoundDriver() = default;
  virtual CSoundDriverSettings& GetSettings(CSoundDriverSettings& settings) = 0;
  virtual void ApplySettings(const CSoundDriverSettings& settings) = 0;
  virtual bool TakeSettingsChanged() = 0;
  virtual COpenSoundDriverInfo& GetDriverInfo(COpenSoundDriverInfo& info) = 0;
  virtual int64_t GetInputLatency() = 0;
  virtual int64_t GetOutputLatency() = 0;
  virtual bool CanMonitorInputs() = 0;
  virtual void GetInputMonitor(uint32_t input, CInputMonitorSetting& setting) = 0;
  virtual void SetInputMonitor(uint32_t input, const CInputMonitorSetting& setting) = 0;
  virtual bool HasControlPanel() = 0;
  virtual bool HasHardwareDevice() = 0;
  virtual CHardwareDevice* GetHardwareDevice() = 0;
  virtual bool ShowControlPanel() = 0;
  // Raises XNotReady when the driver has died; does its housekeeping else.
  virtual void CheckAlive() = 0;
};

// The answers a driver without monitoring, without a panel of its own and
// without a hardware device gives; without inputs, its input latency is 0.
class CPlainOpenSoundDriver : public CABCOpenSoundDriver {
 public:
  int64_t GetInputLatency() override { return 0; }
  bool CanMonitorInputs() override { return false; }
  void GetInputMonitor(uint32_t, CInputMonitorSetting&) override {}
  void SetInputMonitor(uint32_t, const CInputMonitorSetting&) override {}
  bool HasControlPanel() override { return false; }
  bool HasHardwareDevice() override { return false; }
  CHardwareDevice* GetHardwareDevice() override { return nullptr; }
  bool ShowControlPanel() override { return true; }
};

// A driver the registry knows. GetInfo works without opening the driver and
// is called under the registry's lock: it must not call the registry.
class CABCRegisteredSoundDriver {
 public:
  virtual ~CABCRegisteredSoundDriver() = default;
  virtual CABCOpenSoundDriver* OpenWithSettings(const CSoundDriverSettings& settings,
                                                MSoundRenderer* renderer,
                                                void* hardwareContext) = 0;
  virtual CABCOpenSoundDriver* OpenWithDefaults(MSoundRenderer* renderer,
                                                void* hardwareContext) = 0;
  virtual CRegisteredSoundDriverInfo& GetInfo(CRegisteredSoundDriverInfo& info) = 0;
};

// Latency in microseconds of a number of frames at a rate, in integers.
inline int64_t LatencyMicroseconds(uint64_t frames, uint32_t sampleRate) {
  return sampleRate == 0 ? 0 : static_cast<int64_t>(frames * 1000000u / sampleRate);
}

}  // namespace NSFerrand

#endif
