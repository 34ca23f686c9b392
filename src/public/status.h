// The two crossings between failures and the status codes of the boundary.
#ifndef QUILLON_PUBLIC_STATUS_H
#define QUILLON_PUBLIC_STATUS_H

#include <cstdint>

#include "failure/report.h"

namespace NSQuillon2 {

// The failure-to-status table; the first matching row wins, so its order is
// part of the behaviour. It ends with the end mark.
const NSMarlet::SStatusMapRow* StatusTable();
const NSMarlet::SStatusRange& StatusRange();

// Call from inside a catch handler: the status of the failure being handled.
// Never raises.
uint32_t StatusFromCurrentFailure();

// Raises the failure that a status returned by the host stands for.
[[noreturn]] void ThrowFromStatus(uint32_t status);

// Writes an out value where the host gave a place for it.
template <class T>
inline void Put(T* place, T value) {
  if (place != nullptr) *place = value;
}

}  // namespace NSQuillon2

#endif
