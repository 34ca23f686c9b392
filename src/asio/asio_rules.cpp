#include "asio/asio_rules.h"

#include <algorithm>
#include <cmath>

#include "driver/registry.h"

namespace NSASIO {

using NSFerrand::CChannelBitVector;

namespace {

void Doubling(int64_t minimum, int64_t maximum, std::vector<uint32_t>& sizes) {
  if (minimum <= 0) return;
  for (int64_t size = minimum; size <= maximum; size *= 2) sizes.push_back(static_cast<uint32_t>(size));
}

}  // namespace

bool Holds(const std::vector<uint32_t>& list, uint32_t value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

std::vector<uint32_t> BufferSizesFrom(int32_t minimum, int32_t maximum, int32_t preferred,
                                      int32_t granularity) {
  std::vector<uint32_t> sizes;
  if (granularity != -1 && granularity != 0) {
    // Counted by steps, so that a step that never reaches the maximum ends
    // at the limit too. A size of no frames is no size.
    size_t steps = 0;
    for (int64_t size = minimum; size <= maximum && steps < kMaxStepSizes;
         size += granularity, ++steps) {
      if (size > 0) sizes.push_back(static_cast<uint32_t>(size));
    }
    if (steps >= kMaxStepSizes) {
      sizes.clear();
      Doubling(minimum, maximum, sizes);
    }
  } else {
    Doubling(minimum, maximum, sizes);
  }
  if (preferred > 0 && !Holds(sizes, static_cast<uint32_t>(preferred))) {
    sizes.push_back(static_cast<uint32_t>(preferred));
    std::sort(sizes.begin(), sizes.end());
  }
  return sizes;
}

uint32_t PickDefaultRate(const std::vector<uint32_t>& rates) {
  if (rates.empty() || Holds(rates, 44100)) return 44100;
  return rates.front();
}

uint32_t PickNearestRate(const std::vector<uint32_t>& rates, uint32_t rate) {
  if (rates.empty()) return rate;
  return NSFerrand::FindNearestValue(rates, rate);
}

uint32_t TruncateRate(double rate) {
  if (!(rate >= 0.0) || rate >= 4294967296.0) return 0;
  return static_cast<uint32_t>(rate);
}

CChannelBitVector CopyPairs(const CChannelBitVector& source, uint64_t bits) {
  CChannelBitVector pairs(bits);
  const uint64_t copied = std::min(bits, source.Count());
  for (uint64_t p = 0; p < copied; ++p) pairs.Set(p, source.Get(p));
  return pairs;
}

void NormaliseInputPairs(CChannelBitVector& pairs) {
  if (pairs.Count() != 0 && pairs.SetCount() == 0) pairs.Set(0, true);
}

void NormaliseOutputPairs(CChannelBitVector& pairs) {
  if (pairs.Count() == 0) pairs.Resize(1);
  if (pairs.SetCount() == 0) pairs.Set(0, true);
}

uint64_t TruncateToU64(double value) {
  constexpr double kTop = 9223372036854775808.0;  // 2^63
  if (!(value == value) || value >= 2 * kTop || value < -kTop) return 0;
  if (value >= kTop) return static_cast<uint64_t>(value - kTop) | (uint64_t{1} << 63);
  return static_cast<uint64_t>(static_cast<int64_t>(value));
}

int32_t MonitorGain(float gainDb) {
  double gain = gainDb;
  if (gain > 12.0) gain = 12.0;
  if (!(gain >= -100.0)) gain = -100.0;
  return static_cast<int32_t>(std::pow(10.0, (gain - 12.0) * 0.05) * 2147483647.0 + 0.1);
}

int32_t MonitorPan(float pan) {
  // Beyond the two sides the number would leave 32 bits: such pans are
  // taken at the side, and no number at all as the centre.
  if (!(pan == pan)) pan = 0.0f;
  pan = std::max(-1.0f, std::min(1.0f, pan));
  const float shifted = pan + 1.0f;
  return static_cast<int32_t>(static_cast<double>(shifted) * 1073741823.5 + 0.1);
}

}  // namespace NSASIO
