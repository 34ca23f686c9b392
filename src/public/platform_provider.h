// Where the library object finds the families' platform operations. The
// system's own serve unless a test put others in place before
// Quillon_Create; the shipping library exports nothing to change them.
#ifndef QUILLON_PUBLIC_PLATFORM_PROVIDER_H
#define QUILLON_PUBLIC_PLATFORM_PROVIDER_H

#include "asio/asio_platform.h"
#include "directsound/dsound_api.h"
#include "hardware/zep_platform.h"
#include "mme/wave_out.h"
#include "wasapi/wasapi_api.h"

namespace NSQuillon2 {

// A null member stands for the system's own operations.
struct SPlatformProvider {
  NSMME::IWaveOut* waveOut;
  NSASIO::IASIOPlatform* asio;
  NSDirectSound::IDirectSoundApi* directSound;
  NSZEPGlue::IZEPPlatform* hardware;
  NSWasapi::IWasapiApi* wasapi;
};

// Null puts the system's operations back.
void SetPlatformProvider(const SPlatformProvider* provider);
SPlatformProvider PlatformProvider();

}  // namespace NSQuillon2

#endif
