// Load and unload of libquillon.so do what the DLL's attach and detach do.
#include "public/process_entry.h"

namespace {

__attribute__((constructor)) void QuillonLoaded() { NSQuillon2::OnProcessAttach(); }

__attribute__((destructor)) void QuillonUnloaded() { NSQuillon2::OnProcessDetach(); }

}  // namespace
