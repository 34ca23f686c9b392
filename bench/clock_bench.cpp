// The clock the render bridge stamps each block with, beside the precise one.
#include <benchmark/benchmark.h>

#include "driver/clock.h"

static void BM_TickCount32(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(NSFerrand::GetTickCount32());
}
BENCHMARK(BM_TickCount32);

static void BM_CoarseTickCount32(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(NSFerrand::GetCoarseTickCount32());
}
BENCHMARK(BM_CoarseTickCount32);
