// What the library does when the process loads and unloads it.
#ifndef QUILLON_PUBLIC_PROCESS_ENTRY_H
#define QUILLON_PUBLIC_PROCESS_ENTRY_H

namespace NSQuillon2 {

// Installs a new-handler that raises std::bad_alloc ("bad allocation") and
// keeps the former one. False only when a step raised.
bool OnProcessAttach();
// Restores the former new-handler, if one was kept.
bool OnProcessDetach();

}  // namespace NSQuillon2

#endif
