// FormatText with any format, seed and arguments: no crash, text without a
// caret comes back as it was, and a placeholder gives at most one argument.
#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_storage.h"
#include "text/wide_text.h"

using namespace NSTextPackage;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::CStorageScope storage;
  Fuzz::CInput input(data, size);
  const int32_t seed = static_cast<int32_t>(input.U32());
  std::vector<CWideString> arguments(input.Byte() % 12);
  for (auto& argument : arguments) argument = input.Wide(24);
  const CWideString format = input.Wide(200);
  CWideString text;
  try {
    text = FormatText(format, seed, arguments);
  } catch (const std::exception&) {
    return 0;
  }
  // The format ends at its first zero unit.
  const CWideString counted = format.substr(0, format.find(u'\0'));
  if (counted.find(u'^') == CWideString::npos) {
    Fuzz::Require(text == counted, "a format without a caret stays as it is");
  }
  Fuzz::Require(text.size() <= counted.size() + counted.size() / 2 * 24,
                "a placeholder gives at most one argument");
  // With the seed 0, "^0" alone is the first argument.
  if (!arguments.empty()) {
    Fuzz::Require(FormatText(u"^0", 0, arguments) == arguments[0], "^0 is the first argument");
  }
  return 0;
}
