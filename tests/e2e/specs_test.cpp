#include <random>

#include "e2e/e2e_support.h"

namespace {

std::string U32(uint32_t v) {
  return std::string{static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16),
                     static_cast<char>(v >> 24)};
}

std::string WideString(const std::u16string& text) {
  std::string bytes = U32(static_cast<uint32_t>(text.size() * 2 + 2));
  for (char16_t u : text) {
    bytes.push_back(static_cast<char>(u & 0xFF));
    bytes.push_back(static_cast<char>(u >> 8));
  }
  return bytes + std::string(2, '\0');
}

std::string NarrowString(const std::string& text) {
  return U32(static_cast<uint32_t>(text.size() + 1)) + text + std::string(1, '\0');
}

std::string SavedForm(uint32_t magic, const std::string& key, const std::string& family,
                      const std::string& name, const std::string& version,
                      const std::string& maker, uint32_t reserved = 0) {
  return U32(magic) + key + family + name + version + maker + U32(1) + U32(1) + U32(reserved) +
         U32(0) + U32(0);
}

// A driver spec the host made itself: the library must refuse it.
class HostSpec final : public IDriverSpec {
 public:
#if QUILLON_MSVC_DESTRUCTOR_SLOT
  void* ScalarDeletingDestructor(unsigned int) override { return this; }
#endif
  uint32_t GetKeyRecord(SDriverSpecKey* key) const override {
    std::memset(key, 0, sizeof *key);
    return kStatusOk;
  }
  uint32_t IsSameDriver(const IDriverSpec*, uint32_t* same) const override {
    *same = 0;
    return kStatusOk;
  }
  IDriverSpec* Clone(uint32_t*) const override { return nullptr; }
  uint32_t IsValid() const override { return 1; }
};

}  // namespace

class SpecTest : public LibraryFixture {};

TEST_F(SpecTest, TheListStartsWithNoSoundAndFollowsTheRegistry) {
  ASSERT_EQ(specs->GetSize(), 3);
  EXPECT_EQ(specs->IsValid(), 1u);
  SDriverSpecKey key;
  ASSERT_EQ(NullSpec()->GetKeyRecord(&key), kStatusOk);
  EXPECT_EQ(Text(key.family), u"Off");
  EXPECT_EQ(Text(key.name), u"No Sound");
  EXPECT_EQ(Text(key.version), u"1");
  EXPECT_EQ(Text(key.manufacturer), u"Kestrelwaves");
  EXPECT_EQ(std::vector<uint32_t>(key.flags, key.flags + 4), (std::vector<uint32_t>{1, 1, 0, 0}));
  // Every byte behind a terminator is zero.
  for (int i = 3; i < 256; ++i) ASSERT_EQ(key.family[i], 0) << i;
  for (int i = 8; i < 256; ++i) ASSERT_EQ(key.name[i], 0) << i;
  ASSERT_EQ(FakeSpec()->GetKeyRecord(&key), kStatusOk);
  EXPECT_EQ(Text(key.name), u"Fake One");
  ASSERT_EQ(OtherSpec()->GetKeyRecord(&key), kStatusOk);
  EXPECT_EQ(Text(key.family), u"DX");
}

TEST_F(SpecTest, SpecsCompareCloneAndOutliveTheLibrary) {
  uint32_t same = 9;
  EXPECT_EQ(FakeSpec()->IsSameDriver(FakeSpec(), &same), kStatusOk);
  EXPECT_EQ(same, 1u);
  EXPECT_EQ(FakeSpec()->IsSameDriver(OtherSpec(), &same), kStatusOk);
  EXPECT_EQ(same, 0u);
  EXPECT_EQ(FakeSpec()->IsSameDriver(nullptr, &same), kStatusOk);
  EXPECT_EQ(same, 0u);
  HostSpec foreign;
  EXPECT_EQ(FakeSpec()->IsSameDriver(&foreign, &same), kStatusOk);
  EXPECT_EQ(same, 0u);
  uint32_t status = 0;
  IDriverSpec* clone = FakeSpec()->Clone(&status);
  ASSERT_NE(clone, nullptr);
  EXPECT_EQ(status, kStatusOk);
  EXPECT_EQ(clone->IsSameDriver(FakeSpec(), &same), kStatusOk);
  EXPECT_EQ(same, 1u);
  // A list and a spec stay usable after the library object is gone.
  QuillonDestroy(library);
  library = nullptr;
  SDriverSpecKey key;
  EXPECT_EQ(clone->GetKeyRecord(&key), kStatusOk);
  EXPECT_EQ(Text(key.name), u"Fake One");
  EXPECT_EQ(specs->GetSize(), 3);
  QuillonDestroy(clone);
}

TEST_F(SpecTest, SavedFormByteForByte) {
  MemorySink sink;
  sink.bytes = "xyz";
  uint64_t position = 3;
  ASSERT_EQ(library->SaveDriverSpec(NullSpec(), &sink, &position), kStatusOk);
  const std::string expected =
      "xyz" + SavedForm(0x9911FF73u, WideString(u"Ferrand Null Driver"), WideString(u"Off"),
                        WideString(u"No Sound"), WideString(u"1"), WideString(u"Kestrelwaves"));
  EXPECT_EQ(sink.bytes, expected);
  EXPECT_EQ(position, expected.size());
  EXPECT_EQ(sink.bytes.substr(3, 4), std::string("\x73\xFF\x11\x99", 4));
  EXPECT_EQ(sink.bytes.substr(7, 4), U32(40));  // 19 units, terminator included

  MemorySource source(sink.bytes);
  uint64_t at = 3;
  uint32_t status = 0;
  IDriverSpec* loaded = library->LoadDriverSpec(&source, &at, &status);
  ASSERT_NE(loaded, nullptr);
  EXPECT_EQ(status, kStatusOk);
  EXPECT_EQ(at, expected.size());
  uint32_t same = 0;
  loaded->IsSameDriver(NullSpec(), &same);
  EXPECT_EQ(same, 1u);
  QuillonDestroy(loaded);
}

TEST_F(SpecTest, TheOlderFormIsReadWithTheAnsiCodePage) {
  MemorySource source(SavedForm(0x9911FF71u, NarrowString("old key"), NarrowString("MME"),
                                NarrowString("Caf\xE9 Out"), NarrowString("2"),
                                NarrowString("Maker")));
  uint64_t position = 0;
  uint32_t status = 0;
  IDriverSpec* loaded = library->LoadDriverSpec(&source, &position, &status);
  ASSERT_NE(loaded, nullptr) << status;
  SDriverSpecKey key;
  loaded->GetKeyRecord(&key);
  EXPECT_EQ(Text(key.name), u"Caf\u00e9 Out");
  EXPECT_EQ(Text(key.version), u"2");
  QuillonDestroy(loaded);
}

TEST_F(SpecTest, MalformedSavedForms) {
  auto load = [&](const std::string& bytes, uint64_t* position = nullptr) {
    MemorySource source(bytes);
    uint64_t at = 0;
    uint32_t status = 0;
    IDriverSpec* spec = library->LoadDriverSpec(&source, position ? position : &at, &status);
    QuillonDestroy(spec);
    return status;
  };
  uint64_t position = 0;
  EXPECT_EQ(load(U32(0x12345678) + "whatever", &position), kStatusFormatViolation);
  EXPECT_EQ(position, 4u);
  const std::string name255(255, 'n');
  const std::string name256(256, 'n');
  const std::u16string wide255(255, u'n');
  const std::u16string wide256(256, u'n');
  EXPECT_EQ(load(SavedForm(0x9911FF73u, WideString(u"k"), WideString(u"f"), WideString(wide255),
                           WideString(u""), WideString(u""))),
            kStatusOk);
  EXPECT_EQ(load(SavedForm(0x9911FF73u, WideString(u"k"), WideString(u"f"), WideString(wide256),
                           WideString(u""), WideString(u""))),
            kStatusFormatViolation);
  EXPECT_EQ(load(SavedForm(0x9911FF71u, NarrowString("k"), NarrowString(name256),
                           NarrowString(""), NarrowString(""), NarrowString(""))),
            kStatusFormatViolation);
  // The key has no limit.
  EXPECT_EQ(load(SavedForm(0x9911FF73u, WideString(std::u16string(5000, u'k')), WideString(u"f"),
                           WideString(u"n"), WideString(u""), WideString(u""))),
            kStatusOk);
  // The reserved number may be 0 or 1; 2 is refused, as is any flag above 1.
  const std::string base = SavedForm(0x9911FF73u, WideString(u"k"), WideString(u"f"),
                                     WideString(u"n"), WideString(u"v"), WideString(u"m"), 1);
  EXPECT_EQ(load(base), kStatusOk);
  EXPECT_EQ(load(SavedForm(0x9911FF73u, WideString(u"k"), WideString(u"f"), WideString(u"n"),
                           WideString(u"v"), WideString(u"m"), 2)),
            kStatusFormatViolation);
  std::string badFlag = base;
  badFlag[badFlag.size() - 4] = 2;
  EXPECT_EQ(load(badFlag), kStatusFormatViolation);
  // The text ends at its first zero, whatever the count says.
  EXPECT_EQ(load(SavedForm(0x9911FF73u, WideString(u"k"), WideString(std::u16string(u"ab\0cd", 5)),
                           WideString(u"n"), WideString(u"v"), WideString(u"m"))),
            kStatusOk);
  // Cut short: the host's read failure comes back.
  EXPECT_EQ(load(base.substr(0, base.size() - 1)), kStatusReadFailure);
  EXPECT_EQ(load(""), kStatusReadFailure);
}

TEST_F(SpecTest, TheHostsOwnStatusesComeBack) {
  for (uint32_t answer : std::vector<uint32_t>{kStatusWriteFailure, kStatusDiskFull, kStatusReadFailure, 112345u}) {
    MemorySink sink;
    sink.failAt = 2;
    sink.failWith = answer;
    uint64_t position = 0;
    EXPECT_EQ(library->SaveDriverSpec(NullSpec(), &sink, &position), answer);
    // Moved by what was written before the failure: the magic and the
    // key's count, not the key itself.
    EXPECT_EQ(position, 4u + 4u);
  }
  MemorySink sink;
  sink.failAt = 0;
  sink.failWith = 5;  // no row, below the computed range
  uint64_t position = 0;
  EXPECT_EQ(library->SaveDriverSpec(NullSpec(), &sink, &position), 117540698u);
  for (uint32_t answer : std::vector<uint32_t>{kStatusReadFailure, kStatusDiskFull, 100007u}) {
    MemorySource source("");
    source.failWith = answer;
    uint32_t status = 0;
    EXPECT_EQ(library->LoadDriverSpec(&source, &position, &status), nullptr);
    EXPECT_EQ(status, answer);
  }
}

TEST_F(SpecTest, SaveRefusesWhatIsNotOurs) {
  MemorySink sink;
  uint64_t position = 0;
  HostSpec foreign;
  EXPECT_EQ(library->SaveDriverSpec(&foreign, &sink, &position), kStatusInvalidArgument);
  EXPECT_EQ(library->SaveDriverSpec(nullptr, &sink, &position), kStatusInvalidArgument);
  EXPECT_EQ(library->SaveDriverSpec(NullSpec(), nullptr, &position), kStatusInvalidArgument);
  EXPECT_EQ(library->SaveDriverSpec(NullSpec(), &sink, nullptr), kStatusInvalidArgument);
  EXPECT_TRUE(sink.bytes.empty());
}

TEST_F(SpecTest, RandomAndTruncatedStreamsOnlyEverGiveStatuses) {
  MemorySink sink;
  uint64_t position = 0;
  ASSERT_EQ(library->SaveDriverSpec(FakeSpec(), &sink, &position), kStatusOk);
  const std::string good = sink.bytes;
  std::mt19937 random(99);
  int loaded = 0;
  for (int i = 0; i < 6000; ++i) {
    std::string bytes;
    switch (i % 3) {
      case 0: bytes = good.substr(0, random() % good.size()); break;
      case 1: {
        bytes = good;
        for (int k = 0; k < 1 + static_cast<int>(random() % 4); ++k) {
          bytes[random() % bytes.size()] = static_cast<char>(random());
        }
        break;
      }
      default: {
        bytes.resize(random() % 200);
        for (char& c : bytes) c = static_cast<char>(random());
        if (bytes.size() >= 4 && random() % 2) bytes.replace(0, 4, U32(0x9911FF73u));
      }
    }
    MemorySource source(bytes);
    uint64_t at = 0;
    uint32_t status = 0;
    IDriverSpec* spec = library->LoadDriverSpec(&source, &at, &status);
    if (spec != nullptr) {
      ++loaded;
      ASSERT_EQ(status, kStatusOk);
      QuillonDestroy(spec);
    } else {
      ASSERT_TRUE(status == kStatusFormatViolation || status == kStatusReadFailure ||
                  status == kStatusOutOfMemory)
          << status;
    }
    ASSERT_LE(at, bytes.size());
  }
  EXPECT_GT(loaded, 0);
}

TEST_F(SpecTest, ResolvingByKeyThenByIdentity) {
  uint32_t running = 9;
  uint32_t status = 0;
  // Unknown key, known family, name and maker: the second pass finds it.
  const std::string saved = SavedForm(0x9911FF73u, WideString(u"moved-key"), WideString(u"MME"),
                                      WideString(u"Fake One"), WideString(u"9.9"),
                                      WideString(u"Fake Works"));
  MemorySource source(saved);
  uint64_t at = 0;
  IDriverSpec* moved = library->LoadDriverSpec(&source, &at, &status);
  ASSERT_NE(moved, nullptr);
  IClient* client = Create(moved, &running, &status);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(status, kStatusOk);
  EXPECT_EQ(running, 1u);
  EXPECT_EQ(control->opened.load(), 1);  // the fake, not another driver
  QuillonDestroy(client);
  QuillonDestroy(moved);

  // A differing first flag is another driver.
  std::string flagged = SavedForm(0x9911FF73u, WideString(u"moved-key"), WideString(u"MME"),
                                  WideString(u"Fake One"), WideString(u"1.0"),
                                  WideString(u"Fake Works"));
  flagged[flagged.size() - 20] = 0;
  MemorySource flaggedSource(flagged);
  at = 0;
  IDriverSpec* different = library->LoadDriverSpec(&flaggedSource, &at, &status);
  ASSERT_NE(different, nullptr);
  EXPECT_EQ(Create(different, &running, &status), nullptr);
  EXPECT_EQ(status, kStatusDriverNotFound);
  QuillonDestroy(different);

  // The null driver's spec resolves wherever it was saved.
  MemorySource nullSource(SavedForm(0x9911FF73u, WideString(u"Ferrand Null Driver"),
                                    WideString(u"Off"), WideString(u"No Sound"), WideString(u"1"),
                                    WideString(u"Kestrelwaves")));
  at = 0;
  IDriverSpec* nullSpec = library->LoadDriverSpec(&nullSource, &at, &status);
  client = Create(nullSpec, &running, &status);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(running, 1u);
  QuillonDestroy(client);
  QuillonDestroy(nullSpec);
}

TEST_F(SpecTest, FullwidthTextStillResolvesByIdentity) {
  const std::string saved = SavedForm(0x9911FF73u, WideString(u"other-key"), WideString(u"\uFF2D\uFF2D\uFF25"),
                                      WideString(u"Fake One"), WideString(u""),
                                      WideString(u"Fake Works"));
  MemorySource source(saved);
  uint64_t at = 0;
  uint32_t status = 0;
  IDriverSpec* spec = library->LoadDriverSpec(&source, &at, &status);
  uint32_t running = 0;
  IClient* client = Create(spec, &running, &status);
  EXPECT_NE(client, nullptr);
  EXPECT_EQ(status, kStatusOk);
  QuillonDestroy(client);
  QuillonDestroy(spec);
}
