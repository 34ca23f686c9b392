#include "failure/exceptions.h"

#include <typeinfo>

namespace NSMarlet {

namespace NSMarletDetails {

CExceptionBodyRefMixin CExceptionBodyRefMixin::Adopt(BodyId id) {
  CExceptionBodyRefMixin ref;
  ref.id_ = id;
  return ref;
}

CExceptionBodyRefMixin::CExceptionBodyRefMixin(const CExceptionBodyRefMixin& other)
    : id_(other.id_) {
  if (id_ == kNoBody) return;
  // After the storage has gone the copy is made without its body: a copy
  // must not raise, as the runtime copies exceptions while one is in flight.
  IExceptionBodyStorage* storage = GetExceptionBodyStorageUnchecked();
  if (storage == nullptr) {
    id_ = kNoBody;
    return;
  }
  storage->AddBodyRef(id_);
}

CExceptionBodyRefMixin& CExceptionBodyRefMixin::operator=(const CExceptionBodyRefMixin& other) {
  CExceptionBodyRefMixin copy(other);
  Swap(copy);
  return *this;
}

CExceptionBodyRefMixin::~CExceptionBodyRefMixin() {
  if (id_ == kNoBody) return;
  // A reference may outlive the storage; then there is nothing left to count.
  if (IExceptionBodyStorage* storage = GetExceptionBodyStorageUnchecked()) {
    try {
      storage->ReleaseBody(id_);
    } catch (...) {
    }
  }
}

void CExceptionBodyRefMixin::Swap(CExceptionBodyRefMixin& other) noexcept {
  BodyId id = id_;
  id_ = other.id_;
  other.id_ = id;
}

}  // namespace NSMarletDetails

using namespace NSMarletDetails;

namespace {

template <class T>
bool Is(const std::exception* e) {
  return dynamic_cast<const T*>(e) != nullptr;
}

uint32_t RuntimeCode(const std::exception* e) {
  if (Is<std::overflow_error>(e)) return kFailureCode_RuntimeError_Overflow;
  if (Is<std::underflow_error>(e)) return kFailureCode_RuntimeError_Underflow;
  if (Is<std::range_error>(e)) return kFailureCode_RuntimeError_RangeError;
  if (Is<XUnsupportedFormat>(e)) return kFailureCode_RuntimeError_UnsupportedFormat;
  if (Is<XFormatViolation>(e)) return kFailureCode_RuntimeError_FormatViolation;
  if (Is<XVersionTooOld>(e)) return kFailureCode_RuntimeError_VersionTooOld;
  if (Is<XVersionTooNew>(e)) return kFailureCode_RuntimeError_VersionTooNew;
  if (Is<XRead>(e)) return kFailureCode_RuntimeError_ReadFailure;
  if (Is<XWrite>(e)) return kFailureCode_RuntimeError_WriteFailure;
  if (Is<XOutOfSpace>(e)) return kFailureCode_RuntimeError_OutOfSpace;
  if (Is<XOutOfItems>(e)) return kFailureCode_RuntimeError_OutOfItems;
  if (Is<XCreate>(e)) return kFailureCode_RuntimeError_Create;
  if (Is<XOpen>(e)) return kFailureCode_RuntimeError_Open;
  if (Is<XClose>(e)) return kFailureCode_RuntimeError_Close;
  if (Is<XDelete>(e)) return kFailureCode_RuntimeError_Delete;
  if (Is<XResolve>(e)) return kFailureCode_RuntimeError_ResolveFailure;
  if (Is<XNotFound>(e)) return kFailureCode_RuntimeError_NotFound;
  if (Is<XAlreadyExists>(e)) return kFailureCode_RuntimeError_AlreadyExists;
  if (Is<XPermission>(e)) return kFailureCode_RuntimeError_Permission;
  if (Is<XLocked>(e)) return kFailureCode_RuntimeError_Locked;
  if (Is<XReadOnly>(e)) return kFailureCode_RuntimeError_ReadOnly;
  if (Is<XNotReady>(e)) return kFailureCode_RuntimeError_NotReady;
  if (Is<XTimeout>(e)) return kFailureCode_RuntimeError_Timeout;
  if (Is<XAbort>(e)) return kFailureCode_RuntimeError_Abort;
  if (Is<XSilentAbort>(e)) return kFailureCode_RuntimeError_SilentAbort;
  if (Is<XUnitTestFailure>(e)) return kFailureCode_UnitTestFailure;
  return kFailureCode_RuntimeError;
}

uint32_t LogicCode(const std::exception* e) {
  if (Is<std::domain_error>(e)) return kFailureCode_LogicError_Domain;
  if (Is<std::invalid_argument>(e)) return kFailureCode_LogicError_InvalidArgument;
  if (Is<std::length_error>(e)) return kFailureCode_LogicError_Length;
  if (Is<std::out_of_range>(e)) return kFailureCode_LogicError_OutOfRange;
  if (Is<XIllegalCallSequence>(e)) return kFailureCode_LogicError_IllegalCallSequence;
  if (Is<XInvariantCorrupt>(e)) return kFailureCode_LogicError_InvariantCorrupt;
  return kFailureCode_LogicError;
}

uint32_t Classify(const std::exception* e) {
  if (e == nullptr) return kFailureCode_UndefinedException;
  if (Is<XStdBadAlloc>(e) || Is<std::bad_alloc>(e)) return kFailureCode_BadAlloc;
  if (Is<std::runtime_error>(e)) return RuntimeCode(e);
  if (Is<std::logic_error>(e)) return LogicCode(e);
  if (Is<XStdException>(e)) return kFailureCode_Exception;
  if (Is<XTunneledError>(e)) return kFailureCode_TunneledError;
  if (Is<XUnitTestFailure>(e)) return kFailureCode_UnitTestFailure;
  return typeid(*e) == typeid(std::exception) ? kFailureCode_Exception
                                              : kFailureCode_NonMarletException;
}

}  // namespace

SClassification ClassifyException(const std::exception* exception) {
  return SClassification{Classify(exception), exception != nullptr ? exception->what() : nullptr};
}

void ThrowByCode(uint32_t code, const CExceptionBodyRef& body, const std::string& text) {
  switch (code) {
    case kFailureCode_NonMarletException:
    case kFailureCode_Exception: throw XStdException(body, text);
    case kFailureCode_TunneledError: throw XTunneledError(body, text);
    case kFailureCode_LogicError: throw XStdLogicError(body, text);
    case kFailureCode_LogicError_Domain: throw XStdDomainError(body, text);
    case kFailureCode_LogicError_InvalidArgument: throw XStdInvalidArgument(body, text);
    case kFailureCode_LogicError_Length: throw XStdLengthError(body, text);
    case kFailureCode_LogicError_OutOfRange: throw XStdOutOfRange(body, text);
    case kFailureCode_LogicError_IllegalCallSequence: throw XIllegalCallSequence(body, text);
    case kFailureCode_LogicError_InvariantCorrupt: throw XInvariantCorrupt(body, text);
    case kFailureCode_BadAlloc: throw XStdBadAlloc(body, text);
    case kFailureCode_RuntimeError: throw XStdRuntimeError(body, text);
    case kFailureCode_RuntimeError_Overflow: throw XStdOverflowError(body, text);
    case kFailureCode_RuntimeError_Underflow: throw XStdUnderflowError(body, text);
    case kFailureCode_RuntimeError_RangeError: throw XStdRangeError(body, text);
    case kFailureCode_RuntimeError_UnsupportedFormat: throw XUnsupportedFormat(body, text);
    case kFailureCode_RuntimeError_FormatViolation: throw XFormatViolation(body, text);
    case kFailureCode_RuntimeError_VersionTooOld: throw XVersionTooOld(body, text);
    case kFailureCode_RuntimeError_VersionTooNew: throw XVersionTooNew(body, text);
    case kFailureCode_RuntimeError_ReadFailure: throw XRead(body, text);
    case kFailureCode_RuntimeError_WriteFailure: throw XWrite(body, text);
    case kFailureCode_RuntimeError_OutOfSpace: throw XOutOfSpace(body, text);
    case kFailureCode_RuntimeError_OutOfItems: throw XOutOfItems(body, text);
    case kFailureCode_RuntimeError_Create: throw XCreate(body, text);
    case kFailureCode_RuntimeError_Open: throw XOpen(body, text);
    case kFailureCode_RuntimeError_Close: throw XClose(body, text);
    case kFailureCode_RuntimeError_Delete: throw XDelete(body, text);
    case kFailureCode_RuntimeError_ResolveFailure: throw XResolve(body, text);
    case kFailureCode_RuntimeError_NotFound: throw XNotFound(body, text);
    case kFailureCode_RuntimeError_AlreadyExists: throw XAlreadyExists(body, text);
    case kFailureCode_RuntimeError_Permission: throw XPermission(body, text);
    case kFailureCode_RuntimeError_Locked: throw XLocked(body, text);
    case kFailureCode_RuntimeError_ReadOnly: throw XReadOnly(body, text);
    case kFailureCode_RuntimeError_NotReady: throw XNotReady(body, text);
    case kFailureCode_RuntimeError_Timeout: throw XTimeout(body, text);
    case kFailureCode_RuntimeError_Abort: throw XAbort(body, text);
    case kFailureCode_RuntimeError_SilentAbort: throw XSilentAbort(body, text);
    case kFailureCode_UnitTestFailure: throw XUnitTestFailure(body, text);
    default: throw static_cast<int>(kFailureCode_UndefinedException);
  }
}

}  // namespace NSMarlet
