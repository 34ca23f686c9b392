#include "public/status.h"


#include "quillon/quillon.h"

namespace NSQuillon2 {

using namespace NSMarlet;

namespace {

constexpr SStatusMapRow kStatusTable[] = {
    {kFailureCode_BadAlloc, "", kStatusOutOfMemory},
    {kFailureCode_LogicError_InvalidArgument, "", kStatusInvalidArgument},
    {kFailureCode_LogicError_InvariantCorrupt, "", kStatusNotValid},
    {kFailureCode_LogicError_IllegalCallSequence, "", kStatusIllegalCall},
    {kFailureCode_LogicError, "", kStatusLogicError},
    {kFailureCode_RuntimeError_Open, "audio_driver", kStatusDriverOpenFailed},
    {kFailureCode_RuntimeError_NotFound, "audio_driver", kStatusDriverNotFound},
    {kFailureCode_RuntimeError_ReadFailure, "", kStatusReadFailure},
    {kFailureCode_RuntimeError_WriteFailure, "", kStatusWriteFailure},
    {kFailureCode_RuntimeError_FormatViolation, "", kStatusFormatViolation},
    {kFailureCode_RuntimeError_OutOfSpace, "disk", kStatusDiskFull},
    {kFailureCode_RuntimeError, "", kStatusRuntimeError},
    // Never matches: the row above takes code 17 first. Kept for the order.
    {kFailureCode_RuntimeError, "audio_driver", kStatusRuntimeError},
    {kFailureCode_RuntimeError_NotReady, "audio_driver", kStatusNotReady},
    {kFailureCode_EndMark, "", kStatusOk},
};

constexpr SStatusRange kStatusRange = {kStatusBase, 0xFFFFFFFFu};

}  // namespace

const SStatusMapRow* StatusTable() { return kStatusTable; }

const SStatusRange& StatusRange() { return kStatusRange; }

uint32_t StatusFromCurrentFailure() {
  return NumberFromCurrentFailure(kStatusRange, kStatusTable, kStatusOutOfMemory,
                                  kStatusRuntimeError);
}

void ThrowFromStatus(uint32_t status) {
  NSMarlet::ThrowFromStatus(status, kStatusRange, kStatusTable, CSourcePosition());
}

}  // namespace NSQuillon2
