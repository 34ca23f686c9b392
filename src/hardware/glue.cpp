#include "hardware/glue.h"

#include <atomic>

#include "failure/exceptions.h"
#include "platform/clock.h"
#include "platform/fault_guard.h"

namespace NSZEPGlue {

using NSPrivate::CZEPLoader;
using NSPrivate::ThrowByZEPCode;
using NSPrivate::ZEPCodeFromCurrentFailure;

namespace {

// The glue that the library's events may reach, and the events on their way
// to it. A library that was cut off is never disposed of, and may call on
// with a context that is gone: only the live glue is ever reached.
std::atomic<CGlueImpl*> liveGlue{nullptr};
std::atomic<int32_t> eventsInFlight{0};

class CEventInFlight {
 public:
  CEventInFlight() { eventsInFlight.fetch_add(1); }
  ~CEventInFlight() { eventsInFlight.fetch_sub(1); }
  CEventInFlight(const CEventInFlight&) = delete;
  CEventInFlight& operator=(const CEventInFlight&) = delete;
};

// No event reaches `glue` once this returns.
void Disconnect(CGlueImpl* glue) {
  CGlueImpl* expected = glue;
  liveGlue.compare_exchange_strong(expected, nullptr);
  // An event that found the glue live runs our handlers, never the
  // library's code, and ends.
  while (eventsInFlight.load() != 0) NSPlatform::SleepMilliseconds(1);
}

// An answer with what the library wrote beside its code.
template <class Value>
struct SAnswer {
  ZEPResult code;
  Value value;
};

}  // namespace

// The library's callbacks: no failure may cross into the library, and a
// fault in the handlers is the host's or ours, never the library's.
struct SGlueTrampolines {
  static ZEPResult Connection(void* context) {
    const CEventInFlight counted;
    if (liveGlue.load() != context || context == nullptr || HardwareCutOff()) return kZEPSuccess;
    const NSPlatform::CForeignCall foreign;
    try {
      IConnectionHandler* handler = static_cast<CGlueImpl*>(context)->connectionHandler_;
      if (handler != nullptr) handler->OnConnectionChanged();
      return kZEPSuccess;
    } catch (...) {
      return ZEPCodeFromCurrentFailure();
    }
  }

  static ZEPResult Button(ZEPDevice device, uint32_t button, void* context) {
    const CEventInFlight counted;
    if (liveGlue.load() != context || context == nullptr || HardwareCutOff()) return kZEPSuccess;
    const NSPlatform::CForeignCall foreign;
    try {
      IButtonHandler* handler = static_cast<CGlueImpl*>(context)->buttonHandler_;
      if (handler != nullptr) handler->OnButton(device, button);
      return kZEPSuccess;
    } catch (...) {
      return ZEPCodeFromCurrentFailure();
    }
  }
};

namespace {

extern "C" ZEPResult ConnectionTrampoline(void* context) {
  return SGlueTrampolines::Connection(context);
}

extern "C" ZEPResult ButtonTrampoline(ZEPDevice device, uint32_t button, void* context) {
  return SGlueTrampolines::Button(device, button, context);
}

// One operation of a device on the library's thread: `work` is given the
// entry and the device and answers the library's code.
template <class Function, class Work>
ZEPResult OnDevice(CZEPLoader& loader, EZEPEntry which, ZEPDevice device, uint32_t deadlineMs,
                   const Work& work) {
  const Function entry = loader.Get<Function>(which);
  return loader.Call<ZEPResult>(deadlineMs, [entry, device, work] { return work(entry, device); });
}

// The same, for an operation that also writes a value.
template <class Value, class Function, class Work>
Value OnDeviceValue(CZEPLoader& loader, EZEPEntry which, ZEPDevice device, const Work& work) {
  const Function entry = loader.Get<Function>(which);
  const SAnswer<Value> answer = loader.Call<SAnswer<Value>>(kZEPQueryCallMs, [entry, device, work] {
    SAnswer<Value> written = {kZEPSuccess, Value()};
    written.code = work(entry, device, &written.value);
    return written;
  });
  ThrowByZEPCode(answer.code);
  return answer.value;
}

}  // namespace

CGlueImpl::CGlueImpl(IConnectionHandler* connectionHandler, IButtonHandler* buttonHandler,
                     IZEPPlatform& platform)
    : connectionHandler_(connectionHandler), buttonHandler_(buttonHandler) {
  // A device that keeps a former glue's library alive blocks a new glue too.
  if (NSPrivate::ZEPLoaderExists()) {
    NSMarlet::RaiseFailure(
        NSMarlet::XIllegalCallSequence("Only one instance of CGlueImpl is allowed at any time!"));
  }
  loader_.reset(new NSPrivate::CScopedZEPLoader(platform));
  // The way back is found first: a connection once made can always be
  // given back, whatever the system answers later.
  Loader().Get<PZEPDispose>(kZEPDispose);
  const PZEPCreate create = Loader().Get<PZEPCreate>(kZEPCreate);
  const ZEPConnectionCallback connection =
      connectionHandler != nullptr ? &ConnectionTrampoline : nullptr;
  const ZEPButtonCallback button = buttonHandler != nullptr ? &ButtonTrampoline : nullptr;
  void* context = this;
  // Events may come while the library is being created.
  liveGlue = this;
  try {
    ThrowByZEPCode(Loader().Call<ZEPResult>(kZEPConnectCallMs, [create, connection, button, context] {
      return create(1, 0, connection, button, context);
    }));
  } catch (...) {
    Disconnect(this);
    throw;
  }
}

CGlueImpl::~CGlueImpl() {
  try {
    const PZEPDispose dispose = Loader().Get<PZEPDispose>(kZEPDispose);
    Loader().Call<ZEPResult>(kZEPConnectCallMs, [dispose] { return dispose(); });
  } catch (...) {
  }
  Disconnect(this);
}

void CGlueImpl::GetCurrentDeviceNames(std::vector<std::string>& names) {
  const PZEPGetCurrentDevices list = Loader().Get<PZEPGetCurrentDevices>(kZEPGetCurrentDevices);
  SAnswer<std::vector<std::string>> answer =
      Loader().Call<SAnswer<std::vector<std::string>>>(kZEPQueryCallMs, [list] {
        SAnswer<std::vector<std::string>> found = {kZEPSuccess, {}};
        uint32_t count = 0;
        found.code = list(nullptr, &count);
        if (found.code != kZEPSuccess || count == 0) return found;
        // Our own memory running out is a failure of ours, never the
        // library's crash.
        std::vector<const char*> texts;
        try {
          texts.resize(count, nullptr);
        } catch (...) {
          found.code = ZEPCodeFromCurrentFailure();
          return found;
        }
        found.code = list(texts.data(), &count);
        if (found.code != kZEPSuccess) return found;
        // The library may have fewer devices by the second call.
        if (count < texts.size()) texts.resize(count);
        try {
          for (const char* text : texts) found.value.emplace_back(text != nullptr ? text : "");
        } catch (...) {
          found.code = ZEPCodeFromCurrentFailure();
        }
        return found;
      });
  ThrowByZEPCode(answer.code);
  names.swap(answer.value);
}

CSharedDeviceImpl::CSharedDeviceImpl(const CGluePtr& glue, const std::string& name)
    : glue_(glue), name_(name), device_(static_cast<ZEPDevice>(-1)) {
  // As for the glue: the close is found before the open.
  glue_->Loader().Get<PZEPDeviceClose>(kZEPDeviceClose);
  const PZEPDeviceOpen open = glue_->Loader().Get<PZEPDeviceOpen>(kZEPDeviceOpen);
  const std::string asked = name_;
  const SAnswer<ZEPDevice> answer =
      glue_->Loader().Call<SAnswer<ZEPDevice>>(kZEPConnectCallMs, [open, asked] {
        SAnswer<ZEPDevice> opened = {kZEPSuccess, static_cast<ZEPDevice>(-1)};
        opened.code = open(asked.c_str(), &opened.value);
        return opened;
      });
  device_ = answer.value;
  ThrowByZEPCode(answer.code);
}

CSharedDeviceImpl::~CSharedDeviceImpl() {
  try {
    OnDevice<PZEPDeviceClose>(glue_->Loader(), kZEPDeviceClose, device_, kZEPConnectCallMs,
                              [](PZEPDeviceClose close, ZEPDevice device) { return close(device); });
  } catch (...) {
  }
  name_.clear();
  glue_.reset();
}

uint32_t CSharedDeviceImpl::GetChannelCount() {
  return OnDeviceValue<uint32_t, PZEPGetDeviceChannelCount>(
      glue_->Loader(), kZEPGetDeviceChannelCount, device_,
      [](PZEPGetDeviceChannelCount get, ZEPDevice device, uint32_t* count) {
        return get(device, count);
      });
}

uint32_t CSharedDeviceImpl::GetGainSafePaddedChannel(uint32_t channel) {
  return OnDeviceValue<uint32_t, PZEPGetDeviceChannelGainSafePaddedChannel>(
      glue_->Loader(), kZEPGetDeviceChannelGainSafePaddedChannel, device_,
      [channel](PZEPGetDeviceChannelGainSafePaddedChannel get, ZEPDevice device,
                uint32_t* padded) { return get(device, channel, padded); });
}

float CSharedDeviceImpl::GetGainSafePaddingDb(uint32_t channel) {
  return OnDeviceValue<float, PZEPGetDeviceChannelGainSafePaddingDB>(
      glue_->Loader(), kZEPGetDeviceChannelGainSafePaddingDB, device_,
      [channel](PZEPGetDeviceChannelGainSafePaddingDB get, ZEPDevice device, float* decibels) {
        return get(device, channel, decibels);
      });
}

void CSharedDeviceImpl::SetGainSafeRoutingEnable(uint32_t channel, bool enable) {
  const uint8_t value = enable ? 1 : 0;
  ThrowByZEPCode(OnDevice<PZEPSetDeviceChannelGainSafeRoutingEnable>(
      glue_->Loader(), kZEPSetDeviceChannelGainSafeRoutingEnable, device_, kZEPQueryCallMs,
      [channel, value](PZEPSetDeviceChannelGainSafeRoutingEnable set, ZEPDevice device) {
        return set(device, channel, value);
      }));
}

void CSharedDeviceImpl::SetGainSafeIndicator(uint32_t state) {
  ThrowByZEPCode(OnDevice<PZEPSetDeviceGainSafeIndicator>(
      glue_->Loader(), kZEPSetDeviceGainSafeIndicator, device_, kZEPQueryCallMs,
      [state](PZEPSetDeviceGainSafeIndicator set, ZEPDevice device) { return set(device, state); }));
}

void CSharedDeviceImpl::SetChannelActiveIndicator(uint32_t channel, bool active) {
  const uint8_t value = active ? 1 : 0;
  ThrowByZEPCode(OnDevice<PZEPSetDeviceChannelActiveIndicator>(
      glue_->Loader(), kZEPSetDeviceChannelActiveIndicator, device_, kZEPQueryCallMs,
      [channel, value](PZEPSetDeviceChannelActiveIndicator set, ZEPDevice device) {
        return set(device, channel, value);
      }));
}

uint32_t CSharedDeviceImpl::GetPreferredSampleRate() {
  return OnDeviceValue<uint32_t, PZEPGetPreferredSampleRate>(
      glue_->Loader(), kZEPGetPreferredSampleRate, device_,
      [](PZEPGetPreferredSampleRate get, ZEPDevice device, uint32_t* rate) {
        return get(device, rate);
      });
}

uint32_t CSharedDeviceImpl::GetPreferredBufferSize() {
  return OnDeviceValue<uint32_t, PZEPGetPreferredBufferSize>(
      glue_->Loader(), kZEPGetPreferredBufferSize, device_,
      [](PZEPGetPreferredBufferSize get, ZEPDevice device, uint32_t* frames) {
        return get(device, frames);
      });
}

void CSharedDeviceImpl::SetDirectMonitoring(bool enable) {
  const uint8_t value = enable ? 1 : 0;
  ThrowByZEPCode(OnDevice<PZEPSetDirectMonitoring>(
      glue_->Loader(), kZEPSetDirectMonitoring, device_, kZEPQueryCallMs,
      [value](PZEPSetDirectMonitoring set, ZEPDevice device) { return set(device, value); }));
}

bool CSharedDeviceImpl::HasControlPanel() {
  return OnDeviceValue<uint32_t, PZEPHasControlPanel>(
             glue_->Loader(), kZEPHasControlPanel, device_,
             [](PZEPHasControlPanel get, ZEPDevice device, uint32_t* has) {
               return get(device, has);
             }) == 1;
}

void ZEPTestCommand(CGlueImpl& glue, uint32_t command, uintptr_t first, uintptr_t second,
                    uintptr_t third, int32_t fourth) {
  const PZEPTestCommand test = glue.Loader().Get<PZEPTestCommand>(kZEPTestCommand);
  ThrowByZEPCode(glue.Loader().Call<ZEPResult>(
      kZEPConnectCallMs,
      [test, command, first, second, third, fourth] { return test(command, first, second, third, fourth); }));
}

void ZEPGetVersion(IZEPPlatform& platform, uintptr_t first, uintptr_t second) {
  NSPrivate::CScopedZEPLoader use(platform);
  const PZEPGetVersion get = use.Loader().Get<PZEPGetVersion>(kZEPGetVersion);
  ThrowByZEPCode(use.Loader().Call<ZEPResult>(kZEPQueryCallMs,
                                              [get, first, second] { return get(first, second); }));
}

}  // namespace NSZEPGlue
