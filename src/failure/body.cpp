#include "failure/body.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <map>

namespace NSMarlet {

namespace {

template <size_t N>
void CopyBounded(char (&target)[N], const char* source) {
  size_t length = 0;
  if (source != nullptr) {
    while (length < N - 1 && source[length] != '\0') ++length;
    std::memcpy(target, source, length);
  }
  std::memset(target + length, 0, N - length);
}

IExceptionBodyStorage* gStorage = nullptr;

}  // namespace

CSourcePosition::CSourcePosition() : CSourcePosition(nullptr, nullptr, nullptr, 0) {}

CSourcePosition::CSourcePosition(const char* module, const char* file, const char* function,
                                 uint32_t line)
    : line_(line) {
  CopyBounded(module_, module);
  CopyBounded(file_, file);
  CopyBounded(function_, function);
}

bool CSourcePosition::operator==(const CSourcePosition& other) const {
  return std::strcmp(module_, other.module_) == 0 && std::strcmp(file_, other.file_) == 0 &&
         std::strcmp(function_, other.function_) == 0 && line_ == other.line_;
}

CFailureValue CFailureValue::Integer(uint64_t value) {
  CFailureValue result;
  result.tag_ = kTagInteger;
  result.integer_ = value;
  return result;
}

CFailureValue CFailureValue::Float(float value) {
  CFailureValue result;
  result.tag_ = kTagFloat;
  result.real_ = value;
  return result;
}

CFailureValue CFailureValue::NarrowText(const char* text) {
  CFailureValue result;
  result.tag_ = kTagNarrowText;
  result.narrow_ = text != nullptr ? text : "";
  return result;
}

CFailureValue CFailureValue::WideText(const std::u16string& text) {
  CFailureValue result;
  result.tag_ = kTagWideText;
  result.wide_ = text;
  return result;
}

CFailureValue CFailureValue::TargetWord(const char* word) {
  CFailureValue result;
  result.tag_ = kTagTargetWord;
  if (word != nullptr) result.narrow_.assign(word, strnlen(word, kTargetWordLength));
  return result;
}

bool CFailureValue::operator==(const CFailureValue& other) const {
  if (tag_ != other.tag_) return false;
  switch (tag_) {
    case kTagNone:
      return true;
    case kTagInteger:
      return integer_ == other.integer_;
    case kTagFloat:
      // A not-a-number is neither less nor greater, so it equals anything.
      return !(real_ < other.real_) && !(real_ > other.real_);
    case kTagNarrowText:
    case kTagTargetWord:
      return narrow_ == other.narrow_;
    case kTagWideText:
      return wide_ == other.wide_;
    default:
      return false;
  }
}

CFailureParameter::CFailureParameter(const char* key, const CFailureValue& value)
    : value_(value) {
  CopyBounded(key_, key);
}

const CFailureParameter* CFailureEntry::FindParameter(const char* key) const {
  for (const CFailureParameter& parameter : parameters) {
    if (std::strcmp(parameter.Key(), key) == 0) return &parameter;
  }
  return nullptr;
}

void SetExceptionBodyStorage(IExceptionBodyStorage* storage) { gStorage = storage; }

IExceptionBodyStorage* GetExceptionBodyStorage() {
  if (gStorage == nullptr) throw std::exception();
  return gStorage;
}

IExceptionBodyStorage* GetExceptionBodyStorageUnchecked() { return gStorage; }

namespace {

class CBuiltInBasicExceptionBodyStorage final : public IExceptionBodyStorage {
 public:
  BodyId CreateBody(const CSourcePosition& position) override {
    SRecord record;
    record.id = nextId_;
    record.body.position = position;
    records_.push_back(record);
    return nextId_++;
  }
  void GetBodyPosition(CSourcePosition& position, BodyId id) override {
    if (CExceptionBody* body = Find(id)) position = body->position;
  }
  void AddBodyRef(BodyId id) override {
    if (CExceptionBody* body = Find(id)) ++body->refCount;
  }
  void ReleaseBody(BodyId id) override {
    auto it = std::find_if(records_.begin(), records_.end(),
                           [id](const SRecord& r) { return r.id == id; });
    if (it == records_.end()) return;
    if (--it->body.refCount == 0) records_.erase(it);
  }
  uint64_t GetBodyRefCount(BodyId id) override {
    CExceptionBody* body = Find(id);
    return body != nullptr ? body->refCount : 0;
  }
  void AddEntry(BodyId id, const CFailureEntry& entry) override {
    if (CExceptionBody* body = Find(id)) body->entries.push_back(entry);
  }
  uint32_t GetEntryCount(BodyId id) override {
    CExceptionBody* body = Find(id);
    return body != nullptr ? static_cast<uint32_t>(body->entries.size()) : 0;
  }
  void GetEntry(CFailureEntry& entry, BodyId id, uint32_t index) override {
    CExceptionBody* body = Find(id);
    if (body != nullptr && index < body->entries.size()) entry = body->entries[index];
  }
  void EnterScope() override { ++depth_; }
  void LeaveScope() override { --depth_; }
  int32_t GetScopeDepth() override { return depth_; }
  void GetBodyIds(std::vector<BodyId>& ids) override {
    ids.clear();
    for (const SRecord& record : records_) ids.push_back(record.id);
  }

 private:
  struct SRecord {
    BodyId id = kNoBody;
    CExceptionBody body;
  };

  CExceptionBody* Find(BodyId id) {
    for (SRecord& record : records_) {
      if (record.id == id) return &record.body;
    }
    return nullptr;
  }

  std::vector<SRecord> records_;
  BodyId nextId_ = kFirstBodyId;
  int32_t depth_ = 0;
};

}  // namespace

IExceptionBodyStorage* CreateBuiltInBasicExceptionBodyStorage() {
  return new CBuiltInBasicExceptionBodyStorage();
}

}  // namespace NSMarlet
