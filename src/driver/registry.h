// The one list of the drivers known to the process. It knows no family by
// name: it makes the null driver itself, and the families add and remove
// theirs under their family words.
#ifndef QUILLON_DRIVER_REGISTRY_H
#define QUILLON_DRIVER_REGISTRY_H

#include <boost/shared_ptr.hpp>

#include <atomic>
#include <cstdint>
#include <vector>

#include "driver/driver_contract.h"
#include "driver/threading.h"

namespace NSFerrand {

typedef boost::shared_ptr<CABCRegisteredSoundDriver> CRegisteredDriverPtr;
typedef std::vector<CRegisteredDriverPtr> CRegisteredDriverList;

class CInternalSoundDriverRegistry {
 public:
  CInternalSoundDriverRegistry();
  virtual ~CInternalSoundDriverRegistry();
  CInternalSoundDriverRegistry(const CInternalSoundDriverRegistry&) = delete;
  CInternalSoundDriverRegistry& operator=(const CInternalSoundDriverRegistry&) = delete;

  bool Add(CABCRegisteredSoundDriver* driver);
  void Remove(CABCRegisteredSoundDriver* driver);
  void RemoveFamily(const CWideString& family);
  void GetDrivers(CRegisteredDriverList& drivers);
  bool TakeChanged();

 private:
  CRegisteredDriverList drivers_;
  std::atomic<uint32_t> changed_{0};
  CLockableMutex mutex_{false};
};

// Keeps the registry alive: the first reference makes it, the last one gone
// deletes it. Taken and dropped on the control thread.
class CRegistryRef {
 public:
  CRegistryRef();
  ~CRegistryRef();
  CRegistryRef(const CRegistryRef&) = delete;
  CRegistryRef& operator=(const CRegistryRef&) = delete;
};

// These need a CRegistryRef to exist. True: the registry owns the driver.
// False: its key is known already, and the caller still owns it. A failure
// (of GetInfo, the lock or memory) passes out with the driver still the caller's.
bool AddRegisteredDriver(CABCRegisteredSoundDriver* driver);
// A driver not in the list is ignored.
void RemoveRegisteredDriver(CABCRegisteredSoundDriver* driver);
// Removes the family's drivers, and any whose GetInfo raises.
void RemoveFamily(const CWideString& family);
// Removes the family's drivers whose key is not among `keys`: what a family
// does after registering again the drivers that still qualify.
void RemoveFamilyDriversExcept(const CWideString& family, const std::vector<CWideString>& keys);
void GetRegisteredDrivers(CRegisteredDriverList& drivers);
// True once after any number of changes.
bool TakeDriverListChanged();
// Whether a registry exists now.
bool RegistryExists();

// The entry nearest the target; ties go to the earlier entry. Needs at
// least one entry.
uint32_t FindNearestValue(const std::vector<uint32_t>& values, int64_t target);

}  // namespace NSFerrand

#endif
