#include "public/driver_spec.h"

#include <cstring>

#include "failure/scope.h"
#include "public/status.h"
#include "text/wide_text.h"

namespace NSQuillon2 {

namespace {

const void* VtableOf(const void* object) { return *static_cast<const void* const*>(object); }

}  // namespace

CWideString RecordText(const uint16_t (&field)[256]) {
  size_t length = 0;
  while (length < 256 && field[length] != 0) ++length;
  return CWideString(reinterpret_cast<const char16_t*>(field), length);
}

void SetRecordText(uint16_t (&field)[256], const CWideString& text) {
  std::memset(field, 0, sizeof field);
  NSTextPackage::CopyToFixedBuffer(reinterpret_cast<char16_t*>(field), text.c_str(), 255);
}

SDriverSpecKey MakeDriverSpecKey(const NSFerrand::CRegisteredSoundDriverInfo& info) {
  SDriverSpecKey record;
  std::memset(&record, 0, sizeof record);
  SetRecordText(record.family, info.family);
  SetRecordText(record.name, info.name);
  SetRecordText(record.version, info.version);
  SetRecordText(record.manufacturer, info.manufacturer);
  for (int i = 0; i < 4; ++i) record.flags[i] = info.flags[i] != 0 ? 1 : 0;
  return record;
}

CDriverSpecImpl::CDriverSpecImpl() { std::memset(&record_, 0, sizeof record_); }

CDriverSpecImpl::CDriverSpecImpl(const CWideString& key, const SDriverSpecKey& record)
    : key_(key), record_(record) {}

CDriverSpecImpl::CDriverSpecImpl(const CDriverSpecImpl& other)
    : TBoundaryObject<CDriverSpecImpl, IDriverSpec>(), key_(other.key_), record_(other.record_) {}

// May run after the library object, and its failure storage, are gone.
CDriverSpecImpl::~CDriverSpecImpl() { NSMarlet::COptionalFailureScope scope; }

const CDriverSpecImpl* CDriverSpecImpl::FromInterface(const IDriverSpec* spec) {
  static const CDriverSpecImpl kModel;
  if (spec == nullptr || VtableOf(spec) != VtableOf(&kModel)) return nullptr;
  return static_cast<const CDriverSpecImpl*>(spec);
}

uint32_t CDriverSpecImpl::GetKeyRecord(SDriverSpecKey* key) const {
  if (key == nullptr) return kStatusInvalidArgument;
  std::memcpy(key, &record_, sizeof record_);
  return kStatusOk;
}

uint32_t CDriverSpecImpl::IsSameDriver(const IDriverSpec* other, uint32_t* same) const {
  const CDriverSpecImpl* mine = FromInterface(other);
  uint32_t answer = 0;
  if (mine == this) {
    answer = 1;
  } else if (mine != nullptr) {
    answer = mine->key_ == key_ ? 1 : 0;
  }
  Put(same, answer);
  return kStatusOk;
}

IDriverSpec* CDriverSpecImpl::Clone(uint32_t* status) const {
  NSMarlet::COptionalFailureScope scope;
  try {
    IDriverSpec* copy = new CDriverSpecImpl(*this);
    Put(status, static_cast<uint32_t>(kStatusOk));
    return copy;
  } catch (...) {
    Put(status, StatusFromCurrentFailure());
    return nullptr;
  }
}

}  // namespace NSQuillon2
