// A host of the SDK: lists the drivers and plays 1 s on "No Sound".
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "quillon/quillon_util.h"

using namespace NSQuillon2;

namespace {

class CountingHost final : public IClientHost {
 public:
  uint32_t Render(IClient*, uint32_t frames, const float* const*, int32_t, const SRenderTiming*,
                  float* const* outputs, int32_t outputCount, const SRenderTiming*) override {
    for (int32_t c = 0; c < outputCount; ++c) {
      if (outputs[c] == nullptr) continue;
      for (uint32_t f = 0; f < frames; ++f) outputs[c][f] = 0.0f;
    }
    this->frames += frames;
    return kStatusOk;
  }
  void OnDriverLost(IClient*) override { ++lost; }
  void OnSettingsChanged(IClient*, const SClientSettings*) override {}
  void OnDriverListChanged(IClient*) override {}
  std::atomic<uint64_t> frames{0};
  int lost = 0;
};

std::string Narrow(std::u16string_view text) {
  std::string out;
  for (char16_t c : text) out.push_back(c < 128 ? static_cast<char>(c) : '?');
  return out;
}

}  // namespace

int main() {
  uint32_t status = 0;
  TQuillonPtr<IQuillon> library = QuillonOwn(Quillon_Create("IQuillon2", nullptr, &status));
  if (!library) {
    std::printf("consumer: Quillon_Create: %s (%u)\n", StatusName(status), status);
    return 1;
  }
  TQuillonPtr<IVector<const IDriverSpec*>> specs = QuillonOwn(library->GetDriverSpecs(&status));
  if (!specs) return 1;
  const IDriverSpec* none = nullptr;
  for (int64_t i = 0; i < specs->GetSize(); ++i) {
    SDriverSpecKey key;
    specs->GetData()[i]->GetKeyRecord(&key);
    std::printf("consumer: driver %s / %s\n", Narrow(FieldView(key.family)).c_str(),
                Narrow(FieldView(key.name)).c_str());
    if (FieldView(key.name) == u"No Sound") none = specs->GetData()[i];
  }
  if (none == nullptr) return 1;
  CountingHost host;
  uint32_t running = 0;
  TQuillonPtr<IClient> client =
      QuillonOwn(library->CreateClient(&host, nullptr, none, &running, &status));
  if (!client || running != 1) return 1;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  while (std::chrono::steady_clock::now() < end) {
    client->Idle();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  client.reset();
  std::printf("consumer: played %llu frames on \"No Sound\", %d losses\n",
              static_cast<unsigned long long>(host.frames.load()), host.lost);
  return host.frames.load() > 0 && host.lost == 0 ? 0 : 1;
}
