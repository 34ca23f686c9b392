// What one streaming run needs on the driver's thread, all prepared before
// the driver's buffers exist: the float buffers the renderer sees, the
// driver's double buffers, and for each channel its slot and sample type.
#ifndef QUILLON_ASIO_ASIO_BUFFERS_H
#define QUILLON_ASIO_ASIO_BUFFERS_H

#include <cstdint>
#include <vector>

#include "asio/asio_interface.h"
#include "driver/driver_contract.h"

namespace NSASIO {

// A channel without a driver buffer, and one without a sample type.
constexpr uint16_t kNoSlot = 65535;
constexpr uint32_t kNoSampleType = 666;
// Beyond this a driver's buffer size is no size any interface streams: the
// open fails rather than allocate gigabytes per channel.
constexpr int32_t kMaxBufferFrames = 1 << 20;
// The most channels each way that the boundary can carry: 256 pairs.
constexpr int32_t kMaxChannels = 512;

// Conversions by sample type; the types no kernel serves are left alone.
// The swap on the way in works in place, in the driver's buffer.
void ToDriverFormat(const float* source, void* destination, uint32_t type, int32_t frames);
void FromDriverFormat(void* source, uint32_t type, float* destination, int32_t frames);

// Channel counts of the current driver; refused or odd counts raise.
void ReadChannelCounts(int32_t& inputs, int32_t& outputs);

// The driver's createBuffers, its answer turned into a failure: 903 on
// success with every pointer there.
void ASIOCreateBuffers(ASIOBufferInfo* infos, int32_t count, int32_t frames,
                       ASIOCallbacks* callbacks);

class CASIOBufferSet {
 public:
  // Ends with the driver's createBuffers; a failure frees what exists.
  CASIOBufferSet(ASIOCallbacks* callbacks, int32_t frames,
                 const NSFerrand::CChannelBitVector& inputPairs,
                 const NSFerrand::CChannelBitVector& outputPairs);
  // Disposes of the driver's buffers when they exist.
  ~CASIOBufferSet();
  CASIOBufferSet(const CASIOBufferSet&) = delete;
  CASIOBufferSet& operator=(const CASIOBufferSet&) = delete;

  // The driver's thread, under the run lock: no allocation, no failure.
  void ConvertInputs(int32_t index, int32_t frames);
  void ConvertOutputs(int32_t index, int32_t frames);
  void FillOutputSilence();
  // The position of an output among the active outputs, as the driver
  // numbers monitor outputs.
  uint16_t MapMonitorOutput(uint32_t channel) const;

  int32_t Frames() const { return frames_; }
  const NSFerrand::CChannelPointers& InputChannels() const { return inputChannels_; }
  NSFerrand::CChannelPointers& OutputChannels() { return outputChannels_; }
  const std::vector<uint16_t>& InputSlots() const { return inputSlots_; }
  const std::vector<uint16_t>& OutputSlots() const { return outputSlots_; }
  const std::vector<uint32_t>& InputTypes() const { return inputTypes_; }
  const std::vector<uint32_t>& OutputTypes() const { return outputTypes_; }
  const std::vector<ASIOBufferInfo>& BufferInfos() const { return bufferInfos_; }

 private:
  int32_t frames_;
  std::vector<float> silence_;
  std::vector<std::vector<float>> storage_;  // the float arrays behind the pointers
  NSFerrand::CChannelPointers inputChannels_;
  NSFerrand::CChannelPointers outputChannels_;
  std::vector<ASIOBufferInfo> bufferInfos_;
  std::vector<uint16_t> inputSlots_;
  std::vector<uint16_t> outputSlots_;
  std::vector<uint32_t> inputTypes_;
  std::vector<uint32_t> outputTypes_;
};

}  // namespace NSASIO

#endif
