#include <gtest/gtest.h>

#include <cmath>

#include "driver/driver_contract.h"

using namespace NSFerrand;

TEST(ChannelBitVector, BitsInWordsAndEquality) {
  CChannelBitVector bits(40);
  EXPECT_EQ(bits.Count(), 40u);
  EXPECT_EQ(bits.SetCount(), 0u);
  bits.Set(0, true);
  bits.Set(33, true);
  EXPECT_TRUE(bits.Get(33));
  EXPECT_FALSE(bits.Get(32));
  EXPECT_EQ(bits.SetCount(), 2u);
  CChannelBitVector same(40);
  same.Set(0, true);
  EXPECT_NE(bits, same);
  same.Set(33, true);
  EXPECT_EQ(bits, same);
  // Equal bits but another count: unequal.
  CChannelBitVector longer = same;
  longer.Resize(41);
  EXPECT_NE(bits, longer);
  EXPECT_TRUE(longer.Get(33));
  EXPECT_FALSE(longer.Get(40));
  longer.Resize(1);
  EXPECT_TRUE(longer.Get(0));
  EXPECT_EQ(CChannelBitVector(), CChannelBitVector(0));
}

TEST(InputMonitorSetting, NotANumberEqualsAnyValue) {
  CInputMonitorSetting a;
  EXPECT_FALSE(a.enabled);
  EXPECT_EQ(a.pan, 0.0f);
  EXPECT_EQ(a.outputPair, 0u);
  EXPECT_EQ(a.gainDb, 0.0f);
  CInputMonitorSetting b = a;
  b.pan = std::nanf("");
  EXPECT_EQ(a, b);
  b.gainDb = -3.0f;
  EXPECT_NE(a, b);
  b.gainDb = std::nanf("");
  EXPECT_EQ(a, b);
  b.outputPair = 1;
  EXPECT_NE(a, b);
  CInputMonitorSetting c = a;
  c.enabled = true;
  EXPECT_NE(a, c);
}

TEST(SoundDriverSettings, DefaultsAndEveryFieldCounts) {
  const CSoundDriverSettings d;
  EXPECT_EQ(d.sampleRate, 44100u);
  EXPECT_EQ(d.bufferFrames, 1024u);
  EXPECT_EQ(d.inputPairs.Count(), 0u);
  EXPECT_EQ(d.clockSource, 0u);
  EXPECT_FALSE(d.monitorsValid);
  EXPECT_TRUE(d.monitors.empty());
  CSoundDriverSettings s = d;
  EXPECT_EQ(s, d);
  s.sampleRate = 48000;
  EXPECT_NE(s, d);
  s = d;
  s.bufferFrames = 512;
  EXPECT_NE(s, d);
  s = d;
  s.outputPairs.Resize(1);
  EXPECT_NE(s, d);
  s = d;
  s.clockSource = 1;
  EXPECT_NE(s, d);
  s = d;
  s.monitorsValid = true;
  EXPECT_NE(s, d);
  s = d;
  s.monitors.resize(2);
  EXPECT_NE(s, d);
}

TEST(OpenSoundDriverInfo, DefaultsWhileNoDriverIsOpen) {
  const COpenSoundDriverInfo info;
  EXPECT_EQ(info.sampleRates, std::vector<uint32_t>{44100});
  EXPECT_EQ(info.bufferSizes, std::vector<uint32_t>{1024});
  EXPECT_EQ(info.clockSourceNames, std::vector<CWideString>{u"Internal"});
  EXPECT_TRUE(info.inputNames.empty());
  EXPECT_TRUE(info.outputNames.empty());
  COpenSoundDriverInfo other = info;
  EXPECT_EQ(other, info);
  other.outputNames.push_back(u"Out");
  EXPECT_NE(other, info);
}

TEST(Latency, IntegerMicroseconds) {
  EXPECT_EQ(LatencyMicroseconds(4096, 44100), 92879);
  EXPECT_EQ(LatencyMicroseconds(1024, 48000), 21333);
  EXPECT_EQ(LatencyMicroseconds(1024, 0), 0);
}
