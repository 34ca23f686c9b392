// The platform operations of the ASIO family: the registry reads that find
// installed drivers, and the COM services that create them. The Windows
// build calls the system's own; elsewhere there is no ASIO key, so nothing
// is listed; tests put fakes in place.
#ifndef QUILLON_ASIO_ASIO_PLATFORM_H
#define QUILLON_ASIO_ASIO_PLATFORM_H

#include <cstdint>

#include "asio/asio_interface.h"

namespace NSASIO {

typedef void* RegistryKey;
typedef void* FileHandle;

// The predefined roots, with the system's values.
const RegistryKey kClassesRoot = reinterpret_cast<RegistryKey>(static_cast<uintptr_t>(0x80000000u));
const RegistryKey kLocalMachine = reinterpret_cast<RegistryKey>(static_cast<uintptr_t>(0x80000002u));
const FileHandle kInvalidFile = reinterpret_cast<FileHandle>(~static_cast<uintptr_t>(0));

enum : int32_t {
  kRegistryOk = 0,
  kRegistryFileNotFound = 2,
  kRegistryMoreData = 234,
  kRegistryNoMoreItems = 259
};
enum : uint32_t { kRegistryValueText = 1, kRegistryKeyRead = 131097 };
enum : uint32_t { kContextInprocServer = 1 };

class IASIOPlatform {
 public:
  virtual ~IASIOPlatform() = default;
  virtual int32_t RegOpenKey(RegistryKey parent, const char16_t* path, RegistryKey* key) = 0;
  virtual int32_t RegOpenKeyEx(RegistryKey parent, const char16_t* path, uint32_t access,
                               RegistryKey* key) = 0;
  // `units` holds the room of `name` in units and, on success, the length.
  virtual int32_t RegEnumKeyEx(RegistryKey key, uint32_t index, char16_t* name,
                               uint32_t* units) = 0;
  // `value` null reads the default value. `bytes` holds the room and, on
  // success, the length written.
  virtual int32_t RegQueryValueEx(RegistryKey key, const char16_t* value, uint32_t* type,
                                  uint8_t* data, uint32_t* bytes) = 0;
  virtual int32_t RegCloseKey(RegistryKey key) = 0;
  virtual HResult CLSIDFromString(const char16_t* text, SGuid* clsid) = 0;
  virtual HResult CoInitialize() = 0;
  virtual void CoUninitialize() = 0;
  virtual HResult CoCreateInstance(const SGuid& clsid, uint32_t context, const SGuid& iid,
                                   void** object) = 0;
  // Opens an existing file for reading, shared for reading.
  virtual FileHandle CreateFileForReading(const char16_t* path) = 0;
  virtual void CloseHandle(FileHandle file) = 0;
  virtual uint32_t SysStringLen(const char16_t* text) = 0;
  virtual void SysFreeString(char16_t* text) = 0;
};

// The system's operations (an empty registry and no COM, off Windows).
IASIOPlatform& SystemASIOPlatform();

}  // namespace NSASIO

#endif
