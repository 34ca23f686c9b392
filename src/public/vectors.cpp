#include "public/vectors.h"

namespace NSQuillon2 {

// The pointers are made once the values are in place, so they stay valid
// for the life of the list.
CStringVector::CStringVector(const std::vector<CWideString>& strings) : strings_(strings) {
  pointers_.reserve(strings_.size());
  for (const CWideString& s : strings_) {
    pointers_.push_back(reinterpret_cast<const unsigned short*>(s.c_str()));
  }
}

CDriverSpecVector::CDriverSpecVector(const std::vector<CDriverSpecImpl>& specs) : specs_(specs) {
  pointers_.reserve(specs_.size());
  for (const CDriverSpecImpl& s : specs_) pointers_.push_back(&s);
}

}  // namespace NSQuillon2
