// Driver specs: the host's token for a driver, meaningful on another
// machine and after the driver list has changed.
#ifndef QUILLON_PUBLIC_DRIVER_SPEC_H
#define QUILLON_PUBLIC_DRIVER_SPEC_H

#include <cstdint>

#include "driver/driver_contract.h"
#include "public/boundary_object.h"
#include "quillon/quillon.h"
#include "text/wide_text.h"

namespace NSQuillon2 {

using NSTextPackage::CWideString;

// The record of a driver: four texts cut at 255 units, the flags as 0 or 1,
// and every byte behind a terminator zero.
SDriverSpecKey MakeDriverSpecKey(const NSFerrand::CRegisteredSoundDriverInfo& info);

// A text field of a record, up to its terminator.
CWideString RecordText(const uint16_t (&field)[256]);
void SetRecordText(uint16_t (&field)[256], const CWideString& text);

class CDriverSpecImpl final : public TBoundaryObject<CDriverSpecImpl, IDriverSpec> {
 public:
  CDriverSpecImpl();
  CDriverSpecImpl(const CWideString& key, const SDriverSpecKey& record);
  ~CDriverSpecImpl();
  CDriverSpecImpl(const CDriverSpecImpl& other);
  CDriverSpecImpl& operator=(const CDriverSpecImpl& other) = default;

  uint32_t GetKeyRecord(SDriverSpecKey* key) const override;
  uint32_t IsSameDriver(const IDriverSpec* other, uint32_t* same) const override;
  IDriverSpec* Clone(uint32_t* status) const override;
  uint32_t IsValid() const override { return 1; }

  const CWideString& Key() const { return key_; }
  const SDriverSpecKey& Record() const { return record_; }

  // The spec behind a host's pointer when it is one of ours, else null. A
  // host may hand in an object of its own making, so its type is told by
  // its vtable, not by run-time type information a foreign compiler lacks.
  static const CDriverSpecImpl* FromInterface(const IDriverSpec* spec);

 private:
  CWideString key_;
  SDriverSpecKey record_;
};

}  // namespace NSQuillon2

#endif
