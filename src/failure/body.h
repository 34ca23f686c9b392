// Failure bodies: the details of a failure, kept outside the exception object.
#ifndef QUILLON_FAILURE_BODY_H
#define QUILLON_FAILURE_BODY_H

#include <cstdint>
#include <string>
#include <vector>

#include "failure/failure_codes.h"

namespace NSMarlet {

typedef int32_t BodyId;
constexpr BodyId kNoBody = -1;
// Every table hands out ids from here on.
constexpr BodyId kFirstBodyId = 3;

// Where a failure arose. Every position this library makes is empty; the
// fields stay for a build that records its sources.
class CSourcePosition {
 public:
  CSourcePosition();
  CSourcePosition(const char* module, const char* file, const char* function, uint32_t line);

  const char* Module() const { return module_; }
  const char* File() const { return file_; }
  const char* Function() const { return function_; }
  uint32_t Line() const { return line_; }

  bool operator==(const CSourcePosition& other) const;
  bool operator!=(const CSourcePosition& other) const { return !(*this == other); }

 private:
  char module_[65];
  char file_[513];
  char function_[129];
  uint32_t line_;
};

class CFailureValue {
 public:
  enum : uint32_t {
    kTagNone = 20,
    kTagInteger = 21,
    kTagFloat = 22,
    kTagNarrowText = 23,
    kTagWideText = 24,
    kTagTargetWord = 25
  };

  CFailureValue() = default;
  static CFailureValue Integer(uint64_t value);
  static CFailureValue Float(float value);
  static CFailureValue NarrowText(const char* text);
  static CFailureValue WideText(const std::u16string& text);
  // Keeps at most kTargetWordLength characters.
  static CFailureValue TargetWord(const char* word);

  uint32_t Tag() const { return tag_; }
  uint64_t IntegerValue() const { return integer_; }
  float FloatValue() const { return real_; }
  // The text of a narrow text or a target word.
  const std::string& Narrow() const { return narrow_; }
  const std::u16string& Wide() const { return wide_; }

  bool operator==(const CFailureValue& other) const;
  bool operator!=(const CFailureValue& other) const { return !(*this == other); }

 private:
  uint32_t tag_ = kTagNone;
  uint64_t integer_ = 0;
  float real_ = 0.0f;
  std::string narrow_;
  std::u16string wide_;
};

class CFailureParameter {
 public:
  CFailureParameter(const char* key, const CFailureValue& value);
  const char* Key() const { return key_; }
  const CFailureValue& Value() const { return value_; }

 private:
  char key_[65];
  CFailureValue value_;
};

// One step in the history of a failure.
struct CFailureEntry {
  CSourcePosition position;
  uint32_t failureCode = kFailureCode_UndefinedException;
  std::string text;
  std::vector<CFailureParameter> parameters;

  // The parameter of that key, or null.
  const CFailureParameter* FindParameter(const char* key) const;
};

struct CExceptionBody {
  uint64_t refCount = 1;
  CSourcePosition position;
  std::vector<CFailureEntry> entries;
};

class IExceptionBodyStorage {
 public:
  virtual ~IExceptionBodyStorage() = default;
  virtual BodyId CreateBody(const CSourcePosition& position) = 0;
  virtual void GetBodyPosition(CSourcePosition& position, BodyId id) = 0;
  virtual void AddBodyRef(BodyId id) = 0;
  virtual void ReleaseBody(BodyId id) = 0;
  virtual uint64_t GetBodyRefCount(BodyId id) = 0;
  virtual void AddEntry(BodyId id, const CFailureEntry& entry) = 0;
  virtual uint32_t GetEntryCount(BodyId id) = 0;
  virtual void GetEntry(CFailureEntry& entry, BodyId id, uint32_t index) = 0;
  virtual void EnterScope() = 0;
  virtual void LeaveScope() = 0;
  virtual int32_t GetScopeDepth() = 0;
  virtual void GetBodyIds(std::vector<BodyId>& ids) = 0;
  // For storages that keep state per thread: a thread about to be started,
  // and a thread that ends. Nothing by default.
  virtual void ReserveThreadTable() {}
  virtual void ReleaseThreadTable() {}
};

// The one global storage. The checked getter raises a plain std::exception
// when none is installed; code that must cope uses the unchecked one.
void SetExceptionBodyStorage(IExceptionBodyStorage* storage);
IExceptionBodyStorage* GetExceptionBodyStorage();
IExceptionBodyStorage* GetExceptionBodyStorageUnchecked();

// The simple storage for a program with one thread.
IExceptionBodyStorage* CreateBuiltInBasicExceptionBodyStorage();

}  // namespace NSMarlet

#endif
