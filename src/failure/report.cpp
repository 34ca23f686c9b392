#include "failure/report.h"

#include <cstdio>
#include <cstring>
#include <new>

namespace NSMarlet {

using NSMarletDetails::XStdDomainError;

namespace {

// The first row of that status, or null when the end mark comes first.
const SStatusMapRow* FindStatusRow(uint32_t status, const SStatusMapRow* table) {
  if (table == nullptr) return nullptr;
  for (const SStatusMapRow* row = table; row->failureCode != kFailureCode_EndMark; ++row) {
    if (row->status == status) return row;
  }
  return nullptr;
}

bool InRange(uint32_t status, const SStatusRange& range) {
  return status >= range.base && status < range.limit;
}

[[noreturn]] void RaiseBareException(const CSourcePosition& position) {
  const std::exception bare;
  CFailureBuilder builder(position);
  builder.SetFromException(bare);
  RaiseBody(builder);
}

std::u16string Widen(const std::string& text) {
  std::u16string wide;
  wide.reserve(text.size());
  // Each byte becomes one unit by sign extension: no code page on purpose.
  for (char c : text) {
    wide.push_back(static_cast<char16_t>(static_cast<int16_t>(static_cast<signed char>(c))));
  }
  return wide;
}

}  // namespace

uint32_t StatusFromException(const std::exception* exception, const SStatusRange& range,
                             const SStatusMapRow* table, const CSourcePosition& position) {
  CExceptionBodyRef body = BodyFromException(exception, position);
  const CFailureEntry top = TopEntry(body);
  if (top.failureCode == kFailureCode_TunneledError) {
    const CFailureParameter* code = top.FindParameter(kParamErrorCode);
    uint64_t value = code != nullptr ? code->Value().IntegerValue() : 0;
    return static_cast<uint32_t>(range.base + value);
  }
  return StatusFromFailure(top.failureCode, TargetWordOf(top), range, table);
}

uint32_t StatusFromFailure(uint32_t failureCode, const std::string& word,
                           const SStatusRange& range, const SStatusMapRow* table) {
  // No table is an empty one: every failure is then computed.
  for (const SStatusMapRow* row = table; row != nullptr && row->failureCode != kFailureCode_EndMark;
       ++row) {
    if (row->failureCode == failureCode && (row->word[0] == '\0' || word == row->word)) {
      return row->status;
    }
  }
  return range.base + PackFailure(failureCode, word.c_str(), ProgramTargetWords());
}

uint32_t NumberFromCurrentFailure(const SStatusRange& range, const SStatusMapRow* table,
                                  uint32_t outOfMemory, uint32_t foreign) {
  try {
    try {
      throw;
    } catch (const std::exception& e) {
      // Without a storage (its own creation failed) the class alone speaks.
      if (GetExceptionBodyStorageUnchecked() == nullptr) {
        return StatusFromFailure(ClassifyException(&e).failureCode, std::string(), range, table);
      }
      return StatusFromException(&e, range, table, CSourcePosition());
    }
  } catch (const std::bad_alloc&) {
    return outOfMemory;
  } catch (...) {
    // Not a std::exception at all, or the translation itself failed.
    return foreign;
  }
}

void ThrowFromStatus(uint32_t status, const SStatusRange& range, const SStatusMapRow* table,
                     const CSourcePosition& position) {
  CFailureBuilder builder(position);
  CFailureEntry entry;
  entry.position = position;
  if (const SStatusMapRow* row = FindStatusRow(status, table)) {
    entry.failureCode = row->failureCode;
    builder.SetEntry(entry);
    if (row->word[0] != '\0') builder.SetTargetWord(row->word);
    RaiseBody(builder);
  }
  if (InRange(status, range)) {
    entry.failureCode = kFailureCode_TunneledError;
    builder.SetEntry(entry);
    builder.AddErrorCode(status - range.base);
    RaiseBody(builder);
  }
  RaiseBareException(position);
}

SDecodedFailure UnpackFailure(uint32_t number, const STargetWordList& programList) {
  const uint32_t code = (number >> 24) & 0x7Fu;
  const uint32_t group = (number >> 16) & 0xFFu;
  const uint32_t index = (number >> 8) & 0xFFu;
  if (code < kFailureCode_UndefinedException || code >= kFailureCode_EndMark) {
    RaiseFailure(XStdDomainError("Illegal Marlet failure_code!"));
  }
  SDecodedFailure result{code, std::string()};
  switch (group) {
    case 0:
      break;
    case 1:
      if (index >= kFixedTargetWordCount) {
        RaiseFailure(XStdDomainError("Unknown group for target object type!"));
      }
      result.word = kFixedTargetWords[index];
      break;
    case 2:
      if (index >= programList.count) {
        RaiseFailure(XStdDomainError("Unknown group for target object type!"));
      }
      result.word.assign(programList.words[index], strnlen(programList.words[index],
                                                           kTargetWordLength));
      break;
    default:
      RaiseFailure(XStdDomainError("Unknown group for target object type!"));
  }
  return result;
}

SDecodedFailure DecodeStatus(uint32_t status, const SStatusRange& range,
                             const SStatusMapRow* table, const STargetWordList& programList) {
  SDecodedFailure result{kFailureCode_UndefinedException, std::string()};
  if (table != nullptr) {
    if (const SStatusMapRow* row = FindStatusRow(status, table)) {
      result.failureCode = row->failureCode;
      result.word = row->word;
    }
  }
  if (result.failureCode == kFailureCode_UndefinedException && InRange(status, range) &&
      IsPackedFailure(status - range.base)) {
    result = UnpackFailure(status - range.base, programList);
  }
  if (result.failureCode == kFailureCode_UndefinedException) {
    RaiseBareException(CSourcePosition());
  }
  return result;
}

void ThrowFromStatusDecoded(uint32_t status, const SStatusRange& range,
                            const SStatusMapRow* table, const CSourcePosition& position) {
  const SDecodedFailure decoded = DecodeStatus(status, range, table, ProgramTargetWords());
  CFailureEntry entry;
  entry.position = position;
  entry.failureCode = decoded.failureCode;
  CFailureBuilder builder(position);
  builder.SetEntry(entry);
  if (!decoded.word.empty()) builder.SetTargetWord(decoded.word.c_str());
  RaiseBody(builder);
}

void FormatFailureValue(const CFailureValue& value, std::u16string& text) {
  char buffer[512];
  switch (value.Tag()) {
    case CFailureValue::kTagNone:
      text = u"<nil>";
      return;
    case CFailureValue::kTagInteger:
      // "%d" shows the low 32 bits as a signed number.
      std::snprintf(buffer, sizeof buffer, "%d",
                    static_cast<int>(static_cast<uint32_t>(value.IntegerValue())));
      text = Widen(buffer);
      return;
    case CFailureValue::kTagFloat:
      std::snprintf(buffer, sizeof buffer, "%f", static_cast<double>(value.FloatValue()));
      text = Widen(buffer);
      return;
    case CFailureValue::kTagNarrowText:
    case CFailureValue::kTagTargetWord:
      text = Widen(value.Narrow());
      return;
    case CFailureValue::kTagWideText:
      text = value.Wide();
      return;
    default:
      text.clear();
  }
}

void GetParameterText(const CExceptionBodyRef& body, const char* key, std::u16string& text) {
  const CFailureEntry top = TopEntry(body);
  const CFailureParameter* parameter = top.FindParameter(key);
  FormatFailureValue(parameter != nullptr ? parameter->Value() : CFailureValue(), text);
}

}  // namespace NSMarlet
