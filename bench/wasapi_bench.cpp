// One period of the WASAPI stream as its thread makes it after the engine's
// event: the padding query, the render, the conversion into the engine's
// format and the release of the buffer; beside the same render on its own.
// One iteration is one period of 128 or 480 frames, shared (float) and
// exclusive (24-in-32 integer).
#include <benchmark/benchmark.h>

#include <memory>

#include "driver/aligned_floats.h"
#include "driver/registry.h"
#include "fakes/fake_wasapi.h"
#include "wasapi/wasapi_driver.h"
#include "wasapi/wasapi_family.h"

using namespace NSWasapi;

namespace {

// What a host's render does at least: writes every output.
class ToneRenderer final : public NSFerrand::MSoundRenderer {
 public:
  uint32_t Render(uint32_t frames, const NSFerrand::CChannelPointers&,
                  NSFerrand::CChannelPointers& outputs, uint64_t, uint64_t, uint64_t,
                  uint64_t) override {
    for (float* out : outputs) {
      for (uint32_t f = 0; f < frames; ++f) out[f] = static_cast<float>(f & 63) * 0.01f;
    }
    return 0;
  }
};

struct SRun {
  SRun(EShareMode mode, uint32_t frames) {
    fake.ticking = false;
    fake.realTime = false;
    fake.endpoints[0].exclusive = {{48000, kSampleInt24In32}};
    fake.endpoints[0].minimumFrames = 128;
    fake.endpoints[0].maximumFrames = 480;
    fake.endpoints[0].fundamentalFrames = 352;
    registered.reset(new CWasapiRegisteredSoundDriver(
        fake, {fake.endpoints[0].id, fake.endpoints[0].name}, mode));
    NSFerrand::CSoundDriverSettings settings;
    settings.sampleRate = 48000;
    settings.bufferFrames = frames;
    driver.reset(new COpenWasapiSoundDriver(*registered, &renderer, &settings));
    // Each query leaves exactly one period of room.
    NSFerrand::CSoundDriverSettings kept;
    driver->GetSettings(kept);
    fake.fixedPadding = static_cast<int64_t>(driver->BufferFrames()) - kept.bufferFrames;
  }
  NSFerrand::CRegistryRef registry;
  Fakes::CFakeWasapi fake;
  ToneRenderer renderer;
  std::unique_ptr<CWasapiRegisteredSoundDriver> registered;
  std::unique_ptr<COpenWasapiSoundDriver> driver;
};

void BM_WasapiPeriod(benchmark::State& state) {
  SRun run(static_cast<EShareMode>(state.range(0)), static_cast<uint32_t>(state.range(1)));
  for (auto _ : state) run.driver->StreamPump();
  state.SetItemsProcessed(state.iterations() * state.range(1));
}

void BM_RenderAlone(benchmark::State& state) {
  const uint32_t frames = static_cast<uint32_t>(state.range(1));
  ToneRenderer renderer;
  NSFerrand::CChannelPointers inputs;
  NSFerrand::CChannelPointers outputs = {NSFerrand::NewAlignedFloats(frames),
                                         NSFerrand::NewAlignedFloats(frames)};
  for (auto _ : state) renderer.Render(frames, inputs, outputs, 0, 0, 0, 0);
  for (float* buffer : outputs) NSFerrand::FreeAlignedFloats(buffer);
  state.SetItemsProcessed(state.iterations() * state.range(1));
}

}  // namespace

BENCHMARK(BM_WasapiPeriod)->Args({kShareModeShared, 128})->Args({kShareModeShared, 480})
    ->Args({kShareModeExclusive, 128})->Args({kShareModeExclusive, 480});
BENCHMARK(BM_RenderAlone)->Args({0, 128})->Args({0, 480});
