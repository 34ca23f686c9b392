#include "public/client_settings.h"

#include <cstring>

namespace NSQuillon2 {

using NSFerrand::CChannelBitVector;
using NSFerrand::CInputMonitorSetting;
using NSFerrand::CSoundDriverSettings;

namespace {

constexpr size_t kPairs = 256;
constexpr size_t kMonitors = 512;

CChannelBitVector PairsOf(const uint8_t (&enabled)[kPairs]) {
  CChannelBitVector pairs;
  for (size_t p = 0; p < kPairs; ++p) {
    if (enabled[p] == 0) continue;
    pairs.Resize(p + 1);
    pairs.Set(p, true);
  }
  return pairs;
}

void SetFrom(CInputMonitorSetting& monitor, const SMonitorEntry& entry) {
  monitor.enabled = entry.enabled == 1;
  monitor.pan = entry.pan;
  monitor.outputPair = entry.outputPair;
  monitor.gainDb = entry.gainDb;
}

void Merge(CChannelBitVector& pairs, const uint8_t (&enabled)[kPairs]) {
  for (uint64_t p = 0; p < pairs.Count() && p < kPairs; ++p) pairs.Set(p, enabled[p] == 1);
}

void Flatten(const CChannelBitVector& pairs, uint8_t (&enabled)[kPairs]) {
  for (uint64_t p = 0; p < pairs.Count() && p < kPairs; ++p) enabled[p] = pairs.Get(p) ? 1 : 0;
}

}  // namespace

bool IsSoundRecord(const SClientSettings& flat) {
  if (flat.sampleRate == 0 || flat.bufferFrames == 0) return false;
  for (size_t p = 0; p < kPairs; ++p) {
    if (flat.inputPairEnabled[p] > 1 || flat.outputPairEnabled[p] > 1) return false;
  }
  return true;
}

CSoundDriverSettings MakeDriverSettings(const SClientSettings& flat) {
  CSoundDriverSettings settings;
  settings.sampleRate = flat.sampleRate;
  settings.bufferFrames = flat.bufferFrames;
  settings.clockSource = flat.clockSource;
  settings.monitorsValid = flat.monitorsValid != 0;
  settings.inputPairs = PairsOf(flat.inputPairEnabled);
  settings.outputPairs = PairsOf(flat.outputPairEnabled);
  const size_t monitors = static_cast<size_t>(settings.inputPairs.Count()) * 2;
  settings.monitors.resize(monitors);
  for (size_t m = 0; m < monitors && m < kMonitors; ++m) SetFrom(settings.monitors[m], flat.monitors[m]);
  return settings;
}

void MergeClientSettings(const SClientSettings& flat, CSoundDriverSettings& settings) {
  settings.sampleRate = flat.sampleRate;
  settings.bufferFrames = flat.bufferFrames;
  Merge(settings.inputPairs, flat.inputPairEnabled);
  Merge(settings.outputPairs, flat.outputPairEnabled);
  for (size_t m = 0; m < settings.monitors.size() && m < kMonitors; ++m) {
    SetFrom(settings.monitors[m], flat.monitors[m]);
  }
  settings.clockSource = flat.clockSource;
}

void MakeFlatSettings(const CSoundDriverSettings& settings, SClientSettings& flat) {
  std::memset(&flat, 0, sizeof flat);
  flat.sampleRate = settings.sampleRate;
  flat.bufferFrames = settings.bufferFrames;
  Flatten(settings.inputPairs, flat.inputPairEnabled);
  Flatten(settings.outputPairs, flat.outputPairEnabled);
  flat.clockSource = settings.clockSource;
  for (size_t m = 0; m < settings.monitors.size() && m < kMonitors; ++m) {
    const CInputMonitorSetting& monitor = settings.monitors[m];
    flat.monitors[m].enabled = monitor.enabled ? 1 : 0;
    flat.monitors[m].pan = monitor.pan;
    flat.monitors[m].outputPair = monitor.outputPair;
    flat.monitors[m].gainDb = monitor.gainDb;
  }
}

}  // namespace NSQuillon2
