#include "mme/wave_out.h"

#include <windows.h>
#include <mmsystem.h>

#include <cstddef>

namespace NSMME {

namespace {

static_assert(sizeof(WAVEHDR) == sizeof(SWaveHeader), "wave header layout");
static_assert(offsetof(WAVEHDR, dwFlags) == offsetof(SWaveHeader, flags), "wave header layout");
static_assert(offsetof(WAVEHDR, lpNext) == offsetof(SWaveHeader, next), "wave header layout");
static_assert(sizeof(WAVEOUTCAPSW) == 84, "the caps record the family reads");

HWAVEOUT Handle(WaveOutHandle handle) { return static_cast<HWAVEOUT>(handle); }
WAVEHDR* Header(SWaveHeader* header) { return reinterpret_cast<WAVEHDR*>(header); }

class CSystemWaveOut final : public IWaveOut {
 public:
  uint32_t GetNumDevs() override { return waveOutGetNumDevs(); }

  uint32_t GetDevCaps(uint32_t device, SWaveOutCaps& caps) override {
    WAVEOUTCAPSW system = {};
    const MMRESULT result = waveOutGetDevCapsW(device, &system, sizeof system);
    if (result != MMSYSERR_NOERROR) return result;
    caps.driverVersion = system.vDriverVersion;
    caps.productName.assign(reinterpret_cast<const char16_t*>(system.szPname));
    caps.formats = system.dwFormats;
    caps.channels = system.wChannels;
    return MMSYSERR_NOERROR;
  }

  uint32_t Open(WaveOutHandle* handle, uint32_t device, const SWaveFormat& format,
                uint32_t flags, NSPlatform::SEvent* doneEvent) override {
    WAVEFORMATEX system = {};
    system.wFormatTag = format.formatTag;
    system.nChannels = format.channels;
    system.nSamplesPerSec = format.samplesPerSecond;
    system.nAvgBytesPerSec = format.averageBytesPerSecond;
    system.nBlockAlign = format.blockAlign;
    system.wBitsPerSample = format.bitsPerSample;
    system.cbSize = format.extraSize;
    HWAVEOUT opened = nullptr;
    const MMRESULT result =
        waveOutOpen(handle != nullptr ? &opened : nullptr, device, &system,
                    reinterpret_cast<DWORD_PTR>(NSPlatform::SystemEventHandle(doneEvent)), 0, flags);
    if (handle != nullptr) *handle = opened;
    return result;
  }

  uint32_t PrepareHeader(WaveOutHandle handle, SWaveHeader* header) override {
    return waveOutPrepareHeader(Handle(handle), Header(header), sizeof(WAVEHDR));
  }
  uint32_t UnprepareHeader(WaveOutHandle handle, SWaveHeader* header) override {
    return waveOutUnprepareHeader(Handle(handle), Header(header), sizeof(WAVEHDR));
  }
  uint32_t Write(WaveOutHandle handle, SWaveHeader* header) override {
    return waveOutWrite(Handle(handle), Header(header), sizeof(WAVEHDR));
  }
  uint32_t Pause(WaveOutHandle handle) override { return waveOutPause(Handle(handle)); }
  uint32_t Restart(WaveOutHandle handle) override { return waveOutRestart(Handle(handle)); }
  uint32_t Reset(WaveOutHandle handle) override { return waveOutReset(Handle(handle)); }
  uint32_t Close(WaveOutHandle handle) override { return waveOutClose(Handle(handle)); }
};

}  // namespace

IWaveOut& SystemWaveOut() {
  static CSystemWaveOut system;
  return system;
}

}  // namespace NSMME
