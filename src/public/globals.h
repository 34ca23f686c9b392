// The library-wide variables; each is touched only on the host's control
// thread or at process attach and detach.
#ifndef QUILLON_PUBLIC_GLOBALS_H
#define QUILLON_PUBLIC_GLOBALS_H

#include <cstdint>
#include <new>

namespace NSQuillon2 {

class CQuillonImpl;

// Living clients: raised at the end of a client's constructor, lowered in its
// destructor.
extern int32_t gClientCount;
// Written by the library object's constructor and cleared in its teardown.
extern CQuillonImpl* gCurrentLibrary;
// The host's window, for the families that need one.
extern void* gWindowHandle;
extern std::new_handler gPreviousNewHandler;
extern bool gPreviousNewHandlerKept;

}  // namespace NSQuillon2

#endif
