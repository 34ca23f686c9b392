#include "public/zep_handler.h"

namespace NSQuillon2 {

namespace {

constexpr uint32_t kButtonTryMs = 50;

}  // namespace

CZEPLibHandler::CZEPLibHandler(NSZEPGlue::IZEPPlatform& platform) : lock_(false) {
  glue_.reset(new NSZEPGlue::CGlueImpl(this, this, platform));
}

CZEPLibHandler::~CZEPLibHandler() {
  // The glue goes first: its disposal ends the library's callbacks.
  glue_.reset();
}

void CZEPLibHandler::SetButtonContext(IHardwareEventSink* context) {
  NSFerrand::CScopedLock hold(&lock_);
  context_ = context;
}

void CZEPLibHandler::SetBoundDevice(NSZEPGlue::CSharedDeviceImpl* device) {
  const NSZEPGlue::ZEPDevice handle = device != nullptr ? device->GetDeviceHandle() : 0;
  // Only this thread writes the binding, so it reads it without the lock.
  if (handle == boundDevice_) return;
  NSFerrand::CScopedLock hold(&lock_);
  boundDevice_ = handle;
}

bool CZEPLibHandler::TakeConnectionChange() {
  int32_t pending = pendingConnectionChanges_.load();
  // Only this thread takes; the library's thread only adds.
  if (pending < 1) return false;
  pendingConnectionChanges_.fetch_sub(1);
  return true;
}

void CZEPLibHandler::OnConnectionChanged() { pendingConnectionChanges_.fetch_add(1); }

void CZEPLibHandler::OnButton(NSZEPGlue::ZEPDevice device, uint32_t button) {
  if (!lock_.TimedLock(kButtonTryMs)) return;
  struct SRelease {
    NSFerrand::CLockableMutex& lock;
    ~SRelease() {
      try {
        lock.Unlock();
      } catch (...) {
      }
    }
  } release{lock_};
  if (context_ == nullptr || device != boundDevice_) return;
  if (button == 1 || button == 2) context_->OnHardwareEvent(button);
}

}  // namespace NSQuillon2
