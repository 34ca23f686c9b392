#include "asio/asio_buffers.h"

#include <exception>
#include <new>

#include "asio/asio_driver_list.h"
#include "driver/kernels.h"
#include "failure/builder.h"

namespace NSASIO {

using namespace NSFerrand;
using NSMarlet::RaiseFailure;

namespace {

[[noreturn]] void RaiseOpen() { RaiseFailure(NSMarlet::XOpen(), NSMarlet::TargetWordAudioDriver()); }
// A plain failure with no text of its own.
[[noreturn]] void RaiseException() { RaiseFailure(NSMarlet::NSMarletDetails::XStdException()); }

// The kept bits of the four shifted forms, in the order of their numbers.
const uint32_t kShiftedBits[4] = {16, 18, 20, 24};

// The driver names a half by 0 or 1; anything else is taken as the second.
int32_t Half(int32_t index) { return index == 0 ? 0 : 1; }

void AppendChannels(const CChannelBitVector& pairs, int32_t frames,
                    std::vector<std::vector<float>>& storage, CChannelPointers& channels) {
  for (uint64_t p = 0; p < pairs.Count(); ++p) {
    if (!pairs.Get(p)) {
      channels.push_back(nullptr);
      channels.push_back(nullptr);
      continue;
    }
    for (int c = 0; c < 2; ++c) {
      storage.emplace_back(static_cast<size_t>(frames));
      channels.push_back(storage.back().data());
    }
  }
}

void MapChannels(const CChannelBitVector& pairs, ASIOBool isInput,
                 std::vector<ASIOBufferInfo>& infos, std::vector<uint16_t>& slots,
                 std::vector<uint32_t>& types) {
  const uint64_t channels = pairs.Count() * 2;
  for (uint64_t c = 0; c < channels; ++c) {
    if (!pairs.Get(c / 2)) {
      slots.push_back(kNoSlot);
      types.push_back(kNoSampleType);
      continue;
    }
    ASIOChannelInfo info = {};
    info.channel = static_cast<int32_t>(c);
    info.isInput = isInput;
    if (CASIOCallLayer::getChannelInfo(&info) != ASE_OK) RaiseException();
    ASIOBufferInfo buffer = {};
    buffer.isInput = isInput;
    buffer.channelNum = static_cast<int32_t>(c);
    slots.push_back(static_cast<uint16_t>(infos.size()));
    types.push_back(static_cast<uint32_t>(info.type));
    infos.push_back(buffer);
  }
}

}  // namespace

void ToDriverFormat(const float* source, void* destination, uint32_t type, int32_t frames) {
  switch (type) {
    case ASIOSTInt16MSB:
      FloatToInt16(source, static_cast<int16_t*>(destination), frames);
      SwapBytes16(static_cast<int16_t*>(destination), frames);
      return;
    case ASIOSTInt24MSB:
      FloatToInt24(source, static_cast<uint8_t*>(destination), frames);
      SwapBytes24(static_cast<uint8_t*>(destination), frames);
      return;
    case ASIOSTInt32MSB:
      FloatToInt32(source, static_cast<int32_t*>(destination), frames);
      SwapBytes32(static_cast<int32_t*>(destination), frames);
      return;
    case ASIOSTInt32MSB16:
    case ASIOSTInt32MSB18:
    case ASIOSTInt32MSB20:
    case ASIOSTInt32MSB24:
      FloatToShiftedInt32(source, static_cast<int32_t*>(destination), frames,
                          kShiftedBits[type - ASIOSTInt32MSB16], kByteOrderSwap);
      return;
    case ASIOSTInt16LSB: FloatToInt16(source, static_cast<int16_t*>(destination), frames); return;
    case ASIOSTInt24LSB: FloatToInt24(source, static_cast<uint8_t*>(destination), frames); return;
    case ASIOSTInt32LSB: FloatToInt32(source, static_cast<int32_t*>(destination), frames); return;
    case ASIOSTFloat32LSB: FloatCopy(source, static_cast<float*>(destination), frames); return;
    case ASIOSTInt32LSB16:
    case ASIOSTInt32LSB18:
    case ASIOSTInt32LSB20:
    case ASIOSTInt32LSB24:
      FloatToShiftedInt32(source, static_cast<int32_t*>(destination), frames,
                          kShiftedBits[type - ASIOSTInt32LSB16], kByteOrderKeep);
      return;
    default: return;  // no kernel: the driver's buffer stays as it is
  }
}

void FromDriverFormat(void* source, uint32_t type, float* destination, int32_t frames) {
  switch (type) {
    case ASIOSTInt16MSB:
      SwapBytes16(static_cast<int16_t*>(source), frames);
      Int16ToFloat(static_cast<const int16_t*>(source), destination, frames);
      return;
    case ASIOSTInt24MSB:
      SwapBytes24(static_cast<uint8_t*>(source), frames);
      Int24ToFloat(static_cast<const uint8_t*>(source), destination, frames);
      return;
    case ASIOSTInt32MSB:
      SwapBytes32(static_cast<int32_t*>(source), frames);
      Int32ToFloat(static_cast<const int32_t*>(source), destination, frames);
      return;
    case ASIOSTInt32MSB16:
    case ASIOSTInt32MSB18:
    case ASIOSTInt32MSB20:
    case ASIOSTInt32MSB24:
      SwapBytes32(static_cast<int32_t*>(source), frames);
      ShiftedInt32ToFloat(static_cast<const int32_t*>(source), destination, frames,
                          kShiftedBits[type - ASIOSTInt32MSB16]);
      return;
    case ASIOSTInt16LSB:
      Int16ToFloat(static_cast<const int16_t*>(source), destination, frames);
      return;
    case ASIOSTInt24LSB:
      Int24ToFloat(static_cast<const uint8_t*>(source), destination, frames);
      return;
    case ASIOSTInt32LSB:
      Int32ToFloat(static_cast<const int32_t*>(source), destination, frames);
      return;
    case ASIOSTFloat32LSB:
      FloatCopy(static_cast<const float*>(source), destination, frames);
      return;
    case ASIOSTInt32LSB16:
    case ASIOSTInt32LSB18:
    case ASIOSTInt32LSB20:
    case ASIOSTInt32LSB24:
      ShiftedInt32ToFloat(static_cast<const int32_t*>(source), destination, frames,
                          kShiftedBits[type - ASIOSTInt32LSB16]);
      return;
    default: return;  // no kernel: the float array keeps what it held
  }
}

void ReadChannelCounts(int32_t& inputs, int32_t& outputs) {
  inputs = 0;
  outputs = 0;
  if (CASIOCallLayer::getChannels(&inputs, &outputs) != ASE_OK) RaiseException();
  // Channels come in pairs; a count that does not is refused, as is one
  // below zero.
  if (inputs < 0 || outputs < 0 || inputs % 2 != 0 || outputs % 2 != 0) RaiseException();
  // A driver that claims more than a host can be given is not believed: no
  // list, copy or question is made that long.
  if (inputs > kMaxChannels || outputs > kMaxChannels) RaiseOpen();
}

void ASIOCreateBuffers(ASIOBufferInfo* infos, int32_t count, int32_t frames,
                       ASIOCallbacks* callbacks) {
  const ASIOError result = CASIOCallLayer::createBuffers(infos, count, frames, callbacks);
  if (result == ASE_NoMemory) RaiseFailure(std::bad_alloc());
  if (result != ASE_OK) RaiseOpen();
  for (int32_t i = 0; i < count; ++i) {
    // The state stays 902, so the teardown asks for no disposal.
    if (infos[i].buffers[0] == nullptr || infos[i].buffers[1] == nullptr) RaiseOpen();
  }
  asioState = kASIOStatePrepared;
}

CASIOBufferSet::CASIOBufferSet(ASIOCallbacks* callbacks, int32_t frames,
                               const CChannelBitVector& inputPairs,
                               const CChannelBitVector& outputPairs)
    : frames_(frames) {
  if (frames_ < 1 || frames_ > kMaxBufferFrames) RaiseOpen();
  silence_.assign(static_cast<size_t>(frames_), 0.0f);
  AppendChannels(inputPairs, frames_, storage_, inputChannels_);
  AppendChannels(outputPairs, frames_, storage_, outputChannels_);
  int32_t inputs = 0;
  int32_t outputs = 0;
  ReadChannelCounts(inputs, outputs);
  bufferInfos_.reserve(static_cast<size_t>((inputPairs.SetCount() + outputPairs.SetCount()) * 2));
  MapChannels(inputPairs, 1, bufferInfos_, inputSlots_, inputTypes_);
  MapChannels(outputPairs, 0, bufferInfos_, outputSlots_, outputTypes_);
  ASIOCreateBuffers(bufferInfos_.data(), static_cast<int32_t>(bufferInfos_.size()), frames_,
                    callbacks);
}

CASIOBufferSet::~CASIOBufferSet() { DisposeIfPrepared(); }

void CASIOBufferSet::ConvertInputs(int32_t index, int32_t frames) {
  const int32_t half = Half(index);
  for (size_t c = 0; c < inputChannels_.size(); ++c) {
    float* channel = inputChannels_[c];
    if (channel == nullptr) continue;
    FromDriverFormat(bufferInfos_[inputSlots_[c]].buffers[half], inputTypes_[c], channel, frames);
  }
}

void CASIOBufferSet::ConvertOutputs(int32_t index, int32_t frames) {
  const int32_t half = Half(index);
  for (size_t c = 0; c < outputChannels_.size(); ++c) {
    const float* channel = outputChannels_[c];
    if (channel == nullptr) continue;
    ToDriverFormat(channel, bufferInfos_[outputSlots_[c]].buffers[half], outputTypes_[c], frames);
  }
}

void CASIOBufferSet::FillOutputSilence() {
  for (size_t c = 0; c < outputChannels_.size(); ++c) {
    if (outputChannels_[c] == nullptr) continue;
    for (int32_t half = 0; half < 2; ++half) {
      ToDriverFormat(silence_.data(), bufferInfos_[outputSlots_[c]].buffers[half],
                     outputTypes_[c], frames_);
    }
  }
}

uint16_t CASIOBufferSet::MapMonitorOutput(uint32_t channel) const {
  const uint16_t slot = channel < outputSlots_.size() ? outputSlots_[channel] : kNoSlot;
  if (inputSlots_.empty()) return slot;
  uint32_t activeInputs = 0;
  for (uint16_t input : inputSlots_) {
    if (input != kNoSlot) ++activeInputs;
  }
  return static_cast<uint16_t>(slot - activeInputs);
}

}  // namespace NSASIO
