#include "public/process_entry.h"

#include <new>

#include "failure/exceptions.h"
#include "public/globals.h"

namespace NSQuillon2 {

namespace {

void RaiseBadAllocation() { throw NSMarlet::NSMarletDetails::XStdBadAlloc(); }

}  // namespace

bool OnProcessAttach() {
  try {
    // Kept even when it is null, so that unloading never leaves this
    // library's handler behind in the process.
    gPreviousNewHandler = std::set_new_handler(&RaiseBadAllocation);
    gPreviousNewHandlerKept = true;
    return true;
  } catch (...) {
    return false;
  }
}

bool OnProcessDetach() {
  try {
    if (gPreviousNewHandlerKept) {
      std::set_new_handler(gPreviousNewHandler);
      gPreviousNewHandler = nullptr;
      gPreviousNewHandlerKept = false;
    }
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace NSQuillon2
