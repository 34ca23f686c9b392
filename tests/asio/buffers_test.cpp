#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>

#include "asio/asio_buffers.h"
#include "asio_support.h"

using namespace NSASIO;
using NSFerrand::CChannelBitVector;

namespace {

CChannelBitVector Pairs(std::initializer_list<int> bits, uint64_t count) {
  CChannelBitVector pairs(count);
  for (int bit : bits) pairs.Set(static_cast<uint64_t>(bit), true);
  return pairs;
}

class BuffersTest : public ASIOTest {
 protected:
  std::shared_ptr<Fakes::SFakeASIODevice> Initialised(int32_t inputs, int32_t outputs) {
    auto device = Add(u"Fake", 1);
    device->inputs = inputs;
    device->outputs = outputs;
    Load();
    EXPECT_TRUE(driverList->LoadDriverByName(u"Fake"));
    ASIODriverInfo info;
    std::memset(&info, 0, sizeof info);
    EXPECT_EQ(ASIOInit(info), ASE_OK);
    asioState = kASIOStateInitialised;
    return device;
  }
  ASIOCallbacks callbacks = {};
};

TEST_F(BuffersTest, EightByEightWithSomePairsActive) {
  auto device = Initialised(8, 8);
  CASIOBufferSet set(&callbacks, 64, Pairs({1, 3}, 4), Pairs({0}, 4));
  EXPECT_EQ(asioState, kASIOStatePrepared);
  EXPECT_EQ(set.InputSlots(),
            (std::vector<uint16_t>{65535, 65535, 0, 1, 65535, 65535, 2, 3}));
  EXPECT_EQ(set.OutputSlots(),
            (std::vector<uint16_t>{4, 5, 65535, 65535, 65535, 65535, 65535, 65535}));
  EXPECT_EQ(set.MapMonitorOutput(0), 0);
  ASSERT_EQ(set.BufferInfos().size(), 6u);
  const int32_t channels[6] = {2, 3, 6, 7, 0, 1};
  for (size_t i = 0; i < 6; ++i) {
    EXPECT_EQ(set.BufferInfos()[i].channelNum, channels[i]) << i;
    EXPECT_EQ(set.BufferInfos()[i].isInput, i < 4 ? 1 : 0) << i;
    EXPECT_NE(set.BufferInfos()[i].buffers[0], nullptr);
  }
  for (size_t c = 0; c < 8; ++c) {
    EXPECT_EQ(set.InputTypes()[c] == kNoSampleType, set.InputSlots()[c] == kNoSlot) << c;
    EXPECT_EQ(set.InputChannels()[c] == nullptr, set.InputSlots()[c] == kNoSlot) << c;
  }
  EXPECT_EQ(set.InputTypes()[2], static_cast<uint32_t>(ASIOSTInt32LSB));
  EXPECT_EQ(device->Log().back(), "createBuffers 6 64");
}

TEST_F(BuffersTest, MonitorOutputsCountFromTheActiveOutputs) {
  Initialised(4, 8);
  CASIOBufferSet set(&callbacks, 32, Pairs({0, 1}, 2), Pairs({1, 3}, 4));
  // Inputs take slots 0 to 3; outputs 2, 3, 6, 7 take 4 to 7.
  EXPECT_EQ(set.MapMonitorOutput(2), 0);
  EXPECT_EQ(set.MapMonitorOutput(6), 2);
  EXPECT_EQ(set.MapMonitorOutput(0), static_cast<uint16_t>(65535 - 4));
  EXPECT_EQ(set.MapMonitorOutput(1000), static_cast<uint16_t>(65535 - 4));
}

TEST_F(BuffersTest, WithoutInputsTheSlotIsTheNumber) {
  Initialised(0, 4);
  CASIOBufferSet set(&callbacks, 32, CChannelBitVector(), Pairs({1}, 2));
  EXPECT_TRUE(set.InputSlots().empty());
  EXPECT_EQ(set.MapMonitorOutput(2), 0);
  EXPECT_EQ(set.MapMonitorOutput(0), 65535);
}

TEST_F(BuffersTest, SilenceGoesThroughEachChannelsOwnFormat) {
  auto device = Initialised(0, 4);
  device->outputTypes = {ASIOSTInt24LSB, ASIOSTInt24LSB, ASIOSTFloat64LSB, ASIOSTFloat64LSB};
  CASIOBufferSet set(&callbacks, 16, CChannelBitVector(), Pairs({0, 1}, 2));
  set.FillOutputSilence();
  auto* live = device->Live();
  for (int half = 0; half < 2; ++half) {
    const auto* int24 = static_cast<const uint8_t*>(live->Buffer(0, half));
    for (int b = 0; b < 48; ++b) EXPECT_EQ(int24[b], 0) << b;
    const auto* float64 = static_cast<const uint8_t*>(live->Buffer(2, half));
    for (int b = 0; b < 128; ++b) EXPECT_EQ(float64[b], 0xA5) << b;
  }
}

TEST_F(BuffersTest, ANullBufferFromTheDriverFailsTheOpenWithoutADisposal) {
  auto device = Initialised(2, 2);
  device->nullBufferAt = 1;
  EXPECT_EQ(FailureCodeOf([&] {
              CASIOBufferSet set(&callbacks, 64, Pairs({0}, 1), Pairs({0}, 1));
            }),
            static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError_Open));
  EXPECT_EQ(asioState, kASIOStateInitialised);
  DisposeIfPrepared();
  EXPECT_EQ(device->Calls(Fakes::kAsioDisposeBuffers), 0u);
}

TEST_F(BuffersTest, CreateBuffersAnswersBecomeFailures) {
  auto device = Initialised(2, 2);
  const struct {
    ASIOError answer;
    uint32_t code;
  } cases[] = {{ASE_InvalidMode, NSMarlet::kFailureCode_RuntimeError_Open},
               {ASE_NoMemory, NSMarlet::kFailureCode_BadAlloc},
               {ASE_NotPresent, NSMarlet::kFailureCode_RuntimeError_Open},
               {ASE_HWMalfunction, NSMarlet::kFailureCode_RuntimeError_Open},
               {ASE_InvalidParameter, NSMarlet::kFailureCode_RuntimeError_Open},
               {12345, NSMarlet::kFailureCode_RuntimeError_Open}};
  for (const auto& c : cases) {
    device->Fail(Fakes::kAsioCreateBuffers, c.answer, 1);
    std::string text;
    EXPECT_EQ(FailureCodeOf([&] {
                try {
                  CASIOBufferSet set(&callbacks, 64, Pairs({0}, 1), Pairs({0}, 1));
                } catch (const std::exception& e) {
                  text = e.what();
                  throw;
                }
              }),
              c.code)
        << c.answer;
    EXPECT_EQ(text, c.answer == ASE_NoMemory ? "bad allocation" : "") << c.answer;
    EXPECT_EQ(asioState, kASIOStateInitialised);
  }
}

TEST_F(BuffersTest, SizesOfNoFramesOrAbsurdlyManyAreRefusedBeforeTheDriverIsAsked) {
  auto device = Initialised(2, 2);
  for (int32_t frames : {0, -64, kMaxBufferFrames + 1, INT32_MAX}) {
    EXPECT_EQ(FailureCodeOf([&] {
                CASIOBufferSet set(&callbacks, frames, Pairs({0}, 1), Pairs({0}, 1));
              }),
              static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError_Open))
        << frames;
  }
  EXPECT_EQ(device->Calls(Fakes::kAsioCreateBuffers), 0u);
  CASIOBufferSet set(&callbacks, kMaxBufferFrames, CChannelBitVector(), Pairs({0}, 1));
  EXPECT_EQ(set.Frames(), kMaxBufferFrames);
}

TEST_F(BuffersTest, ChannelCountsMustBeEvenAndGiven) {
  auto device = Initialised(3, 2);
  int32_t inputs = 0, outputs = 0;
  EXPECT_EQ(FailureCodeOf([&] { ReadChannelCounts(inputs, outputs); }),
            static_cast<uint32_t>(NSMarlet::kFailureCode_Exception));
  device->inputs = 2;
  device->outputs = 5;
  EXPECT_EQ(FailureCodeOf([&] { ReadChannelCounts(inputs, outputs); }),
            static_cast<uint32_t>(NSMarlet::kFailureCode_Exception));
  device->outputs = -2;
  EXPECT_EQ(FailureCodeOf([&] { ReadChannelCounts(inputs, outputs); }),
            static_cast<uint32_t>(NSMarlet::kFailureCode_Exception));
  device->outputs = 4;
  device->Fail(Fakes::kAsioGetChannels, ASE_HWMalfunction, 1);
  EXPECT_EQ(FailureCodeOf([&] { ReadChannelCounts(inputs, outputs); }),
            static_cast<uint32_t>(NSMarlet::kFailureCode_Exception));
  ReadChannelCounts(inputs, outputs);
  EXPECT_EQ(inputs, 2);
  EXPECT_EQ(outputs, 4);
  device->Fail(Fakes::kAsioGetChannelInfo, ASE_HWMalfunction, 1);
  EXPECT_EQ(FailureCodeOf([&] {
              CASIOBufferSet set(&callbacks, 64, Pairs({0}, 1), Pairs({0}, 2));
            }),
            static_cast<uint32_t>(NSMarlet::kFailureCode_Exception));
}

// A refusal of the driver or a count that is not in pairs raises a plain
// failure with no text; a count beyond what a host can be given (256 pairs)
// is a driver that cannot be opened.
TEST_F(BuffersTest, ChannelCountsAreBoundedAndRefusalsCarryNoText) {
  auto device = Initialised(3, 2);
  int32_t inputs = 0, outputs = 0;
  SRaised raised = RaisedBy([&] { ReadChannelCounts(inputs, outputs); });
  EXPECT_EQ(raised.code, static_cast<uint32_t>(NSMarlet::kFailureCode_Exception));
  EXPECT_EQ(raised.text, "");
  device->inputs = 2;
  device->Fail(Fakes::kAsioGetChannels, ASE_HWMalfunction, 1);
  raised = RaisedBy([&] { ReadChannelCounts(inputs, outputs); });
  EXPECT_EQ(raised.code, static_cast<uint32_t>(NSMarlet::kFailureCode_Exception));
  EXPECT_EQ(raised.text, "");
  device->Fail(Fakes::kAsioGetChannelInfo, ASE_HWMalfunction, 1);
  raised = RaisedBy([&] { CASIOBufferSet set(&callbacks, 64, Pairs({0}, 1), Pairs({0}, 1)); });
  EXPECT_EQ(raised.code, static_cast<uint32_t>(NSMarlet::kFailureCode_Exception));
  EXPECT_EQ(raised.text, "");
  for (int32_t count : {514, 0x7FFFFFFE}) {
    for (bool input : {true, false}) {
      device->inputs = input ? count : 2;
      device->outputs = input ? 2 : count;
      raised = RaisedBy([&] { ReadChannelCounts(inputs, outputs); });
      EXPECT_EQ(raised.code, static_cast<uint32_t>(NSMarlet::kFailureCode_RuntimeError_Open))
          << count;
      EXPECT_EQ(raised.word, "audio_driver") << count;
    }
  }
  device->inputs = 512;
  device->outputs = 512;
  ReadChannelCounts(inputs, outputs);
  EXPECT_EQ(inputs, 512);
  EXPECT_EQ(outputs, 512);
}

TEST_F(BuffersTest, ConversionsUseTheHalfTheDriverNames) {
  auto device = Initialised(2, 2);
  device->defaultType = ASIOSTFloat32LSB;
  CASIOBufferSet set(&callbacks, 4, Pairs({0}, 1), Pairs({0}, 1));
  auto* live = device->Live();
  static_cast<float*>(live->Buffer(0, 1))[0] = 0.75f;
  set.ConvertInputs(1, 4);
  EXPECT_EQ(set.InputChannels()[0][0], 0.75f);
  for (int f = 0; f < 4; ++f) set.OutputChannels()[1][f] = -0.25f;
  set.ConvertOutputs(0, 4);
  EXPECT_EQ(static_cast<float*>(live->Buffer(3, 0))[3], -0.25f);
  // Any other number is taken as the second half, never outside the two.
  set.ConvertOutputs(7, 4);
  EXPECT_EQ(static_cast<float*>(live->Buffer(3, 1))[0], -0.25f);
}

// The bytes one sample becomes, and the float the driver's bytes give.
struct SCase {
  float value;
  std::vector<uint8_t> bytes;
};

void ExpectToDriver(uint32_t type, const std::vector<SCase>& cases) {
  for (const SCase& c : cases) {
    uint8_t buffer[8];
    std::memset(buffer, 0xEE, sizeof buffer);
    ToDriverFormat(&c.value, buffer, type, 1);
    EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + c.bytes.size()), c.bytes)
        << "type " << type << " value " << c.value;
    EXPECT_EQ(buffer[c.bytes.size()], 0xEE) << "type " << type;
  }
}

void ExpectFromDriver(uint32_t type, std::vector<uint8_t> bytes, float expected,
                      std::vector<uint8_t> afterwards) {
  float value = 99.0f;
  FromDriverFormat(bytes.data(), type, &value, 1);
  EXPECT_EQ(value, expected) << "type " << type;
  EXPECT_EQ(bytes, afterwards) << "type " << type << ": the swap is in place";
}

const float kNaN = std::numeric_limits<float>::quiet_NaN();

TEST_F(BuffersTest, SixteenBitTypes) {
  const std::vector<SCase> lsb = {{1.0f, {0xFF, 0x7F}},  {-1.0f, {0x01, 0x80}},
                                  {0.5f, {0xFF, 0x3F}},  {1.5f, {0xFE, 0xBF}},
                                  {kNaN, {0x00, 0x00}},  {FLT_MAX, {0x00, 0x00}},
                                  {0.0f, {0x00, 0x00}}};
  ExpectToDriver(ASIOSTInt16LSB, lsb);
  std::vector<SCase> msb = lsb;
  for (SCase& c : msb) std::swap(c.bytes[0], c.bytes[1]);
  ExpectToDriver(ASIOSTInt16MSB, msb);
  ExpectFromDriver(ASIOSTInt16LSB, {0xFF, 0x7F}, 32767.0f / 32768.0f, {0xFF, 0x7F});
  ExpectFromDriver(ASIOSTInt16LSB, {0x00, 0x80}, -1.0f, {0x00, 0x80});
  ExpectFromDriver(ASIOSTInt16MSB, {0x7F, 0xFF}, 32767.0f / 32768.0f, {0xFF, 0x7F});
  ExpectFromDriver(ASIOSTInt16MSB, {0x80, 0x00}, -1.0f, {0x00, 0x80});
}

TEST_F(BuffersTest, TwentyFourBitTypes) {
  const std::vector<SCase> lsb = {{1.0f, {0xFF, 0xFF, 0x7F}}, {-1.0f, {0x01, 0x00, 0x80}},
                                  {0.5f, {0xFF, 0xFF, 0x3F}}, {1.5f, {0xFE, 0xFF, 0xBF}},
                                  {kNaN, {0x00, 0x00, 0x00}}, {-FLT_MAX, {0x00, 0x00, 0x00}}};
  ExpectToDriver(ASIOSTInt24LSB, lsb);
  std::vector<SCase> msb = lsb;
  for (SCase& c : msb) std::swap(c.bytes[0], c.bytes[2]);
  ExpectToDriver(ASIOSTInt24MSB, msb);
  ExpectFromDriver(ASIOSTInt24LSB, {0xFF, 0xFF, 0x7F}, 8388607.0f / 8388608.0f,
                   {0xFF, 0xFF, 0x7F});
  ExpectFromDriver(ASIOSTInt24MSB, {0x80, 0x00, 0x00}, -1.0f, {0x00, 0x00, 0x80});
}

TEST_F(BuffersTest, ThirtyTwoBitTypes) {
  const std::vector<SCase> lsb = {
      {1.0f, {0xFF, 0xFF, 0xFF, 0x7F}}, {-1.0f, {0x01, 0x00, 0x00, 0x80}},
      {0.5f, {0xFF, 0xFF, 0xFF, 0x3F}}, {1.5f, {0x00, 0x00, 0x00, 0x80}},
      {kNaN, {0x00, 0x00, 0x00, 0x80}}, {FLT_MAX, {0x00, 0x00, 0x00, 0x80}}};
  ExpectToDriver(ASIOSTInt32LSB, lsb);
  std::vector<SCase> msb = lsb;
  for (SCase& c : msb) std::reverse(c.bytes.begin(), c.bytes.end());
  ExpectToDriver(ASIOSTInt32MSB, msb);
  ExpectFromDriver(ASIOSTInt32LSB, {0xFF, 0xFF, 0xFF, 0x7F}, 1.0f, {0xFF, 0xFF, 0xFF, 0x7F});
  ExpectFromDriver(ASIOSTInt32MSB, {0x80, 0x00, 0x00, 0x00}, -1.0f, {0x00, 0x00, 0x00, 0x80});
}

TEST_F(BuffersTest, ShiftedThirtyTwoBitTypes) {
  // Each keeps its top bits, shifted down with the sign.
  const struct {
    uint32_t lsb;
    uint32_t msb;
    uint32_t one;
    uint32_t minusOne;
    uint32_t half;
    float bottom;  // 1 in the lowest kept bit, as a float
  } kinds[] = {{ASIOSTInt32LSB16, ASIOSTInt32MSB16, 0x7FFF, 0xFFFF8000u, 0x3FFF, 1.0f / 32768},
               {ASIOSTInt32LSB18, ASIOSTInt32MSB18, 0x1FFFF, 0xFFFE0000u, 0xFFFF, 1.0f / 131072},
               {ASIOSTInt32LSB20, ASIOSTInt32MSB20, 0x7FFFF, 0xFFF80000u, 0x3FFFF,
                1.0f / 524288},
               {ASIOSTInt32LSB24, ASIOSTInt32MSB24, 0x7FFFFF, 0xFF800000u, 0x3FFFFF,
                1.0f / 8388608}};
  auto bytes = [](uint32_t v, bool swap) {
    std::vector<uint8_t> b = {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8),
                              static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 24)};
    if (swap) std::reverse(b.begin(), b.end());
    return b;
  };
  for (const auto& k : kinds) {
    for (bool swap : {false, true}) {
      ExpectToDriver(swap ? k.msb : k.lsb, {{1.0f, bytes(k.one, swap)},
                                            {-1.0f, bytes(k.minusOne, swap)},
                                            {0.5f, bytes(k.half, swap)},
                                            {kNaN, bytes(k.minusOne, swap)},
                                            {1.5f, bytes(k.minusOne, swap)}});
      ExpectFromDriver(swap ? k.msb : k.lsb, bytes(k.minusOne, swap), -1.0f,
                       bytes(k.minusOne, false));
      ExpectFromDriver(swap ? k.msb : k.lsb, bytes(1, swap), k.bottom, bytes(1, false));
    }
  }
}

TEST_F(BuffersTest, FloatTypeIsCopied) {
  ExpectToDriver(ASIOSTFloat32LSB, {{1.5f, {0x00, 0x00, 0xC0, 0x3F}},
                                    {-1.0f, {0x00, 0x00, 0x80, 0xBF}}});
  ExpectFromDriver(ASIOSTFloat32LSB, {0x00, 0x00, 0xC0, 0x3F}, 1.5f, {0x00, 0x00, 0xC0, 0x3F});
}

TEST_F(BuffersTest, RefusedTypesLeaveBothSidesAlone) {
  for (uint32_t type : {3u, 4u, 20u, 5u, 21u, 28u, 666u, 0xFFFFFFFFu}) {
    const float source[2] = {0.5f, -0.5f};
    uint8_t driver[16];
    std::memset(driver, 0x5A, sizeof driver);
    ToDriverFormat(source, driver, type, 2);
    for (uint8_t b : driver) EXPECT_EQ(b, 0x5A) << type;
    float floats[2] = {7.0f, 8.0f};
    FromDriverFormat(driver, type, floats, 2);
    EXPECT_EQ(floats[0], 7.0f) << type;
    EXPECT_EQ(floats[1], 8.0f) << type;
    for (uint8_t b : driver) EXPECT_EQ(b, 0x5A) << type;
  }
}

}  // namespace
