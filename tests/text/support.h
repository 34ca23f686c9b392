#ifndef QUILLON_TESTS_TEXT_SUPPORT_H
#define QUILLON_TESTS_TEXT_SUPPORT_H

#include <string>
#include <type_traits>

#include "failure/builder.h"
#include "support/storage_fixture.h"

// Runs `call`, which must raise X with the word "unicode"; gives its text.
template <class X, class Call>
std::string UnicodeFailureText(Call call) {
  try {
    call();
  } catch (const std::exception& e) {
    bool isX = true;
    if constexpr (!std::is_same<X, std::exception>::value) isX = dynamic_cast<const X*>(&e) != nullptr;
    if (!isX) {
      ADD_FAILURE() << "another failure: " << e.what();
      return "";
    }
    const NSMarlet::CExceptionBodyRef body = NSMarlet::BodyFromException(&e, {});
    EXPECT_TRUE(NSMarlet::TargetObjectTypeIs(body, "unicode"));
    return e.what();
  }
  ADD_FAILURE() << "nothing raised";
  return "";
}

#endif
