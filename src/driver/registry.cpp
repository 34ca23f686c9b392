#include "driver/registry.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "driver/null_driver.h"
#include "failure/builder.h"
#include "failure/scope.h"

namespace NSFerrand {

namespace {

CInternalSoundDriverRegistry* gRegistry = nullptr;
uint32_t gReferences = 0;

CInternalSoundDriverRegistry& Registry() {
  if (gRegistry == nullptr) NSMarlet::RaiseFailure(NSMarlet::XIllegalCallSequence());
  return *gRegistry;
}

// Only the registry deletes what it owns, and it owns a driver only once
// the driver is in the list: a wrapping that fails for want of memory calls
// a deleter that does not own yet, and the caller deletes its driver.
struct SOwner {
  bool owns = false;
  void operator()(CABCRegisteredSoundDriver* driver) const {
    if (owns) delete driver;
  }
};

}  // namespace

CInternalSoundDriverRegistry::CInternalSoundDriverRegistry() {
  // Until the list has it, the driver is this constructor's to delete.
  std::unique_ptr<CNullRegisteredDriver> null(new CNullRegisteredDriver());
  if (Add(null.get())) null.release();
}

CInternalSoundDriverRegistry::~CInternalSoundDriverRegistry() {
  try {
    RemoveFamily(u"Off");
  } catch (...) {
  }
  drivers_.clear();
}

bool CInternalSoundDriverRegistry::Add(CABCRegisteredSoundDriver* driver) {
  CRegisteredSoundDriverInfo info;
  const CWideString key = driver->GetInfo(info).key;
  CScopedLock lock(&mutex_);
  for (const CRegisteredDriverPtr& entry : drivers_) {
    CRegisteredSoundDriverInfo existing;
    if (entry->GetInfo(existing).key == key) return false;
  }
  drivers_.reserve(drivers_.size() + 1);
  const CRegisteredDriverPtr entry(driver, SOwner());
  // Copying a pointer into reserved room cannot fail.
  drivers_.push_back(entry);
  if (SOwner* owner = boost::get_deleter<SOwner>(entry)) owner->owns = true;
  changed_.store(1);
  return true;
}

void CInternalSoundDriverRegistry::Remove(CABCRegisteredSoundDriver* driver) {
  CScopedLock lock(&mutex_);
  for (auto it = drivers_.begin(); it != drivers_.end(); ++it) {
    if (it->get() == driver) {
      drivers_.erase(it);
      changed_.store(1);
      return;
    }
  }
}

void CInternalSoundDriverRegistry::RemoveFamily(const CWideString& family) {
  CScopedLock lock(&mutex_);
  bool removed = false;
  for (size_t i = 0; i < drivers_.size();) {
    CWideString entryFamily;
    try {
      NSMarlet::COptionalFailureScope scope;
      CRegisteredSoundDriverInfo info;
      entryFamily = drivers_[i]->GetInfo(info).family;
    } catch (...) {
      // A driver that cannot describe itself goes with any family.
    }
    if (!entryFamily.empty() && entryFamily != family) {
      ++i;
      continue;
    }
    drivers_.erase(drivers_.begin() + static_cast<long>(i));
    removed = true;
  }
  if (removed) changed_.store(1);
}

void CInternalSoundDriverRegistry::GetDrivers(CRegisteredDriverList& drivers) {
  CScopedLock lock(&mutex_);
  drivers = drivers_;
}

bool CInternalSoundDriverRegistry::TakeChanged() {
  uint32_t expected = 1;
  return changed_.compare_exchange_strong(expected, 0);
}

CRegistryRef::CRegistryRef() {
  if (gReferences == 0) gRegistry = new CInternalSoundDriverRegistry();
  ++gReferences;
}

CRegistryRef::~CRegistryRef() {
  if (--gReferences == 0) {
    delete gRegistry;
    gRegistry = nullptr;
  }
}

bool AddRegisteredDriver(CABCRegisteredSoundDriver* driver) { return Registry().Add(driver); }
void RemoveRegisteredDriver(CABCRegisteredSoundDriver* driver) { Registry().Remove(driver); }
void RemoveFamily(const CWideString& family) { Registry().RemoveFamily(family); }
void RemoveFamilyDriversExcept(const CWideString& family, const std::vector<CWideString>& keys) {
  CRegisteredDriverList drivers;
  GetRegisteredDrivers(drivers);
  std::vector<CABCRegisteredSoundDriver*> gone;
  for (const CRegisteredDriverPtr& driver : drivers) {
    CRegisteredSoundDriverInfo info;
    driver->GetInfo(info);
    if (info.family != family) continue;
    if (std::find(keys.begin(), keys.end(), info.key) == keys.end()) gone.push_back(driver.get());
  }
  for (CABCRegisteredSoundDriver* driver : gone) RemoveRegisteredDriver(driver);
}

void GetRegisteredDrivers(CRegisteredDriverList& drivers) { Registry().GetDrivers(drivers); }
bool TakeDriverListChanged() { return Registry().TakeChanged(); }
bool RegistryExists() { return gRegistry != nullptr; }

uint32_t FindNearestValue(const std::vector<uint32_t>& values, int64_t target) {
  if (values.size() < 2) return values.at(0);
  // Differences in 64 bits: entries and targets of 2^31 and above, and any
  // distance between them, stay exact.
  size_t best = 0;
  for (size_t i = 1; i < values.size(); ++i) {
    const int64_t d = std::llabs(target - static_cast<int64_t>(values[i]));
    const int64_t b = std::llabs(target - static_cast<int64_t>(values[best]));
    if (d < b) best = i;
  }
  return values[best];
}

}  // namespace NSFerrand
