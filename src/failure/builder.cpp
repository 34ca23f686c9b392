#include "failure/builder.h"

#include <cstring>

#include "failure/scope.h"

namespace NSMarlet {

using NSMarletDetails::CExceptionBodyRefMixin;

CNamedFailureScope::CNamedFailureScope(const char* word) {
  size_t length = word != nullptr ? strnlen(word, kTargetWordLength) : 0;
  if (length > 0) std::memcpy(word_, word, length);
  std::memset(word_ + length, 0, sizeof(word_) - length);
  IExceptionBodyStorage* storage = GetExceptionBodyStorage();
  outerDepth_ = storage->GetScopeDepth();
  storage->EnterScope();
}

CNamedFailureScope::~CNamedFailureScope() {
  try {
    GetExceptionBodyStorage()->LeaveScope();
  } catch (...) {
  }
}

CFailureBuilder::CFailureBuilder(const CSourcePosition& position) { entry_.position = position; }

CFailureBuilder& CFailureBuilder::SetFromException(const std::exception& exception) {
  const auto* mixin = dynamic_cast<const CExceptionBodyRefMixin*>(&exception);
  if (mixin != nullptr && mixin->HasBody()) {
    body_ = *mixin;
    CFailureEntry top = TopEntry(body_);
    entry_.failureCode = top.failureCode;
    entry_.text = top.text;
    return *this;
  }
  SClassification c = ClassifyException(&exception);
  entry_.failureCode = c.failureCode;
  entry_.text = c.what != nullptr ? c.what : "";
  return *this;
}

CFailureBuilder& CFailureBuilder::SetTargetWord(const char* word) {
  return AddParameter(CFailureParameter(kParamTargetObjectType, CFailureValue::TargetWord(word)));
}

CFailureBuilder& CFailureBuilder::AddErrorCode(uint64_t code) {
  return AddParameter(CFailureParameter(kParamErrorCode, CFailureValue::Integer(code)));
}

CFailureBuilder& CFailureBuilder::AddErrorString(const char* text) {
  return AddParameter(CFailureParameter(kParamErrorString, CFailureValue::NarrowText(text)));
}

CFailureBuilder& CFailureBuilder::AddErrorString(const std::u16string& text) {
  return AddParameter(CFailureParameter(kParamErrorString, CFailureValue::WideText(text)));
}

CFailureBuilder& CFailureBuilder::AddVersionNumber(uint64_t number) {
  return AddParameter(CFailureParameter(kParamVersionNumber, CFailureValue::Integer(number)));
}

CFailureBuilder& CFailureBuilder::AddVersionString(const char* text) {
  return AddParameter(CFailureParameter(kParamVersionString, CFailureValue::NarrowText(text)));
}

CFailureBuilder& CFailureBuilder::AddSecondaryObjectType(const char* word) {
  return AddParameter(
      CFailureParameter(kParamSecondaryObjectType, CFailureValue::TargetWord(word)));
}

CFailureBuilder& CFailureBuilder::AddParameter(const CFailureParameter& parameter) {
  entry_.parameters.push_back(parameter);
  return *this;
}

CFailureBuilder& CFailureBuilder::SetEntry(const CFailureEntry& entry) {
  entry_ = entry;
  return *this;
}

void RaiseBody(CFailureBuilder& builder) {
  IExceptionBodyStorage* storage = GetExceptionBodyStorage();
  if (!builder.body_.HasBody()) {
    builder.body_ = CExceptionBodyRefMixin::Adopt(storage->CreateBody(builder.entry_.position));
  }
  storage->AddEntry(builder.body_.GetBodyId(), builder.entry_);
  CFailureEntry last = TopEntry(builder.body_);
  ThrowByCode(last.failureCode, builder.body_, last.text);
}

CExceptionBodyRef BodyFromException(const std::exception* exception,
                                    const CSourcePosition& position) {
  const auto* mixin = dynamic_cast<const CExceptionBodyRefMixin*>(exception);
  if (mixin != nullptr && mixin->HasBody()) return *mixin;
  SClassification c = ClassifyException(exception);
  IExceptionBodyStorage* storage = GetExceptionBodyStorage();
  CExceptionBodyRef body = CExceptionBodyRefMixin::Adopt(storage->CreateBody(position));
  CFailureEntry entry;
  entry.position = position;
  entry.failureCode = c.failureCode;
  entry.text = c.what != nullptr ? c.what : "";
  storage->AddEntry(body.GetBodyId(), entry);
  return body;
}

CFailureEntry TopEntry(const CExceptionBodyRef& body) {
  CFailureEntry entry;
  if (!body.HasBody()) return entry;
  IExceptionBodyStorage* storage = GetExceptionBodyStorage();
  uint32_t count = storage->GetEntryCount(body.GetBodyId());
  if (count > 0) storage->GetEntry(entry, body.GetBodyId(), count - 1);
  return entry;
}

std::string TargetWordOf(const CFailureEntry& entry) {
  const CFailureParameter* p = entry.FindParameter(kParamTargetObjectType);
  if (p == nullptr || p->Value().Tag() != CFailureValue::kTagTargetWord) return std::string();
  return p->Value().Narrow();
}

bool TargetObjectTypeIs(const CExceptionBodyRef& body, const char* word) {
  const CFailureEntry top = TopEntry(body);
  const CFailureParameter* p = top.FindParameter(kParamTargetObjectType);
  return p != nullptr && p->Value() == CFailureValue::TargetWord(word);
}

uint32_t PackFailure(uint32_t failureCode, const char* word, const STargetWordList& programList) {
  uint32_t group = 0;
  uint32_t index = 0;
  if (word != nullptr && word[0] != '\0') {
    bool found = false;
    for (uint32_t i = 0; i < kFixedTargetWordCount && !found; ++i) {
      if (std::strncmp(kFixedTargetWords[i], word, kTargetWordLength) == 0) {
        group = 1;
        index = i;
        found = true;
      }
    }
    for (uint32_t i = 0; i < programList.count && !found; ++i) {
      if (std::strncmp(programList.words[i], word, kTargetWordLength) == 0) {
        group = 2;
        index = i;
        found = true;
      }
    }
  }
  return ((failureCode & 0x7Fu) << 24) | ((group & 0xFFu) << 16) | ((index & 0xFFu) << 8) |
         kPackedMark;
}

}  // namespace NSMarlet
