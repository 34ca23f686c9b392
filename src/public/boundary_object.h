// The base of every object that crosses the boundary: it lives in the
// library's heap, and its first virtual slot destroys and frees it the way
// the host's compiler expects.
#ifndef QUILLON_PUBLIC_BOUNDARY_OBJECT_H
#define QUILLON_PUBLIC_BOUNDARY_OBJECT_H

#include <cstddef>
#include <cstdint>

#include "quillon/quillon.h"

namespace NSQuillon2 {

// Allocations of Quillon_New not yet given back to Quillon_Delete.
int64_t LiveBoundaryAllocations();

template <class Derived, class Interface>
class TBoundaryObject : public Interface {
 public:
  static void* operator new(size_t size) { return Quillon_New(size); }
  static void operator delete(void* pointer) { Quillon_Delete(pointer); }

#if QUILLON_MSVC_DESTRUCTOR_SLOT
  // MSVC's scalar deleting destructor: destroy, and free when bit 0 is set.
  void* ScalarDeletingDestructor(unsigned int flags) override {
    Derived* self = static_cast<Derived*>(this);
    self->~Derived();
    if ((flags & 1u) != 0) Quillon_Delete(self);
    return self;
  }
#endif

 protected:
  TBoundaryObject() = default;
  ~TBoundaryObject() = default;
};

}  // namespace NSQuillon2

#endif
