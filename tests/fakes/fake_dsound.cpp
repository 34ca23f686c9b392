#include "fakes/fake_dsound.h"

#include <cstring>

using namespace NSDirectSound;

namespace Fakes {

namespace {

constexpr HResult kLost = static_cast<HResult>(0x88780096u);
constexpr HResult kAllocated = static_cast<HResult>(0x8878000Au);
constexpr HResult kInvalidArgument = static_cast<HResult>(0x80070057u);
constexpr HResult kBadFormat = static_cast<HResult>(0x88780064u);
constexpr uint32_t kRingBytes = 65536;

}  // namespace

CFakeDirectSound::CFakeDirectSound() {
  SFakeDSDevice device;
  device.hasGuid = false;
  device.description = u"Primary Sound Driver";
  devices.push_back(device);
}

CFakeDirectSound::~CFakeDirectSound() = default;

void CFakeDirectSound::Fail(EDSCall call, HResult result, int32_t times) {
  failures_.Fail(call, result, times);
}

bool CFakeDirectSound::TakeFailure(EDSCall call, HResult& result) {
  ++calls_[call];
  return failures_.Take(call, result);
}

void CFakeDirectSound::Advance(int32_t frames) {
  cursorBytes_ = (cursorBytes_ + static_cast<uint32_t>(frames) * 4) % kRingBytes;
}

void CFakeDirectSound::SetCursorBytes(uint32_t bytes) { cursorBytes_ = bytes; }

void CFakeDirectSound::LoseBuffer(int32_t refusals) {
  restoreRefusals_ = refusals;
  lost_ = true;
}

std::vector<uint32_t> CFakeDirectSound::Writes() {
  std::vector<uint32_t> sizes;
  const uint32_t count = writeCount_.load();
  for (uint32_t i = 0; i < count && i < 1024; ++i) sizes.push_back(writes_[i].load());
  return sizes;
}

std::pair<int16_t, int16_t> CFakeDirectSound::RingFrame(int32_t frame) {
  SBufferObject* buffer = secondary_.load();
  if (buffer == nullptr) return {0, 0};
  int16_t samples[2];
  std::memcpy(samples, buffer->ring.data() + (static_cast<uint32_t>(frame) * 4) % kRingBytes, 4);
  return {samples[0], samples[1]};
}

uint32_t CFakeDirectSound::CursorBytes() {
  if (!realTime) return cursorBytes_.load();
  SBufferObject* buffer = secondary_.load();
  const uint32_t rate = buffer != nullptr && buffer->rate != 0 ? buffer->rate : 44100;
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - playStart_).count();
  const uint64_t frames = static_cast<uint64_t>(seconds * rate);
  return static_cast<uint32_t>((frames * 4) % kRingBytes);
}

DSModule CFakeDirectSound::LoadLibrary(const char*) {
  ++libraryLoads;
  return libraryPresent ? this : nullptr;
}

DSEntry CFakeDirectSound::GetProcAddress(DSModule, const char* name) {
  ++entryLookups;
  return missingEntries.count(name) != 0 ? nullptr : this;
}

void CFakeDirectSound::FreeLibrary(DSModule) {}

HResult CFakeDirectSound::DirectSoundEnumerate(DSEntry, DSEnumerateCallback callback,
                                               void* context) {
  HResult result = 0;
  if (TakeFailure(kDSEnumerate, result)) return result;
  for (const SFakeDSDevice& device : devices) {
    if (!callback(device.hasGuid ? &device.guid : nullptr, device.description.c_str(),
                  device.module.c_str(), context)) {
      break;
    }
  }
  return 0;
}

HResult CFakeDirectSound::DirectSoundCreate(DSEntry, const SGuid* guid, DSDevice* device) {
  *device = nullptr;
  HResult result = 0;
  if (TakeFailure(kDSCreate, result)) return result;
  for (size_t i = 0; i < devices.size(); ++i) {
    const SFakeDSDevice& candidate = devices[i];
    const bool match = guid == nullptr ? !candidate.hasGuid
                                       : candidate.hasGuid && candidate.guid == *guid;
    if (!match) continue;
    if (candidate.inUse) return kAllocated;
    std::lock_guard<std::mutex> hold(lock_);
    deviceObjects_.emplace_back(new SDeviceObject{i});
    *device = deviceObjects_.back().get();
    ++liveDevices_;
    return 0;
  }
  return static_cast<HResult>(0x88780078u);
}

HResult CFakeDirectSound::SetCooperativeLevel(DSDevice, void* window, uint32_t level) {
  HResult result = 0;
  if (TakeFailure(kDSCooperativeLevel, result)) return result;
  cooperativeWindow_ = window;
  cooperativeLevel_ = level;
  return 0;
}

std::vector<uint32_t> CFakeDirectSound::BufferFlagsAsked() {
  std::lock_guard<std::mutex> hold(lock_);
  return bufferFlags_;
}

HResult CFakeDirectSound::CreateSoundBuffer(DSDevice device, const SDSBufferDesc& desc,
                                            DSBuffer* buffer) {
  *buffer = nullptr;
  HResult result = 0;
  if (TakeFailure(kDSCreateBuffer, result)) return result;
  lastBufferFlags_ = desc.flags;
  {
    std::lock_guard<std::mutex> hold(lock_);
    // The latest few: long runs measure their memory.
    if (bufferFlags_.size() >= kKeptBufferFlags) bufferFlags_.erase(bufferFlags_.begin());
    bufferFlags_.push_back(desc.flags);
  }
  if (desc.size != 24) return kInvalidArgument;
  if ((desc.flags & kBufferGlobalFocus) != 0 && refuseGlobalFocus) return kInvalidArgument;
  auto* created = new SBufferObject();
  created->device = static_cast<SDeviceObject*>(device)->index;
  created->primary = (desc.flags & kBufferPrimary) != 0;
  if (!created->primary) {
    created->ring.assign(desc.bufferBytes, 0x5A);
    created->rate = desc.format != nullptr ? desc.format->samplesPerSecond : 0;
    secondary_ = created;
    cursorBytes_ = 0;
  }
  ++liveBuffers_;
  *buffer = created;
  return 0;
}

HResult CFakeDirectSound::GetCaps(DSDevice device, SDSCaps* caps) {
  HResult result = 0;
  if (TakeFailure(kDSGetCaps, result)) return result;
  if (caps->size != sizeof(SDSCaps)) return kInvalidArgument;
  const SFakeDSDevice& fake = devices[static_cast<SDeviceObject*>(device)->index];
  caps->flags = fake.capsFlags;
  caps->minSecondarySampleRate = fake.minRate;
  caps->maxSecondarySampleRate = fake.maxRate;
  return 0;
}

void CFakeDirectSound::ForgetReleasedDevices() {
  std::lock_guard<std::mutex> hold(lock_);
  std::vector<std::unique_ptr<SDeviceObject>> kept;
  for (auto& object : deviceObjects_) {
    if (!object->released) kept.push_back(std::move(object));
  }
  deviceObjects_.swap(kept);
}

uint32_t CFakeDirectSound::ReleaseDevice(DSDevice device) {
  auto* object = static_cast<SDeviceObject*>(device);
  if (!object->released) --liveDevices_;
  object->released = true;
  return 0;
}

HResult CFakeDirectSound::SetFormat(DSBuffer buffer, const SPcmFormat& format) {
  HResult result = 0;
  if (TakeFailure(kDSSetFormat, result)) return result;
  auto* object = static_cast<SBufferObject*>(buffer);
  const SFakeDSDevice& fake = devices[object->device];
  if (fake.rates.count(format.samplesPerSecond) == 0) return kBadFormat;
  auto change = fake.changes.find(format.samplesPerSecond);
  object->rate = change != fake.changes.end() ? change->second : format.samplesPerSecond;
  return 0;
}

HResult CFakeDirectSound::GetFormat(DSBuffer buffer, SPcmFormat* format, uint32_t bytes) {
  HResult result = 0;
  if (TakeFailure(kDSGetFormat, result)) return result;
  if (bytes < 18) return kInvalidArgument;
  *format = NSFerrand::Stereo16Format(static_cast<SBufferObject*>(buffer)->rate);
  return 0;
}

HResult CFakeDirectSound::Lock(DSBuffer buffer, uint32_t offset, uint32_t bytes, void** first,
                               uint32_t* firstBytes, void** second, uint32_t* secondBytes,
                               uint32_t) {
  HResult result = 0;
  if (TakeFailure(kDSLock, result)) return result;
  if (lost_) return kLost;
  auto* object = static_cast<SBufferObject*>(buffer);
  if (offset >= object->ring.size() || bytes > object->ring.size()) return kInvalidArgument;
  const uint32_t tail = static_cast<uint32_t>(object->ring.size()) - offset;
  *first = object->ring.data() + offset;
  *firstBytes = bytes < tail ? bytes : tail;
  *second = bytes > tail ? object->ring.data() : nullptr;
  *secondBytes = bytes > tail ? bytes - tail : 0;
  return 0;
}

HResult CFakeDirectSound::Unlock(DSBuffer, void*, uint32_t firstBytes, void*,
                                 uint32_t secondBytes) {
  // A write counts once its bytes are in the ring: a test that sees the
  // count may read them.
  // One writer, the pump: the size is stored before the count shows it.
  if (playing_) {
    const uint32_t index = writeCount_.load();
    if (index < 1024) writes_[index] = (firstBytes + secondBytes) / 4;
    writeCount_.store(index + 1);
  }
  HResult result = 0;
  if (TakeFailure(kDSUnlock, result)) return result;
  return 0;
}

HResult CFakeDirectSound::Play(DSBuffer, uint32_t flags) {
  HResult result = 0;
  if (TakeFailure(kDSPlay, result)) return result;
  if (flags != kPlayLooping) return kInvalidArgument;
  playStart_ = std::chrono::steady_clock::now();
  playing_ = true;
  return 0;
}

HResult CFakeDirectSound::Stop(DSBuffer) {
  HResult result = 0;
  if (TakeFailure(kDSStop, result)) return result;
  playing_ = false;
  return 0;
}

HResult CFakeDirectSound::GetCurrentPosition(DSBuffer, uint32_t* play, uint32_t* write) {
  HResult result = 0;
  if (TakeFailure(kDSGetPosition, result)) return result;
  *play = CursorBytes();
  if (write != nullptr) *write = (*play + 4096) % kRingBytes;
  return 0;
}

HResult CFakeDirectSound::Restore(DSBuffer) {
  HResult result = 0;
  if (TakeFailure(kDSRestore, result)) return result;
  const int32_t refusals = restoreRefusals_.load();
  if (refusals < 0) return kLost;
  if (refusals > 0) {
    --restoreRefusals_;
    return kLost;
  }
  lost_ = false;
  return 0;
}

uint32_t CFakeDirectSound::ReleaseBuffer(DSBuffer buffer) {
  auto* object = static_cast<SBufferObject*>(buffer);
  SBufferObject* expected = object;
  secondary_.compare_exchange_strong(expected, nullptr);
  delete object;
  --liveBuffers_;
  return 0;
}

}  // namespace Fakes
