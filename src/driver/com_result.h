// The rule of every COM result: any non-negative one is a success (S_FALSE
// and the other informational codes among them), any negative one a failure.
// A call that succeeded has handed out what it made, whatever its code.
#ifndef QUILLON_DRIVER_COM_RESULT_H
#define QUILLON_DRIVER_COM_RESULT_H

#include <cstdint>

namespace NSFerrand {

constexpr bool ComSucceeded(int32_t result) { return result >= 0; }
constexpr bool ComFailed(int32_t result) { return result < 0; }

}  // namespace NSFerrand

#endif
