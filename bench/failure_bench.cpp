// What a failure costs: raising with a body, and folding it into a status.
#include <benchmark/benchmark.h>

#include "failure/builder.h"
#include "failure/thread_safe_storage.h"
#include "public/status.h"

using namespace NSMarlet;

namespace {

struct InstalledStorage {
  InstalledStorage() { SetExceptionBodyStorage(&storage); }
  ~InstalledStorage() { SetExceptionBodyStorage(nullptr); }
  CThreadSafeExceptionBodyStorage storage;
};

void BM_PlainThrowToStatus(benchmark::State& state) {
  InstalledStorage installed;
  for (auto _ : state) {
    uint32_t status = 0;
    try {
      throw std::invalid_argument("");
    } catch (...) {
      status = NSQuillon2::StatusFromCurrentFailure();
    }
    benchmark::DoNotOptimize(status);
  }
}
BENCHMARK(BM_PlainThrowToStatus);

void BM_RaiseWithWordToStatus(benchmark::State& state) {
  InstalledStorage installed;
  for (auto _ : state) {
    uint32_t status = 0;
    try {
      RaiseFailure(XNotReady(), TargetWordAudioDriver());
    } catch (...) {
      status = NSQuillon2::StatusFromCurrentFailure();
    }
    benchmark::DoNotOptimize(status);
  }
}
BENCHMARK(BM_RaiseWithWordToStatus);

void BM_BodyCreateRelease(benchmark::State& state) {
  CThreadSafeExceptionBodyStorage storage;
  for (auto _ : state) {
    BodyId id = storage.CreateBody(CSourcePosition());
    storage.ReleaseBody(id);
  }
}
BENCHMARK(BM_BodyCreateRelease);

void BM_BodyCreateReleaseThreads(benchmark::State& state) {
  static CThreadSafeExceptionBodyStorage storage;
  for (auto _ : state) {
    BodyId id = storage.CreateBody(CSourcePosition());
    storage.ReleaseBody(id);
  }
}
BENCHMARK(BM_BodyCreateReleaseThreads)->Threads(1)->Threads(2);

}  // namespace
