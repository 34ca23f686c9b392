// Every driver operation that can fail, with every kind of failure: the
// handle survives, serves what it had, and pays silence.
#include <gtest/gtest.h>

#include "failure/report.h"
#include "handle/handle_support.h"

using namespace NSFerrand;
using Fakes::EOperation;

namespace {

struct SCase {
  EOperation operation;
  uint32_t failureCode;  // 1: a std::runtime_error, 5: an int
};

std::string CaseName(const ::testing::TestParamInfo<SCase>& info) {
  return std::string(Fakes::OperationName(info.param.operation)) + "_" +
         std::to_string(info.param.failureCode);
}

class HandleFailureTest : public HandleTest, public ::testing::WithParamInterface<SCase> {
 protected:
  void SetUp() override { HandleTest::SetUp(); }
  void TearDown() override { HandleTest::TearDown(); }
};

// Calls the handle's operation that reaches the driver's one.
void CallThrough(COpenSoundDriverHandle& handle, EOperation operation) {
  CSoundDriverSettings s;
  COpenSoundDriverInfo info;
  switch (operation) {
    case Fakes::kGetSettings: handle.ReadDriverSettings(s); break;
    case Fakes::kGetDriverInfo: handle.ReadDriverInfo(info); break;
    case Fakes::kGetInputLatency: handle.GetInputLatency(); break;
    case Fakes::kGetOutputLatency: handle.GetOutputLatency(); break;
    case Fakes::kCanMonitorInputs: handle.CanMonitorInputs(); break;
    case Fakes::kHasControlPanel: handle.HasControlPanel(); break;
    case Fakes::kShowControlPanel: handle.ShowControlPanel(); break;
    case Fakes::kApplySettings:
      handle.ReadDriverSettings(s);
      s.bufferFrames = 64;
      handle.ApplyDriverSettings(s);
      break;
    case Fakes::kTakeSettingsChanged: handle.TakeHandleSettingsChanged(); break;
    default: FAIL() << "not a guarded operation";
  }
}

}  // namespace

TEST_P(HandleFailureTest, AGuardedOperationThatFailsLeavesTheHandleSilent) {
  auto handle = std::unique_ptr<COpenSoundDriverHandle>(
      new COpenSoundDriverHandle(registered, &renderer, nullptr));
  ASSERT_EQ(handle->State(), kDriverOpen);
  CSoundDriverSettings settingsBefore;
  handle->ReadDriverSettings(settingsBefore);
  COpenSoundDriverInfo infoBefore;
  handle->ReadDriverInfo(infoBefore);
  const int64_t inputBefore = handle->GetInputLatency();
  const int64_t outputBefore = handle->GetOutputLatency();

  control->Raise(GetParam().operation, GetParam().failureCode);
  CallThrough(*handle, GetParam().operation);

  EXPECT_TRUE(handle->IsDriverLost());
  EXPECT_EQ(control->openDrivers.load(), 0);
  // The cached values are served on.
  CSoundDriverSettings settingsAfter;
  handle->ReadDriverSettings(settingsAfter);
  COpenSoundDriverInfo infoAfter;
  handle->ReadDriverInfo(infoAfter);
  if (GetParam().operation != Fakes::kApplySettings) {
    EXPECT_EQ(settingsAfter, settingsBefore);
  }
  EXPECT_EQ(infoAfter, infoBefore);
  EXPECT_EQ(handle->GetInputLatency(), inputBefore);
  EXPECT_EQ(handle->GetOutputLatency(), outputBefore);
  EXPECT_FALSE(handle->CanMonitorInputs());
  EXPECT_FALSE(handle->HasControlPanel());
  // And the silent thread pays 5120-frame blocks with empty lists.
  EXPECT_TRUE(SilentBlocksFlow());
  EXPECT_EQ(renderer.oddBlocks.load(), 0u);
  // A switch brings it back.
  control->Succeed(GetParam().operation);
  handle->SwitchDriver(registered, nullptr);
  EXPECT_EQ(handle->State(), kDriverOpen);
}

// The reads that follow every opening.
class HandleRefreshFailureTest : public HandleFailureTest {};

TEST_P(HandleRefreshFailureTest, ARefreshThatFailsAtOpeningLeavesTheHandleSilent) {
  control->Raise(GetParam().operation, GetParam().failureCode);
  auto handle = std::unique_ptr<COpenSoundDriverHandle>(
      new COpenSoundDriverHandle(registered, &renderer, nullptr));
  EXPECT_TRUE(handle->IsDriverLost());
  EXPECT_EQ(control->openDrivers.load(), 0);
  EXPECT_TRUE(SilentBlocksFlow());
}

class HandleCheckAliveFailureTest : public HandleFailureTest {};

TEST_P(HandleCheckAliveFailureTest, CheckAliveThatFailsRaisesNotReadyAfterGoingSilent) {
  auto handle = std::unique_ptr<COpenSoundDriverHandle>(
      new COpenSoundDriverHandle(registered, &renderer, nullptr));
  control->Raise(Fakes::kCheckAlive, GetParam().failureCode);
  try {
    handle->PollDriver();
    ADD_FAILURE() << "no failure";
  } catch (const NSMarlet::XNotReady& e) {
    EXPECT_TRUE(NSMarlet::TargetObjectTypeIs(NSMarlet::BodyFromException(&e, {}), "audio_driver"));
    std::u16string detail;
    NSMarlet::GetParameterText(NSMarlet::BodyFromException(&e, {}), NSMarlet::kParamErrorString,
                               detail);
    if (GetParam().failureCode == 1) {
      EXPECT_EQ(detail, u"fake");
    }
    if (GetParam().failureCode == 5) {
      EXPECT_EQ(detail, u"<nil>");
    }
  }
  EXPECT_TRUE(handle->IsDriverLost());
  EXPECT_TRUE(SilentBlocksFlow());
}

namespace {

// Each operation with failures of every kind: runtime, not-ready, open,
// memory, a foreign standard exception, and no exception class at all.
std::vector<SCase> Cases(std::initializer_list<EOperation> operations) {
  std::vector<SCase> cases;
  for (EOperation op : operations) {
    for (uint32_t code : {17u, 39u, 30u, 16u, 1u, 5u}) cases.push_back(SCase{op, code});
  }
  return cases;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(
    EveryOperation, HandleFailureTest,
    ::testing::ValuesIn(Cases({Fakes::kGetSettings, Fakes::kGetDriverInfo,
                               Fakes::kGetInputLatency, Fakes::kGetOutputLatency,
                               Fakes::kCanMonitorInputs, Fakes::kHasControlPanel,
                               Fakes::kShowControlPanel, Fakes::kApplySettings,
                               Fakes::kTakeSettingsChanged})),
    CaseName);
INSTANTIATE_TEST_SUITE_P(EveryRead, HandleRefreshFailureTest,
                         ::testing::ValuesIn(Cases({Fakes::kGetSettings, Fakes::kGetDriverInfo,
                                                    Fakes::kGetInputLatency,
                                                    Fakes::kGetOutputLatency})),
                         CaseName);
INSTANTIATE_TEST_SUITE_P(EveryKind, HandleCheckAliveFailureTest,
                         ::testing::ValuesIn(Cases({Fakes::kCheckAlive})), CaseName);

TEST_F(HandleTest, TheDeviceQuestionsAreNotGuarded) {
  auto handle = std::unique_ptr<COpenSoundDriverHandle>(
      new COpenSoundDriverHandle(registered, &renderer, nullptr));
  control->Raise(Fakes::kHasHardwareDevice, 17);
  EXPECT_THROW(handle->HasHardwareDevice(), std::runtime_error);
  control->Raise(Fakes::kGetHardwareDevice, 17);
  EXPECT_THROW(handle->GetHardwareDevice(), std::runtime_error);
  EXPECT_EQ(handle->State(), kDriverOpen);
  handle->EnterSilentMode();
  EXPECT_FALSE(handle->HasHardwareDevice());
  EXPECT_EQ(handle->GetHardwareDevice(), nullptr);
}

TEST_F(HandleTest, AnOpenThatBlocksStillEndsOpen) {
  control->Of(Fakes::kOpenWithDefaults).blockMs = 300;
  auto handle = std::unique_ptr<COpenSoundDriverHandle>(
      new COpenSoundDriverHandle(registered, &renderer, nullptr));
  EXPECT_EQ(handle->State(), kDriverOpen);
}
