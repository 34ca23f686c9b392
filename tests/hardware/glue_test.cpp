#include <stdexcept>

#include "hardware/glue.h"
#include "hardware_support.h"

using namespace NSZEPGlue;
using namespace NSMarlet;

namespace {

class CountingConnection final : public IConnectionHandler {
 public:
  void OnConnectionChanged() override {
    ++calls;
    if (raise) raise();
  }
  int calls = 0;
  void (*raise)() = nullptr;
};

class RecordingButton final : public IButtonHandler {
 public:
  void OnButton(ZEPDevice device, uint32_t button) override {
    lastDevice = device;
    lastButton = button;
    if (raise) raise();
  }
  ZEPDevice lastDevice = 0;
  uint32_t lastButton = 0;
  void (*raise)() = nullptr;
};

class GlueTest : public HardwareTest {
 protected:
  void SetUp() override {
    HardwareTest::SetUp();
    PlaceBeside("v1_999_999");
  }
  CountingConnection connection;
  RecordingButton button;
};

TEST_F(GlueTest, CreationConnectsWithBothCallbacksAndDestructionDisposes) {
  {
    CGlueImpl glue(&connection, &button, platform);
    EXPECT_EQ(ZEPFake_Created(), 1);
    EXPECT_EQ(ZEPFake_FireConnection(), 0u);
    EXPECT_EQ(connection.calls, 1);
    EXPECT_EQ(ZEPFake_FireButton(77, 2), 0u);
    EXPECT_EQ(button.lastDevice, 77u);
    EXPECT_EQ(button.lastButton, 2u);
  }
  EXPECT_EQ(ZEPFake_Created(), 0);
  EXPECT_EQ(Log(), (std::vector<std::string>{"load 1.999.999.0", "ZEP_Create 1 0 connection button",
                                             "ZEP_Dispose", "unload 1.999.999.0"}));
}

TEST_F(GlueTest, WithoutHandlersTheLibraryGetsTwoNullCallbacks) {
  CGlueImpl glue(nullptr, nullptr, platform);
  EXPECT_TRUE(Logged("ZEP_Create 1 0 null null"));
  // Nothing registered: an event finds no callback.
  EXPECT_EQ(ZEPFake_FireConnection(), 0xFFFFFFFFu);
}

TEST_F(GlueTest, ASecondGlueIsRefusedAndCallsTheLibraryNoFurther) {
  CGlueImpl glue(&connection, &button, platform);
  const size_t before = Log().size();
  const SFailureSeen seen = FailureOf([&] { CGlueImpl second(nullptr, nullptr, platform); });
  EXPECT_EQ(seen.code, kFailureCode_LogicError_IllegalCallSequence);
  EXPECT_EQ(seen.word, "");
  EXPECT_STREQ(seen.text.c_str(), "Only one instance of CGlueImpl is allowed at any time!");
  EXPECT_EQ(Log().size(), before);
  EXPECT_EQ(ZEPFake_LoadedCopies(), 1);
}

TEST_F(GlueTest, AFailedCreateReleasesTheLibraryWithoutDisposing) {
  ZEPFake_SetResult("ZEP_Create", 1);
  const SFailureSeen seen = FailureOf([&] { CGlueImpl glue(&connection, &button, platform); });
  EXPECT_EQ(seen.code, kFailureCode_RuntimeError_AlreadyExists);
  EXPECT_FALSE(NSPrivate::ZEPLoaderExists());
  EXPECT_EQ(ZEPFake_LoadedCopies(), 0);
  EXPECT_FALSE(Logged("ZEP_Dispose"));
  // And the next glue may come.
  ZEPFake_SetResult("ZEP_Create", 0);
  CGlueImpl glue(&connection, &button, platform);
  EXPECT_EQ(ZEPFake_Created(), 1);
}

TEST_F(GlueTest, AnOpenDeviceKeepsTheLibraryUntilItCloses) {
  ZEPFake_SetDevices("Dev A");
  CGluePtr glue(new CGlueImpl(&connection, &button, platform));
  CSharedDevicePtr device(new CSharedDeviceImpl(glue, "Dev A"));
  EXPECT_EQ(device->GetDeviceName(), "Dev A");
  EXPECT_EQ(device->GetDeviceHandle(), ZEPFake_DeviceHandle("Dev A"));
  glue.reset();
  EXPECT_FALSE(Logged("ZEP_Dispose"));
  // The former glue's library blocks a new glue.
  EXPECT_EQ(FailureOf([&] { CGlueImpl second(nullptr, nullptr, platform); }).code,
            kFailureCode_LogicError_IllegalCallSequence);
  device.reset();
  const int close = Position("ZEP_DeviceClose");
  const int dispose = Position("ZEP_Dispose");
  const int unload = Position("unload");
  ASSERT_GE(close, 0);
  EXPECT_LT(close, dispose);
  EXPECT_LT(dispose, unload);
  EXPECT_EQ(ZEPFake_LoadedCopies(), 0);
}

TEST_F(GlueTest, AnUnknownDeviceNameFailsWithTheLibrarysCode) {
  ZEPFake_SetDevices("Dev A");
  CGluePtr glue(new CGlueImpl(nullptr, nullptr, platform));
  const SFailureSeen seen = FailureOf([&] { CSharedDeviceImpl device(glue, "Dev B"); });
  EXPECT_EQ(seen.code, kFailureCode_RuntimeError_Open);
  EXPECT_FALSE(Logged("ZEP_DeviceClose " + std::to_string(static_cast<ZEPDevice>(-1))));
}

TEST_F(GlueTest, AHandlerThatRaisesGivesTheLibraryACode) {
  CGlueImpl glue(&connection, &button, platform);
  connection.raise = [] { RaiseFailure(XOpen("")); };
  EXPECT_EQ(ZEPFake_FireConnection(), 3u);
  connection.raise = [] { throw std::invalid_argument("x"); };
  EXPECT_EQ(ZEPFake_FireConnection(), 4u);
  connection.raise = [] { throw 7; };
  EXPECT_EQ(ZEPFake_FireConnection(), 9u);
  connection.raise = [] { RaiseFailure(XNotFound(""), "file"); };
  EXPECT_EQ(ZEPFake_FireConnection(),
            NSPrivate::kZEPCodeBase +
                PackFailure(kFailureCode_RuntimeError_NotFound, "file", ProgramTargetWords()));
  button.raise = [] { throw std::bad_alloc(); };
  EXPECT_EQ(ZEPFake_FireButton(1, 1), 8u);
  EXPECT_EQ(connection.calls, 4);
}

TEST_F(GlueTest, WithNoDeviceTheListIsEmptiedAfterOneCall) {
  CGlueImpl glue(nullptr, nullptr, platform);
  std::vector<std::string> names = {"stale"};
  glue.GetCurrentDeviceNames(names);
  EXPECT_TRUE(names.empty());
  EXPECT_EQ(Count("ZEP_GetCurrentDevices"), 1u);
}

TEST_F(GlueTest, TheListHoldsTheConnectedDevicesInOrder) {
  ZEPFake_SetDevices("Dev A\nDev B");
  CGlueImpl glue(nullptr, nullptr, platform);
  std::vector<std::string> names = {"stale"};
  glue.GetCurrentDeviceNames(names);
  EXPECT_EQ(names, (std::vector<std::string>{"Dev A", "Dev B"}));
  EXPECT_EQ(Count("ZEP_GetCurrentDevices"), 2u);
  ZEPFake_SetResult("ZEP_GetCurrentDevices", 8);
  const SFailureSeen seen = FailureOf([&] { glue.GetCurrentDeviceNames(names); });
  EXPECT_EQ(seen.code, kFailureCode_BadAlloc);
  EXPECT_EQ(names.size(), 2u);
}

TEST_F(GlueTest, DeviceOperationsPassThroughWithTheirHandle) {
  ZEPFake_SetDevices("Dev A");
  ZEPFake_SetChannelCount(18);
  ZEPFake_SetPadding(3, 5, -6.5f);
  CGluePtr glue(new CGlueImpl(nullptr, nullptr, platform));
  CSharedDeviceImpl device(glue, "Dev A");
  const std::string handle = std::to_string(device.GetDeviceHandle());
  EXPECT_EQ(device.GetChannelCount(), 18u);
  EXPECT_EQ(device.GetGainSafePaddedChannel(3), 5u);
  EXPECT_FLOAT_EQ(device.GetGainSafePaddingDb(3), -6.5f);
  device.SetGainSafeRoutingEnable(4, true);
  device.SetGainSafeIndicator(2);
  device.SetChannelActiveIndicator(1, false);
  device.SetDirectMonitoring(true);
  EXPECT_EQ(device.GetPreferredSampleRate(), 48000u);
  EXPECT_EQ(device.GetPreferredBufferSize(), 256u);
  EXPECT_TRUE(Logged("ZEP_GetDeviceChannelGainSafePaddedChannel " + handle + " 3"));
  EXPECT_TRUE(Logged("ZEP_GetDeviceChannelGainSafePaddingDB " + handle + " 3"));
  EXPECT_TRUE(Logged("ZEP_SetDeviceChannelGainSafeRoutingEnable " + handle + " 4 1"));
  EXPECT_TRUE(Logged("ZEP_SetDeviceGainSafeIndicator " + handle + " 2"));
  EXPECT_TRUE(Logged("ZEP_SetDeviceChannelActiveIndicator " + handle + " 1 0"));
  EXPECT_TRUE(Logged("ZEP_SetDirectMonitoring " + handle + " 1"));
  ZEPFake_SetResult("ZEP_SetDeviceGainSafeIndicator", 7);
  EXPECT_EQ(FailureOf([&] { device.SetGainSafeIndicator(1); }).code,
            kFailureCode_LogicError_OutOfRange);
}

TEST_F(GlueTest, OnlyAControlPanelAnswerOfOneIsYes) {
  ZEPFake_SetDevices("Dev A");
  CGluePtr glue(new CGlueImpl(nullptr, nullptr, platform));
  CSharedDeviceImpl device(glue, "Dev A");
  ZEPFake_SetControlPanelAnswer(1);
  EXPECT_TRUE(device.HasControlPanel());
  ZEPFake_SetControlPanelAnswer(2);
  EXPECT_FALSE(device.HasControlPanel());
  ZEPFake_SetControlPanelAnswer(0);
  EXPECT_FALSE(device.HasControlPanel());
}

TEST_F(GlueTest, CloseAndDisposeResultsAreIgnored) {
  ZEPFake_SetDevices("Dev A");
  ZEPFake_SetResult("ZEP_DeviceClose", 6);
  ZEPFake_SetResult("ZEP_Dispose", 6);
  {
    CGluePtr glue(new CGlueImpl(nullptr, nullptr, platform));
    CSharedDeviceImpl device(glue, "Dev A");
  }
  EXPECT_TRUE(Logged("ZEP_Dispose"));
  EXPECT_EQ(ZEPFake_LoadedCopies(), 0);
}

TEST_F(GlueTest, AnOlderLibraryFailsOnlyAtTheMissingOperation) {
  ZEPFake_SetDevices("Dev A");
  PlaceBeside("old");
  CGluePtr glue(new CGlueImpl(nullptr, nullptr, platform));
  CSharedDeviceImpl device(glue, "Dev A");
  device.SetGainSafeIndicator(0);
  const SFailureSeen seen = FailureOf([&] { device.SetDirectMonitoring(false); });
  EXPECT_EQ(seen.code, kFailureCode_RuntimeError_NotFound);
  EXPECT_EQ(seen.word, "symbol");
}

TEST_F(GlueTest, TestCommandAndVersionPassThrough) {
  {
    CGlueImpl glue(nullptr, nullptr, platform);
    ZEPTestCommand(glue, 5, 1, 2, 3, -4);
    EXPECT_TRUE(Logged("ZEP_TestCommand 5 1 2 3 -4"));
    ZEPFake_SetResult("ZEP_TestCommand", 4);
    EXPECT_EQ(FailureOf([&] { ZEPTestCommand(glue, 0, 0, 0, 0, 0); }).code,
              kFailureCode_LogicError_InvalidArgument);
  }
  ZEPGetVersion(platform, 10, 20);
  EXPECT_TRUE(Logged("ZEP_GetVersion 10 20"));
  // The version query holds the library for its own call alone.
  EXPECT_EQ(ZEPFake_LoadedCopies(), 0);
}

}  // namespace
