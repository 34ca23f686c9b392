// For each family that lists a device of one name, the smallest buffer size
// at which it plays 10 s at pace without a gap, and the output latency it
// then reports. Run under Wine, in a session of scripts/wine-session.sh:
//   scripts/wine-run.sh build/windows/bin/quillon_latency_table.exe ["Out: default"]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "wine_host.h"

using namespace NSQuillon2;
using namespace NSWineHost;

namespace {

constexpr double kSeconds = 10.0;
constexpr uint32_t kSizes[] = {64, 128, 256, 512, 1024, 2048, 4096};

class TimingHost final : public IClientHost {
 public:
  uint32_t Render(IClient*, uint32_t frames, const float* const*, int32_t, const SRenderTiming*,
                  float* const* outputs, int32_t outputCount, const SRenderTiming*) override {
    for (int32_t c = 0; c < outputCount; ++c) {
      if (outputs[c] != nullptr) std::memset(outputs[c], 0, frames * sizeof(float));
    }
    const int64_t now = std::chrono::duration_cast<std::chrono::microseconds>(
                            std::chrono::steady_clock::now().time_since_epoch())
                            .count();
    const int64_t before = last.exchange(now);
    if (counting.load()) {
      rendered += frames;
      if (before != 0 && now - before > longestGapUs.load()) longestGapUs = now - before;
    }
    return kStatusOk;
  }
  void OnDriverLost(IClient*) override { ++lost; }
  void OnSettingsChanged(IClient*, const SClientSettings*) override {}
  void OnDriverListChanged(IClient*) override {}

  std::atomic<bool> counting{false};
  std::atomic<uint64_t> rendered{0};
  std::atomic<int64_t> last{0};
  std::atomic<int64_t> longestGapUs{0};
  int lost = 0;
};

struct SResult {
  uint32_t frames = 0;
  uint32_t rate = 0;
  double pace = 0;
  double gapMs = 0;
  uint64_t latencyUs = 0;
  bool passed = false;
};

// Plays 10 s at one size; a pass keeps within 2 % of the rate and never
// leaves more than two blocks and 30 ms between two renders.
SResult Try(IQuillon* library, const IDriverSpec* spec, uint32_t frames) {
  SResult result;
  SClientSettings settings;
  std::memset(&settings, 0, sizeof settings);
  settings.sampleRate = 48000;
  settings.bufferFrames = frames;
  settings.outputPairEnabled[0] = 1;
  TimingHost host;
  uint32_t running = 0;
  uint32_t status = 0;
  TQuillonPtr<IClient> client =
      QuillonOwn(library->CreateClientWithSettings(&host, nullptr, spec, &settings, &running, &status));
  if (!client || running != 1) return result;
  client->GetClientSettings(&settings);
  result.frames = settings.bufferFrames;
  result.rate = settings.sampleRate;
  IdleAsAHost(client.get(), 1.0);
  host.counting = true;
  const auto start = std::chrono::steady_clock::now();
  IdleAsAHost(client.get(), kSeconds);
  const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  host.counting = false;
  // After playing: where the engine has a clock, what the stream showed.
  client->GetOutputLatency(&result.latencyUs);
  result.pace = static_cast<double>(host.rendered.load()) / wall / result.rate;
  result.gapMs = host.longestGapUs.load() / 1000.0;
  const double blockMs = 1000.0 * result.frames / result.rate;
  result.passed = host.lost == 0 && result.pace > 0.98 && result.pace < 1.02 &&
                  result.gapMs <= 2 * blockMs + 30.0;
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  const std::u16string device = DeviceArgument(argc, argv);
  TQuillonPtr<IQuillon> library = CreateLibrary();
  if (!library) return 1;
  uint32_t status = 0;
  TQuillonPtr<IVector<const IDriverSpec*>> specs = QuillonOwn(library->GetDriverSpecs(&status));
  if (!specs) return 1;
  std::printf("| family | smallest size at pace | rate | pace | longest gap | output latency |\n");
  std::printf("| --- | --- | --- | --- | --- | --- |\n");
  for (const char16_t* family : {u"MME", u"DX", u"WASAPI"}) {
    const IDriverSpec* spec = FindDriver(specs.get(), family, device);
    const std::string name = Narrow(family);
    if (spec == nullptr) {
      std::printf("| %s | not listed | | | | |\n", name.c_str());
      continue;
    }
    SResult found;
    uint32_t triedKept = 0;
    for (uint32_t size : kSizes) {
      const SResult result = Try(library.get(), spec, size);
      // A size kept as one already tried tells nothing new.
      if (result.frames == triedKept) continue;
      triedKept = result.frames;
      std::fprintf(stderr, "%s %u -> %u frames: pace %.3f, gap %.1f ms%s\n", name.c_str(), size,
                   result.frames, result.pace, result.gapMs, result.passed ? "" : " (no)");
      if (result.passed) {
        found = result;
        break;
      }
    }
    if (!found.passed) {
      std::printf("| %s | none up to 4096 | | | | |\n", name.c_str());
      continue;
    }
    std::printf("| %s | %u frames (%.1f ms) | %u | %.3f | %.1f ms | %.1f ms |\n", name.c_str(),
                found.frames, 1000.0 * found.frames / found.rate, found.rate, found.pace,
                found.gapMs, found.latencyUs / 1000.0);
  }
  return 0;
}
