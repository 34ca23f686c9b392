// The process time each family takes for one second of audio: a client plays
// 10 s while the host idles every 20 ms, and the same idling without a
// client, measured just before, is taken off. Run under Wine, in a session
// of scripts/wine-session.sh:
//   scripts/wine-run.sh build/windows/bin/quillon_cpu_per_second.exe [device] [frames]
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/clock.h"
#include "wine_host.h"

using namespace NSQuillon2;
using namespace NSWineHost;

namespace {

constexpr double kSeconds = 10.0;

// What a host's render does at least: writes every output.
class WritingHost final : public IClientHost {
 public:
  uint32_t Render(IClient*, uint32_t frames, const float* const*, int32_t, const SRenderTiming*,
                  float* const* outputs, int32_t outputCount, const SRenderTiming*) override {
    for (int32_t c = 0; c < outputCount; ++c) {
      if (outputs[c] == nullptr) continue;
      for (uint32_t f = 0; f < frames; ++f) outputs[c][f] = 0.001f * static_cast<float>(f & 7);
    }
    if (counting.load()) rendered += frames;
    return kStatusOk;
  }
  void OnDriverLost(IClient*) override { ++lost; }
  void OnSettingsChanged(IClient*, const SClientSettings*) override {}
  void OnDriverListChanged(IClient*) override {}

  std::atomic<bool> counting{false};
  std::atomic<uint64_t> rendered{0};
  int lost = 0;
};

// The process time of idling as a host does for that long.
double IdleFor(IClient* client, double seconds) {
  const double before = NSPlatform::ProcessCpuSeconds();
  IdleAsAHost(client, seconds);
  return NSPlatform::ProcessCpuSeconds() - before;
}

}  // namespace

int main(int argc, char** argv) {
  const std::u16string device = DeviceArgument(argc, argv);
  const uint32_t frames = argc > 2 ? static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10)) : 512;
  TQuillonPtr<IQuillon> library = CreateLibrary();
  if (!library) return 1;
  uint32_t status = 0;
  TQuillonPtr<IVector<const IDriverSpec*>> specs = QuillonOwn(library->GetDriverSpecs(&status));
  if (!specs) return 1;
  std::printf("| driver | size | rate | process time per second of audio |\n");
  std::printf("| --- | --- | --- | --- |\n");
  const struct {
    const char16_t* family;
    std::u16string name;
  } drivers[] = {{u"WASAPI", device}, {u"WASAPI", u"Default output"}, {u"DX", device},
                 {u"MME", device}, {u"Off", u"No Sound"}};
  for (const auto& wanted : drivers) {
    const IDriverSpec* spec = FindDriver(specs.get(), wanted.family, wanted.name);
    const std::string family = Narrow(wanted.family);
    const std::string name = Narrow(wanted.name);
    if (spec == nullptr) {
      std::printf("| %s %s | not listed | | |\n", family.c_str(), name.c_str());
      continue;
    }
    // The idle host alone, just before.
    const double baseline = IdleFor(nullptr, kSeconds / 2) / (kSeconds / 2);
    SClientSettings settings;
    std::memset(&settings, 0, sizeof settings);
    settings.sampleRate = 48000;
    settings.bufferFrames = frames;
    settings.outputPairEnabled[0] = 1;
    WritingHost host;
    uint32_t running = 0;
    TQuillonPtr<IClient> client = QuillonOwn(
        library->CreateClientWithSettings(&host, nullptr, spec, &settings, &running, &status));
    if (!client || running != 1) {
      std::printf("| %s %s | does not start | | |\n", family.c_str(), name.c_str());
      continue;
    }
    client->GetClientSettings(&settings);
    IdleFor(client.get(), 1.0);
    host.counting = true;
    const auto start = std::chrono::steady_clock::now();
    const double cpu = IdleFor(client.get(), kSeconds);
    const double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    host.counting = false;
    const double audio = static_cast<double>(host.rendered.load()) / settings.sampleRate;
    const double perSecond = audio > 0 ? (cpu - baseline * wall) / audio : 0.0;
    std::printf("| %s %s | %u | %u | %.1f ms |\n", family.c_str(), name.c_str(),
                settings.bufferFrames, settings.sampleRate, 1000.0 * perSecond);
  }
  return 0;
}
