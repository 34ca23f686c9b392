#include "platform/wait_notice.h"

namespace NSPlatform {

std::atomic<WaitObserver> waitObserver{nullptr};

void SetWaitObserver(WaitObserver observer) { waitObserver.store(observer); }

}  // namespace NSPlatform
