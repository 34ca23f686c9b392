// The bytes of one sample of each ASIO sample type, for the drivers of the
// tests that make their own buffers.
#ifndef QUILLON_TESTS_FAKES_ASIO_SAMPLE_BYTES_H
#define QUILLON_TESTS_FAKES_ASIO_SAMPLE_BYTES_H

#include <cstddef>
#include <cstdint>

#include "asio/asio_interface.h"

namespace Fakes {

inline size_t BytesPerSample(uint32_t type) {
  switch (type) {
    case NSASIO::ASIOSTInt16MSB:
    case NSASIO::ASIOSTInt16LSB: return 2;
    case NSASIO::ASIOSTInt24MSB:
    case NSASIO::ASIOSTInt24LSB: return 3;
    case NSASIO::ASIOSTFloat64MSB:
    case NSASIO::ASIOSTFloat64LSB: return 8;
    default: return 4;
  }
}

}  // namespace Fakes

#endif
