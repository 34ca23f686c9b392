#include <gtest/gtest.h>

#include <cstring>

#include "text/support.h"
#include "text/text_streams.h"

using namespace NSTextPackage;

namespace {

// A byte source over a string that counts what was asked of it.
struct MemorySource {
  std::string bytes;
  int reads = 0;
  ByteReader Reader() {
    return [this](uint64_t position, uint64_t length, void* data) {
      ++reads;
      if (position + length > bytes.size()) throw NSMarlet::XRead("past the end");
      std::memcpy(data, bytes.data() + position, static_cast<size_t>(length));
    };
  }
};

struct MemorySink {
  std::string bytes;
  ByteWriter Writer() {
    return [this](uint64_t position, uint64_t length, const void* data) {
      if (bytes.size() < position + length) bytes.resize(static_cast<size_t>(position + length));
      std::memcpy(&bytes[static_cast<size_t>(position)], data, static_cast<size_t>(length));
    };
  }
};

uint32_t Detect(const std::string& bytes, uint64_t available, uint32_t& mark) {
  MemorySource source{bytes};
  return DetectByteOrderMark(source.Reader(), 0, available, mark);
}

}  // namespace

class StreamTest : public StorageTest {};

TEST_F(StreamTest, MarksInTheirOrder) {
  uint32_t mark = 99;
  EXPECT_EQ(Detect(std::string("\xFF\xFE\x00\x00", 4), 4, mark), kEncodingUtf32LE);
  EXPECT_EQ(mark, 4u);
  EXPECT_EQ(Detect(std::string("\x00\x00\xFE\xFF", 4), 4, mark), kEncodingUtf32BE);
  EXPECT_EQ(mark, 4u);
  EXPECT_EQ(Detect("\xEF\xBB\xBF" "abc", 6, mark), kEncodingUtf8);
  EXPECT_EQ(mark, 3u);
  EXPECT_EQ(Detect("\xFE\xFF", 2, mark), kEncodingUtf16BE);
  EXPECT_EQ(mark, 2u);
  EXPECT_EQ(Detect(std::string("\xFF\xFE\x41\x00", 4), 4, mark), kEncodingUtf16LE);
  EXPECT_EQ(mark, 2u);
  // With only two bytes available the longer mark cannot be seen.
  EXPECT_EQ(Detect(std::string("\xFF\xFE\x00\x00", 4), 2, mark), kEncodingUtf16LE);
  EXPECT_EQ(Detect("\xEF\xBB\xBF", 2, mark), kEncodingUnknown);
  EXPECT_EQ(mark, 0u);
  EXPECT_EQ(Detect("", 0, mark), kEncodingUnknown);
  EXPECT_EQ(Detect("plain", 5, mark), kEncodingUnknown);
  EXPECT_EQ(mark, 0u);
}

TEST_F(StreamTest, Utf8ReaderSkipsItsMarkOnly) {
  MemorySource withMark{"xx\xEF\xBB\xBF" "caf\xC3\xA9"};
  EXPECT_EQ(ReadUtf8Text(withMark.Reader(), 2, withMark.bytes.size() - 2), u"caf\u00e9");
  MemorySource without{"caf\xC3\xA9"};
  EXPECT_EQ(ReadUtf8Text(without.Reader(), 0, without.bytes.size()), u"caf\u00e9");
  MemorySource utf16{"\xFF\xFE" "a"};
  EXPECT_EQ(UnicodeFailureText<NSMarlet::XFormatViolation>(
                [&] { ReadUtf8Text(utf16.Reader(), 0, utf16.bytes.size()); }),
            "");
}

TEST_F(StreamTest, SevenBitReaderClearsTheFlag) {
  MemorySource source{"ab\xE9"};
  bool replaced = true;
  EXPECT_EQ(ReadSevenBitText(source.Reader(), 0, 3, u'?', replaced), u"ab?");
  EXPECT_FALSE(replaced);
  EXPECT_EQ(UnicodeFailureText<NSMarlet::XFormatViolation>(
                [&] { ReadSevenBitText(source.Reader(), 0, 3, 0, replaced); }),
            "");
}

TEST_F(StreamTest, Utf16ReaderFormsUnitsAsItDoes) {
  // The first byte of each pair is the high one, each sign-extended first.
  MemorySource le{std::string("\xFF\xFE\x41\x00\x00\x42\x12\x80", 8)};
  EXPECT_EQ(ReadUtf16Text(le.Reader(), 0, le.bytes.size()), (CWideString{0x4100, 0x0042, 0xFF80}));
  MemorySource noMark{std::string("\x00\x61", 2)};
  EXPECT_EQ(ReadUtf16Text(noMark.Reader(), 0, 2), CWideString{0x0061});
  MemorySource be{std::string("\xFE\xFF\x00\x41\x00\x00", 6)};
  EXPECT_EQ(ReadUtf16Text(be.Reader(), 0, be.bytes.size()), (CWideString{1, 0}));
  MemorySource utf8{"\xEF\xBB\xBF" "ab"};
  EXPECT_EQ(UnicodeFailureText<NSMarlet::XFormatViolation>(
                [&] { ReadUtf16Text(utf8.Reader(), 0, utf8.bytes.size()); }),
            "");
}

TEST_F(StreamTest, WriterPutsTheMarkFirstAndMovesThePosition) {
  MemorySink sink{"ab"};
  uint64_t position = 2;
  WriteUtf8Text(sink.Writer(), position, u"\u00e9", true);
  EXPECT_EQ(sink.bytes, "ab\xEF\xBB\xBF\xC3\xA9");
  EXPECT_EQ(position, 7u);
  WriteUtf8Text(sink.Writer(), position, u"z", false);
  EXPECT_EQ(sink.bytes, "ab\xEF\xBB\xBF\xC3\xA9z");
  EXPECT_EQ(position, 8u);
  // What the writer writes, the reader reads back.
  MemorySource source{sink.bytes};
  EXPECT_EQ(ReadUtf8Text(source.Reader(), 2, 6), u"\u00e9z");
}

TEST_F(StreamTest, ASourceThatFailsPassesItsFailureOn) {
  MemorySource shortSource{"ab"};
  EXPECT_THROW(ReadUtf8Text(shortSource.Reader(), 0, 10), NSMarlet::XRead);
}
