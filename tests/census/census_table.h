// The fault census: every driver operation and platform call that can fail,
// each with the way to make it fail and the count of its calls, and the
// calls without a row, each with the reason: they cannot fail, or nothing
// calls them across the seam.
#ifndef QUILLON_TESTS_CENSUS_TABLE_H
#define QUILLON_TESTS_CENSUS_TABLE_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "e2e/fake_world.h"

// What a row keeps whose driver or hardware library is quarantined: its
// thread (with a call that never returns, and the fake's own streaming
// thread when stop hangs), its module, and whatever it and its abandoned
// calls hold.
constexpr const char* kQuarantinedDriver = "a quarantined driver";

struct SCensusRow {
  std::string seam;     // the interface, or the platform layer
  std::string call;     // the name it declares
  std::string variant;  // how it fails, when one call fails in more ways
  std::u16string spec;  // the driver the client opens
  std::function<void(CFakeWorld&)> inject;
  // How often the call was made so far.
  std::function<uint64_t(CFakeWorld&)> calls;
  // What the system keeps when this call fails, which no caller can free:
  // the leak check leaves it out.
  std::string systemKeeps = "";
  // For a call that no client operation reaches: what makes it, once the
  // failure is set (the driver layer's wrappers, as their users would).
  std::function<void(CFakeWorld&)> exercise = nullptr;
};

struct SNoRow {
  std::string seam;
  std::string call;
  const char* reason;
};

// Where each seam is declared, for the check that every call has a row.
struct SSeamSource {
  std::vector<std::string> seams;
  std::vector<std::string> headers;  // below src/
};

std::vector<SCensusRow> CensusRows();
std::vector<SNoRow> CallsWithoutARow();
std::vector<SSeamSource> SeamSources();

#endif
