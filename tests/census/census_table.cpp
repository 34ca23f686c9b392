#include "census/census_table.h"

#include "asio/asio_interface.h"
#include "driver/system_sync.h"
#include "text/code_conversions.h"
#include "hardware/zep_api.h"
#include "wasapi/wasapi_api.h"

namespace {

constexpr int32_t kEFail = static_cast<int32_t>(0x80004005u);

std::vector<SCensusRow> rows;

void Add(const std::string& seam, const std::string& call, const std::string& variant,
         const std::u16string& spec, std::function<void(CFakeWorld&)> inject,
         std::function<uint64_t(CFakeWorld&)> calls) {
  rows.push_back({seam, call, variant, spec, std::move(inject), std::move(calls)});
}

void WaveOut(const char* call, Fakes::EWaveCall which, uint32_t result, const char* variant = "") {
  Add("IWaveOut", call, variant, u"Fake Out",
      [=](CFakeWorld& w) { w.waveOut.Fail(which, result); },
      [=](CFakeWorld& w) { return w.waveOut.Calls(which); });
}

void DirectSound(const char* call, Fakes::EDSCall which) {
  Add("IDirectSoundApi", call, "", u"Primary Sound Driver",
      [=](CFakeWorld& w) { w.directSound.Fail(which, kEFail); },
      [=](CFakeWorld& w) { return w.directSound.Calls(which); });
}

void Wasapi(const char* call, Fakes::EWasapiCall which, const std::u16string& spec = u"Fake Speakers") {
  Add("IWasapiApi", call, "", spec, [=](CFakeWorld& w) { w.engine.Fail(which, kEFail); },
      [=](CFakeWorld& w) { return w.engine.Calls(which); });
}

void ASIOPlatform(const char* call, Fakes::EASIOPlatformCall which, int32_t result) {
  Add("IASIOPlatform", call, "", u"Box A", [=](CFakeWorld& w) { w.asio.Fail(which, result); },
      [=](CFakeWorld& w) { return w.asio.Calls(which); });
}

void ASIODriver(const char* call, Fakes::EASIOCall which) {
  Add("IASIO", call, "", u"Box A",
      [=](CFakeWorld& w) { w.box->Fail(which, NSASIO::ASE_HWMalfunction); },
      [=](CFakeWorld& w) { return w.box->Calls(which); });
}

// A driver that crashes (throws out of the call, which every build can
// contain) or never returns: quarantined, it keeps its thread, its object and
// its memory for the life of the process.
void ASIODriverFault(const char* seam, const char* call, Fakes::EASIOCall which, bool hang) {
  Add(seam, call, hang ? "hangs" : "crashes", u"Box A",
      [=](CFakeWorld& w) {
        if (hang) {
          w.box->Hang(which);
        } else {
          w.box->Crash(which);
        }
      },
      [=](CFakeWorld& w) { return w.box->misbehaved.load(); });
  rows.back().systemKeeps = kQuarantinedDriver;
}

void Contract(const char* seam, Fakes::EOperation which) {
  Add(seam, Fakes::OperationName(which), "", u"Fake One",
      [=](CFakeWorld& w) { w.control->Raise(which, 30); },
      [=](CFakeWorld& w) { return w.control->Calls(which); });
}

void ZEPOperation(const char* operation) {
  const std::string name(operation);
  Add("ZEPLib", name, "", u"Box A", [=](CFakeWorld&) { ZEPFake_SetResult(name.c_str(), 1); },
      [=](CFakeWorld& w) { return w.ZEPCalls(name); });
}

// A hardware library that crashes or never returns: cut off, it keeps its
// thread, its module and what its abandoned call holds for the life of the
// process.
void ZEPOperationFault(const char* operation, bool hang) {
  const std::string name(operation);
  Add("ZEPLib", name, hang ? "hangs" : "crashes", u"Box A",
      [=](CFakeWorld&) { ZEPFake_SetFault(name.c_str(), hang ? kZEPFakeHangs : kZEPFakeCrashes); },
      [](CFakeWorld&) { return static_cast<uint64_t>(ZEPFake_Misbehaved()); });
  rows.back().systemKeeps = kQuarantinedDriver;
}

void ZEPPlatform(const char* call) {
  const std::string name(call);
  Add("IZEPPlatform", name, "", u"Box A", [=](CFakeWorld& w) { w.zep.failing = name; },
      [=](CFakeWorld& w) { return static_cast<uint64_t>(w.zep.calls[name]); });
}

void Platform(NSPlatform::EPlatformCall which, const std::u16string& spec) {
  Add("NSPlatform", NSPlatform::PlatformCallName(which), "", spec,
      [=](CFakeWorld&) { NSPlatform::ArmFault(which, 0, 1); },
      [=](CFakeWorld&) { return NSPlatform::FaultsTaken(which); });
}

// The driver layer's event and thread wrappers, which the failure framework
// and the hardware glue may use: a refusal raises, and nothing is lost.
void UseSystemEvent(CFakeWorld&) {
  try {
    NSFerrand::CSystemEvent event;
    event.Set();
    event.TimedWait(1);
    // Set again before the endless wait: a refusal taken by another thread
    // must not leave this one waiting for ever.
    event.Set();
    event.Wait();
  } catch (const std::exception&) {
  }
}

class CIdleFunction final : public NSFerrand::IThreadFunction {
 public:
  void Run() override {}
};

void UseSystemThread(CFakeWorld&) {
  CIdleFunction function;
  try {
    NSFerrand::CSystemThread thread(&function, NSFerrand::kPriorityNormal, "census");
    NSFerrand::CThreadAffinity affinity;
    affinity.idealProcessor = 0;
    thread.ApplyAffinity(affinity);
    thread.Join();
  } catch (const std::exception&) {
  }
}

void UseCodePages(CFakeWorld&) {
  try {
    NSTextPackage::WideToSystemCodePage(u"Gr\u00fc\u00dfe", true);
  } catch (const std::exception&) {
  }
  try {
    NSTextPackage::CompareTextIgnoreCase(u"Alpha", u"ALPHA");
  } catch (const std::exception&) {
  }
}

void Build() {
  // The wave-out functions.
  WaveOut("GetNumDevs", Fakes::kWaveGetNumDevs, 0, "no device");
  WaveOut("GetDevCaps", Fakes::kWaveGetDevCaps, 1);
  WaveOut("Open", Fakes::kWaveOpen, 1);
  WaveOut("Open", Fakes::kWaveQuery, 32, "format query");
  WaveOut("PrepareHeader", Fakes::kWavePrepare, 1);
  WaveOut("UnprepareHeader", Fakes::kWaveUnprepare, 1);
  WaveOut("Write", Fakes::kWaveWrite, 1);
  WaveOut("Pause", Fakes::kWavePause, 1);
  WaveOut("Restart", Fakes::kWaveRestart, 1);
  WaveOut("Reset", Fakes::kWaveReset, 1);
  WaveOut("Close", Fakes::kWaveClose, 1);
  rows.back().systemKeeps = "a wave-out stream";

  // DirectSound: the library, its entries, the device and its buffer.
  Add("IDirectSoundApi", "LoadLibrary", "", u"Primary Sound Driver",
      [](CFakeWorld& w) { w.directSound.libraryPresent = false; },
      [](CFakeWorld& w) { return w.directSound.libraryLoads.load(); });
  Add("IDirectSoundApi", "GetProcAddress", "", u"Primary Sound Driver",
      [](CFakeWorld& w) { w.directSound.missingEntries.insert("DirectSoundCreate"); },
      [](CFakeWorld& w) { return w.directSound.entryLookups.load(); });
  DirectSound("DirectSoundEnumerate", Fakes::kDSEnumerate);
  DirectSound("DirectSoundCreate", Fakes::kDSCreate);
  DirectSound("SetCooperativeLevel", Fakes::kDSCooperativeLevel);
  DirectSound("CreateSoundBuffer", Fakes::kDSCreateBuffer);
  DirectSound("GetCaps", Fakes::kDSGetCaps);
  DirectSound("SetFormat", Fakes::kDSSetFormat);
  DirectSound("GetFormat", Fakes::kDSGetFormat);
  DirectSound("Lock", Fakes::kDSLock);
  DirectSound("Unlock", Fakes::kDSUnlock);
  DirectSound("Play", Fakes::kDSPlay);
  DirectSound("Stop", Fakes::kDSStop);
  DirectSound("GetCurrentPosition", Fakes::kDSGetPosition);
  // Restored only when a lock finds the buffer lost.
  Add("IDirectSoundApi", "Restore", "buffer lost", u"Primary Sound Driver",
      [](CFakeWorld& w) {
        w.directSound.Fail(Fakes::kDSLock, static_cast<int32_t>(0x88780096u), 3);
        w.directSound.Fail(Fakes::kDSRestore, kEFail);
      },
      [](CFakeWorld& w) { return w.directSound.Calls(Fakes::kDSRestore); });

  // The audio engine: COM, the endpoints, the client, the stream, the clock.
  Wasapi("CoInitialize", Fakes::kWasCoInitialize);
  Wasapi("CreateEnumerator", Fakes::kWasCreateEnumerator);
  Wasapi("ListRenderEndpoints", Fakes::kWasList);
  Wasapi("GetDefaultRenderEndpoint", Fakes::kWasDefaultEndpoint, u"Default output");
  Wasapi("RegisterNotification", Fakes::kWasRegister);
  Wasapi("GetDeviceFormat", Fakes::kWasDeviceFormat, u"Fake Speakers (exclusive)");
  Wasapi("ActivateClient", Fakes::kWasActivate);
  Wasapi("GetMixFormat", Fakes::kWasMixFormat);
  Wasapi("GetDevicePeriod", Fakes::kWasDevicePeriod, u"Fake Speakers (exclusive)");
  Wasapi("GetSharedModeEnginePeriod", Fakes::kWasEnginePeriod);
  Wasapi("InitializeSharedAudioStream", Fakes::kWasInitializeShared3);
  // Asked only when another application holds the engine's period.
  Add("IWasapiApi", "GetCurrentSharedModeEnginePeriod", "engine period locked", u"Fake Speakers",
      [](CFakeWorld& w) {
        w.engine.endpoints[0].lockedFrames = 192;
        w.engine.Fail(Fakes::kWasCurrentEnginePeriod, kEFail);
      },
      [](CFakeWorld& w) { return w.engine.Calls(Fakes::kWasCurrentEnginePeriod); });
  Wasapi("IsFormatSupported", Fakes::kWasIsFormatSupported, u"Fake Speakers (exclusive)");
  Wasapi("Initialize", Fakes::kWasInitialize, u"Fake Speakers (exclusive)");
  Wasapi("GetBufferSize", Fakes::kWasBufferSize);
  Wasapi("GetStreamLatency", Fakes::kWasStreamLatency);
  Wasapi("GetCurrentPadding", Fakes::kWasPadding);
  Wasapi("SetEventHandle", Fakes::kWasSetEvent);
  Wasapi("Start", Fakes::kWasStart);
  Wasapi("Stop", Fakes::kWasStop);
  Wasapi("GetRenderClient", Fakes::kWasRenderClient);
  Wasapi("GetBuffer", Fakes::kWasGetBuffer);
  Wasapi("ReleaseBuffer", Fakes::kWasReleaseBuffer);
  Wasapi("GetClock", Fakes::kWasClock);
  Wasapi("GetClockFrequency", Fakes::kWasClockFrequency);
  Wasapi("GetClockPosition", Fakes::kWasClockPosition);
  Wasapi("CreateEngineEvent", Fakes::kWasCreateEvent);
  Wasapi("WaitEngineEvent", Fakes::kWasWaitEvent);

  // The registry and COM, as ASIO uses them.
  ASIOPlatform("RegOpenKey", Fakes::kPlatformOpenKey, 5);
  ASIOPlatform("RegOpenKeyEx", Fakes::kPlatformOpenKeyEx, 5);
  ASIOPlatform("RegEnumKeyEx", Fakes::kPlatformEnumKey, 5);
  ASIOPlatform("RegQueryValueEx", Fakes::kPlatformQueryValue, 5);
  ASIOPlatform("RegCloseKey", Fakes::kPlatformCloseKey, 6);
  ASIOPlatform("CLSIDFromString", Fakes::kPlatformClsidFromString,
               static_cast<int32_t>(0x800401F3u));
  ASIOPlatform("CoInitialize", Fakes::kPlatformCoInitialize, kEFail);
  ASIOPlatform("CoCreateInstance", Fakes::kPlatformCoCreate, static_cast<int32_t>(0x80040154u));
  ASIOPlatform("CreateFileForReading", Fakes::kPlatformCreateFile, 2);

  // The ASIO driver itself.
  ASIODriver("QueryInterface", Fakes::kAsioQueryInterface);
  ASIODriver("init", Fakes::kAsioInit);
  ASIODriver("start", Fakes::kAsioStart);
  ASIODriver("stop", Fakes::kAsioStop);
  ASIODriver("getChannels", Fakes::kAsioGetChannels);
  ASIODriver("getLatencies", Fakes::kAsioGetLatencies);
  ASIODriver("getBufferSize", Fakes::kAsioGetBufferSize);
  ASIODriver("canSampleRate", Fakes::kAsioCanSampleRate);
  ASIODriver("getSampleRate", Fakes::kAsioGetSampleRate);
  ASIODriver("setSampleRate", Fakes::kAsioSetSampleRate);
  ASIODriver("getClockSources", Fakes::kAsioGetClockSources);
  ASIODriver("setClockSource", Fakes::kAsioSetClockSource);
  ASIODriver("getSamplePosition", Fakes::kAsioGetSamplePosition);
  ASIODriver("getChannelInfo", Fakes::kAsioGetChannelInfo);
  ASIODriver("createBuffers", Fakes::kAsioCreateBuffers);
  ASIODriver("disposeBuffers", Fakes::kAsioDisposeBuffers);
  ASIODriver("controlPanel", Fakes::kAsioControlPanel);
  ASIODriver("future", Fakes::kAsioFuture);
  ASIODriver("outputReady", Fakes::kAsioOutputReady);
  ASIODriver("GetHardwareIdentity", Fakes::kAsioHardwareIdentity);
  const struct {
    const char* seam;
    const char* call;
    Fakes::EASIOCall which;
  } misbehaving[] = {
      {"IASIOPlatform", "CoCreateInstance", Fakes::kAsioCreate},
      {"IASIO", "QueryInterface", Fakes::kAsioQueryInterface},
      {"IASIO", "GetHardwareIdentity", Fakes::kAsioHardwareIdentity},
      {"IASIO", "init", Fakes::kAsioInit},
      {"IASIO", "getChannels", Fakes::kAsioGetChannels},
      {"IASIO", "getLatencies", Fakes::kAsioGetLatencies},
      {"IASIO", "getBufferSize", Fakes::kAsioGetBufferSize},
      {"IASIO", "canSampleRate", Fakes::kAsioCanSampleRate},
      {"IASIO", "getSampleRate", Fakes::kAsioGetSampleRate},
      {"IASIO", "setSampleRate", Fakes::kAsioSetSampleRate},
      {"IASIO", "getClockSources", Fakes::kAsioGetClockSources},
      {"IASIO", "setClockSource", Fakes::kAsioSetClockSource},
      {"IASIO", "getChannelInfo", Fakes::kAsioGetChannelInfo},
      {"IASIO", "createBuffers", Fakes::kAsioCreateBuffers},
      {"IASIO", "start", Fakes::kAsioStart},
      {"IASIO", "stop", Fakes::kAsioStop},
      {"IASIO", "disposeBuffers", Fakes::kAsioDisposeBuffers},
      {"IASIO", "future", Fakes::kAsioFuture},
      {"IASIO", "controlPanel", Fakes::kAsioControlPanel},
      {"IASIO", "getSamplePosition", Fakes::kAsioGetSamplePosition},
      {"IASIO", "outputReady", Fakes::kAsioOutputReady},
      {"IASIO", "Release", Fakes::kAsioRelease},
  };
  for (const auto& call : misbehaving) {
    ASIODriverFault(call.seam, call.call, call.which, false);
    // The panel has no deadline: one left open is its user's choice.
    if (call.which != Fakes::kAsioControlPanel) {
      ASIODriverFault(call.seam, call.call, call.which, true);
    }
  }

  // The hardware library's operations, and the system's file and module
  // services that find and load it.
  for (const char* operation : NSZEPGlue::kZEPEntryNames) {
    ZEPOperation(operation);
    ZEPOperationFault(operation, false);
    ZEPOperationFault(operation, true);
  }
  for (const char* call : {"LoaderModuleFileName", "FileAttributes", "FileVersionInfoSize",
                           "FileVersionInfo", "QueryFixedFileVersion", "SpecialFolderPath",
                           "LoadLibraryFile", "GetProcAddress"}) {
    ZEPPlatform(call);
  }

  // A family's registered and open drivers, through the fake family.
  for (uint32_t i = Fakes::kOpenWithSettings; i <= Fakes::kOpenWithDefaults; ++i) {
    Contract("CABCRegisteredSoundDriver", static_cast<Fakes::EOperation>(i));
  }
  Contract("CABCRegisteredSoundDriver", Fakes::kGetInfo);
  for (uint32_t i = Fakes::kGetSettings; i <= Fakes::kCheckAlive; ++i) {
    if (i == Fakes::kGetInputMonitor || i == Fakes::kSetInputMonitor) continue;
    Contract("CABCOpenSoundDriver", static_cast<Fakes::EOperation>(i));
  }

  // The platform's threads, mutexes, events, timers, modules and text
  // services: those of threads and waits under the null driver and under
  // every family's streaming thread.
  for (const char16_t* spec : {u"No Sound", u"Fake Out", u"Primary Sound Driver",
                               u"Fake Speakers", u"Box A", u"Fake One"}) {
    for (NSPlatform::EPlatformCall call :
         {NSPlatform::kCallNewMutex, NSPlatform::kCallWaitMutex, NSPlatform::kCallReleaseMutex,
          NSPlatform::kCallNewEvent, NSPlatform::kCallStartThread,
          NSPlatform::kCallEnterRealtimeClass}) {
      Platform(call, spec);
    }
  }
  // The wave-out device tells of each header it is done with through an
  // event, which the pump waits on.
  for (NSPlatform::EPlatformCall call : {NSPlatform::kCallSetEvent, NSPlatform::kCallWaitEvent}) {
    Platform(call, u"Fake Out");
  }
  // A streaming thread's end is waited for with a time limit.
  for (const char16_t* spec : {u"Fake Out", u"Primary Sound Driver", u"Fake Speakers"}) {
    Platform(NSPlatform::kCallJoinThreadFor, spec);
  }
  // The timer's resolution is raised while the library lives; the host's
  // window is checked as the library is made; ASIO's names come through the
  // system's code page; names are compared by the user's locale.
  Platform(NSPlatform::kCallBeginTimerPeriod, u"No Sound");
  Platform(NSPlatform::kCallEndTimerPeriod, u"No Sound");
  Platform(NSPlatform::kCallIsUsableWindow, u"Box A");
  // An ASIO driver's own thread waits for its calls with its messages pumped.
  Platform(NSPlatform::kCallWaitEventPumping, u"Box A");
  Platform(NSPlatform::kCallMultiByteToWide, u"Box A");
  for (NSPlatform::EPlatformCall call :
       {NSPlatform::kCallCompareLocaleText, NSPlatform::kCallWideToMultiByte}) {
    Platform(call, u"No Sound");
    rows.back().exercise = UseCodePages;
  }
  // Events, as a thread's stop and the wrappers use them.
  for (NSPlatform::EPlatformCall call :
       {NSPlatform::kCallSetEvent, NSPlatform::kCallWaitEvent}) {
    Platform(call, u"No Sound");
    rows.back().exercise = UseSystemEvent;
  }
  Platform(NSPlatform::kCallSetThreadAffinity, u"No Sound");
  rows.back().exercise = UseSystemThread;

}

}  // namespace

std::vector<SCensusRow> CensusRows() {
  if (rows.empty()) Build();
  return rows;
}

std::vector<SNoRow> CallsWithoutARow() {
  return {
      {"IDirectSoundApi", "FreeLibrary", "gives nothing back"},
      {"IDirectSoundApi", "ReleaseDevice", "answers the count of references left"},
      {"IDirectSoundApi", "ReleaseBuffer", "answers the count of references left"},
      {"IWasapiApi", "CoUninitialize", "gives nothing back"},
      {"IWasapiApi", "ReleaseEnumerator", "gives nothing back"},
      {"IWasapiApi", "UnregisterNotification", "gives nothing back"},
      {"IWasapiApi", "ReleaseClient", "gives nothing back"},
      {"IWasapiApi", "ReleaseRender", "gives nothing back"},
      {"IWasapiApi", "ReleaseClock", "gives nothing back"},
      {"IWasapiApi", "CloseEngineEvent", "gives nothing back"},
      {"IWasapiApi", "OnEndpointsChanged", "the library's own callback, not a call it makes"},
      {"IWasapiApi", "OnDefaultEndpointChanged", "the library's own callback, not a call it makes"},
      {"IASIOPlatform", "CoUninitialize", "gives nothing back"},
      {"IASIOPlatform", "CloseHandle", "gives nothing back"},
      {"IASIOPlatform", "SysStringLen", "answers a length"},
      {"IASIOPlatform", "SysFreeString", "gives nothing back"},
      {"IASIO", "AddRef", "answers the count of references"},
      {"IASIO", "Release", "answers the count of references left"},
      {"IASIO", "getDriverName", "fills a text and gives nothing back"},
      {"IASIO", "getDriverVersion", "answers a number, every one a version"},
      {"IASIO", "getErrorMessage", "fills a text and gives nothing back"},
      {"IZEPPlatform", "SetErrorMode", "answers the former mode"},
      {"IZEPPlatform", "LastError", "answers the last error"},
      {"IZEPPlatform", "PathSeparator", "a constant"},
      {"IZEPPlatform", "LibrarySuffix", "a constant"},
      {"IZEPPlatform", "FreeLibrary", "gives nothing back"},
      {"CABCOpenSoundDriver", "Render", "the renderer's, which the client implements"},
      {"CABCOpenSoundDriver", "GetInputMonitor",
       "not called across the contract: monitors travel in the settings"},
      {"CABCOpenSoundDriver", "SetInputMonitor",
       "not called across the contract: monitors travel in the settings"},
      {"NSPlatform", "MillisecondTicks", "a clock"},
      {"NSPlatform", "CoarseMillisecondTicks", "a clock"},
      {"NSPlatform", "SleepMilliseconds", "gives nothing back"},
      {"NSPlatform", "ProcessCpuSeconds", "a clock"},
      {"NSPlatform", "DestroyMutex", "gives nothing back"},
      {"NSPlatform", "DestroyEvent", "gives nothing back"},
      {"NSPlatform", "SystemEventHandle", "answers a handle"},
      {"NSPlatform", "ThreadHasEnded", "answers a state"},
      {"NSPlatform", "JoinThread", "gives nothing back; its timed form can fail"},
      {"NSPlatform", "TerminateThread", "gives nothing back"},
      {"NSPlatform", "ReleaseThread", "gives nothing back"},
      {"NSPlatform", "ProcessAffinityMask", "answers a mask"},
      {"NSPlatform", "LeaveRealtimeClass", "gives nothing back"},
      {"NSPlatform", "OpenModule", "the hosts' (the demo's, the ABI test's), never the library's"},
      {"NSPlatform", "ModuleSymbol", "the hosts' (the demo's, the ABI test's), never the library's"},
      {"NSPlatform", "CloseModule", "gives nothing back"},
      {"NSPlatform", "AnsiCodePage", "answers a number"},
  };
}

std::vector<SSeamSource> SeamSources() {
  return {
      {{"IWaveOut"}, {"mme/wave_out.h"}},
      {{"IDirectSoundApi"}, {"directsound/dsound_api.h"}},
      {{"IWasapiApi"}, {"wasapi/wasapi_api.h"}},
      {{"IASIOPlatform"}, {"asio/asio_platform.h"}},
      {{"IASIO"}, {"asio/asio_interface.h"}},
      {{"IZEPPlatform"}, {"hardware/zep_platform.h"}},
      {{"CABCRegisteredSoundDriver", "CABCOpenSoundDriver"}, {"driver/driver_contract.h"}},
      {{"NSPlatform"},
       {"platform/clock.h", "platform/module.h", "platform/mutex.h", "platform/threads.h",
        "platform/timer_resolution.h", "platform/window.h", "platform/text_services.h"}},
  };
}
