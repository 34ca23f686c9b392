// The saved form of a driver spec, through the host's byte sinks and sources.
#ifndef QUILLON_PUBLIC_SPEC_IO_H
#define QUILLON_PUBLIC_SPEC_IO_H

#include <cstdint>

#include "public/driver_spec.h"

namespace NSQuillon2 {

constexpr uint32_t kSpecMagicWide = 0x9911FF73u;    // written
constexpr uint32_t kSpecMagicNarrow = 0x9911FF71u;  // read only: 8-bit texts

// Both raise: a host's status as the failure it stands for, a malformed
// spec as XFormatViolation. `position` moves by what was written or read.
void WriteDriverSpec(const CDriverSpecImpl& spec, IByteSink& sink, uint64_t& position);
CDriverSpecImpl* ReadDriverSpec(IByteSource& source, uint64_t& position);

}  // namespace NSQuillon2

#endif
