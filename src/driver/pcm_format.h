// The format record of PCM audio, in the fields the system's wave-out and
// DirectSound functions take, and the one format the families play.
#ifndef QUILLON_DRIVER_PCM_FORMAT_H
#define QUILLON_DRIVER_PCM_FORMAT_H

#include <cstdint>

namespace NSFerrand {

struct SPcmFormat {
  uint16_t formatTag = 1;  // PCM
  uint16_t channels = 2;
  uint32_t samplesPerSecond = 0;
  uint32_t averageBytesPerSecond = 0;
  uint16_t blockAlign = 4;
  uint16_t bitsPerSample = 16;
  uint16_t extraSize = 0;
};

// 16-bit stereo at a rate.
inline SPcmFormat Stereo16Format(uint32_t sampleRate) {
  SPcmFormat format;
  format.samplesPerSecond = sampleRate;
  format.averageBytesPerSecond = sampleRate * 4;
  return format;
}

}  // namespace NSFerrand

#endif
