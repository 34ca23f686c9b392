// The ASIO family's arithmetic, apart from any driver: the lists a driver's
// numbers make, the choice of rates, the pair vectors, and the numbers a
// monitor record becomes.
#ifndef QUILLON_ASIO_ASIO_RULES_H
#define QUILLON_ASIO_ASIO_RULES_H

#include <cstdint>
#include <vector>

#include "driver/driver_contract.h"

namespace NSASIO {

// Whether a list of sizes or rates holds a value.
bool Holds(const std::vector<uint32_t>& list, uint32_t value);

// A list of step sizes with this many entries or more falls to doubling.
constexpr size_t kMaxStepSizes = 256;

// The sizes a driver's getBufferSize numbers offer, ascending, with the
// preferred size always among them. A doubling from zero or below offers
// nothing rather than never ending.
std::vector<uint32_t> BufferSizesFrom(int32_t minimum, int32_t maximum, int32_t preferred,
                                      int32_t granularity);

// 44100 when offered, else the first entry.
uint32_t PickDefaultRate(const std::vector<uint32_t>& rates);
// The nearest entry, the earlier one on a tie.
uint32_t PickNearestRate(const std::vector<uint32_t>& rates, uint32_t rate);

// A reported rate as a whole number; what is no rate at all becomes 0.
uint32_t TruncateRate(double rate);

// `bits` bits, the first of them copied from `source`.
NSFerrand::CChannelBitVector CopyPairs(const NSFerrand::CChannelBitVector& source, uint64_t bits);
// At least one pair on: the first, when the vector has bits and none is set.
void NormaliseInputPairs(NSFerrand::CChannelBitVector& pairs);
void NormaliseOutputPairs(NSFerrand::CChannelBitVector& pairs);

// A nanosecond or frame offset as u64, for any double: values from 2^63 up
// keep their top bit, negative ones wrap, and what has no value is 0.
uint64_t TruncateToU64(double value);

// The monitor record's numbers as the driver takes them: gain with 12 dB as
// full scale and -100 dB (or no number) as the floor; pan from 0 (left) to
// 2147483647 (right).
int32_t MonitorGain(float gainDb);
int32_t MonitorPan(float pan);

}  // namespace NSASIO

#endif
