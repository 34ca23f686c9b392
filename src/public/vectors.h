// The read-only lists handed to the host: private copies it owns.
#ifndef QUILLON_PUBLIC_VECTORS_H
#define QUILLON_PUBLIC_VECTORS_H

#include <vector>

#include "failure/scope.h"
#include "public/boundary_object.h"
#include "public/driver_spec.h"
#include "quillon/quillon.h"

namespace NSQuillon2 {

class CVector final : public TBoundaryObject<CVector, IVector<QuillonULong>> {
 public:
  explicit CVector(const std::vector<uint32_t>& values) : values_(values.begin(), values.end()) {}
  ~CVector() { NSMarlet::COptionalFailureScope scope; }
  int64_t GetSize() const override { return static_cast<int64_t>(values_.size()); }
  const QuillonULong* GetData() const override {
    return values_.empty() ? nullptr : values_.data();
  }
  uint32_t IsValid() const override { return 1; }

 private:
  std::vector<QuillonULong> values_;
};

class CStringVector final : public TBoundaryObject<CStringVector, IVector<const unsigned short*>> {
 public:
  explicit CStringVector(const std::vector<CWideString>& strings);
  ~CStringVector() { NSMarlet::COptionalFailureScope scope; }
  int64_t GetSize() const override { return static_cast<int64_t>(pointers_.size()); }
  const unsigned short* const* GetData() const override {
    return pointers_.empty() ? nullptr : pointers_.data();
  }
  uint32_t IsValid() const override { return strings_.size() == pointers_.size() ? 1 : 0; }

 private:
  std::vector<CWideString> strings_;
  std::vector<const unsigned short*> pointers_;
};

class CDriverSpecVector final
    : public TBoundaryObject<CDriverSpecVector, IVector<const IDriverSpec*>> {
 public:
  explicit CDriverSpecVector(const std::vector<CDriverSpecImpl>& specs);
  ~CDriverSpecVector() { NSMarlet::COptionalFailureScope scope; }
  int64_t GetSize() const override { return static_cast<int64_t>(pointers_.size()); }
  const IDriverSpec* const* GetData() const override {
    return pointers_.empty() ? nullptr : pointers_.data();
  }
  uint32_t IsValid() const override { return specs_.size() == pointers_.size() ? 1 : 0; }

 private:
  std::vector<CDriverSpecImpl> specs_;
  std::vector<const IDriverSpec*> pointers_;
};

}  // namespace NSQuillon2

#endif
