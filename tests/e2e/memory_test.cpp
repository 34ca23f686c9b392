#include <cstdio>
#include <vector>

#include "e2e/e2e_support.h"
#include "fakes/fake_asio.h"
#include "fakes/fake_dsound.h"
#include "fakes/fake_wasapi.h"
#include "fakes/fake_wave_out.h"
#include "support/allocation_counter.h"
#include "support/usable_window.h"

namespace {

// The families in the machine when every one has a device: the null driver,
// ASIO, DirectSound, MME, and WASAPI shared and exclusive.
std::vector<std::u16string> Families(IQuillon* library) {
  uint32_t status = 0;
  IVector<const IDriverSpec*>* specs = library->GetDriverSpecs(&status);
  std::vector<std::u16string> families;
  if (specs == nullptr) return families;
  for (int64_t i = 0; i < specs->GetSize(); ++i) {
    SDriverSpecKey key;
    if (specs->GetData()[i]->GetKeyRecord(&key) == kStatusOk) families.push_back(Text(key.family));
  }
  QuillonDestroy(specs);
  return families;
}

// Each allocation of the library's making refused in turn, with a device in
// every family: the library is made, with fewer drivers where a family's
// scan ran out of memory, or refused with the status of the failure. A
// driver whose registration failed is deleted once, by the family that made
// it; the library goes whole every time.
TEST(LibraryMemoryTest, EveryAllocationOfTheMakingCanBeRefused) {
  Fakes::CFakeWaveOut waveOut;
  waveOut.devices.push_back(Fakes::StereoDevice(u"Fake Out", {44100, 48000}));
  Fakes::CFakeASIOPlatform asio;
  asio.AddDriver(u"Box", Fakes::FakeClsidText(1), u"ASIO Box");
  Fakes::CFakeDirectSound directSound;
  Fakes::CFakeWasapi engine;
  SPlatformProvider provider{&waveOut, &asio, &directSound, nullptr, &engine};
  SetPlatformProvider(&provider);
  const SLibraryParams params = {UsableWindow(), 0};
  // WASAPI: "Default output", and the endpoint shared and exclusive.
  const std::vector<std::u16string> everything = {u"Off", u"ASIO", u"DX", u"MME", u"WASAPI",
                                                  u"WASAPI", u"WASAPI"};
  int made = 0;
  int refusedWhole = 0;
  for (uint64_t n = 1;; ++n) {
    ASSERT_LT(n, 100000u);
    IQuillon* library = nullptr;
    uint32_t status = 0;
    bool refused = false;
    {
      AllocationCounter::CRefuseNth refuse(n);
      library = Quillon_Create("IQuillon2", &params, &status);
      refused = refuse.Refused();
    }
    if (library != nullptr) {
      ++made;
      EXPECT_EQ(status, kStatusOk) << n;
      const std::vector<std::u16string> families = Families(library);
      EXPECT_LE(families.size(), everything.size()) << n;
      EXPECT_FALSE(families.empty()) << n;
      if (!families.empty()) {
        EXPECT_EQ(families.front(), u"Off") << n;
      }
      if (!refused) {
        EXPECT_EQ(families, everything);
      }
      QuillonDestroy(library);
    } else {
      ++refusedWhole;
      EXPECT_NE(status, kStatusOk) << n;
    }
    EXPECT_EQ(asio.OpenKeys(), 0) << n;
    EXPECT_EQ(directSound.LiveDevices(), 0) << n;
    EXPECT_EQ(engine.LiveClients(), 0) << n;
    if (!refused) break;
  }
  std::printf("library made %d times, refused %d times\n", made, refusedWhole);
  EXPECT_GT(made, 1);
  EXPECT_GT(refusedWhole, 0);
  SetPlatformProvider(nullptr);
}

}  // namespace
