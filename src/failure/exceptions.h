// The closed tree of exception classes: one class per failure code.
#ifndef QUILLON_FAILURE_EXCEPTIONS_H
#define QUILLON_FAILURE_EXCEPTIONS_H

#include <exception>
#include <new>
#include <stdexcept>
#include <string>

#include "failure/body.h"

namespace NSMarlet {
namespace NSMarletDetails {

// A counted reference to a body in the global storage: a base of every
// exception class, and the body reference that operations pass around.
class CExceptionBodyRefMixin {
 public:
  CExceptionBodyRefMixin() = default;
  // Takes over one reference that the caller already holds (a new body).
  static CExceptionBodyRefMixin Adopt(BodyId id);
  CExceptionBodyRefMixin(const CExceptionBodyRefMixin& other);
  CExceptionBodyRefMixin& operator=(const CExceptionBodyRefMixin& other);
  ~CExceptionBodyRefMixin();

  void Swap(CExceptionBodyRefMixin& other) noexcept;
  BodyId GetBodyId() const { return id_; }
  bool HasBody() const { return id_ != kNoBody; }

 private:
  BodyId id_ = kNoBody;
};

}  // namespace NSMarletDetails

typedef NSMarletDetails::CExceptionBodyRefMixin CExceptionBodyRef;

// Classes whose base is a standard class with its own message.
#define QUILLON_TEXT_EXCEPTION(Name, Base)                                          \
  class Name : public Base, public NSMarletDetails::CExceptionBodyRefMixin {        \
   public:                                                                          \
    explicit Name(const std::string& text = std::string()) : Base(text) {}          \
    Name(const CExceptionBodyRef& body, const std::string& text)                    \
        : Base(text), NSMarletDetails::CExceptionBodyRefMixin(body) {}              \
  };

// Classes on std::exception, which has no message of its own.
#define QUILLON_PLAIN_EXCEPTION(Name)                                               \
  class Name : public std::exception, public NSMarletDetails::CExceptionBodyRefMixin { \
   public:                                                                          \
    explicit Name(const std::string& text = std::string()) : text_(text) {}         \
    Name(const CExceptionBodyRef& body, const std::string& text)                    \
        : NSMarletDetails::CExceptionBodyRefMixin(body), text_(text) {}             \
    const char* what() const noexcept override { return text_.c_str(); }            \
                                                                                    \
   private:                                                                         \
    std::string text_;                                                              \
  };

namespace NSMarletDetails {

class XStdBadAlloc : public std::bad_alloc, public CExceptionBodyRefMixin {
 public:
  explicit XStdBadAlloc(const std::string& = std::string()) {}
  XStdBadAlloc(const CExceptionBodyRef& body, const std::string&)
      : CExceptionBodyRefMixin(body) {}
  const char* what() const noexcept override { return "bad allocation"; }
};

QUILLON_PLAIN_EXCEPTION(XStdException)
QUILLON_PLAIN_EXCEPTION(XTunneledError)
QUILLON_TEXT_EXCEPTION(XStdLogicError, std::logic_error)
QUILLON_TEXT_EXCEPTION(XStdDomainError, std::domain_error)
QUILLON_TEXT_EXCEPTION(XStdInvalidArgument, std::invalid_argument)
QUILLON_TEXT_EXCEPTION(XStdLengthError, std::length_error)
QUILLON_TEXT_EXCEPTION(XStdOutOfRange, std::out_of_range)
QUILLON_TEXT_EXCEPTION(XStdRuntimeError, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XStdOverflowError, std::overflow_error)
QUILLON_TEXT_EXCEPTION(XStdUnderflowError, std::underflow_error)
QUILLON_TEXT_EXCEPTION(XStdRangeError, std::range_error)

}  // namespace NSMarletDetails

QUILLON_TEXT_EXCEPTION(XIllegalCallSequence, std::logic_error)
QUILLON_TEXT_EXCEPTION(XInvariantCorrupt, std::logic_error)
QUILLON_TEXT_EXCEPTION(XUnsupportedFormat, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XFormatViolation, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XVersionTooOld, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XVersionTooNew, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XRead, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XWrite, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XOutOfSpace, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XOutOfItems, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XCreate, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XOpen, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XClose, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XDelete, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XResolve, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XNotFound, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XAlreadyExists, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XPermission, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XLocked, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XReadOnly, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XNotReady, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XTimeout, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XAbort, std::runtime_error)
QUILLON_TEXT_EXCEPTION(XSilentAbort, std::runtime_error)
QUILLON_PLAIN_EXCEPTION(XUnitTestFailure)

#undef QUILLON_TEXT_EXCEPTION
#undef QUILLON_PLAIN_EXCEPTION

struct SClassification {
  uint32_t failureCode;
  const char* what;  // null when what() gave null
};

// The failure code of any exception object, by its dynamic type.
SClassification ClassifyException(const std::exception* exception);

// Raises the class of the code with that body and text. Code 5, and any code
// outside the table, raises the int 5.
[[noreturn]] void ThrowByCode(uint32_t failureCode, const CExceptionBodyRef& body,
                              const std::string& text);

}  // namespace NSMarlet

#endif
