// Reads a fuzzer's bytes as the choices and values of one run: every take
// succeeds, giving zeros once the bytes are spent, so each input is a run.
#ifndef QUILLON_TESTS_FUZZ_FUZZ_INPUT_H
#define QUILLON_TESTS_FUZZ_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace Fuzz {

class CInput {
 public:
  CInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  bool Empty() const { return offset_ >= size_; }
  size_t Left() const { return size_ - offset_; }

  uint8_t Byte() { return offset_ < size_ ? data_[offset_++] : 0; }
  uint16_t U16() { return static_cast<uint16_t>(Byte() | (Byte() << 8)); }
  uint32_t U32() { return static_cast<uint32_t>(U16()) | (static_cast<uint32_t>(U16()) << 16); }
  uint64_t U64() { return U32() | (static_cast<uint64_t>(U32()) << 32); }

  // A length from one byte, at most `maximum`, then that many bytes.
  std::string Bytes(size_t maximum) {
    const size_t length = Byte() % (maximum + 1);
    std::string text;
    for (size_t i = 0; i < length && !Empty(); ++i) text.push_back(static_cast<char>(Byte()));
    return text;
  }
  // Units of any value, a few of them often from a small alphabet, so that
  // separators, braces and surrogates turn up.
  std::u16string Wide(size_t maximum) {
    const size_t length = Byte() % (maximum + 1);
    std::u16string text;
    for (size_t i = 0; i < length && !Empty(); ++i) {
      const uint8_t kind = Byte();
      if (kind < 128) {
        text.push_back(static_cast<char16_t>(kind));
      } else if (kind < 160) {
        static const char16_t kAlphabet[] = u"\\{}()-^0123456789ASIO ";
        text.push_back(kAlphabet[Byte() % (sizeof kAlphabet / sizeof kAlphabet[0] - 1)]);
      } else {
        text.push_back(static_cast<char16_t>(U16()));
      }
    }
    return text;
  }
  // The rest, as bytes.
  std::string Rest() {
    std::string text(reinterpret_cast<const char*>(data_ + offset_), size_ - offset_);
    offset_ = size_;
    return text;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t offset_ = 0;
};

// A broken property: the fuzzer keeps the input that made it.
[[noreturn]] inline void Broken(const char* what) {
  std::fprintf(stderr, "property broken: %s\n", what);
  std::abort();
}
inline void Require(bool holds, const char* what) {
  if (!holds) Broken(what);
}

}  // namespace Fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

#endif
