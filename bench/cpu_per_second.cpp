// The process time each family takes for one second of audio: a client plays
// 10 s while the host idles every 20 ms, and the same idling without a
// client, measured just before, is taken off; the median of three runs. Under Wine the wine server's
// time is measured the same way, apart: every wait on a system object is a
// request to it. Run in a session of scripts/wine-session.sh, which names
// the server's process:
//   scripts/wine-run.sh build/windows/bin/quillon_cpu_per_second.exe [device] [frames]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "wine_host.h"

using namespace NSQuillon2;
using namespace NSWineHost;

namespace {

constexpr double kSeconds = 10.0;
constexpr int kRuns = 3;

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

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

// The wine server's process time, read from the system's own record of it
// (the session gives its process id); below 0 where there is none.
double ServerCpuSeconds() {
  const char* pid = std::getenv("QUILLON_WINESERVER_PID");
  if (pid == nullptr) return -1.0;
#if defined(_WIN32)
  const std::string path = std::string("Z:\\proc\\") + pid + "\\stat";
#else
  const std::string path = std::string("/proc/") + pid + "/stat";
#endif
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return -1.0;
  char text[1024] = {};
  const size_t length = std::fread(text, 1, sizeof text - 1, file);
  std::fclose(file);
  text[length] = 0;
  // The fields after the command's closing parenthesis: the 12th and 13th
  // of them are the user and system time, in ticks of 1/100 s.
  const char* at = std::strrchr(text, ')');
  if (at == nullptr) return -1.0;
  unsigned long long user = 0;
  unsigned long long system = 0;
  if (std::sscanf(at + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &user,
                  &system) != 2) {
    return -1.0;
  }
  return static_cast<double>(user + system) / 100.0;
}

struct SCpu {
  double process;
  double server;
};

// The process's and the server's time of idling as a host does for that long.
SCpu IdleFor(IClient* client, double seconds) {
  const double process = NSPlatform::ProcessCpuSeconds();
  const double server = ServerCpuSeconds();
  IdleAsAHost(client, seconds);
  return {NSPlatform::ProcessCpuSeconds() - process,
          server < 0 ? -1.0 : ServerCpuSeconds() - server};
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
  std::printf("| driver | size | rate | process time per second of audio | wine server's |\n");
  std::printf("| --- | --- | --- | --- | --- |\n");
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
      std::printf("| %s %s | not listed | | | |\n", family.c_str(), name.c_str());
      continue;
    }
    // Three runs, each with the idle host alone just before it; the medians.
    std::vector<double> process;
    std::vector<double> server;
    SClientSettings settings;
    for (int run = 0; run < kRuns; ++run) {
      const SCpu idle = IdleFor(nullptr, kSeconds / 2);
      std::memset(&settings, 0, sizeof settings);
      settings.sampleRate = 48000;
      settings.bufferFrames = frames;
      settings.outputPairEnabled[0] = 1;
      WritingHost host;
      uint32_t running = 0;
      TQuillonPtr<IClient> client = QuillonOwn(
          library->CreateClientWithSettings(&host, nullptr, spec, &settings, &running, &status));
      if (!client || running != 1) break;
      client->GetClientSettings(&settings);
      IdleFor(client.get(), 1.0);
      host.counting = true;
      const auto start = std::chrono::steady_clock::now();
      const SCpu cpu = IdleFor(client.get(), kSeconds);
      const double wall =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      host.counting = false;
      const double audio = static_cast<double>(host.rendered.load()) / settings.sampleRate;
      // Each less the idle host's share of the same wall time.
      auto perSecond = [&](double used, double idleUsed) {
        return audio > 0 ? 1000.0 * (used - idleUsed / (kSeconds / 2) * wall) / audio : 0.0;
      };
      process.push_back(perSecond(cpu.process, idle.process));
      if (cpu.server >= 0 && idle.server >= 0) server.push_back(perSecond(cpu.server, idle.server));
    }
    if (process.empty()) {
      std::printf("| %s %s | does not start | | | |\n", family.c_str(), name.c_str());
      continue;
    }
    char serverText[32] = "n/a";
    if (server.size() == process.size()) {
      std::snprintf(serverText, sizeof serverText, "%.1f ms", Median(server));
    }
    std::printf("| %s %s | %u | %u | %.1f ms | %s |\n", family.c_str(), name.c_str(),
                settings.bufferFrames, settings.sampleRate, Median(process), serverText);
    std::fflush(stdout);
  }
  return 0;
}
