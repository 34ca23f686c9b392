#include "failure/failure_codes.h"

#include <cstring>

namespace NSMarlet {

namespace {

struct SCodeName {
  const char* name;
  uint32_t code;
};

#define QUILLON_CODE_ROW(constant) {#constant, constant}
const SCodeName kCodeNames[kFailureCodeCount] = {
    QUILLON_CODE_ROW(kFailureCode_UndefinedException),
    QUILLON_CODE_ROW(kFailureCode_NonMarletException),
    QUILLON_CODE_ROW(kFailureCode_Exception),
    QUILLON_CODE_ROW(kFailureCode_TunneledError),
    QUILLON_CODE_ROW(kFailureCode_LogicError),
    QUILLON_CODE_ROW(kFailureCode_LogicError_Domain),
    QUILLON_CODE_ROW(kFailureCode_LogicError_InvalidArgument),
    QUILLON_CODE_ROW(kFailureCode_LogicError_Length),
    QUILLON_CODE_ROW(kFailureCode_LogicError_OutOfRange),
    QUILLON_CODE_ROW(kFailureCode_LogicError_IllegalCallSequence),
    QUILLON_CODE_ROW(kFailureCode_LogicError_InvariantCorrupt),
    QUILLON_CODE_ROW(kFailureCode_BadAlloc),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_Overflow),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_Underflow),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_RangeError),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_UnsupportedFormat),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_FormatViolation),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_VersionTooOld),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_VersionTooNew),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_ReadFailure),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_WriteFailure),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_OutOfSpace),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_OutOfItems),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_Create),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_Open),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_Close),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_Delete),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_ResolveFailure),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_NotFound),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_AlreadyExists),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_Permission),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_Locked),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_ReadOnly),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_NotReady),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_Timeout),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_Abort),
    QUILLON_CODE_ROW(kFailureCode_RuntimeError_SilentAbort),
    QUILLON_CODE_ROW(kFailureCode_UnitTestFailure),
};
#undef QUILLON_CODE_ROW

const STargetWordList kEmptyProgramList = {nullptr, 0};

}  // namespace

const char* FailureCodeName(uint32_t code) {
  for (const SCodeName& row : kCodeNames) {
    if (row.code == code) return row.name;
  }
  return "";
}

uint32_t FailureCodeFromName(const char* name) {
  if (name == nullptr) return 0;
  for (const SCodeName& row : kCodeNames) {
    if (std::strcmp(row.name, name) == 0) return row.code;
  }
  return 0;
}

const char* const kFixedTargetWords[kFixedTargetWordCount] = {
    "range",     "length",    "memory",   "format",   "buffer",         "dll",
    "disk",      "volume",    "drive",    "file",     "driver",         "network",
    "socket",    "port",      "message",  "handle",   "symbol",         "interface",
    "api",       "thread",    "property", "authentication", "user",     "password",
    "reference", "server",    "item",     "magic",    "path",           "unicode",
    "file_handle", "directory"};

const STargetWordList& ProgramTargetWords() { return kEmptyProgramList; }

const char* TargetWordRange() { return kFixedTargetWords[0]; }
const char* TargetWordLength() { return kFixedTargetWords[1]; }
const char* TargetWordMemory() { return kFixedTargetWords[2]; }
const char* TargetWordFormat() { return kFixedTargetWords[3]; }
const char* TargetWordBuffer() { return kFixedTargetWords[4]; }
const char* TargetWordDll() { return kFixedTargetWords[5]; }
const char* TargetWordDisk() { return kFixedTargetWords[6]; }
const char* TargetWordVolume() { return kFixedTargetWords[7]; }
const char* TargetWordDrive() { return kFixedTargetWords[8]; }
const char* TargetWordFile() { return kFixedTargetWords[9]; }
const char* TargetWordDriver() { return kFixedTargetWords[10]; }
const char* TargetWordNetwork() { return kFixedTargetWords[11]; }
const char* TargetWordSocket() { return kFixedTargetWords[12]; }
const char* TargetWordPort() { return kFixedTargetWords[13]; }
const char* TargetWordMessage() { return kFixedTargetWords[14]; }
const char* TargetWordHandle() { return kFixedTargetWords[15]; }
const char* TargetWordSymbol() { return kFixedTargetWords[16]; }
const char* TargetWordInterface() { return kFixedTargetWords[17]; }
const char* TargetWordApi() { return kFixedTargetWords[18]; }
const char* TargetWordThread() { return kFixedTargetWords[19]; }
const char* TargetWordProperty() { return kFixedTargetWords[20]; }
const char* TargetWordAuthentication() { return kFixedTargetWords[21]; }
const char* TargetWordUser() { return kFixedTargetWords[22]; }
const char* TargetWordPassword() { return kFixedTargetWords[23]; }
const char* TargetWordReference() { return kFixedTargetWords[24]; }
const char* TargetWordServer() { return kFixedTargetWords[25]; }
const char* TargetWordItem() { return kFixedTargetWords[26]; }
const char* TargetWordMagic() { return kFixedTargetWords[27]; }
const char* TargetWordPath() { return kFixedTargetWords[28]; }
const char* TargetWordUnicode() { return kFixedTargetWords[29]; }
const char* TargetWordFileHandle() { return kFixedTargetWords[30]; }
const char* TargetWordDirectory() { return kFixedTargetWords[31]; }
const char* TargetWordAudioDriver() { return "audio_driver"; }

}  // namespace NSMarlet
