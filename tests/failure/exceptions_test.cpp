#include <gtest/gtest.h>

#include <memory>
#include <type_traits>

#include "failure/builder.h"
#include "failure/exceptions.h"
#include "support/storage_fixture.h"

using namespace NSMarlet;
using namespace NSMarlet::NSMarletDetails;

namespace {

struct ForeignError : std::exception {
  const char* what() const noexcept override { return "foreign"; }
};

uint32_t CodeOf(const std::exception& e) { return ClassifyException(&e).failureCode; }

// The code that the class raised for `code` classifies as.
uint32_t RoundTrip(uint32_t code) {
  try {
    ThrowByCode(code, CExceptionBodyRef(), "text");
  } catch (const std::exception& e) {
    return CodeOf(e);
  } catch (int value) {
    return static_cast<uint32_t>(value) + 1000;
  }
  return 0;
}

}  // namespace

static_assert(std::is_base_of<std::bad_alloc, XStdBadAlloc>::value, "");
static_assert(std::is_base_of<std::logic_error, XIllegalCallSequence>::value, "");
static_assert(std::is_base_of<std::logic_error, XInvariantCorrupt>::value, "");
static_assert(std::is_base_of<std::invalid_argument, XStdInvalidArgument>::value, "");
static_assert(std::is_base_of<std::runtime_error, XNotReady>::value, "");
static_assert(std::is_base_of<std::overflow_error, XStdOverflowError>::value, "");
static_assert(!std::is_base_of<std::runtime_error, XUnitTestFailure>::value, "");
static_assert(!std::is_base_of<std::runtime_error, XTunneledError>::value, "");
static_assert(std::is_base_of<CExceptionBodyRefMixin, XOpen>::value, "");
static_assert(std::is_base_of<CExceptionBodyRefMixin, XStdException>::value, "");

TEST(Classify, EveryClassComesBackAsItsCode) {
  EXPECT_EQ(RoundTrip(kFailureCode_NonMarletException), kFailureCode_Exception);
  for (uint32_t code = kFailureCode_Exception; code < kFailureCode_EndMark; ++code) {
    EXPECT_EQ(RoundTrip(code), code) << FailureCodeName(code);
  }
}

TEST(Classify, CodeFiveAndUnknownCodesRaiseTheIntFive) {
  EXPECT_EQ(RoundTrip(kFailureCode_UndefinedException), 1005u);
  EXPECT_EQ(RoundTrip(kFailureCode_EndMark), 1005u);
  EXPECT_EQ(RoundTrip(0), 1005u);
  EXPECT_EQ(RoundTrip(200), 1005u);
}

TEST(Classify, StandardClassesWithoutCooperation) {
  EXPECT_EQ(CodeOf(std::bad_alloc()), 16u);
  EXPECT_EQ(CodeOf(std::runtime_error("x")), 17u);
  EXPECT_EQ(CodeOf(std::overflow_error("x")), 18u);
  EXPECT_EQ(CodeOf(std::underflow_error("x")), 19u);
  EXPECT_EQ(CodeOf(std::range_error("x")), 20u);
  EXPECT_EQ(CodeOf(std::logic_error("x")), 9u);
  EXPECT_EQ(CodeOf(std::domain_error("x")), 10u);
  EXPECT_EQ(CodeOf(std::invalid_argument("x")), 11u);
  EXPECT_EQ(CodeOf(std::length_error("x")), 12u);
  EXPECT_EQ(CodeOf(std::out_of_range("x")), 13u);
}

TEST(Classify, BareStdExceptionIsSevenAndForeignIsSix) {
  EXPECT_EQ(CodeOf(std::exception()), kFailureCode_Exception);
  EXPECT_EQ(CodeOf(ForeignError()), kFailureCode_NonMarletException);
  const ForeignError foreign;
  EXPECT_STREQ(ClassifyException(&foreign).what, "foreign");
}

TEST(Classify, NullIsUndefined) {
  SClassification c = ClassifyException(nullptr);
  EXPECT_EQ(c.failureCode, kFailureCode_UndefinedException);
  EXPECT_EQ(c.what, nullptr);
}

TEST(Classify, UnitTestFailureIsFoundOutsideTheRuntimeFamily) {
  EXPECT_EQ(CodeOf(XUnitTestFailure("u")), kFailureCode_UnitTestFailure);
}

TEST(Exceptions, TextsAndBadAllocation) {
  EXPECT_STREQ(XNotFound("GetRequiredZEPDeviceFromOpenSoundDriverHandle()").what(),
               "GetRequiredZEPDeviceFromOpenSoundDriverHandle()");
  EXPECT_STREQ(XStdException("plain").what(), "plain");
  EXPECT_STREQ(XTunneledError("tunnel").what(), "tunnel");
  EXPECT_STREQ(XStdBadAlloc("ignored").what(), "bad allocation");
  EXPECT_EQ(XOpen().GetBodyId(), kNoBody);
  try {
    ThrowByCode(kFailureCode_BadAlloc, CExceptionBodyRef(), "ignored");
  } catch (const std::bad_alloc& e) {
    EXPECT_STREQ(e.what(), "bad allocation");
  }
}

TEST(Exceptions, CatchByLibraryNames) {
  bool caught = false;
  try {
    ThrowByCode(kFailureCode_RuntimeError_NotReady, CExceptionBodyRef(), "");
  } catch (const XNotReady&) {
    caught = true;
  }
  EXPECT_TRUE(caught);
}

class ExceptionBodyTest : public StorageTest {};

TEST_F(ExceptionBodyTest, CopiesCountTheBodyAndTheLastCopyRemovesIt) {
  const BodyId id = storage->CreateBody(CSourcePosition());
  {
    XOpen first(CExceptionBodyRef::Adopt(id), "");
    EXPECT_EQ(storage->GetBodyRefCount(id), 1u);
    {
      XOpen copy(first);
      EXPECT_EQ(storage->GetBodyRefCount(id), 2u);
      XOpen assigned;
      assigned = copy;
      EXPECT_EQ(storage->GetBodyRefCount(id), 3u);
    }
    EXPECT_EQ(storage->GetBodyRefCount(id), 1u);
    EXPECT_EQ(LiveBodies(), std::vector<BodyId>{id});
  }
  EXPECT_TRUE(LiveBodies().empty());
}

TEST_F(ExceptionBodyTest, CopyKeepsTheBodyAfterTheFirstIsGone) {
  const BodyId id = storage->CreateBody(CSourcePosition());
  auto* first = new XNotReady(CExceptionBodyRef::Adopt(id), "");
  XNotReady copy(*first);
  delete first;
  EXPECT_EQ(LiveBodies(), std::vector<BodyId>{id});
  EXPECT_EQ(copy.GetBodyId(), id);
}

TEST_F(ExceptionBodyTest, SwapExchangesIdsWithoutCounting) {
  const BodyId a = storage->CreateBody(CSourcePosition());
  const BodyId b = storage->CreateBody(CSourcePosition());
  CExceptionBodyRef ra = CExceptionBodyRef::Adopt(a);
  CExceptionBodyRef rb = CExceptionBodyRef::Adopt(b);
  ra.Swap(rb);
  EXPECT_EQ(ra.GetBodyId(), b);
  EXPECT_EQ(rb.GetBodyId(), a);
  EXPECT_EQ(storage->GetBodyRefCount(a), 1u);
  EXPECT_EQ(storage->GetBodyRefCount(b), 1u);
}

TEST_F(ExceptionBodyTest, ThrowByCodeTiesTheBodyAndText) {
  const BodyId id = storage->CreateBody(CSourcePosition());
  CExceptionBodyRef body = CExceptionBodyRef::Adopt(id);
  try {
    ThrowByCode(kFailureCode_RuntimeError_Open, body, "opening");
  } catch (const XOpen& e) {
    EXPECT_EQ(e.GetBodyId(), id);
    EXPECT_STREQ(e.what(), "opening");
    EXPECT_EQ(storage->GetBodyRefCount(id), 2u);
  }
  EXPECT_EQ(storage->GetBodyRefCount(id), 1u);
}

TEST(ExceptionWithoutStorage, ReferenceOutlivingTheStorageIsHarmless) {
  auto* storage = new CThreadSafeExceptionBodyStorage();
  SetExceptionBodyStorage(storage);
  auto* survivor = new XOpen(CExceptionBodyRef::Adopt(storage->CreateBody(CSourcePosition())), "");
  SetExceptionBodyStorage(nullptr);
  delete storage;
  delete survivor;
  SUCCEED();
}

TEST(ExceptionWithoutStorage, ACopyAfterTheStorageHasGoneIsMadeWithoutItsBody) {
  auto* storage = new CThreadSafeExceptionBodyStorage();
  SetExceptionBodyStorage(storage);
  XOpen original(CExceptionBodyRef::Adopt(storage->CreateBody(CSourcePosition())), "late");
  SetExceptionBodyStorage(nullptr);
  delete storage;
  std::unique_ptr<XOpen> copy;
  EXPECT_NO_THROW(copy.reset(new XOpen(original)));
  EXPECT_EQ(copy->GetBodyId(), kNoBody);
  EXPECT_STREQ(copy->what(), "late");
}
