#include "public/spec_io.h"

#include <cstring>
#include <memory>
#include <string>

#include "failure/builder.h"
#include "public/status.h"
#include "text/code_conversions.h"

namespace NSQuillon2 {

namespace {

constexpr uint32_t kTextLimit = 256;  // a text must be shorter
// A string is read in pieces, so that a count the source cannot back up
// costs no more memory than the bytes that are really there.
constexpr uint64_t kReadPiece = 65536;

[[noreturn]] void RaiseMalformed() { NSMarlet::RaiseFailure(NSMarlet::XFormatViolation("")); }

class CWriter {
 public:
  CWriter(IByteSink& sink, uint64_t& position) : sink_(sink), position_(position) {}
  void Bytes(const void* data, uint64_t length) {
    const uint32_t status = sink_.Write(position_, length, data);
    if (status != kStatusOk) ThrowFromStatus(status);
    position_ += length;
  }
  void U32(uint32_t value) {
    const unsigned char bytes[4] = {static_cast<unsigned char>(value),
                                    static_cast<unsigned char>(value >> 8),
                                    static_cast<unsigned char>(value >> 16),
                                    static_cast<unsigned char>(value >> 24)};
    Bytes(bytes, 4);
  }
  void WideText(const CWideString& text) {
    std::string bytes;
    bytes.reserve(text.size() * 2 + 2);
    for (char16_t unit : text) {
      bytes.push_back(static_cast<char>(unit & 0xFF));
      bytes.push_back(static_cast<char>(unit >> 8));
    }
    bytes.append(2, '\0');
    U32(static_cast<uint32_t>(bytes.size()));
    Bytes(bytes.data(), bytes.size());
  }

 private:
  IByteSink& sink_;
  uint64_t& position_;
};

class CReader {
 public:
  CReader(IByteSource& source, uint64_t& position) : source_(source), position_(position) {}
  void Bytes(void* data, uint64_t length) {
    const uint32_t status = source_.Read(position_, length, data);
    if (status != kStatusOk) ThrowFromStatus(status);
    position_ += length;
  }
  uint32_t U32() {
    unsigned char b[4];
    Bytes(b, 4);
    return b[0] | (static_cast<uint32_t>(b[1]) << 8) | (static_cast<uint32_t>(b[2]) << 16) |
           (static_cast<uint32_t>(b[3]) << 24);
  }
  std::string String() {
    uint64_t remaining = U32();
    std::string bytes;
    while (remaining > 0) {
      const uint64_t piece = remaining < kReadPiece ? remaining : kReadPiece;
      const size_t at = bytes.size();
      bytes.resize(at + static_cast<size_t>(piece));
      Bytes(&bytes[at], piece);
      remaining -= piece;
    }
    return bytes;
  }
  // The text ends at its first zero, whatever the count says.
  CWideString Text(bool wide) {
    const std::string bytes = String();
    if (!wide) return NSTextPackage::SystemCodePageToWide(bytes.substr(0, bytes.find('\0')));
    CWideString text;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
      const char16_t unit = static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) |
                                                  (static_cast<unsigned char>(bytes[i + 1]) << 8));
      if (unit == 0) break;
      text.push_back(unit);
    }
    return text;
  }
  uint32_t Flag() {
    const uint32_t value = U32();
    if (value > 1) RaiseMalformed();
    return value;
  }

 private:
  IByteSource& source_;
  uint64_t& position_;
};

}  // namespace

void WriteDriverSpec(const CDriverSpecImpl& spec, IByteSink& sink, uint64_t& position) {
  CWriter out(sink, position);
  const SDriverSpecKey& record = spec.Record();
  out.U32(kSpecMagicWide);
  out.WideText(spec.Key());
  out.WideText(RecordText(record.family));
  out.WideText(RecordText(record.name));
  out.WideText(RecordText(record.version));
  out.WideText(RecordText(record.manufacturer));
  out.U32(record.flags[0]);
  out.U32(record.flags[1]);
  out.U32(0);  // reserved
  out.U32(record.flags[2]);
  out.U32(record.flags[3]);
}

CDriverSpecImpl* ReadDriverSpec(IByteSource& source, uint64_t& position) {
  CReader in(source, position);
  const uint32_t magic = in.U32();
  if (magic != kSpecMagicWide && magic != kSpecMagicNarrow) RaiseMalformed();
  const bool wide = magic == kSpecMagicWide;
  const CWideString key = in.Text(wide);
  SDriverSpecKey record;
  std::memset(&record, 0, sizeof record);
  uint16_t (*const fields[4])[256] = {&record.family, &record.name, &record.version,
                                      &record.manufacturer};
  for (uint16_t (*field)[256] : fields) {
    const CWideString text = in.Text(wide);
    if (text.size() >= kTextLimit) RaiseMalformed();
    SetRecordText(*field, text);
  }
  record.flags[0] = in.Flag();
  record.flags[1] = in.Flag();
  in.Flag();  // reserved: 0 or 1, dropped
  record.flags[2] = in.Flag();
  record.flags[3] = in.Flag();
  return new CDriverSpecImpl(key, record);
}

}  // namespace NSQuillon2
