// The three exports of the library.
#include <atomic>
#include <cstring>
#include <new>

#include "platform/window.h"
#include "public/body_storage.h"
#include "public/boundary_object.h"
#include "public/library.h"
#include "public/status.h"
#include "quillon/quillon.h"

namespace NSQuillon2 {

namespace {
std::atomic<int64_t> gLiveAllocations{0};
constexpr char kInterfaceName[] = "IQuillon2";
}  // namespace

int64_t LiveBoundaryAllocations() { return gLiveAllocations.load(std::memory_order_relaxed); }

}  // namespace NSQuillon2

using namespace NSQuillon2;

extern "C" IQuillon* Quillon_Create(const char* interfaceName, const SLibraryParams* params,
                                    uint32_t* status) {
  Put(status, static_cast<uint32_t>(kStatusOk));
  if (interfaceName == nullptr || std::strcmp(interfaceName, kInterfaceName) != 0) {
    Put(status, static_cast<uint32_t>(kStatusInvalidArgument));
    return nullptr;
  }
  if (params != nullptr) {
    const bool badWindow =
        params->windowHandle != nullptr && !NSPlatform::IsUsableWindow(params->windowHandle);
    if (badWindow || (params->flags & ~kLibraryFlagUseHardware) != 0) {
      Put(status, static_cast<uint32_t>(kStatusInvalidArgument));
      return nullptr;
    }
  }
  bool storageHeld = false;
  try {
    AcquireLibraryBodyStorage();
    storageHeld = true;
    return new CQuillonImpl(params);
  } catch (...) {
    Put(status, StatusFromCurrentFailure());
    if (storageHeld) ReleaseLibraryBodyStorage();
    return nullptr;
  }
}

extern "C" void* Quillon_New(size_t size) {
  void* memory = ::operator new(size);
  gLiveAllocations.fetch_add(1, std::memory_order_relaxed);
  return memory;
}

extern "C" void Quillon_Delete(void* pointer) {
  if (pointer == nullptr) return;
  gLiveAllocations.fetch_sub(1, std::memory_order_relaxed);
  ::operator delete(pointer);
}
