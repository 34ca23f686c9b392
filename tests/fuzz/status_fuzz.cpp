// Any number decoded as a status: a failure of the framework or a clean
// refusal, never a crash; what decodes survives being raised and caught.
#include <string>

#include "failure/builder.h"
#include "failure/report.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_storage.h"
#include "public/status.h"
#include "quillon/quillon.h"

using namespace NSMarlet;

namespace {

bool Decoded(uint32_t status, SDecodedFailure& decoded) {
  try {
    decoded = DecodeStatus(status, NSQuillon2::StatusRange(), NSQuillon2::StatusTable(),
                           ProgramTargetWords());
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

bool FixedRow(uint32_t status) {
  for (const SStatusMapRow* row = NSQuillon2::StatusTable(); row->failureCode != kFailureCode_EndMark;
       ++row) {
    if (row->status == status) return true;
  }
  return false;
}

void OneStatus(uint32_t status) {
  SDecodedFailure decoded{};
  const bool decodes = Decoded(status, decoded);
  const NSMarlet::SStatusRange& range = NSQuillon2::StatusRange();
  if (decodes && !FixedRow(status)) {
    // A packed number packs back into one that decodes the same.
    const uint32_t again = range.base + PackFailure(decoded.failureCode, decoded.word.c_str(),
                                                    ProgramTargetWords());
    SDecodedFailure second{};
    Fuzz::Require(Decoded(again, second), "a repacked failure decodes");
    Fuzz::Require(second.failureCode == decoded.failureCode && second.word == decoded.word,
                  "a repacked failure decodes the same");
  }
  uint32_t back = 0;
  try {
    ThrowFromStatusDecoded(status, range, NSQuillon2::StatusTable(), CSourcePosition());
  } catch (...) {
    back = NSQuillon2::StatusFromCurrentFailure();
  }
  Fuzz::Require(back != 0 && back != NSQuillon2::kStatusOk, "a raised status is a failure");
  if (FixedRow(status) && status != NSQuillon2::kStatusRuntimeError) {
    Fuzz::Require(back == status, "a fixed status comes back as itself");
  }
  // A tunnelled failure carries a number of its own, none when made from a code.
  if (decodes && back >= range.base && decoded.failureCode != kFailureCode_TunneledError) {
    SDecodedFailure third{};
    Fuzz::Require(Decoded(back, third) && third.failureCode == decoded.failureCode,
                  "a computed status keeps its failure");
  }
  try {
    const SDecodedFailure unpacked = UnpackFailure(status, ProgramTargetWords());
    Fuzz::Require(unpacked.failureCode < kFailureCode_EndMark, "an unpacked code is known");
  } catch (const std::exception&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::CStorageScope storage;
  Fuzz::CInput input(data, size);
  while (!input.Empty()) {
    const uint8_t kind = input.Byte();
    uint32_t status = input.U32();
    // Most numbers are nowhere near the interesting ones: aim at them too.
    if (kind % 3 == 1) status = NSQuillon2::kStatusOk + status % 16;
    if (kind % 3 == 2) status = NSQuillon2::kStatusBase + (status | kPackedMark) - (status & 0xFFu) +
                                (kind & 1 ? 0 : (status & 0xFFu));
    OneStatus(status);
  }
  return 0;
}
