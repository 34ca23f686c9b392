// Failure codes, target words and parameter keys of the failure framework.
#ifndef QUILLON_FAILURE_FAILURE_CODES_H
#define QUILLON_FAILURE_FAILURE_CODES_H

#include <cstdint>

namespace NSMarlet {

enum : uint32_t {
  kFailureCode_UndefinedException = 5,
  kFailureCode_NonMarletException = 6,
  kFailureCode_Exception = 7,
  kFailureCode_TunneledError = 8,
  kFailureCode_LogicError = 9,
  kFailureCode_LogicError_Domain = 10,
  kFailureCode_LogicError_InvalidArgument = 11,
  kFailureCode_LogicError_Length = 12,
  kFailureCode_LogicError_OutOfRange = 13,
  kFailureCode_LogicError_IllegalCallSequence = 14,
  kFailureCode_LogicError_InvariantCorrupt = 15,
  kFailureCode_BadAlloc = 16,
  kFailureCode_RuntimeError = 17,
  kFailureCode_RuntimeError_Overflow = 18,
  kFailureCode_RuntimeError_Underflow = 19,
  kFailureCode_RuntimeError_RangeError = 20,
  kFailureCode_RuntimeError_UnsupportedFormat = 21,
  kFailureCode_RuntimeError_FormatViolation = 22,
  kFailureCode_RuntimeError_VersionTooOld = 23,
  kFailureCode_RuntimeError_VersionTooNew = 24,
  kFailureCode_RuntimeError_ReadFailure = 25,
  kFailureCode_RuntimeError_WriteFailure = 26,
  kFailureCode_RuntimeError_OutOfSpace = 27,
  kFailureCode_RuntimeError_OutOfItems = 28,
  kFailureCode_RuntimeError_Create = 29,
  kFailureCode_RuntimeError_Open = 30,
  kFailureCode_RuntimeError_Close = 31,
  kFailureCode_RuntimeError_Delete = 32,
  kFailureCode_RuntimeError_ResolveFailure = 33,
  kFailureCode_RuntimeError_NotFound = 34,
  kFailureCode_RuntimeError_AlreadyExists = 35,
  kFailureCode_RuntimeError_Permission = 36,
  kFailureCode_RuntimeError_Locked = 37,
  kFailureCode_RuntimeError_ReadOnly = 38,
  kFailureCode_RuntimeError_NotReady = 39,
  kFailureCode_RuntimeError_Timeout = 40,
  kFailureCode_RuntimeError_Abort = 41,
  kFailureCode_RuntimeError_SilentAbort = 42,
  kFailureCode_UnitTestFailure = 43,
  // One past the last code: the end mark of every status table.
  kFailureCode_EndMark = 44
};

constexpr uint32_t kFailureCodeCount = 39;

// The name of a code ("kFailureCode_RuntimeError_Open"), or "" for no code.
const char* FailureCodeName(uint32_t code);
// The code of a name, or 0 when the name is none of the 39.
uint32_t FailureCodeFromName(const char* name);

// A target word holds at most this many characters.
constexpr unsigned kTargetWordLength = 64;
constexpr unsigned kFixedTargetWordCount = 32;

// The fixed list; a word's index is part of a packed failure.
extern const char* const kFixedTargetWords[kFixedTargetWordCount];

// A program's own list of words, as 65-byte blocks.
struct STargetWordList {
  const char (*words)[kTargetWordLength + 1];
  uint32_t count;
};

// The program's list: empty in this library.
const STargetWordList& ProgramTargetWords();

const char* TargetWordRange();
const char* TargetWordLength();
const char* TargetWordMemory();
const char* TargetWordFormat();
const char* TargetWordBuffer();
const char* TargetWordDll();
const char* TargetWordDisk();
const char* TargetWordVolume();
const char* TargetWordDrive();
const char* TargetWordFile();
const char* TargetWordDriver();
const char* TargetWordNetwork();
const char* TargetWordSocket();
const char* TargetWordPort();
const char* TargetWordMessage();
const char* TargetWordHandle();
const char* TargetWordSymbol();
const char* TargetWordInterface();
const char* TargetWordApi();
const char* TargetWordThread();
const char* TargetWordProperty();
const char* TargetWordAuthentication();
const char* TargetWordUser();
const char* TargetWordPassword();
const char* TargetWordReference();
const char* TargetWordServer();
const char* TargetWordItem();
const char* TargetWordMagic();
const char* TargetWordPath();
const char* TargetWordUnicode();
const char* TargetWordFileHandle();
const char* TargetWordDirectory();
// This library's own word, in no list.
const char* TargetWordAudioDriver();

constexpr const char* kParamTargetObjectType = "target_object_type";
constexpr const char* kParamTargetObjectId = "target_object_id";
constexpr const char* kParamErrorCode = "error_code";
constexpr const char* kParamErrorString = "error_string";
constexpr const char* kParamVersionNumber = "version_number";
constexpr const char* kParamVersionString = "version_string";
constexpr const char* kParamSecondaryObjectType = "secondary_object_type";
constexpr const char* kParamSecondaryObjectId = "secondary_object_id";

}  // namespace NSMarlet

#endif
