/**
 * @file abi.h
 * @brief Compiler and platform details of the boundary: the export mark, the
 * 32-bit element type of IVector<unsigned long>, and the destructor slot.
 */
#ifndef QUILLON_ABI_H
#define QUILLON_ABI_H

#if defined(_WIN32)
// The .def file of the DLL names the exports; hosts import through it.
/// The mark of the three exported functions.
#define QUILLON_API
#else
/// The mark of the three exported functions.
#define QUILLON_API __attribute__((visibility("default")))
#endif

#if defined(_WIN32)
/// The element type of the number vectors: 32 bits on every platform.
typedef unsigned long QuillonULong;
#else
// `unsigned long` is 64 bits here: keep the Windows width.
/// The element type of the number vectors: 32 bits on every platform.
typedef unsigned int QuillonULong;
#endif

// Windows hosts are compiled with MSVC, whose vtable has one destructor slot:
// the scalar deleting destructor, taking flags (bit 0: free the memory). GCC's
// C++ ABI would put two slots there, so GCC on Windows declares that single
// slot by hand. Everywhere else an ordinary virtual destructor is the ABI.
#if defined(_WIN32) && !defined(_MSC_VER)
#define QUILLON_MSVC_DESTRUCTOR_SLOT 1
#define QUILLON_BOUNDARY_DESTRUCTOR(Name)                               \
 public:                                                                \
  virtual void* ScalarDeletingDestructor(unsigned int flags) = 0;       \
                                                                        \
 protected:                                                             \
  ~Name() = default;                                                    \
                                                                        \
 public:
#define QUILLON_DELETE_BOUNDARY_OBJECT(object) (object)->ScalarDeletingDestructor(1u)
#else
/// 1 where the destructor slot is declared by hand in MSVC's form.
#define QUILLON_MSVC_DESTRUCTOR_SLOT 0
/// The first virtual slot of a boundary interface: its destructor.
#define QUILLON_BOUNDARY_DESTRUCTOR(Name) \
 public:                                  \
  virtual ~Name() = default;
/// Destroys a boundary object through its first slot.
#define QUILLON_DELETE_BOUNDARY_OBJECT(object) delete (object)
#endif

#endif
