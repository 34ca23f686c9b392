// A saved driver spec read back from any bytes, through a source that may
// fail any read with any status: either a sound spec or a status, and a
// spec that was read saves and reads back as the same driver.
#include <cstring>
#include <string>

#include "fuzz/fuzz_input.h"
#include "quillon/quillon.h"

using namespace NSQuillon2;

namespace {

class CSource final : public IByteSource {
 public:
  CSource(std::string bytes, uint32_t failAt, uint32_t failStatus)
      : bytes_(std::move(bytes)), failAt_(failAt), failStatus_(failStatus) {}
  uint32_t Read(uint64_t position, uint64_t length, void* data) override {
    if (++reads_ == failAt_) return failStatus_;
    if (position > bytes_.size() || length > bytes_.size() - position) return kStatusReadFailure;
    if (length > 0) std::memcpy(data, bytes_.data() + position, length);
    return kStatusOk;
  }

 private:
  std::string bytes_;
  uint32_t failAt_;
  uint32_t failStatus_;
  uint32_t reads_ = 0;
};

class CSink final : public IByteSink {
 public:
  uint32_t Write(uint64_t position, uint64_t length, const void* data) override {
    if (position + length > bytes.size()) bytes.resize(position + length);
    if (length > 0) std::memcpy(&bytes[position], data, length);
    return kStatusOk;
  }
  std::string bytes;
};

IQuillon* Library() {
  static IQuillon* library = [] {
    uint32_t status = 0;
    IQuillon* made = Quillon_Create("IQuillon2", nullptr, &status);
    Fuzz::Require(made != nullptr && status == kStatusOk, "the library object is made");
    return made;
  }();
  return library;
}

// The saved form of the first listed driver: a start the fuzzer can bend.
const std::string& SavedSpec() {
  static const std::string saved = [] {
    uint32_t status = 0;
    IVector<const IDriverSpec*>* specs = Library()->GetDriverSpecs(&status);
    Fuzz::Require(specs != nullptr && specs->GetSize() > 0, "a driver is listed");
    CSink sink;
    uint64_t position = 0;
    Library()->SaveDriverSpec(specs->GetData()[0], &sink, &position);
    QuillonDestroy(specs);
    return sink.bytes;
  }();
  return saved;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::CInput input(data, size);
  const uint8_t mode = input.Byte();
  // One read in four fails, with a status of the boundary or any number.
  const uint32_t failAt = (mode & 3) == 0 ? 1 + input.Byte() % 16 : 0;
  const uint32_t failStatus = (mode & 4) ? input.U32() : kStatusReadFailure;
  const uint64_t start = (mode & 8) ? input.Byte() % 8 : 0;
  std::string stream(start, '\0');
  if (mode & 16) {
    // A real saved spec with the rest of the input laid over it, byte by byte.
    std::string bent = SavedSpec();
    const std::string rest = input.Rest();
    for (size_t i = 0; i < rest.size(); ++i) bent[i % bent.size()] ^= rest[i];
    if (mode & 32) bent.resize(bent.size() - rest.size() % bent.size());
    stream += bent;
  } else {
    stream += input.Rest();
  }
  CSource source(stream, failAt, failStatus);

  uint64_t position = start;
  uint32_t status = 0;
  IDriverSpec* spec = Library()->LoadDriverSpec(&source, &position, &status);
  if (spec == nullptr) {
    Fuzz::Require(status != kStatusOk && status != 0, "a refused spec has a failure status");
    return 0;
  }
  Fuzz::Require(status == kStatusOk, "a spec comes with success");
  Fuzz::Require(spec->IsValid() == 1, "a spec read is sound");
  Fuzz::Require(position > start && position <= stream.size(), "the position moves within");

  CSink sink;
  uint64_t written = 0;
  Fuzz::Require(Library()->SaveDriverSpec(spec, &sink, &written) == kStatusOk, "a spec saves");
  Fuzz::Require(written == sink.bytes.size(), "the position moves by what was written");
  CSource again(sink.bytes, 0, 0);
  uint64_t read = 0;
  IDriverSpec* back = Library()->LoadDriverSpec(&again, &read, &status);
  Fuzz::Require(back != nullptr && status == kStatusOk && read == written,
                "a saved spec reads back whole");
  uint32_t same = 0;
  Fuzz::Require(spec->IsSameDriver(back, &same) == kStatusOk && same == 1,
                "a saved spec names the same driver");
  SDriverSpecKey first;
  SDriverSpecKey second;
  std::memset(&first, 0, sizeof first);
  std::memset(&second, 0, sizeof second);
  spec->GetKeyRecord(&first);
  back->GetKeyRecord(&second);
  Fuzz::Require(std::memcmp(&first, &second, sizeof first) == 0, "the key survives the trip");
  QuillonDestroy(back);
  QuillonDestroy(spec);
  return 0;
}
