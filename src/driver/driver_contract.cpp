#include "driver/driver_contract.h"

namespace NSFerrand {

COpenSoundDriverInfo::COpenSoundDriverInfo()
    : sampleRates{44100}, bufferSizes{1024}, clockSourceNames{u"Internal"} {}

bool COpenSoundDriverInfo::operator==(const COpenSoundDriverInfo& other) const {
  return sampleRates == other.sampleRates && inputNames == other.inputNames &&
         outputNames == other.outputNames && bufferSizes == other.bufferSizes &&
         clockSourceNames == other.clockSourceNames;
}

void CChannelBitVector::Resize(uint64_t count) {
  const uint64_t keep = count < count_ ? count : count_;
  std::vector<uint32_t> words(static_cast<size_t>((count + 31) / 32), 0u);
  for (uint64_t bit = 0; bit < keep; ++bit) {
    if (Get(bit)) words[bit / 32] |= 1u << (bit % 32);
  }
  words_.swap(words);
  count_ = count;
}

void CChannelBitVector::Set(uint64_t bit, bool value) {
  const uint32_t mask = 1u << (bit % 32);
  if (value) {
    words_[bit / 32] |= mask;
  } else {
    words_[bit / 32] &= ~mask;
  }
}

uint64_t CChannelBitVector::SetCount() const {
  uint64_t set = 0;
  for (uint64_t bit = 0; bit < count_; ++bit) set += Get(bit) ? 1 : 0;
  return set;
}

bool CChannelBitVector::operator==(const CChannelBitVector& other) const {
  if (count_ != other.count_) return false;
  for (uint64_t bit = 0; bit < count_; ++bit) {
    if (Get(bit) != other.Get(bit)) return false;
  }
  return true;
}

bool CInputMonitorSetting::operator==(const CInputMonitorSetting& other) const {
  const auto same = [](float a, float b) { return !(a < b) && !(a > b); };
  return enabled == other.enabled && same(pan, other.pan) && outputPair == other.outputPair &&
         same(gainDb, other.gainDb);
}

bool CSoundDriverSettings::operator==(const CSoundDriverSettings& other) const {
  return sampleRate == other.sampleRate && bufferFrames == other.bufferFrames &&
         inputPairs == other.inputPairs && outputPairs == other.outputPairs &&
         clockSource == other.clockSource && monitorsValid == other.monitorsValid &&
         monitors == other.monitors;
}

}  // namespace NSFerrand
