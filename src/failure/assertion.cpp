#include "failure/assertion.h"

#include <cstdarg>
#include <cstdio>

#include "failure/exceptions.h"

namespace NSMarlet {

namespace {
IAssertionHandler* gHandler = nullptr;
}

void SetAssertionHandler(IAssertionHandler* handler) { gHandler = handler; }

IAssertionHandler* GetAssertionHandler() { return gHandler; }

void NotifyMessageText(intptr_t value, const char* text) {
  if (gHandler != nullptr) gHandler->OnMessageText(value, text);
}

void NotifyMessageValue(intptr_t value) {
  if (gHandler != nullptr) gHandler->OnMessageValue(value);
}

void NotifyAssertionFailed(intptr_t first, intptr_t second) {
  if (gHandler == nullptr) throw XUnitTestFailure("OnAssertionFailed");
  gHandler->OnAssertionFailed(first, second);
}

void NotifyFormattedMessage(intptr_t value, const char* format, ...) {
  if (gHandler == nullptr) return;
  gHandler->OnMessageBegin();
  char text[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  gHandler->OnMessageText(value, text);
  gHandler->OnMessageEnd();
}

}  // namespace NSMarlet
