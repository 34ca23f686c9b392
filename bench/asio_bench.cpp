// One ASIO buffer switch, driver's call to driver's call: the position
// query, the try of the run lock, the conversions in and out, the render and
// outputReady; beside the same render called on its own. One iteration is
// one buffer, for 2 and 16 channels each way, Int32LSB (18) and Float32LSB
// (19), 64 and 512 frames. The switch also runs straight into the host's
// handler, without the load's callback table; and a control call is timed
// through the driver's own thread and directly.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>

#include "asio/asio_driver_list.h"
#include "asio/asio_host.h"
#include "driver/registry.h"
#include "fakes/fake_asio.h"

using namespace NSASIO;

namespace {

// What a host's render does at least: reads every input, writes every output.
class CopyRenderer final : public NSFerrand::MSoundRenderer {
 public:
  uint32_t Render(uint32_t frames, const NSFerrand::CChannelPointers& inputs,
                  NSFerrand::CChannelPointers& outputs, uint64_t, uint64_t, uint64_t,
                  uint64_t) override {
    for (size_t c = 0; c < outputs.size(); ++c) {
      const float* in = c < inputs.size() ? inputs[c] : nullptr;
      float* out = outputs[c];
      if (out == nullptr) continue;
      for (uint32_t f = 0; f < frames; ++f) out[f] = in != nullptr ? in[f] * 0.5f : 0.0f;
    }
    return 0;
  }
};

struct SRun {
  SRun(int32_t channels, ASIOSampleType type, int32_t frames) {
    device = platform.AddDriver(u"keyA", Fakes::FakeClsidText(1), u"Bench");
    device->inputs = channels;
    device->outputs = channels;
    device->defaultType = type;
    device->minimumSize = frames;
    device->maximumSize = frames;
    device->preferredSize = frames;
    device->stopCalling = true;
    LoadDriverList(platform);
    NSFerrand::CSoundDriverSettings settings;
    settings.bufferFrames = static_cast<uint32_t>(frames);
    settings.inputPairs.Resize(static_cast<uint64_t>(channels / 2));
    settings.outputPairs.Resize(static_cast<uint64_t>(channels / 2));
    for (int32_t p = 0; p < channels / 2; ++p) {
      settings.inputPairs.Set(static_cast<uint64_t>(p), true);
      settings.outputPairs.Set(static_cast<uint64_t>(p), true);
    }
    host.reset(new CASIODriverHost(u"Bench", &renderer, nullptr, &settings));
  }
  ~SRun() {
    host.reset();
    UnloadDriverList();
  }
  NSFerrand::CRegistryRef registry;
  Fakes::CFakeASIOPlatform platform;
  std::shared_ptr<Fakes::SFakeASIODevice> device;
  CopyRenderer renderer;
  std::unique_ptr<CASIODriverHost> host;
};

void BufferSwitch(benchmark::State& state) {
  const int32_t frames = static_cast<int32_t>(state.range(2));
  SRun run(static_cast<int32_t>(state.range(0)), static_cast<ASIOSampleType>(state.range(1)),
           frames);
  Fakes::CFakeASIODriver* driver = run.device->Live();
  int32_t half = 0;
  for (auto _ : state) {
    driver->SwitchNow(half);
    half ^= 1;
  }
}

// The same switch straight into the host's handler, as the driver reached it
// before each load had a callback table of its own: the cost of the table.
void BufferSwitchWithoutLoadTable(benchmark::State& state) {
  const int32_t frames = static_cast<int32_t>(state.range(2));
  SRun run(static_cast<int32_t>(state.range(0)), static_cast<ASIOSampleType>(state.range(1)),
           frames);
  int32_t half = 0;
  for (auto _ : state) {
    CASIODriverHost::OnBufferSwitch(half, 1);
    half ^= 1;
  }
}

// A control call's round trip through the driver's own thread (hand-over,
// wake, the call, the answer), beside the same call made directly.
void ControlCallRoundTrip(benchmark::State& state) {
  SRun run(2, ASIOSTInt32LSB, 256);
  for (auto _ : state) {
    int32_t inputs = 0;
    int32_t outputs = 0;
    benchmark::DoNotOptimize(CASIOCallLayer::getChannels(&inputs, &outputs));
  }
}

void ControlCallDirect(benchmark::State& state) {
  SRun run(2, ASIOSTInt32LSB, 256);
  IASIO* driver = currentDriver.load();
  for (auto _ : state) {
    int32_t inputs = 0;
    int32_t outputs = 0;
    benchmark::DoNotOptimize(driver->getChannels(&inputs, &outputs));
  }
}

void HostRenderAlone(benchmark::State& state) {
  const int32_t channels = static_cast<int32_t>(state.range(0));
  const uint32_t frames = static_cast<uint32_t>(state.range(2));
  std::vector<std::vector<float>> storage(static_cast<size_t>(channels * 2),
                                          std::vector<float>(frames, 0.25f));
  NSFerrand::CChannelPointers inputs, outputs;
  for (int32_t c = 0; c < channels; ++c) {
    inputs.push_back(storage[static_cast<size_t>(c)].data());
    outputs.push_back(storage[static_cast<size_t>(channels + c)].data());
  }
  CopyRenderer renderer;
  for (auto _ : state) {
    renderer.Render(frames, inputs, outputs, 0, 0, 0, 0);
    benchmark::DoNotOptimize(outputs[0][0]);
  }
}

void Arguments(benchmark::internal::Benchmark* bench) {
  for (int64_t channels : {2, 16}) {
    for (int64_t type : {static_cast<int64_t>(ASIOSTInt32LSB), static_cast<int64_t>(ASIOSTFloat32LSB)}) {
      for (int64_t frames : {64, 512}) bench->Args({channels, type, frames});
    }
  }
  bench->ArgNames({"channels", "type", "frames"});
}

}  // namespace

BENCHMARK(BufferSwitch)->Apply(Arguments);
BENCHMARK(BufferSwitchWithoutLoadTable)->Apply(Arguments);
BENCHMARK(ControlCallRoundTrip);
BENCHMARK(ControlCallDirect);
BENCHMARK(HostRenderAlone)->Apply(Arguments);
