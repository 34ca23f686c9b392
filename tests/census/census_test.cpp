// The fault census run: each row's call is made to fail (every time for a
// fake's call, once for a platform call) before the library is made, and
// again while a client plays; each time the client must survive it: a
// status or silence, OnDriverLost at most once for each driver it had open,
// Render never from two threads at once, Idle answering success at the end,
// nothing lost (the heap, while the client lived and once the library is
// gone; the fakes' keys, strings, streams, devices and loaded copies; the
// threads), and the call made while it failed. The run prints the table and
// its count.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <cstdio>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "asio/asio_call_thread.h"
#include "census/census_table.h"
#include "failure/scope.h"
#include "hardware/glue.h"
#include "public/library.h"
#include "public/zep_handler.h"
#include "platform/fault_points.h"
#include "support/allocation_counter.h"
#include "support/process_stats.h"
#include "support/usable_window.h"

namespace {

enum EPhase { kBeforeTheLibrary, kWhileRunning };

bool IsStatus(uint32_t status) {
  return (status >= kStatusOk && status <= kStatusNotReady && status != 997) || status >= kStatusBase;
}

struct SOutcome {
  std::string trouble;  // empty: survived
  uint64_t failingCalls = 0;
};

uint64_t FaultsTakenSoFar() {
  uint64_t taken = 0;
  for (uint32_t i = 0; i < NSPlatform::kPlatformCallCount; ++i) {
    taken += NSPlatform::FaultsTaken(static_cast<NSPlatform::EPlatformCall>(i));
  }
  return taken;
}

void Pause(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

// Every operation of the client, and the hardware library's operations that
// nothing at the boundary calls, each answering a status.
std::string Exercise(IQuillon* library, IClient* client) {
  std::string trouble;
  auto check = [&](const char* what, uint32_t status) {
    if (!IsStatus(status) && trouble.empty()) trouble = std::string(what) + " answered no status";
  };
  uint32_t status = 0;
  IVector<QuillonULong>* rates = client->GetSampleRates(&status);
  check("GetSampleRates", status);
  IVector<QuillonULong>* sizes = client->GetBufferSizes(&status);
  check("GetBufferSizes", status);
  QuillonDestroy(client->GetInputNames(&status));
  check("GetInputNames", status);
  QuillonDestroy(client->GetOutputNames(&status));
  check("GetOutputNames", status);
  IVector<const unsigned short*>* clocks = client->GetClockSourceNames(&status);
  check("GetClockSourceNames", status);
  QuillonDestroy(client->GetDriverSpec(&status));
  check("GetDriverSpec", status);
  SClientSettings settings;
  std::memset(&settings, 0, sizeof settings);
  if (client->GetClientSettings(&settings) == kStatusOk) {
    // Another rate, size and clock where the driver has them, and a monitor.
    SClientSettings other = settings;
    if (rates != nullptr && rates->GetSize() > 1) {
      other.sampleRate = rates->GetData()[0] == settings.sampleRate ? rates->GetData()[1]
                                                                   : rates->GetData()[0];
    }
    if (sizes != nullptr && sizes->GetSize() > 1) {
      other.bufferFrames = sizes->GetData()[0] == settings.bufferFrames ? sizes->GetData()[1]
                                                                       : sizes->GetData()[0];
    }
    if (clocks != nullptr && clocks->GetSize() > 1) other.clockSource = settings.clockSource ^ 1u;
    other.inputPairEnabled[0] = 1;
    other.monitorsValid = 1;
    other.monitors[0] = {1, 0.0f, 0, -6.0f};
    uint32_t running = 0;
    check("ApplyClientSettings", client->ApplyClientSettings(&other, &running));
    check("ApplyClientSettings", client->ApplyClientSettings(&settings, &running));
  }
  QuillonDestroy(rates);
  QuillonDestroy(sizes);
  QuillonDestroy(clocks);
  uint64_t microseconds = 0;
  check("GetInputLatency", client->GetInputLatency(&microseconds));
  check("GetOutputLatency", client->GetOutputLatency(&microseconds));
  uint8_t can = 0;
  check("CanMonitorInputs", client->CanMonitorInputs(&can));
  check("HasHardwareDevice", client->HasHardwareDevice(&can));
  uint32_t has = 0;
  check("HasControlPanel", client->HasControlPanel(&has));
  if (has == 1) check("ShowControlPanel", client->ShowControlPanel());
  int32_t padded = 0;
  float decibels = 0.0f;
  check("GetGainSafePaddedChannel", client->GetGainSafePaddedChannel(0, &padded));
  check("GetGainSafePaddingDb", client->GetGainSafePaddingDb(0, &decibels));
  check("SetGainSafeRoutingEnable", client->SetGainSafeRoutingEnable(0, 1));
  check("SetGainSafeIndicator", client->SetGainSafeIndicator(kGainSafeIndicatorState1));
  check("SetChannelActiveIndicator", client->SetChannelActiveIndicator(0, 1));
  check("ClearDirectMonitoring", client->ClearDirectMonitoring());
  // A device plugged in or out: the next Idle asks the hardware library.
  ZEPFake_PostConnections(1);
  ZEPFake_WaitEvents();
  // Operations of the hardware library that only the glue's own users call.
  CZEPLibHandler* handler = static_cast<CQuillonImpl*>(library)->HardwareHandler();
  if (handler != nullptr && *handler->GetGlue()) {
    NSMarlet::CFailureScope scope;
    try {
      NSZEPGlue::ZEPTestCommand(**handler->GetGlue(), 1, 0, 0, 0, 0);
    } catch (const std::exception&) {
    }
    try {
      NSZEPGlue::CSharedDeviceImpl device(*handler->GetGlue(), "Dev A");
      device.GetChannelCount();
      device.GetPreferredSampleRate();
      device.GetPreferredBufferSize();
    } catch (const std::exception&) {
    }
    try {
      NSZEPGlue::ZEPGetVersion(*PlatformProvider().hardware, 0, 0);
    } catch (const std::exception&) {
    }
  }
  return trouble;
}

// Runs the client part of a phase; its trouble, if any.
std::string Play(CFakeWorld& world, const SCensusRow& row, EPhase phase, IQuillon* library,
                 uint64_t& callsAtInjection) {
  uint32_t status = 0;
  IVector<const IDriverSpec*>* specs = library->GetDriverSpecs(&status);
  if (specs == nullptr) return "the list failed with " + std::to_string(status);
  // A family that lost its device at start lists fewer drivers: the null
  // driver stands in.
  const IDriverSpec* spec = NamedSpec(specs, row.spec);
  if (spec == nullptr) spec = specs->GetData()[0];
  world.Forget();
  const int64_t heapBefore = AllocationCounter::LiveBytes();
  uint32_t running = 9;
  IClient* client = library->CreateClient(&world.host, &world.sink, spec, &running, &status);
  std::string trouble;
  if (client == nullptr) {
    if (!IsStatus(status) || status == kStatusOk) trouble = "no client and no failure status";
  } else {
    int opens = running == 1 ? 1 : 0;
    if (phase == kWhileRunning) {
      if (running == 1) WaitFor([&] { return world.host.watch.Blocks() > 0; }, 3000);
      callsAtInjection = row.calls(world);
      row.inject(world);
    }
    trouble = Exercise(library, client);
    if (row.exercise) {
      NSMarlet::CFailureScope scope;
      row.exercise(world);
    }
    for (int i = 0; i < 4; ++i) {
      const uint32_t idle = client->Idle();
      if (!IsStatus(idle)) trouble = "Idle answered " + std::to_string(idle);
      Pause(5);
    }
    const uint32_t suspended = client->SuspendDriver();
    uint32_t resumedRunning = 9;
    const uint32_t resumed = client->ResumeDriver(&resumedRunning);
    if (!IsStatus(suspended) || !IsStatus(resumed)) trouble = "a suspension answered no status";
    if (resumed == kStatusOk && resumedRunning == 1) ++opens;
    for (int i = 0; i < 4; ++i) {
      client->Idle();
      Pause(5);
    }
    // A saved choice read back and chosen again, which the library finds by
    // its key.
    MemorySink sink;
    uint64_t written = 0;
    if (library->SaveDriverSpec(spec, &sink, &written) == kStatusOk) {
      MemorySource source(sink.bytes);
      uint64_t read = 0;
      IDriverSpec* loaded = library->LoadDriverSpec(&source, &read, &status);
      if (loaded != nullptr) {
        uint32_t switched = 9;
        const uint32_t answer = client->SetDriver(loaded, &switched);
        if (!IsStatus(answer)) trouble = "SetDriver answered no status";
        if (answer == kStatusOk && switched == 1) ++opens;
        QuillonDestroy(loaded);
      }
    }
    // Once a failure has been taken, Idle works again; one that an Idle
    // takes itself may fail that Idle alone.
    const uint64_t takenBefore = FaultsTakenSoFar();
    uint32_t last = client->Idle();
    if (last != kStatusOk && FaultsTakenSoFar() > takenBefore) last = client->Idle();
    if (last != kStatusOk) trouble = "the last Idle answered " + std::to_string(last);
    QuillonDestroy(client);
    if (world.host.lost.load() > opens) {
      trouble = std::to_string(world.host.lost.load()) + " losses for " + std::to_string(opens) +
                " drivers open";
    }
    if (world.host.overlaps.load() != 0) trouble = "two renders overlapped";
  }
  QuillonDestroy(specs);
  world.Forget();
  const int64_t kept = AllocationCounter::LiveBytes() - heapBefore;
  // Failure texts of the scope may stay with the thread that made them; a
  // client's worth of memory may not.
  if (trouble.empty() && kept > 4096 && row.systemKeeps != kQuarantinedDriver) {
    trouble = std::to_string(kept) + " bytes kept";
  }
  return trouble;
}

SOutcome RunPhase(const SCensusRow& row, EPhase phase) {
  SOutcome outcome;
  // A call that never returns is waited for a tenth of its deadline here:
  // the deadlines themselves are timed by the tests of the family.
  struct SDeadlines {
    explicit SDeadlines(bool hangs) { NSASIO::SetCallDeadlineScale(hangs ? 10 : 100); }
    ~SDeadlines() { NSASIO::SetCallDeadlineScale(100); }
  } deadlines(row.variant == "hangs");
  const uint32_t threadsBefore = ProcessStats::Threads();
  // A hardware library cut off by an earlier row stays loaded.
  const int32_t copiesBefore = ZEPFake_LoadedCopies();
  const int64_t heapBefore = AllocationCounter::LiveBytes();
  {
    CFakeWorld world;
    uint64_t callsAtInjection = row.calls(world);
    if (phase == kBeforeTheLibrary) row.inject(world);
    SLibraryParams params = {UsableWindow(), kLibraryFlagUseHardware};
    uint32_t status = 0;
    IQuillon* library = Quillon_Create("IQuillon2", &params, &status);
    if (library == nullptr) {
      // A hardware library that cannot be had is a status: the host goes on
      // without hardware support.
      if (!IsStatus(status) || status == kStatusOk) outcome.trouble = "no library, no status";
      NSPlatform::DisarmFaults();
      params.flags = 0;
      library = Quillon_Create("IQuillon2", &params, &status);
    }
    if (library == nullptr) {
      outcome.trouble = "no library even without hardware support: " + std::to_string(status);
    } else {
      const std::string trouble = Play(world, row, phase, library, callsAtInjection);
      if (outcome.trouble.empty()) outcome.trouble = trouble;
      QuillonDestroy(library);
    }
    outcome.failingCalls = row.calls(world) - callsAtInjection;
    if (outcome.trouble.empty()) {
      if (world.waveOut.OpenStreams() != 0 && row.systemKeeps != "a wave-out stream") {
        outcome.trouble = "a wave-out stream stayed open";
      }
      // A change of rate leaves the former device object behind, as the
      // driver is built to; the client's two changes may leave two.
      const int32_t keptDevices = row.spec == u"Primary Sound Driver" ? 2 : 0;
      if (world.directSound.LiveDevices() > keptDevices || world.directSound.LiveBuffers() != 0) {
        outcome.trouble = "a DirectSound object stayed (" +
                          std::to_string(world.directSound.LiveDevices()) + " devices, " +
                          std::to_string(world.directSound.LiveBuffers()) + " buffers)";
      }
      if (world.engine.LiveClients() != 0) outcome.trouble = "an audio client stayed";
      if (world.asio.OpenKeys() != 0) outcome.trouble = "a registry key stayed open";
      if (world.asio.LiveStrings() != 0) outcome.trouble = "a system string stayed";
      if (world.control->openDrivers.load() != 0) outcome.trouble = "a fake driver stayed open";
      if (row.systemKeeps != kQuarantinedDriver &&
          (ZEPFake_LoadedCopies() != copiesBefore || ZEPFake_Created() != 0)) {
        outcome.trouble = "the hardware library stayed";
      }
    }
  }
  const bool quarantines = row.systemKeeps == kQuarantinedDriver;
  const uint32_t threadsKept = quarantines ? 2 : 0;
  if (!WaitFor([&] { return ProcessStats::Threads() <= threadsBefore + threadsKept; }, 5000) &&
      outcome.trouble.empty()) {
    outcome.trouble = "a thread stayed";
  }
  // With the world gone, the heap is where it was: a few bytes move
  // between the library's own caches, an object lost shows.
  const int64_t kept = AllocationCounter::LiveBytes() - heapBefore;
  if (kept > 1024 && outcome.trouble.empty() && !quarantines) {
    outcome.trouble = std::to_string(kept) + " bytes kept after the library was gone";
  }
  return outcome;
}

std::string Narrow(const std::u16string& text) { return std::string(text.begin(), text.end()); }

TEST(FaultCensus, EveryCallThatCanFailIsSurvived) {
  RealtimeWatch::Install();
  // The hardware library's event thread lives as long as the process: made
  // here, it is not counted as a thread that a row left behind.
  ZEPFake_PostConnections(1);
  ZEPFake_WaitEvents();
  const std::vector<SCensusRow> rows = CensusRows();
  int passing = 0;
  std::printf("fault census: %-16s %-28s %-14s %-26s %s\n", "seam", "call", "how", "driver",
              "result (failing calls before the library, while playing)");
  // QUILLON_CENSUS_ROWS=text runs only the rows whose seam or call has it.
  const char* only = std::getenv("QUILLON_CENSUS_ROWS");
  for (const SCensusRow& row : rows) {
    if (only != nullptr && (row.seam + "::" + row.call).find(only) == std::string::npos) continue;
    const SOutcome before = RunPhase(row, kBeforeTheLibrary);
    const SOutcome playing = RunPhase(row, kWhileRunning);
    std::string result;
    if (!before.trouble.empty()) result = "before the library: " + before.trouble;
    if (!playing.trouble.empty()) {
      result += (result.empty() ? "" : "; ") + std::string("while playing: ") + playing.trouble;
    }
    if (result.empty() && before.failingCalls + playing.failingCalls == 0) {
      result = "the call was never made while it failed";
    }
    const bool passed = result.empty();
    if (passed) ++passing;
    std::printf("fault census: %-16s %-28s %-14s %-26s %s (%llu, %llu)\n", row.seam.c_str(),
                row.call.c_str(), row.variant.empty() ? "-" : row.variant.c_str(),
                Narrow(row.spec).c_str(), passed ? "survived" : result.c_str(),
                static_cast<unsigned long long>(before.failingCalls),
                static_cast<unsigned long long>(playing.failingCalls));
    std::fflush(stdout);
    EXPECT_TRUE(passed) << row.seam << "::" << row.call << " " << row.variant << ": " << result;
  }
  std::printf("fault census: %zu rows, %d passing\n", rows.size(), passing);
  if (only == nullptr) {
    EXPECT_EQ(passing, static_cast<int>(rows.size()));
  }
}

// The names a seam's header declares as calls: virtual functions of its
// interfaces, or the platform layer's functions.
std::set<std::string> DeclaredCalls(const std::string& header) {
  std::ifstream file(std::string(QUILLON_SOURCE_DIR) + "/src/" + header);
  EXPECT_TRUE(file.good()) << "cannot read " << header;
  std::stringstream text;
  text << file.rdbuf();
  std::set<std::string> names;
  const std::string all = text.str();
  if (header.compare(0, 9, "platform/") == 0) {
    static const std::regex function(R"(^[A-Za-z_][\w:<>]*[\s\*&]+(\w+)\()");
    std::istringstream lines(all);
    for (std::string line; std::getline(lines, line);) {
      static const std::regex skipped(R"(^(typedef|inline|constexpr|enum|struct|class|namespace|#|//))");
      if (std::regex_search(line, skipped)) continue;
      std::smatch match;
      if (std::regex_search(line, match, function)) names.insert(match[1]);
    }
  } else {
    static const std::regex method(R"(virtual\s+(?:[\w:<>]+[\s\*&]+)+(\w+)\s*\()");
    for (auto it = std::sregex_iterator(all.begin(), all.end(), method); it != std::sregex_iterator();
         ++it) {
      names.insert((*it)[1]);
    }
  }
  return names;
}

TEST(FaultCensus, EveryDeclaredCallHasARowOrAReason) {
  const std::vector<SCensusRow> rows = CensusRows();
  const std::vector<SNoRow> cannot = CallsWithoutARow();
  size_t declared = 0;
  std::set<std::string> known;  // seam::call of everything declared
  for (const SSeamSource& source : SeamSources()) {
    for (const std::string& header : source.headers) {
      for (const std::string& name : DeclaredCalls(header)) {
        ++declared;
        bool covered = false;
        for (const std::string& seam : source.seams) {
          known.insert(seam + "::" + name);
          for (const SCensusRow& row : rows) covered |= row.seam == seam && row.call == name;
          for (const SNoRow& c : cannot) covered |= c.seam == seam && c.call == name;
        }
        EXPECT_TRUE(covered) << header << " declares " << name
                             << ", which has no row in the fault census and no reason why not";
      }
    }
  }
  // The other way round: no row names a call that is not there (any more).
  for (const SCensusRow& row : rows) {
    if (row.seam == "ZEPLib") continue;  // named by the table of its entries
    EXPECT_EQ(known.count(row.seam + "::" + row.call), 1u)
        << row.seam << "::" << row.call << " is in the census but declared nowhere";
  }
  for (const SNoRow& c : cannot) {
    EXPECT_EQ(known.count(c.seam + "::" + c.call), 1u)
        << c.seam << "::" << c.call << " has a reason for no row but is declared nowhere";
  }
  // Every fault point of the platform layer has its rows.
  for (uint32_t i = 0; i < NSPlatform::kPlatformCallCount; ++i) {
    const std::string name = NSPlatform::PlatformCallName(static_cast<NSPlatform::EPlatformCall>(i));
    bool covered = false;
    for (const SCensusRow& row : rows) covered |= row.seam == "NSPlatform" && row.call == name;
    EXPECT_TRUE(covered) << name;
  }
  std::printf("fault census: %zu calls declared, %zu rows, %zu calls without a row\n", declared,
              rows.size(), cannot.size());
}

}  // namespace
