// Runs a fuzz target over every file of its corpus folders: the found cases
// stay tested in the builds that have no fuzzer.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"

int main(int argc, char** argv) {
  size_t cases = 0;
  for (int i = 1; i < argc; ++i) {
    std::error_code error;
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(argv[i], error)) {
      if (entry.is_regular_file()) files.push_back(entry.path());
    }
    if (error) {
      std::fprintf(stderr, "cannot read the corpus %s\n", argv[i]);
      return 1;
    }
    for (const auto& file : files) {
      std::ifstream stream(file, std::ios::binary);
      const std::vector<char> bytes{std::istreambuf_iterator<char>(stream),
                                    std::istreambuf_iterator<char>()};
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
      ++cases;
    }
  }
  std::printf("%zu cases replayed\n", cases);
  // A corpus that vanished would pass unseen.
  return cases > 0 ? 0 : 1;
}
