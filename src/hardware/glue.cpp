#include "hardware/glue.h"

#include "failure/exceptions.h"

namespace NSZEPGlue {

using NSPrivate::ThrowByZEPCode;
using NSPrivate::ZEPCodeFromCurrentFailure;

// The library's callbacks: no failure may cross into the library.
struct SGlueTrampolines {
  static ZEPResult Connection(void* context) {
    try {
      IConnectionHandler* handler = static_cast<CGlueImpl*>(context)->connectionHandler_;
      if (handler != nullptr) handler->OnConnectionChanged();
      return kZEPSuccess;
    } catch (...) {
      return ZEPCodeFromCurrentFailure();
    }
  }

  static ZEPResult Button(ZEPDevice device, uint32_t button, void* context) {
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
  ThrowByZEPCode(create(1, 0, connectionHandler != nullptr ? &ConnectionTrampoline : nullptr,
                        buttonHandler != nullptr ? &ButtonTrampoline : nullptr, this));
}

CGlueImpl::~CGlueImpl() {
  try {
    Loader().Get<PZEPDispose>(kZEPDispose)();
  } catch (...) {
  }
}

void CGlueImpl::GetCurrentDeviceNames(std::vector<std::string>& names) {
  const PZEPGetCurrentDevices list = Loader().Get<PZEPGetCurrentDevices>(kZEPGetCurrentDevices);
  uint32_t count = 0;
  ThrowByZEPCode(list(nullptr, &count));
  std::vector<std::string> found;
  if (count != 0) {
    std::vector<const char*> texts(count, nullptr);
    ThrowByZEPCode(list(texts.data(), &count));
    // The library may have fewer devices by the second call.
    if (count < texts.size()) texts.resize(count);
    for (const char* text : texts) found.emplace_back(text != nullptr ? text : "");
  }
  names.swap(found);
}

CSharedDeviceImpl::CSharedDeviceImpl(const CGluePtr& glue, const std::string& name)
    : glue_(glue), name_(name), device_(static_cast<ZEPDevice>(-1)) {
  // As for the glue: the close is found before the open.
  glue_->Loader().Get<PZEPDeviceClose>(kZEPDeviceClose);
  ThrowByZEPCode(glue_->Loader().Get<PZEPDeviceOpen>(kZEPDeviceOpen)(name_.c_str(), &device_));
}

CSharedDeviceImpl::~CSharedDeviceImpl() {
  try {
    glue_->Loader().Get<PZEPDeviceClose>(kZEPDeviceClose)(device_);
  } catch (...) {
  }
  name_.clear();
  glue_.reset();
}

uint32_t CSharedDeviceImpl::GetChannelCount() {
  uint32_t count = 0;
  ThrowByZEPCode(
      glue_->Loader().Get<PZEPGetDeviceChannelCount>(kZEPGetDeviceChannelCount)(device_, &count));
  return count;
}

uint32_t CSharedDeviceImpl::GetGainSafePaddedChannel(uint32_t channel) {
  uint32_t padded = 0;
  ThrowByZEPCode(glue_->Loader().Get<PZEPGetDeviceChannelGainSafePaddedChannel>(
      kZEPGetDeviceChannelGainSafePaddedChannel)(device_, channel, &padded));
  return padded;
}

float CSharedDeviceImpl::GetGainSafePaddingDb(uint32_t channel) {
  float decibels = 0.0f;
  ThrowByZEPCode(glue_->Loader().Get<PZEPGetDeviceChannelGainSafePaddingDB>(
      kZEPGetDeviceChannelGainSafePaddingDB)(device_, channel, &decibels));
  return decibels;
}

void CSharedDeviceImpl::SetGainSafeRoutingEnable(uint32_t channel, bool enable) {
  ThrowByZEPCode(glue_->Loader().Get<PZEPSetDeviceChannelGainSafeRoutingEnable>(
      kZEPSetDeviceChannelGainSafeRoutingEnable)(device_, channel, enable ? 1 : 0));
}

void CSharedDeviceImpl::SetGainSafeIndicator(uint32_t state) {
  ThrowByZEPCode(glue_->Loader().Get<PZEPSetDeviceGainSafeIndicator>(
      kZEPSetDeviceGainSafeIndicator)(device_, state));
}

void CSharedDeviceImpl::SetChannelActiveIndicator(uint32_t channel, bool active) {
  ThrowByZEPCode(glue_->Loader().Get<PZEPSetDeviceChannelActiveIndicator>(
      kZEPSetDeviceChannelActiveIndicator)(device_, channel, active ? 1 : 0));
}

uint32_t CSharedDeviceImpl::GetPreferredSampleRate() {
  uint32_t rate = 0;
  ThrowByZEPCode(glue_->Loader().Get<PZEPGetPreferredSampleRate>(kZEPGetPreferredSampleRate)(
      device_, &rate));
  return rate;
}

uint32_t CSharedDeviceImpl::GetPreferredBufferSize() {
  uint32_t frames = 0;
  ThrowByZEPCode(glue_->Loader().Get<PZEPGetPreferredBufferSize>(kZEPGetPreferredBufferSize)(
      device_, &frames));
  return frames;
}

void CSharedDeviceImpl::SetDirectMonitoring(bool enable) {
  ThrowByZEPCode(glue_->Loader().Get<PZEPSetDirectMonitoring>(kZEPSetDirectMonitoring)(
      device_, enable ? 1 : 0));
}

bool CSharedDeviceImpl::HasControlPanel() {
  uint32_t has = 0;
  ThrowByZEPCode(
      glue_->Loader().Get<PZEPHasControlPanel>(kZEPHasControlPanel)(device_, &has));
  return has == 1;
}

void ZEPTestCommand(CGlueImpl& glue, uint32_t command, uintptr_t first, uintptr_t second,
                    uintptr_t third, int32_t fourth) {
  ThrowByZEPCode(
      glue.Loader().Get<PZEPTestCommand>(kZEPTestCommand)(command, first, second, third, fourth));
}

void ZEPGetVersion(IZEPPlatform& platform, uintptr_t first, uintptr_t second) {
  NSPrivate::CScopedZEPLoader use(platform);
  ThrowByZEPCode(use.Loader().Get<PZEPGetVersion>(kZEPGetVersion)(first, second));
}

}  // namespace NSZEPGlue
