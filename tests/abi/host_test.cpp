// A host that knows only the public header and loads the shipping library
// from disk, as a real host does.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <set>
#include <string>
#include <thread>

#if defined(_WIN32)
#include <windows.h>
#include <objbase.h>
#include <ole2.h>
#endif

#include "platform/module.h"
#include "quillon/quillon.h"

using namespace NSQuillon2;

namespace {

struct Library {
  Library() {
    module = NSPlatform::OpenModule(QUILLON_LIBRARY_PATH);
    if (module == nullptr) return;
    create = reinterpret_cast<QuillonCreateFunction>(
        NSPlatform::ModuleSymbol(module, "Quillon_Create"));
    allocate = reinterpret_cast<QuillonNewFunction>(NSPlatform::ModuleSymbol(module, "Quillon_New"));
    release =
        reinterpret_cast<QuillonDeleteFunction>(NSPlatform::ModuleSymbol(module, "Quillon_Delete"));
  }
  ~Library() { NSPlatform::CloseModule(module); }

  void* module = nullptr;
  QuillonCreateFunction create = nullptr;
  QuillonNewFunction allocate = nullptr;
  QuillonDeleteFunction release = nullptr;
};

class HostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(lib.module, nullptr) << "cannot load " << QUILLON_LIBRARY_PATH;
    ASSERT_NE(lib.create, nullptr);
    ASSERT_NE(lib.allocate, nullptr);
    ASSERT_NE(lib.release, nullptr);
  }
  Library lib;
};

// Where the operations start in the vtable: after MSVC's one destructor slot
// on Windows, after the two of the native C++ ABI elsewhere.
#if defined(_WIN32)
constexpr int kFirstOperation = 1;
#else
constexpr int kFirstOperation = 2;
#endif

void** VTable(void* object) { return *static_cast<void***>(object); }

}  // namespace

TEST_F(HostTest, CreateCheckDestroy) {
  uint32_t status = 0;
  IQuillon* library = lib.create("IQuillon2", nullptr, &status);
  ASSERT_NE(library, nullptr);
  EXPECT_EQ(status, kStatusOk);
  EXPECT_EQ(library->CheckLibrary(), 991u);
  EXPECT_EQ(library->IsValid(), 1u);
  QuillonDestroy(library);
}

TEST_F(HostTest, WrongNameAndBadParams) {
  uint32_t status = 0;
  EXPECT_EQ(lib.create("IQuillon1", nullptr, &status), nullptr);
  EXPECT_EQ(status, 993u);
  for (uint32_t flags : {1u, 3u}) {
    SLibraryParams params = {nullptr, flags};
    status = 0;
    EXPECT_EQ(lib.create("IQuillon2", &params, &status), nullptr);
    EXPECT_EQ(status, 993u);
  }
  SLibraryParams plain = {nullptr, 0};
  IQuillon* library = lib.create("IQuillon2", &plain, &status);
  ASSERT_NE(library, nullptr);
  EXPECT_EQ(status, 991u);
  QuillonDestroy(library);
  // The hardware library is not beside this one: a not-found failure whose
  // word is "dll", as a computed status.
  SLibraryParams hardware = {nullptr, 2};
  status = 0;
  EXPECT_EQ(lib.create("IQuillon2", &hardware, &status), nullptr);
  EXPECT_EQ(status, 100000u + ((34u << 24) | (1u << 16) | (5u << 8) | 186u));
  SLibraryParams stale = {reinterpret_cast<void*>(static_cast<uintptr_t>(16)), 0};
  EXPECT_EQ(lib.create("IQuillon2", &stale, &status), nullptr);
  EXPECT_EQ(status, 993u);
}

namespace {

class CountingHost final : public IClientHost {
 public:
  uint32_t Render(IClient*, uint32_t frames, const float* const* inputs, int32_t inputCount,
                  const SRenderTiming*, float* const* outputs, int32_t outputCount,
                  const SRenderTiming*) override {
    lastFrames = frames;
    channels = inputCount * 100 + outputCount;
    silentInput = inputs != nullptr && inputs[0][0] == 0.0f;
    if (outputs != nullptr && outputs[0] != nullptr) outputs[0][0] = 0.5f;
    ++blocks;
    return 0;
  }
  void OnDriverLost(IClient*) override { ++lost; }
  void OnSettingsChanged(IClient*, const SClientSettings*) override { ++settings; }
  void OnDriverListChanged(IClient*) override {}
  std::atomic<int> blocks{0};
  std::atomic<uint32_t> lastFrames{0};
  std::atomic<int> channels{0};
  std::atomic<bool> silentInput{false};
  std::atomic<int> lost{0};
  std::atomic<int> settings{0};
};

}  // namespace

TEST_F(HostTest, AClientOnNoSoundRendersAndIdles) {
  uint32_t status = 0;
  IQuillon* library = lib.create("IQuillon2", nullptr, &status);
  ASSERT_NE(library, nullptr);
  IVector<const IDriverSpec*>* specs = library->GetDriverSpecs(&status);
  ASSERT_NE(specs, nullptr);
  ASSERT_GE(specs->GetSize(), 1);
  SDriverSpecKey key;
  specs->GetData()[0]->GetKeyRecord(&key);
  EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(key.name)), u"No Sound");
  CountingHost host;
  uint32_t running = 0;
  IClient* client = library->CreateClient(&host, nullptr, specs->GetData()[0], &running, &status);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(status, 991u);
  EXPECT_EQ(running, 1u);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (host.blocks.load() < 3 && std::chrono::steady_clock::now() < deadline) {
    EXPECT_EQ(client->Idle(), 991u);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_GE(host.blocks.load(), 3);
  EXPECT_EQ(host.lastFrames.load(), 4096u);
  EXPECT_EQ(host.channels.load(), 202);
  EXPECT_TRUE(host.silentInput.load());
  EXPECT_EQ(host.settings.load(), 1);  // the opening, reported once
  EXPECT_EQ(host.lost.load(), 0);
  QuillonDestroy(client);
  QuillonDestroy(specs);
  QuillonDestroy(library);
}

#if defined(_WIN32)

namespace {

// The library as a host uses it: created, its drivers listed, a client of
// the audio engine's opened where the system has an endpoint, played and
// idled. Destroying it ends the use.
class CLibraryInUse {
 public:
  explicit CLibraryInUse(const Library& lib) : lib_(lib) {
    uint32_t status = 0;
    library_ = lib_.create("IQuillon2", nullptr, &status);
    if (library_ == nullptr) return;
    specs_ = library_->GetDriverSpecs(&status);
    for (int64_t i = 0; specs_ != nullptr && i < specs_->GetSize(); ++i) {
      SDriverSpecKey key;
      specs_->GetData()[i]->GetKeyRecord(&key);
      if (std::u16string(reinterpret_cast<const char16_t*>(key.family)) != u"WASAPI") continue;
      uint32_t running = 0;
      client_ = library_->CreateClient(&host_, nullptr, specs_->GetData()[i], &running, &status);
      break;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (client_ != nullptr && host_.blocks.load() < 3 &&
           std::chrono::steady_clock::now() < deadline) {
      client_->Idle();
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  ~CLibraryInUse() {
    if (client_ != nullptr) QuillonDestroy(client_);
    if (specs_ != nullptr) QuillonDestroy(specs_);
    if (library_ != nullptr) QuillonDestroy(library_);
  }
  bool Made() const { return library_ != nullptr && specs_ != nullptr; }

 private:
  const Library& lib_;
  IQuillon* library_ = nullptr;
  IVector<const IDriverSpec*>* specs_ = nullptr;
  IClient* client_ = nullptr;
  CountingHost host_;
};

// Runs on a thread of its own, as a host's UI thread would.
template <class Body>
void OnAHostThread(const Body& body) {
  std::thread thread(body);
  thread.join();
}

}  // namespace

TEST_F(HostTest, AThreadInASingleThreadedApartmentStaysInIt) {
  OnAHostThread([&] {
    ASSERT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
    {
      CLibraryInUse use(lib);
      EXPECT_TRUE(use.Made());
      // Still the same single-threaded apartment, while the library lives.
      EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_FALSE);
      CoUninitialize();
    }
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_FALSE);
    CoUninitialize();
    CoUninitialize();
  });
}

TEST_F(HostTest, AThreadWithoutCOMIsLeftWithoutIt) {
  OnAHostThread([&] {
    {
      CLibraryInUse use(lib);
      EXPECT_TRUE(use.Made());
      // Nothing was initialised here: the thread may still choose.
      EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
      CoUninitialize();
    }
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
    CoUninitialize();
  });
}

TEST_F(HostTest, OLECanBeBroughtUpAfterTheLibraryObjectExists) {
  OnAHostThread([&] {
    CLibraryInUse use(lib);
    EXPECT_TRUE(use.Made());
    // Drag and drop needs this on the host's UI thread.
    EXPECT_EQ(OleInitialize(nullptr), S_OK);
    OleUninitialize();
  });
}

#endif

TEST_F(HostTest, MemoryOfTheLibraryHeap) {
  void* memory = lib.allocate(1000);
  ASSERT_NE(memory, nullptr);
  std::memset(memory, 0xAB, 1000);
  lib.release(memory);
  lib.release(nullptr);
}

TEST_F(HostTest, OperationsSitInTheSlotsTheHostExpects) {
  uint32_t status = 0;
  IQuillon* library = lib.create("IQuillon2", nullptr, &status);
  ASSERT_NE(library, nullptr);
  void** vtable = VTable(library);
  using CheckLibraryFn = uint32_t (*)(void*);
  using GetDriverSpecsFn = void* (*)(void*, uint32_t*);
  using IsValidFn = uint32_t (*)(void*);
  EXPECT_EQ(reinterpret_cast<CheckLibraryFn>(vtable[kFirstOperation + 0])(library), 991u);
  uint32_t specsStatus = 0;
  void* specs = reinterpret_cast<GetDriverSpecsFn>(vtable[kFirstOperation + 1])(library, &specsStatus);
  ASSERT_NE(specs, nullptr);
  EXPECT_EQ(specsStatus, 991u);
  // The list's own slots: GetSize, GetData, IsValid after the destructor.
  void** listTable = VTable(specs);
  using GetSizeFn = int64_t (*)(void*);
  using IsValidListFn = uint32_t (*)(void*);
  // "No Sound", and the system's wave-out devices, if it has any.
  EXPECT_GE(reinterpret_cast<GetSizeFn>(listTable[kFirstOperation + 0])(specs), 1);
  EXPECT_EQ(reinterpret_cast<IsValidListFn>(listTable[kFirstOperation + 2])(specs), 1u);
#if defined(_WIN32)
  using ListDestructorFn = void* (*)(void*, unsigned int);
  reinterpret_cast<ListDestructorFn>(listTable[0])(specs, 1u);
#else
  using ListDestructorFn = void (*)(void*);
  reinterpret_cast<ListDestructorFn>(listTable[1])(specs);
#endif
  EXPECT_EQ(reinterpret_cast<IsValidFn>(vtable[kFirstOperation + 6])(library), 1u);
#if defined(_WIN32)
  // An MSVC host's `delete library`: slot 0 with flag 1 destroys and frees.
  using ScalarDeletingDestructorFn = void* (*)(void*, unsigned int);
  EXPECT_EQ(reinterpret_cast<ScalarDeletingDestructorFn>(vtable[0])(library, 1u), library);
#else
  using DeletingDestructorFn = void (*)(void*);
  reinterpret_cast<DeletingDestructorFn>(vtable[1])(library);
#endif
}

#if defined(_WIN32)
TEST_F(HostTest, ScalarDeletingDestructorWithoutFreeLeavesTheMemoryToTheCaller) {
  uint32_t status = 0;
  IQuillon* library = lib.create("IQuillon2", nullptr, &status);
  ASSERT_NE(library, nullptr);
  using ScalarDeletingDestructorFn = void* (*)(void*, unsigned int);
  void* same = reinterpret_cast<ScalarDeletingDestructorFn>(VTable(library)[0])(library, 0u);
  EXPECT_EQ(same, library);
  lib.release(same);
  // The library object is gone with its storage; a new one starts cleanly.
  IQuillon* again = lib.create("IQuillon2", nullptr, &status);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->CheckLibrary(), 991u);
  QuillonDestroy(again);
}

namespace {

uint32_t Read32(const unsigned char* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

// The names in the export directory of a loaded PE32+ image.
std::set<std::string> ExportedNames(const unsigned char* base) {
  std::set<std::string> names;
  const uint32_t peOffset = Read32(base + 0x3C);
  if (std::memcmp(base + peOffset, "PE\0\0", 4) != 0) return names;
  const unsigned char* optional = base + peOffset + 24;
  const uint16_t magic = static_cast<uint16_t>(optional[0] | (optional[1] << 8));
  if (magic != 0x20B) return names;
  const uint32_t exportRva = Read32(optional + 112);
  if (exportRva == 0) return names;
  const unsigned char* directory = base + exportRva;
  const uint32_t nameCount = Read32(directory + 24);
  const unsigned char* nameRvas = base + Read32(directory + 32);
  for (uint32_t i = 0; i < nameCount; ++i) {
    names.insert(reinterpret_cast<const char*>(base + Read32(nameRvas + 4 * i)));
  }
  return names;
}

}  // namespace

TEST_F(HostTest, TheDllExportsExactlyTheThreeNames) {
  const std::set<std::string> names =
      ExportedNames(static_cast<const unsigned char*>(lib.module));
  EXPECT_EQ(names, (std::set<std::string>{"Quillon_Create", "Quillon_Delete", "Quillon_New"}));
}
#endif
