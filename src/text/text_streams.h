// Byte order marks, and whole texts read from and written to byte streams.
#ifndef QUILLON_TEXT_TEXT_STREAMS_H
#define QUILLON_TEXT_TEXT_STREAMS_H

#include <cstdint>
#include <functional>
#include <string>

#include "text/wide_text.h"

namespace NSTextPackage {

// Reads `length` bytes at `position` into `data`; raises when it cannot.
typedef std::function<void(uint64_t position, uint64_t length, void* data)> ByteReader;
// Writes `length` bytes at `position`; raises when it cannot.
typedef std::function<void(uint64_t position, uint64_t length, const void* data)> ByteWriter;

enum : uint32_t {
  kEncodingUtf8 = 1900,
  kEncodingUtf32LE = 1901,
  kEncodingUtf32BE = 1902,
  kEncodingUtf16BE = 1903,
  kEncodingUtf16LE = 1904,
  kEncodingUnknown = 1905
};

// Looks at up to 4 of the `available` bytes at `position`.
uint32_t DetectByteOrderMark(const ByteReader& read, uint64_t position, uint64_t available,
                             uint32_t& markLength);

// Seven-bit text; bytes above 127 become `replacement` (0: they raise).
// `replaced` is cleared.
CWideString ReadSevenBitText(const ByteReader& read, uint64_t position, uint64_t length,
                             uint32_t replacement, bool& replaced);
// UTF-8 with or without its mark.
CWideString ReadUtf8Text(const ByteReader& read, uint64_t position, uint64_t length);
// UTF-16 with a mark of either order; no mark counts as little-endian.
CWideString ReadUtf16Text(const ByteReader& read, uint64_t position, uint64_t length);

// Writes the text as UTF-8, with the mark first when asked; moves `position`
// past what was written.
void WriteUtf8Text(const ByteWriter& write, uint64_t& position, const CWideString& text,
                   bool mark);

}  // namespace NSTextPackage

#endif
