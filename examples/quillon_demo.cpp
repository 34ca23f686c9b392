// The demo host: loads the library as any host does, lists its drivers,
// opens a client on one and plays a sine tone through it, calling Idle from
// its own thread, with a live line of progress and a summary at the end.
//
//   quillon_demo [--list] [--driver NAME [--family FAMILY] | --spec FILE] [--seconds N]
//                [--save-spec FILE] [--wav FILE] [--fallback] [--library PATH] [--help]
#if defined(_WIN32)
#include <windows.h>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/module.h"
#include "quillon/quillon_util.h"

using namespace NSQuillon2;

namespace {

int Fail(const char* what, uint32_t status) {
  std::fprintf(stderr, "quillon_demo: %s: %s (%u)\n", what, StatusName(status), status);
  return 1;
}

std::string Narrow(const std::u16string& text) {
  std::string out;
  for (char16_t c : text) out.push_back(c < 128 ? static_cast<char>(c) : '?');
  return out;
}

std::u16string Widen(const std::string& text) { return std::u16string(text.begin(), text.end()); }

std::u16string Field(const uint16_t (&field)[256]) { return std::u16string(FieldView(field)); }

class FileSink final : public IByteSink {
 public:
  explicit FileSink(const char* path) : file_(path, std::ios::binary | std::ios::trunc) {}
  bool Open() const { return file_.is_open(); }
  uint32_t Write(uint64_t position, uint64_t length, const void* data) override {
    file_.seekp(static_cast<std::streamoff>(position));
    file_.write(static_cast<const char*>(data), static_cast<std::streamsize>(length));
    return file_ ? kStatusOk : kStatusWriteFailure;
  }

 private:
  std::ofstream file_;
};

class FileSource final : public IByteSource {
 public:
  explicit FileSource(const char* path) : file_(path, std::ios::binary) {}
  bool Open() const { return file_.is_open(); }
  uint32_t Read(uint64_t position, uint64_t length, void* data) override {
    file_.seekg(static_cast<std::streamoff>(position));
    file_.read(static_cast<char*>(data), static_cast<std::streamsize>(length));
    return file_ ? kStatusOk : kStatusReadFailure;
  }

 private:
  std::ifstream file_;
};

class MemorySink final : public IByteSink {
 public:
  uint32_t Write(uint64_t position, uint64_t length, const void* data) override {
    if (bytes.size() < position + length) bytes.resize(static_cast<size_t>(position + length));
    std::memcpy(&bytes[static_cast<size_t>(position)], data, static_cast<size_t>(length));
    return kStatusOk;
  }
  std::string bytes;
};

// The registry key of a spec, read from its saved form: the first string
// after the magic.
std::u16string KeyOf(IQuillon* library, const IDriverSpec* spec) {
  MemorySink sink;
  uint64_t position = 0;
  if (library->SaveDriverSpec(spec, &sink, &position) != kStatusOk || sink.bytes.size() < 8) {
    return u"?";
  }
  uint32_t count = 0;
  std::memcpy(&count, sink.bytes.data() + 4, 4);
  std::u16string key;
  for (size_t i = 8; i + 1 < 8 + count && i + 1 < sink.bytes.size(); i += 2) {
    const char16_t unit = static_cast<char16_t>(static_cast<unsigned char>(sink.bytes[i]) |
                                                (static_cast<unsigned char>(sink.bytes[i + 1]) << 8));
    if (unit == 0) break;
    key.push_back(unit);
  }
  return key;
}

// Renders a sine tone, measures the intervals between blocks, and keeps what
// it rendered for the WAV file; nothing here allocates or waits.
class DemoHost final : public IClientHost {
 public:
  explicit DemoHost(size_t recordFrames) : recording_(recordFrames * 2) {}

  uint32_t Render(IClient*, uint32_t frames, const float* const*, int32_t,
                  const SRenderTiming*, float* const* outputs, int32_t outputCount,
                  const SRenderTiming*) override {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const int64_t nowUs = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
    const int64_t previous = lastUs_.exchange(nowUs);
    if (previous != 0) {
      const int64_t interval = nowUs - previous;
      intervalSumUs += interval;
      ++intervals;
      if (interval < intervalMinUs.load()) intervalMinUs = interval;
      if (interval > intervalMaxUs.load()) intervalMaxUs = interval;
    }
    ++blocks;
    const double step = 2.0 * 3.14159265358979323846 * 440.0 / sampleRate.load();
    for (uint32_t f = 0; f < frames; ++f) {
      const float value = static_cast<float>(0.25 * std::sin(phase_));
      phase_ += step;
      if (phase_ > 2.0 * 3.14159265358979323846) phase_ -= 2.0 * 3.14159265358979323846;
      for (int32_t c = 0; c < outputCount; ++c) {
        if (outputs[c] != nullptr) outputs[c][f] = value;
      }
      const size_t at = static_cast<size_t>(recorded_) * 2;
      if (outputCount > 0 && at + 1 < recording_.size()) {
        recording_[at] = outputs[0] != nullptr ? outputs[0][f] : 0.0f;
        recording_[at + 1] = outputCount > 1 && outputs[1] != nullptr ? outputs[1][f] : 0.0f;
        ++recorded_;
      }
    }
    framesRendered += frames;
    return kStatusOk;
  }
  void OnDriverLost(IClient*) override { lostPending = true; }
  void OnSettingsChanged(IClient*, const SClientSettings* settings) override {
    if (settings->sampleRate != 0) sampleRate = settings->sampleRate;
  }
  void OnDriverListChanged(IClient*) override { listChanged = true; }

  bool WriteWav(const char* path) const {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (!file) return false;
    const uint32_t rate = sampleRate.load();
    const uint32_t dataBytes = static_cast<uint32_t>(recorded_) * 4;
    auto u32 = [&](uint32_t v) { file.write(reinterpret_cast<const char*>(&v), 4); };
    auto u16 = [&](uint16_t v) { file.write(reinterpret_cast<const char*>(&v), 2); };
    file.write("RIFF", 4);
    u32(36 + dataBytes);
    file.write("WAVEfmt ", 8);
    u32(16);
    u16(1);
    u16(2);
    u32(rate);
    u32(rate * 4);
    u16(4);
    u16(16);
    file.write("data", 4);
    u32(dataBytes);
    for (size_t i = 0; i < static_cast<size_t>(recorded_) * 2; ++i) {
      const float clipped = std::max(-1.0f, std::min(1.0f, recording_[i]));
      u16(static_cast<uint16_t>(static_cast<int16_t>(clipped * 32767.0f)));
    }
    return static_cast<bool>(file);
  }

  std::atomic<uint64_t> blocks{0};
  std::atomic<uint64_t> framesRendered{0};
  std::atomic<int64_t> intervalSumUs{0};
  std::atomic<int64_t> intervals{0};
  std::atomic<int64_t> intervalMinUs{INT64_MAX};
  std::atomic<int64_t> intervalMaxUs{0};
  std::atomic<uint32_t> sampleRate{44100};
  std::atomic<bool> lostPending{false};
  std::atomic<bool> listChanged{false};

 private:
  std::atomic<int64_t> lastUs_{0};
  double phase_ = 0.0;
  std::vector<float> recording_;
  uint64_t recorded_ = 0;
};

struct SOptions {
  bool help = false;
  bool list = false;
  bool fallback = false;
  double seconds = 5.0;
  std::string driver = "No Sound";
  std::string family;  // empty: the first driver of that name in any family
  const char* spec = nullptr;
  const char* saveSpec = nullptr;
  const char* wav = nullptr;
  const char* library = QUILLON_DEFAULT_LIBRARY;
};

const char kUsage[] =
    "usage: quillon_demo [--list] [--driver NAME [--family FAMILY] | --spec FILE]\n"
    "                    [--seconds N] [--save-spec FILE] [--wav FILE] [--fallback]\n"
    "                    [--library PATH] [--help]\n"
    "\n"
    "Plays a 440 Hz tone through one driver of the Quillon library, calling Idle\n"
    "every 20 ms as a host does, and prints its progress and a summary.\n"
    "\n"
    "  --list             list the drivers: family, name, key, and the latency\n"
    "                     range of drivers that open at no cost\n"
    "  --driver NAME      play through the driver of that name (default \"No Sound\")\n"
    "  --family FAMILY    with --driver: only that family (ASIO, DX, MME, WASAPI, Off)\n"
    "  --spec FILE        play through the driver a saved spec names\n"
    "  --save-spec FILE   save the chosen driver's spec to FILE\n"
    "  --seconds N        play N seconds (default 5)\n"
    "  --wav FILE         write what was rendered to a 16-bit WAV file\n"
    "  --fallback         when the driver is lost, switch to \"No Sound\"\n"
    "  --library PATH     load the library from PATH\n"
    "  --help, -h         print this text and exit\n"
    "\n"
    "Exit status: 0 when audio was rendered, 1 on a failure, 2 on a bad argument.\n";

// To standard output when asked for, else to standard error as a refusal.
int Usage(bool asked) {
  std::fputs(kUsage, asked ? stdout : stderr);
  return asked ? 0 : 2;
}

bool ParseOptions(int argc, char** argv, SOptions& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const bool hasValue = i + 1 < argc;
    if (a == "--help" || a == "-h") {
      o.help = true;
    } else if (a == "--list") {
      o.list = true;
    } else if (a == "--fallback") {
      o.fallback = true;
    } else if (a == "--seconds" && hasValue) {
      char* end = nullptr;
      o.seconds = std::strtod(argv[++i], &end);
      if (end == argv[i] || *end != '\0' || !(o.seconds > 0) || o.seconds > 86400) {
        std::fprintf(stderr, "quillon_demo: --seconds needs a number of seconds above 0\n");
        return false;
      }
    } else if (a == "--driver" && hasValue) {
      o.driver = argv[++i];
    } else if (a == "--family" && hasValue) {
      o.family = argv[++i];
    } else if (a == "--spec" && hasValue) {
      o.spec = argv[++i];
    } else if (a == "--save-spec" && hasValue) {
      o.saveSpec = argv[++i];
    } else if (a == "--wav" && hasValue) {
      o.wav = argv[++i];
    } else if (a == "--library" && hasValue) {
      o.library = argv[++i];
    } else {
      std::fprintf(stderr, "quillon_demo: unknown or incomplete argument '%s'\n", a.c_str());
      return false;
    }
  }
  return true;
}

// Two families may list a device by the same name: `family` tells them apart.
const IDriverSpec* FindByName(IVector<const IDriverSpec*>* specs, const std::string& name,
                              const std::string& family = std::string()) {
  for (int64_t i = 0; i < specs->GetSize(); ++i) {
    SDriverSpecKey key;
    if (specs->GetData()[i]->GetKeyRecord(&key) == kStatusOk && Field(key.name) == Widen(name) &&
        (family.empty() || Field(key.family) == Widen(family))) {
      return specs->GetData()[i];
    }
  }
  return nullptr;
}

// The output latency at the smallest and the largest buffer size, at the
// rate in force, of a driver that opens at no cost: the null driver, which
// holds no device. Others show "-": opening them takes a device.
std::string LatencyRange(IQuillon* library, const IDriverSpec* spec, const SDriverSpecKey& key) {
  if (Field(key.family) != u"Off") return "-";
  struct SQuietHost final : IClientHost {
    uint32_t Render(IClient*, uint32_t, const float* const*, int32_t, const SRenderTiming*,
                    float* const*, int32_t, const SRenderTiming*) override {
      return kStatusOk;
    }
    void OnDriverLost(IClient*) override {}
    void OnSettingsChanged(IClient*, const SClientSettings*) override {}
    void OnDriverListChanged(IClient*) override {}
  } host;
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client = library->CreateClient(&host, nullptr, spec, &running, &status);
  if (client == nullptr) return "-";
  std::string range = "-";
  SClientSettings settings;
  IVector<QuillonULong>* sizes = client->GetBufferSizes(&status);
  if (running != 0 && sizes != nullptr && sizes->GetSize() > 0 &&
      client->GetClientSettings(&settings) == kStatusOk && settings.sampleRate != 0) {
    const QuillonULong* first = sizes->GetData();
    const QuillonULong* last = first + sizes->GetSize();
    const double rate = settings.sampleRate;
    char text[64];
    std::snprintf(text, sizeof text, "%.1f-%.1f ms", *std::min_element(first, last) * 1000.0 / rate,
                  *std::max_element(first, last) * 1000.0 / rate);
    range = text;
  }
  QuillonDestroy(sizes);
  QuillonDestroy(client);
  return range;
}

void List(IQuillon* library, IVector<const IDriverSpec*>* specs) {
  std::printf("%-6s %-40s %-16s %s\n", "family", "name", "latency", "key");
  for (int64_t i = 0; i < specs->GetSize(); ++i) {
    SDriverSpecKey key;
    specs->GetData()[i]->GetKeyRecord(&key);
    std::printf("%-6s %-40s %-16s %s\n", Narrow(Field(key.family)).c_str(),
                Narrow(Field(key.name)).c_str(),
                LatencyRange(library, specs->GetData()[i], key).c_str(),
                Narrow(KeyOf(library, specs->GetData()[i])).c_str());
  }
}

int Play(IQuillon* library, IVector<const IDriverSpec*>* specs, const IDriverSpec* spec,
         const SOptions& options) {
  SDriverSpecKey key;
  spec->GetKeyRecord(&key);
  DemoHost host(options.wav != nullptr ? static_cast<size_t>(options.seconds * 192000.0) + 8192
                                       : 0);
  uint32_t running = 0;
  uint32_t status = 0;
  IClient* client = library->CreateClient(&host, nullptr, spec, &running, &status);
  if (client == nullptr) return Fail("cannot create a client", status);
  SClientSettings settings;
  if (client->GetClientSettings(&settings) == kStatusOk) host.sampleRate = settings.sampleRate;
  std::printf("playing a 440 Hz tone through %s \"%s\" at %u Hz, %u frames, for %.1f s\n",
              Narrow(Field(key.family)).c_str(), Narrow(Field(key.name)).c_str(),
              settings.sampleRate, settings.bufferFrames, options.seconds);
  if (running == 0) std::printf("the driver did not start: the client runs on in silence\n");
  std::string state = running != 0 ? "running" : "lost";
  int losses = 0;
  const auto start = std::chrono::steady_clock::now();
  auto nextLine = start;
  for (;;) {
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (elapsed >= options.seconds) break;
    const uint32_t idle = client->Idle();
    if (idle != kStatusOk) Fail("Idle", idle);
    if (host.lostPending.exchange(false)) {
      ++losses;
      state = "lost";
      std::printf("\nthe driver was lost; the client goes on in silence\n");
      if (options.fallback) {
        const IDriverSpec* none = FindByName(specs, "No Sound");
        const uint32_t switched = none != nullptr ? client->SetDriver(none, &running) : 0;
        if (switched == kStatusOk && running != 0) {
          state = "running (No Sound)";
          std::printf("fell back to \"No Sound\"\n");
        } else {
          Fail("falling back to \"No Sound\"", switched);
        }
      }
    }
    if (std::chrono::steady_clock::now() >= nextLine) {
      const int64_t n = host.intervals.load();
      std::printf("\r%6.2f s  %6llu blocks  %9llu frames  interval min/mean/max %.1f/%.1f/%.1f ms"
                  "  %s   ",
                  elapsed, static_cast<unsigned long long>(host.blocks.load()),
                  static_cast<unsigned long long>(host.framesRendered.load()),
                  n > 0 ? host.intervalMinUs.load() / 1000.0 : 0.0,
                  n > 0 ? host.intervalSumUs.load() / 1000.0 / static_cast<double>(n) : 0.0,
                  host.intervalMaxUs.load() / 1000.0, state.c_str());
      std::fflush(stdout);
      nextLine += std::chrono::milliseconds(250);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  QuillonDestroy(client);
  const int64_t n = host.intervals.load();
  std::printf("\nsummary: %.2f s, %llu blocks, %llu frames (%.0f frames/s), interval "
              "min/mean/max %.1f/%.1f/%.1f ms, %d driver loss%s\n",
              wall, static_cast<unsigned long long>(host.blocks.load()),
              static_cast<unsigned long long>(host.framesRendered.load()),
              static_cast<double>(host.framesRendered.load()) / wall,
              n > 0 ? host.intervalMinUs.load() / 1000.0 : 0.0,
              n > 0 ? host.intervalSumUs.load() / 1000.0 / static_cast<double>(n) : 0.0,
              host.intervalMaxUs.load() / 1000.0, losses, losses == 1 ? "" : "es");
  if (options.wav != nullptr) {
    if (!host.WriteWav(options.wav)) return Fail("cannot write the WAV file", kStatusWriteFailure);
    std::printf("wrote what the host rendered to %s\n", options.wav);
  }
  return host.blocks.load() > 0 ? 0 : 1;
}

int Run(IQuillon* library, const SOptions& options) {
  uint32_t status = 0;
  IVector<const IDriverSpec*>* specs = library->GetDriverSpecs(&status);
  if (specs == nullptr) return Fail("cannot list the drivers", status);
  int result = 0;
  IDriverSpec* loaded = nullptr;
  const IDriverSpec* chosen = nullptr;
  if (options.list) {
    List(library, specs);
  } else if (options.spec != nullptr) {
    FileSource source(options.spec);
    uint64_t position = 0;
    if (!source.Open()) {
      result = Fail(("cannot open the spec file " + std::string(options.spec)).c_str(),
                    kStatusReadFailure);
    } else {
      loaded = library->LoadDriverSpec(&source, &position, &status);
      if (loaded == nullptr) result = Fail("cannot read the spec file", status);
      chosen = loaded;
    }
  } else {
    chosen = FindByName(specs, options.driver, options.family);
    if (chosen == nullptr) {
      std::fprintf(stderr, "quillon_demo: no driver is named \"%s\"; --list shows them\n",
                   options.driver.c_str());
      result = Fail("choosing the driver", kStatusDriverNotFound);
    }
  }
  if (result == 0 && chosen != nullptr && options.saveSpec != nullptr) {
    FileSink sink(options.saveSpec);
    uint64_t position = 0;
    const uint32_t saved =
        sink.Open() ? library->SaveDriverSpec(chosen, &sink, &position) : kStatusWriteFailure;
    if (saved != kStatusOk) {
      result = Fail("cannot save the spec", saved);
    } else {
      std::printf("saved the driver spec to %s\n", options.saveSpec);
    }
  }
  if (result == 0 && chosen != nullptr) result = Play(library, specs, chosen, options);
  QuillonDestroy(loaded);
  QuillonDestroy(specs);
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  SOptions options;
  if (!ParseOptions(argc, argv, options)) return Usage(false);
  if (options.help) return Usage(true);
  void* module = NSPlatform::OpenModule(options.library);
  if (module == nullptr) {
    std::fprintf(stderr, "quillon_demo: cannot load %s\n", options.library);
    return 1;
  }
  auto create = reinterpret_cast<QuillonCreateFunction>(
      NSPlatform::ModuleSymbol(module, "Quillon_Create"));
  if (create == nullptr) {
    std::fprintf(stderr, "quillon_demo: %s has no Quillon_Create\n", options.library);
    NSPlatform::CloseModule(module);
    return 1;
  }
  // A host gives its window; ASIO drivers need one. This one has no window
  // of its own, and the desktop's serves.
#if defined(_WIN32)
  const SLibraryParams params = {GetDesktopWindow(), 0};
#else
  const SLibraryParams params = {nullptr, 0};
#endif
  uint32_t status = 0;
  IQuillon* library = create("IQuillon2", &params, &status);
  if (library == nullptr) {
    NSPlatform::CloseModule(module);
    return Fail("Quillon_Create", status);
  }
  const int result = Run(library, options);
  QuillonDestroy(library);
  NSPlatform::CloseModule(module);
  return result;
}
