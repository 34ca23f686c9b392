#include "public/platform_provider.h"

namespace NSQuillon2 {

namespace {
const SPlatformProvider* gProvider = nullptr;
}  // namespace

void SetPlatformProvider(const SPlatformProvider* provider) { gProvider = provider; }

SPlatformProvider PlatformProvider() {
  if (gProvider != nullptr) return *gProvider;
  return SPlatformProvider{&NSMME::SystemWaveOut()};
}

}  // namespace NSQuillon2
