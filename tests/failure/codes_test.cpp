#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "failure/failure_codes.h"

using namespace NSMarlet;

TEST(FailureCodes, NameTableServesBothWaysForAll39Codes) {
  std::set<std::string> names;
  for (uint32_t code = kFailureCode_UndefinedException; code < kFailureCode_EndMark; ++code) {
    const std::string name = FailureCodeName(code);
    ASSERT_FALSE(name.empty()) << code;
    EXPECT_EQ(FailureCodeFromName(name.c_str()), code) << name;
    names.insert(name);
  }
  EXPECT_EQ(names.size(), 39u);
  EXPECT_STREQ(FailureCodeName(kFailureCode_RuntimeError_Open), "kFailureCode_RuntimeError_Open");
  EXPECT_EQ(FailureCodeFromName("kFailureCode_RuntimeError_NotReady"), 39u);
}

TEST(FailureCodes, NoNameOutsideTheTable) {
  EXPECT_STREQ(FailureCodeName(4), "");
  EXPECT_STREQ(FailureCodeName(kFailureCode_EndMark), "");
  EXPECT_STREQ(FailureCodeName(0), "");
  EXPECT_EQ(FailureCodeFromName("kFailureCode_Nothing"), 0u);
  EXPECT_EQ(FailureCodeFromName(nullptr), 0u);
}

TEST(FailureCodes, FixedTargetWordsKeepTheirIndex) {
  EXPECT_STREQ(kFixedTargetWords[0], "range");
  EXPECT_STREQ(kFixedTargetWords[5], "dll");
  EXPECT_STREQ(kFixedTargetWords[6], "disk");
  EXPECT_STREQ(kFixedTargetWords[10], "driver");
  EXPECT_STREQ(kFixedTargetWords[21], "authentication");
  EXPECT_STREQ(kFixedTargetWords[29], "unicode");
  EXPECT_STREQ(kFixedTargetWords[31], "directory");
  EXPECT_STREQ(TargetWordDisk(), "disk");
  EXPECT_STREQ(TargetWordUnicode(), "unicode");
  EXPECT_STREQ(TargetWordFileHandle(), "file_handle");
  EXPECT_STREQ(TargetWordAudioDriver(), "audio_driver");
  for (const char* word : kFixedTargetWords) {
    EXPECT_NE(std::strcmp(word, TargetWordAudioDriver()), 0);
    EXPECT_LE(std::strlen(word), kTargetWordLength);
  }
  EXPECT_EQ(ProgramTargetWords().count, 0u);
}

TEST(FailureCodes, ParameterKeys) {
  EXPECT_STREQ(kParamTargetObjectType, "target_object_type");
  EXPECT_STREQ(kParamTargetObjectId, "target_object_id");
  EXPECT_STREQ(kParamErrorCode, "error_code");
  EXPECT_STREQ(kParamErrorString, "error_string");
  EXPECT_STREQ(kParamVersionNumber, "version_number");
  EXPECT_STREQ(kParamVersionString, "version_string");
  EXPECT_STREQ(kParamSecondaryObjectType, "secondary_object_type");
  EXPECT_STREQ(kParamSecondaryObjectId, "secondary_object_id");
}
