// The framework's outlet for failed assertions and formatted messages. This
// library installs no handler; the program around the framework may.
#ifndef QUILLON_FAILURE_ASSERTION_H
#define QUILLON_FAILURE_ASSERTION_H

#include <cstdint>

namespace NSMarlet {

class IAssertionHandler {
 public:
  virtual void OnMessageText(intptr_t value, const char* text) = 0;
  virtual void OnMessageValue(intptr_t value) = 0;
  virtual void OnAssertionFailed(intptr_t first, intptr_t second) = 0;
  virtual void OnMessageEnd() = 0;
  virtual void OnMessageBegin() = 0;

 protected:
  ~IAssertionHandler() = default;
};

void SetAssertionHandler(IAssertionHandler* handler);
IAssertionHandler* GetAssertionHandler();

void NotifyMessageText(intptr_t value, const char* text);
void NotifyMessageValue(intptr_t value);
// Without a handler this raises XUnitTestFailure("OnAssertionFailed").
void NotifyAssertionFailed(intptr_t first, intptr_t second);
// Begin, at most 1023 characters formatted as by printf, end.
void NotifyFormattedMessage(intptr_t value, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

}  // namespace NSMarlet

#endif
