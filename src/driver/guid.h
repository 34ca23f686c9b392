// A class, interface or device identity in the system's 16-byte layout.
#ifndef QUILLON_DRIVER_GUID_H
#define QUILLON_DRIVER_GUID_H

#include <cstdint>

namespace NSFerrand {

struct SGuid {
  uint32_t data1;
  uint16_t data2;
  uint16_t data3;
  uint8_t data4[8];
};
static_assert(sizeof(SGuid) == 16, "GUID layout");

inline bool operator==(const SGuid& a, const SGuid& b) {
  if (a.data1 != b.data1 || a.data2 != b.data2 || a.data3 != b.data3) return false;
  for (int i = 0; i < 8; ++i) {
    if (a.data4[i] != b.data4[i]) return false;
  }
  return true;
}
inline bool operator!=(const SGuid& a, const SGuid& b) { return !(a == b); }

}  // namespace NSFerrand

#endif
