#include "platform/fault_guard.h"

#include <windows.h>
#include <psapi.h>

#include <atomic>

// The guard is a frame of its own at the bottom of every guarded call, with
// a frame-based handler. The system asks the handlers of the frames inside
// the call first (the driver's own, the system's), so a fault reaches this
// one only when none of them took it. It then resumes the thread at the
// guard's own epilogue, with the registers the caller keeps restored from
// the guard's frame, without unwinding the frames of the code that crashed:
// their state is unknown, and running their cleanups could fault again.
// mingw has no __try; the frame and its unwind data are written out here.
extern "C" EXCEPTION_DISPOSITION QuillonGuardHandler(EXCEPTION_RECORD* record, void* frame,
                                                     CONTEXT* context, void* dispatcher);
extern "C" int QuillonGuardedInvoke(NSPlatform::GuardedCall call, void* context);
extern "C" void QuillonGuardResume();

__asm__(
    "  .text\n"
    "  .p2align 4\n"
    "  .globl QuillonGuardedInvoke\n"
    "  .def QuillonGuardedInvoke; .scl 2; .type 32; .endef\n"
    "  .seh_proc QuillonGuardedInvoke\n"
    "QuillonGuardedInvoke:\n"
    "  pushq %rbp\n"
    "  .seh_pushreg %rbp\n"
    "  pushq %rbx\n"
    "  .seh_pushreg %rbx\n"
    "  pushq %rdi\n"
    "  .seh_pushreg %rdi\n"
    "  pushq %rsi\n"
    "  .seh_pushreg %rsi\n"
    "  pushq %r12\n"
    "  .seh_pushreg %r12\n"
    "  pushq %r13\n"
    "  .seh_pushreg %r13\n"
    "  pushq %r14\n"
    "  .seh_pushreg %r14\n"
    "  pushq %r15\n"
    "  .seh_pushreg %r15\n"
    "  subq $216, %rsp\n"
    "  .seh_stackalloc 216\n"
    "  movaps %xmm6, 48(%rsp)\n"
    "  .seh_savexmm %xmm6, 48\n"
    "  movaps %xmm7, 64(%rsp)\n"
    "  .seh_savexmm %xmm7, 64\n"
    "  movaps %xmm8, 80(%rsp)\n"
    "  .seh_savexmm %xmm8, 80\n"
    "  movaps %xmm9, 96(%rsp)\n"
    "  .seh_savexmm %xmm9, 96\n"
    "  movaps %xmm10, 112(%rsp)\n"
    "  .seh_savexmm %xmm10, 112\n"
    "  movaps %xmm11, 128(%rsp)\n"
    "  .seh_savexmm %xmm11, 128\n"
    "  movaps %xmm12, 144(%rsp)\n"
    "  .seh_savexmm %xmm12, 144\n"
    "  movaps %xmm13, 160(%rsp)\n"
    "  .seh_savexmm %xmm13, 160\n"
    "  movaps %xmm14, 176(%rsp)\n"
    "  .seh_savexmm %xmm14, 176\n"
    "  movaps %xmm15, 192(%rsp)\n"
    "  .seh_savexmm %xmm15, 192\n"
    "  .seh_endprologue\n"
    "  .seh_handler QuillonGuardHandler, @except\n"
    "  stmxcsr 32(%rsp)\n"
    "  fnstcw 36(%rsp)\n"
    "  movq %rcx, %rax\n"
    "  movq %rdx, %rcx\n"
    "  callq *%rax\n"
    "  movl $1, %eax\n"
    "  .globl QuillonGuardResume\n"
    "QuillonGuardResume:\n"
    "  cld\n"
    "  ldmxcsr 32(%rsp)\n"
    "  fldcw 36(%rsp)\n"
    "  movaps 48(%rsp), %xmm6\n"
    "  movaps 64(%rsp), %xmm7\n"
    "  movaps 80(%rsp), %xmm8\n"
    "  movaps 96(%rsp), %xmm9\n"
    "  movaps 112(%rsp), %xmm10\n"
    "  movaps 128(%rsp), %xmm11\n"
    "  movaps 144(%rsp), %xmm12\n"
    "  movaps 160(%rsp), %xmm13\n"
    "  movaps 176(%rsp), %xmm14\n"
    "  movaps 192(%rsp), %xmm15\n"
    "  addq $216, %rsp\n"
    "  popq %r15\n"
    "  popq %r14\n"
    "  popq %r13\n"
    "  popq %r12\n"
    "  popq %rsi\n"
    "  popq %rdi\n"
    "  popq %rbx\n"
    "  popq %rbp\n"
    "  ret\n"
    "  .seh_endproc\n");

namespace NSPlatform {

namespace {

// The thread-local marks need no memory of their own: a driver's thread
// comes here on its first callback, where nothing may be allocated.
DWORD foreignSlot = TLS_OUT_OF_INDEXES;
DWORD guardSlot = TLS_OUT_OF_INDEXES;
INIT_ONCE slotsOnce = INIT_ONCE_STATIC_INIT;

BOOL CALLBACK AllocateSlots(PINIT_ONCE, PVOID, PVOID*) {
  foreignSlot = TlsAlloc();
  guardSlot = TlsAlloc();
  return TRUE;
}

void EnsureSlots() { InitOnceExecuteOnce(&slotsOnce, &AllocateSlots, nullptr, nullptr); }

uintptr_t Depth(DWORD slot) {
  return slot == TLS_OUT_OF_INDEXES ? 0 : reinterpret_cast<uintptr_t>(TlsGetValue(slot));
}

void SetDepth(DWORD slot, uintptr_t depth) {
  if (slot != TLS_OUT_OF_INDEXES) TlsSetValue(slot, reinterpret_cast<void*>(depth));
}

bool IsHardwareFault(DWORD code) {
  switch (code) {
    case EXCEPTION_ACCESS_VIOLATION:
    case EXCEPTION_ILLEGAL_INSTRUCTION:
    case EXCEPTION_PRIV_INSTRUCTION:
    case EXCEPTION_INT_DIVIDE_BY_ZERO:
    case EXCEPTION_INT_OVERFLOW:
    case EXCEPTION_STACK_OVERFLOW:
    case EXCEPTION_DATATYPE_MISALIGNMENT:
    case EXCEPTION_ARRAY_BOUNDS_EXCEEDED:
    case EXCEPTION_IN_PAGE_ERROR:
    case EXCEPTION_FLT_DIVIDE_BY_ZERO:
    case EXCEPTION_FLT_INVALID_OPERATION:
    case EXCEPTION_FLT_OVERFLOW:
    case EXCEPTION_FLT_UNDERFLOW:
    case EXCEPTION_FLT_INEXACT_RESULT:
    case EXCEPTION_FLT_DENORMAL_OPERAND:
    case EXCEPTION_FLT_STACK_CHECK:
      return true;
    default:
      return false;
  }
}

HMODULE ModuleAt(const void* address) {
  HMODULE module = nullptr;
  if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                              GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                          static_cast<LPCWSTR>(address), &module)) {
    return nullptr;
  }
  return module;
}

HMODULE OwnModule() {
  static const HMODULE own = ModuleAt(reinterpret_cast<const void*>(&OwnModule));
  return own;
}

// The modules that belong to drivers, each with its owner, for the life of
// the process. Written by control threads, read by any faulting thread.
constexpr uint32_t kDriverModules = 256;
struct SDriverModule {
  std::atomic<HMODULE> module{nullptr};
  std::atomic<uint32_t> owner{0};
};
SDriverModule driverModules[kDriverModules];
std::atomic<uint32_t> driverModuleCount{0};
std::atomic<DriverCrashHandler> crashHandler{nullptr};
LPTOP_LEVEL_EXCEPTION_FILTER formerFilter = nullptr;
std::atomic<bool> filterInstalled{false};

bool DriverOwning(HMODULE module, uint32_t& owner) {
  if (module == nullptr) return false;
  const uint32_t count = driverModuleCount.load();
  for (uint32_t i = 0; i < count && i < kDriverModules; ++i) {
    if (driverModules[i].module.load() == module) {
      owner = driverModules[i].owner.load();
      return true;
    }
  }
  return false;
}

void Claim(HMODULE module, uint32_t owner) {
  if (module == nullptr || module == OwnModule()) return;
  const uint32_t count = driverModuleCount.load();
  for (uint32_t i = 0; i < count && i < kDriverModules; ++i) {
    if (driverModules[i].module.load() != module) continue;
    // A module stays with a quarantined owner, whose threads may still run
    // in it; one whose owner ended cleanly goes to the new load.
    uint32_t nobody = kNoDriverOwner;
    driverModules[i].owner.compare_exchange_strong(nobody, owner);
    return;
  }
  const uint32_t index = driverModuleCount.load();
  if (index >= kDriverModules) return;
  driverModules[index].owner = owner;
  driverModules[index].module = module;
  driverModuleCount = index + 1;
}

[[noreturn]] void ParkForever() {
  for (;;) Sleep(INFINITE);
}

// A fault nobody took, on a thread of the process. When it lies in a
// driver's code and not inside the host's callback, the thread is parked
// and its driver reported; everything else goes on as without the library.
LONG WINAPI LastChance(EXCEPTION_POINTERS* pointers) {
  const EXCEPTION_RECORD* record = pointers->ExceptionRecord;
  uint32_t owner = 0;
  if (IsHardwareFault(record->ExceptionCode) && Depth(foreignSlot) == 0 &&
      DriverOwning(ModuleAt(record->ExceptionAddress), owner)) {
    const DriverCrashHandler handler = crashHandler.load();
    if (handler != nullptr && owner != kNoDriverOwner) handler(owner);
    CONTEXT* context = pointers->ContextRecord;
    // Below whatever the fault left on its stack, aligned as after a call.
    context->Rsp = ((context->Rsp - 1024) & ~static_cast<DWORD64>(15)) - 8;
    context->Rip = reinterpret_cast<DWORD64>(&ParkForever);
    context->EFlags &= ~static_cast<DWORD>(0x400);
    return EXCEPTION_CONTINUE_EXECUTION;
  }
  return formerFilter != nullptr ? formerFilter(pointers) : EXCEPTION_CONTINUE_SEARCH;
}

}  // namespace

bool RunGuarded(GuardedCall call, void* context) {
  EnsureSlots();
  const uintptr_t foreign = Depth(foreignSlot);
  SetDepth(foreignSlot, 0);
  SetDepth(guardSlot, Depth(guardSlot) + 1);
  const int returned = QuillonGuardedInvoke(call, context);
  SetDepth(guardSlot, Depth(guardSlot) - 1);
  SetDepth(foreignSlot, foreign);
  return returned != 0;
}

void EnterForeignCall() {
  EnsureSlots();
  SetDepth(foreignSlot, Depth(foreignSlot) + 1);
}

void LeaveForeignCall() { SetDepth(foreignSlot, Depth(foreignSlot) - 1); }

void ClaimDriverModules(const void* address, const ModuleSnapshot& before, uint32_t owner) {
  Claim(ModuleAt(address), owner);
  ModuleSnapshot after;
  TakeModuleSnapshot(after);
  for (uint32_t i = 0; i < after.count; ++i) {
    bool known = false;
    for (uint32_t j = 0; j < before.count && !known; ++j) known = before.modules[j] == after.modules[i];
    if (!known) Claim(static_cast<HMODULE>(after.modules[i]), owner);
  }
}

void TakeModuleSnapshot(ModuleSnapshot& snapshot) {
  snapshot.count = 0;
  HMODULE modules[ModuleSnapshot::kMaxModules];
  DWORD bytes = 0;
  if (!K32EnumProcessModules(GetCurrentProcess(), modules, sizeof modules, &bytes)) return;
  const uint32_t count = bytes / sizeof(HMODULE);
  for (uint32_t i = 0; i < count && i < ModuleSnapshot::kMaxModules; ++i) {
    snapshot.modules[snapshot.count++] = modules[i];
  }
}

void PinDriverModules(uint32_t owner) {
  const uint32_t count = driverModuleCount.load();
  for (uint32_t i = 0; i < count && i < kDriverModules; ++i) {
    if (driverModules[i].owner.load() != owner) continue;
    HMODULE pinned = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                       reinterpret_cast<LPCWSTR>(driverModules[i].module.load()), &pinned);
  }
}

void ForgetDriverModules(uint32_t owner) {
  const uint32_t count = driverModuleCount.load();
  for (uint32_t i = 0; i < count && i < kDriverModules; ++i) {
    uint32_t expected = owner;
    driverModules[i].owner.compare_exchange_strong(expected, kNoDriverOwner);
  }
}

void WatchDriverFaults(DriverCrashHandler handler) {
  crashHandler = handler;
  if (!filterInstalled.exchange(true)) formerFilter = SetUnhandledExceptionFilter(&LastChance);
}

}  // namespace NSPlatform

extern "C" EXCEPTION_DISPOSITION QuillonGuardHandler(EXCEPTION_RECORD* record, void* frame,
                                                     CONTEXT* context, void*) {
  using namespace NSPlatform;
  if ((record->ExceptionFlags & EXCEPTION_UNWIND) != 0) return ExceptionContinueSearch;
  if (!IsHardwareFault(record->ExceptionCode)) return ExceptionContinueSearch;
  // The host's callback and the library's own code fault as they would
  // without the guard.
  if (Depth(foreignSlot) != 0 || ModuleAt(record->ExceptionAddress) == OwnModule()) {
    return ExceptionContinueSearch;
  }
  context->Rsp = reinterpret_cast<DWORD64>(frame);
  context->Rip = reinterpret_cast<DWORD64>(&QuillonGuardResume);
  context->Rax = 0;
  context->EFlags &= ~static_cast<DWORD>(0x400);
  return ExceptionContinueExecution;
}
