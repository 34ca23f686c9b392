#include "public/platform_provider.h"

namespace NSQuillon2 {

namespace {
const SPlatformProvider* gProvider = nullptr;
}  // namespace

void SetPlatformProvider(const SPlatformProvider* provider) { gProvider = provider; }

SPlatformProvider PlatformProvider() {
  SPlatformProvider provider = {&NSMME::SystemWaveOut(), &NSASIO::SystemASIOPlatform(),
                               &NSDirectSound::SystemDirectSoundApi(), &NSZEPGlue::SystemZEPPlatform(), &NSWasapi::SystemWasapiApi()};
  if (gProvider == nullptr) return provider;
  if (gProvider->waveOut != nullptr) provider.waveOut = gProvider->waveOut;
  if (gProvider->asio != nullptr) provider.asio = gProvider->asio;
  if (gProvider->directSound != nullptr) provider.directSound = gProvider->directSound;
  if (gProvider->hardware != nullptr) provider.hardware = gProvider->hardware;
  if (gProvider->wasapi != nullptr) provider.wasapi = gProvider->wasapi;
  return provider;
}

}  // namespace NSQuillon2
