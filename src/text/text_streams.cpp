#include "text/text_streams.h"

#include <vector>

#include "failure/builder.h"
#include "text/code_conversions.h"

namespace NSTextPackage {

namespace {

std::string ReadBytes(const ByteReader& read, uint64_t position, uint64_t length) {
  std::string bytes(static_cast<size_t>(length), '\0');
  if (length > 0) read(position, length, &bytes[0]);
  return bytes;
}

[[noreturn]] void RaiseWrongEncoding() {
  NSMarlet::RaiseFailure(NSMarlet::XFormatViolation(""), NSMarlet::TargetWordUnicode());
}

char16_t SignExtended(char byte) {
  return static_cast<char16_t>(static_cast<int16_t>(static_cast<signed char>(byte)));
}

}  // namespace

uint32_t DetectByteOrderMark(const ByteReader& read, uint64_t position, uint64_t available,
                             uint32_t& markLength) {
  const uint64_t count = available < 4 ? available : 4;
  unsigned char b[4] = {};
  if (count > 0) read(position, count, b);
  struct SMark {
    uint32_t encoding;
    uint32_t length;
    unsigned char bytes[4];
  };
  static const SMark kMarks[] = {
      {kEncodingUtf32LE, 4, {0xFF, 0xFE, 0x00, 0x00}},
      {kEncodingUtf32BE, 4, {0x00, 0x00, 0xFE, 0xFF}},
      {kEncodingUtf8, 3, {0xEF, 0xBB, 0xBF, 0}},
      {kEncodingUtf16BE, 2, {0xFE, 0xFF, 0, 0}},
      {kEncodingUtf16LE, 2, {0xFF, 0xFE, 0, 0}},
  };
  for (const SMark& mark : kMarks) {
    if (count < mark.length) continue;
    bool same = true;
    for (uint32_t i = 0; i < mark.length; ++i) same = same && b[i] == mark.bytes[i];
    if (same) {
      markLength = mark.length;
      return mark.encoding;
    }
  }
  markLength = 0;
  return kEncodingUnknown;
}

CWideString ReadSevenBitText(const ByteReader& read, uint64_t position, uint64_t length,
                             uint32_t replacement, bool& replaced) {
  CWideString text = AsciiToWide(ReadBytes(read, position, length), replacement);
  replaced = false;
  return text;
}

CWideString ReadUtf8Text(const ByteReader& read, uint64_t position, uint64_t length) {
  uint32_t mark = 0;
  const uint32_t encoding = DetectByteOrderMark(read, position, length, mark);
  if (encoding != kEncodingUtf8 && encoding != kEncodingUnknown) RaiseWrongEncoding();
  return Utf8ToWide(ReadBytes(read, position + mark, length - mark));
}

CWideString ReadUtf16Text(const ByteReader& read, uint64_t position, uint64_t length) {
  uint32_t mark = 0;
  uint32_t encoding = DetectByteOrderMark(read, position, length, mark);
  if (encoding == kEncodingUnknown) encoding = kEncodingUtf16LE;
  if (encoding != kEncodingUtf16LE && encoding != kEncodingUtf16BE) RaiseWrongEncoding();
  const std::string bytes = ReadBytes(read, position + mark, length - mark);
  CWideString text;
  text.reserve(bytes.size() / 2);
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
    if (encoding == kEncodingUtf16LE) {
      text.push_back(static_cast<char16_t>((SignExtended(bytes[i]) << 8) |
                                           SignExtended(bytes[i + 1])));
    } else {
      text.push_back(bytes[i] == 0 && bytes[i + 1] == 0 ? u'\0' : u'\x01');
    }
  }
  return text;
}

void WriteUtf8Text(const ByteWriter& write, uint64_t& position, const CWideString& text,
                   bool mark) {
  if (mark) {
    static const unsigned char kMark[3] = {0xEF, 0xBB, 0xBF};
    write(position, 3, kMark);
    position += 3;
  }
  const std::string bytes = WideToUtf8(text);
  if (!bytes.empty()) write(position, bytes.size(), bytes.data());
  position += bytes.size();
}

}  // namespace NSTextPackage
