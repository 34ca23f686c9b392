// What the measurements run by hand under Wine share: the library object as
// a windowless program makes it, a driver found by family and name, and a
// host that idles every 20 ms.
#ifndef QUILLON_BENCH_WINE_HOST_H
#define QUILLON_BENCH_WINE_HOST_H

#if defined(_WIN32)
#include <windows.h>
#endif

#include <chrono>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>

#include "quillon/quillon_util.h"

namespace NSWineHost {

using namespace NSQuillon2;

// The device named on the command line, or the Wine session's.
inline std::u16string DeviceArgument(int argc, char** argv) {
  return argc > 1 ? std::u16string(argv[1], argv[1] + std::strlen(argv[1]))
                  : std::u16string(u"Out: default");
}

// DirectSound needs a window: these programs have none, and the desktop's
// serves.
inline TQuillonPtr<IQuillon> CreateLibrary() {
#if defined(_WIN32)
  const SLibraryParams params = {GetDesktopWindow(), 0};
#else
  const SLibraryParams params = {nullptr, 0};
#endif
  uint32_t status = 0;
  return QuillonOwn(Quillon_Create("IQuillon2", &params, &status));
}

inline const IDriverSpec* FindDriver(IVector<const IDriverSpec*>* specs,
                                     std::u16string_view family, std::u16string_view name) {
  for (int64_t i = 0; i < specs->GetSize(); ++i) {
    SDriverSpecKey key;
    specs->GetData()[i]->GetKeyRecord(&key);
    if (FieldView(key.family) == family && FieldView(key.name) == name) return specs->GetData()[i];
  }
  return nullptr;
}

inline std::string Narrow(std::u16string_view text) { return std::string(text.begin(), text.end()); }

// Idles as a host does, for that long; a null client only waits.
inline void IdleAsAHost(IClient* client, double seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < end) {
    if (client != nullptr) client->Idle();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

}  // namespace NSWineHost

#endif
