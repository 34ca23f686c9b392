// The optional host helpers, compiled under each standard a host may use.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "quillon/quillon_util.h"

using namespace NSQuillon2;

namespace {

TEST(UtilTest, EveryFixedStatusHasItsConstantsName) {
  const struct {
    uint32_t status;
    const char* name;
  } fixed[] = {{kStatusOk, "kStatusOk"},
               {kStatusOutOfMemory, "kStatusOutOfMemory"},
               {kStatusInvalidArgument, "kStatusInvalidArgument"},
               {kStatusNotValid, "kStatusNotValid"},
               {kStatusIllegalCall, "kStatusIllegalCall"},
               {kStatusLogicError, "kStatusLogicError"},
               {kStatusDriverOpenFailed, "kStatusDriverOpenFailed"},
               {kStatusDriverNotFound, "kStatusDriverNotFound"},
               {kStatusReadFailure, "kStatusReadFailure"},
               {kStatusWriteFailure, "kStatusWriteFailure"},
               {kStatusFormatViolation, "kStatusFormatViolation"},
               {kStatusDiskFull, "kStatusDiskFull"},
               {kStatusRuntimeError, "kStatusRuntimeError"},
               {kStatusNotReady, "kStatusNotReady"}};
  for (const auto& row : fixed) EXPECT_STREQ(StatusName(row.status), row.name) << row.status;
  // 991 to 1005 are fixed but for the reserved 997.
  for (uint32_t status = 991; status <= 1005; ++status) {
    if (status == 997) continue;
    EXPECT_STRNE(StatusName(status), "unknown") << status;
  }
  EXPECT_STREQ(StatusName(997), "unknown");
  EXPECT_STREQ(StatusName(0), "unknown");
  EXPECT_STREQ(StatusName(990), "unknown");
  EXPECT_STREQ(StatusName(1006), "unknown");
  EXPECT_STREQ(StatusName(99999), "unknown");
  EXPECT_STREQ(StatusName(kStatusBase), "computed");
  EXPECT_STREQ(StatusName(570525530), "computed");
  EXPECT_STREQ(StatusName(0xFFFFFFFFu), "computed");
}

TEST(UtilTest, RecordFieldsAreViewedUpToTheirTerminatorAndNoFurther) {
  SDriverSpecKey key;
  std::memset(&key, 0, sizeof key);
  const std::u16string name = u"No Sound";
  for (size_t i = 0; i < name.size(); ++i) key.name[i] = name[i];
  EXPECT_EQ(FieldView(key.name), u"No Sound");
  EXPECT_TRUE(FieldView(key.family).empty());
  // A field without a terminator ends at its size.
  for (uint16_t& unit : key.version) unit = u'v';
  EXPECT_EQ(FieldView(key.version).size(), 256u);
}

TEST(UtilTest, StringsOfTheLibraryAreViewedAndNullIsEmpty) {
  const unsigned short text[] = {u'O', u'u', u't', 0};
  EXPECT_EQ(TextView(text), u"Out");
  EXPECT_TRUE(TextView(static_cast<const unsigned short*>(nullptr)).empty());
}

TEST(UtilTest, OwnedObjectsGoThroughTheirFirstSlot) {
  uint32_t status = 0;
  TQuillonPtr<IQuillon> library = QuillonOwn(Quillon_Create("IQuillon2", nullptr, &status));
  ASSERT_TRUE(library);
  EXPECT_EQ(StatusName(status), std::string("kStatusOk"));
  TQuillonPtr<IVector<const IDriverSpec*>> specs = QuillonOwn(library->GetDriverSpecs(&status));
  ASSERT_TRUE(specs);
  ASSERT_GE(specs->GetSize(), 1);
  SDriverSpecKey key;
  ASSERT_EQ(specs->GetData()[0]->GetKeyRecord(&key), kStatusOk);
  EXPECT_EQ(FieldView(key.name), u"No Sound");
  TQuillonPtr<IDriverSpec> copy = QuillonOwn(specs->GetData()[0]->Clone(&status));
  EXPECT_TRUE(copy);
  specs.reset();
  copy.reset();
  library.reset();
  TQuillonPtr<IClient> none = QuillonOwn<IClient>(nullptr);
  EXPECT_FALSE(none);
}

}  // namespace
