// Writes what the system's conversions of code pages 1252 and 10000 give, as
// the C++ tables in src/platform/code_page_tables.inc: run under Wine, it
// records the reference that the native build's conversions follow.
#include <cstdio>

#include "platform/text_services.h"

namespace {

int Dump(uint32_t codePage) {
  int problems = 0;
  std::printf("// Code page %u: each byte to UTF-16; 0 where the system refuses the byte.\n",
              codePage);
  std::printf("const char16_t kCodePage%uToWide[256] = {", codePage);
  for (int b = 0; b < 256; ++b) {
    const char byte = static_cast<char>(b);
    char16_t unit = 0;
    uint32_t error = 0;
    const int32_t n = NSPlatform::MultiByteToWide(codePage, NSPlatform::kStopOnInvalidInput,
                                                  &byte, 1, &unit, 1, &error);
    std::printf("%s0x%04X%s", b % 8 == 0 ? "\n    " : " ", n == 1 ? unit : 0,
                b == 255 ? "" : ",");
  }
  std::printf("};\n\n");
  std::printf("// Code page %u: the units that do not become the default character, each\n"
              "// with its byte (best fit included), in the order of the units.\n",
              codePage);
  std::printf("const SUnitToByte kCodePage%uFromWide[] = {\n", codePage);
  for (uint32_t u = 1; u < 0x10000; ++u) {
    if (u >= 0xD800 && u < 0xE000) continue;
    const char16_t unit = static_cast<char16_t>(u);
    char loose[8] = {};
    char strict[8] = {};
    bool used = false;
    uint32_t error = 0;
    const int32_t n =
        NSPlatform::WideToMultiByte(codePage, &unit, 1, loose, 8, nullptr, nullptr, &error);
    const int32_t m =
        NSPlatform::WideToMultiByte(codePage, &unit, 1, strict, 8, "?", &used, &error);
    // The tables rest on these: one byte each, and the strict form differs
    // only in reporting the default.
    if (n != 1 || m != 1 || loose[0] != strict[0] || (used && strict[0] != '?')) {
      std::fprintf(stderr, "unit %04X: %d %d bytes, used %d\n", u, n, m, used ? 1 : 0);
      ++problems;
      continue;
    }
    if (used) continue;
    std::printf("    {0x%04X, 0x%02X},\n", u, static_cast<unsigned char>(loose[0]));
  }
  std::printf("};\n\n");
  return problems;
}

}  // namespace

int main() {
  std::printf("// The conversions of code pages 1252 and 10000 as the system gives them.\n"
              "// Generated: do not edit; see tools/code_page_reference.cpp.\n"
              "// Made by tools/code_page_reference under Wine (ANSI code page %u).\n\n",
              NSPlatform::AnsiCodePage());
  const int problems = Dump(1252) + Dump(10000);
  return problems == 0 ? 0 : 1;
}
