#include "zep_fake/zep_fake_control.h"

#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <stdexcept>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr uint32_t kNoCallback = 0xFFFFFFFFu;
constexpr uintptr_t kFirstHandle = 0x101;

struct SEvent {
  bool crash;
  bool button;
  uintptr_t device;
  uint32_t number;
  // For the Fire forms: where the result goes, and that it came.
  uint32_t* result;
  bool* done;
};

struct SPadding {
  uint32_t paddedChannel;
  float decibels;
};

// Lives as long as the process: the event thread is never joined, since a
// library may not wait for a thread while it unloads.
struct SState {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> devices;
  std::vector<const char*> deviceTexts;
  std::map<std::string, uint32_t> results;
  std::map<std::string, uintptr_t> handles;
  std::map<uint32_t, SPadding> padding;
  uint32_t channelCount = 0;
  uint32_t controlPanelAnswer = 1;
  std::vector<std::string> log;
  int32_t loadedCopies = 0;
  bool created = false;
  ZEPFakeConnectionCallback connection = nullptr;
  ZEPFakeButtonCallback button = nullptr;
  void* context = nullptr;
  std::deque<SEvent> events;
  // An event taken from the queue whose callback has not returned yet.
  bool inFlight = false;
  uint32_t delivered = 0;
  bool threadStarted = false;
  std::map<std::string, uint32_t> faults;
  uint32_t misbehaved = 0;
  void (*crash)() = nullptr;
};

SState& State() {
  static SState* state = new SState();
  return *state;
}

void EventLoop() {
  SState& state = State();
  std::unique_lock<std::mutex> lock(state.mutex);
  for (;;) {
    state.changed.wait(lock, [&] { return !state.events.empty(); });
    const SEvent event = state.events.front();
    state.events.pop_front();
    if (event.crash) {
      void (*crash)() = state.crash;
      // This thread goes with the crash: the next event starts another.
      state.threadStarted = false;
      lock.unlock();
      if (crash != nullptr) crash();
      lock.lock();
      continue;
    }
    const ZEPFakeConnectionCallback connection = state.connection;
    const ZEPFakeButtonCallback button = state.button;
    void* context = state.context;
    const bool registered = state.created && (event.button ? button != nullptr : connection != nullptr);
    uint32_t result = kNoCallback;
    if (registered) {
      state.inFlight = true;
      lock.unlock();
      result = event.button ? button(event.device, event.number, context) : connection(context);
      lock.lock();
      state.inFlight = false;
      ++state.delivered;
    }
    if (event.result != nullptr) *event.result = result;
    if (event.done != nullptr) *event.done = true;
    state.changed.notify_all();
  }
}

void Post(std::unique_lock<std::mutex>&, SState& state, const SEvent& event) {
  if (!state.threadStarted) {
    std::thread(EventLoop).detach();
    state.threadStarted = true;
  }
  state.events.push_back(event);
  state.changed.notify_all();
}

void WaitQuiet(std::unique_lock<std::mutex>& lock, SState& state) {
  state.changed.wait(lock, [&] { return state.events.empty() && !state.inFlight; });
}

uint32_t ResultOf(SState& state, const std::string& operation) {
  const auto found = state.results.find(operation);
  return found == state.results.end() ? 0 : found->second;
}

// A call told to misbehave does so here, outside the lock: the other calls
// of the process go on.
void MaybeMisbehave(const char* operation) {
  SState& state = State();
  void (*crash)() = nullptr;
  uint32_t fault = kZEPFakeBehaves;
  {
    std::lock_guard<std::mutex> lock(state.mutex);
    const auto found = state.faults.find(operation);
    if (found == state.faults.end() || found->second == kZEPFakeBehaves) return;
    fault = found->second;
    crash = state.crash;
    ++state.misbehaved;
  }
  if (fault == kZEPFakeCrashes) {
    if (crash != nullptr) crash();
    // No library to crash in: the exception stands for it.
    throw std::runtime_error("the hardware library crashed");
  }
  // Never set free: the gate outlives every test of the process.
  static auto* gate = new std::pair<std::mutex, std::condition_variable>();
  std::unique_lock<std::mutex> hold(gate->first);
  gate->second.wait(hold, [] { return false; });
}

uint32_t Fire(const SEvent& wanted) {
  SState& state = State();
  std::unique_lock<std::mutex> lock(state.mutex);
  uint32_t result = kNoCallback;
  bool done = false;
  SEvent event = wanted;
  event.result = &result;
  event.done = &done;
  Post(lock, state, event);
  state.changed.wait(lock, [&] { return done; });
  return result;
}

}  // namespace

void ZEPFake_ForgetLog() {
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  std::vector<std::string>().swap(state.log);
}

void ZEPFake_Reset() {
  SState& state = State();
  std::unique_lock<std::mutex> lock(state.mutex);
  WaitQuiet(lock, state);
  state.devices.clear();
  state.deviceTexts.clear();
  state.results.clear();
  state.handles.clear();
  state.padding.clear();
  state.channelCount = 0;
  state.controlPanelAnswer = 1;
  state.log.clear();
  state.delivered = 0;
  state.faults.clear();
  // A library cut off by a fault was never disposed of: it starts anew.
  state.created = false;
  state.connection = nullptr;
  state.button = nullptr;
  state.context = nullptr;
}

void ZEPFake_SetFault(const char* operation, uint32_t fault) {
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.faults[operation] = fault;
}

uint32_t ZEPFake_Misbehaved() {
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.misbehaved;
}

void ZEPFake_PostCrash() {
  SState& state = State();
  std::unique_lock<std::mutex> lock(state.mutex);
  Post(lock, state, SEvent{true, false, 0, 0, nullptr, nullptr});
}

void ZEPFake_SetCrasher(void (*crash)()) {
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.crash = crash;
}

void ZEPFake_ForgetCrasher(void (*crash)()) {
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (state.crash == crash) state.crash = nullptr;
}

void ZEPFake_SetDevices(const char* names) {
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.devices.clear();
  std::string all = names != nullptr ? names : "";
  size_t start = 0;
  while (!all.empty() && start <= all.size()) {
    const size_t end = all.find('\n', start);
    state.devices.push_back(all.substr(start, end == std::string::npos ? end : end - start));
    if (end == std::string::npos) break;
    start = end + 1;
  }
}

void ZEPFake_SetResult(const char* operation, uint32_t code) {
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.results[operation] = code;
}

void ZEPFake_SetChannelCount(uint32_t count) {
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.channelCount = count;
}

void ZEPFake_SetPadding(uint32_t channel, uint32_t paddedChannel, float decibels) {
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.padding[channel] = SPadding{paddedChannel, decibels};
}

void ZEPFake_SetControlPanelAnswer(uint32_t value) {
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.controlPanelAnswer = value;
}

uintptr_t ZEPFake_DeviceHandle(const char* name) {
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  const auto found = state.handles.find(name);
  return found == state.handles.end() ? 0 : found->second;
}

uint32_t ZEPFake_FireConnection() { return Fire(SEvent{false, false, 0, 0, nullptr, nullptr}); }

uint32_t ZEPFake_FireButton(uintptr_t device, uint32_t button) {
  return Fire(SEvent{false, true, device, button, nullptr, nullptr});
}

void ZEPFake_PostConnections(uint32_t count) {
  SState& state = State();
  std::unique_lock<std::mutex> lock(state.mutex);
  for (uint32_t i = 0; i < count; ++i) Post(lock, state, SEvent{false, false, 0, 0, nullptr, nullptr});
}

void ZEPFake_PostButtons(uintptr_t device, uint32_t button, uint32_t count) {
  SState& state = State();
  std::unique_lock<std::mutex> lock(state.mutex);
  for (uint32_t i = 0; i < count; ++i) {
    Post(lock, state, SEvent{false, true, device, button, nullptr, nullptr});
  }
}

void ZEPFake_WaitEvents() {
  SState& state = State();
  std::unique_lock<std::mutex> lock(state.mutex);
  WaitQuiet(lock, state);
}

uint32_t ZEPFake_DeliveredEvents() {
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.delivered;
}

uint32_t ZEPFake_LogCount() {
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  return static_cast<uint32_t>(state.log.size());
}

uint32_t ZEPFake_LogLine(uint32_t index, char* text, uint32_t size) {
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (index >= state.log.size()) return 0;
  const std::string& line = state.log[index];
  if (text != nullptr && size > 0) {
    const size_t count = line.size() < size - 1 ? line.size() : size - 1;
    std::memcpy(text, line.data(), count);
    text[count] = '\0';
  }
  return static_cast<uint32_t>(line.size());
}

int32_t ZEPFake_LoadedCopies() {
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.loadedCopies;
}

int32_t ZEPFake_Created() {
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.created ? 1 : 0;
}

void ZEPFake_NoteLoad(const char* version, int loaded) {
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.loadedCopies += loaded != 0 ? 1 : -1;
  state.log.push_back(std::string(loaded != 0 ? "load " : "unload ") + version);
}

uint32_t ZEPFake_Call(const char* operation, const char* arguments) {
  MaybeMisbehave(operation);
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  std::string line = operation;
  if (arguments != nullptr && arguments[0] != '\0') line += std::string(" ") + arguments;
  state.log.push_back(line);
  return ResultOf(state, operation);
}

uint32_t ZEPFake_Create(ZEPFakeConnectionCallback connection, ZEPFakeButtonCallback button,
                        void* context, const char* arguments) {
  MaybeMisbehave("ZEP_Create");
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.log.push_back(std::string("ZEP_Create ") + arguments);
  const uint32_t result = ResultOf(state, "ZEP_Create");
  if (result != 0) return result;
  state.connection = connection;
  state.button = button;
  state.context = context;
  state.created = true;
  return 0;
}

uint32_t ZEPFake_Dispose() {
  MaybeMisbehave("ZEP_Dispose");
  SState& state = State();
  std::unique_lock<std::mutex> lock(state.mutex);
  state.log.push_back("ZEP_Dispose");
  state.created = false;
  // No callback after this returns: wait out the one that runs.
  state.changed.wait(lock, [&] { return !state.inFlight; });
  state.connection = nullptr;
  state.button = nullptr;
  state.context = nullptr;
  return ResultOf(state, "ZEP_Dispose");
}

uint32_t ZEPFake_GetCurrentDevices(const char** names, uint32_t* count) {
  MaybeMisbehave("ZEP_GetCurrentDevices");
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.log.push_back(names == nullptr ? "ZEP_GetCurrentDevices count" : "ZEP_GetCurrentDevices names");
  const uint32_t result = ResultOf(state, "ZEP_GetCurrentDevices");
  if (result != 0) return result;
  if (names != nullptr) {
    const uint32_t room = *count;
    for (uint32_t i = 0; i < room && i < state.devices.size(); ++i) {
      names[i] = state.devices[i].c_str();
    }
  }
  *count = static_cast<uint32_t>(state.devices.size());
  return 0;
}

uint32_t ZEPFake_DeviceOpen(const char* name, uintptr_t* device) {
  MaybeMisbehave("ZEP_DeviceOpen");
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.log.push_back(std::string("ZEP_DeviceOpen ") + name);
  const uint32_t result = ResultOf(state, "ZEP_DeviceOpen");
  if (result != 0) return result;
  bool present = false;
  for (const std::string& known : state.devices) present = present || known == name;
  // Code 3: the library's "cannot open".
  if (!present) return 3;
  auto found = state.handles.find(name);
  if (found == state.handles.end()) {
    found = state.handles.emplace(name, kFirstHandle + state.handles.size()).first;
  }
  *device = found->second;
  return 0;
}

uint32_t ZEPFake_ChannelCount(uint32_t* count) {
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  *count = state.channelCount;
  return 0;
}

uint32_t ZEPFake_Padding(uint32_t channel, uint32_t* padded, float* decibels) {
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  const auto found = state.padding.find(channel);
  const SPadding value = found == state.padding.end() ? SPadding{channel, 0.0f} : found->second;
  if (padded != nullptr) *padded = value.paddedChannel;
  if (decibels != nullptr) *decibels = value.decibels;
  return 0;
}

uint32_t ZEPFake_ControlPanelAnswer() {
  SState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.controlPanelAnswer;
}
