#include "public/globals.h"

namespace NSQuillon2 {

int32_t gClientCount = 0;
CQuillonImpl* gCurrentLibrary = nullptr;
void* gWindowHandle = nullptr;
std::new_handler gPreviousNewHandler = nullptr;
bool gPreviousNewHandlerKept = false;

}  // namespace NSQuillon2
