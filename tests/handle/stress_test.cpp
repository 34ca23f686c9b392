// Hundreds of switches, suspensions, resumptions and failures: the two
// sources of Render never overlap.
#include <gtest/gtest.h>

#include <chrono>
#include <random>

#include "handle/handle_support.h"

using namespace NSFerrand;

TEST_F(HandleTest, TheTwoSourcesOfRenderNeverOverlap) {
  control->renderPeriodMs = 0;
  otherControl->renderPeriodMs = 0;
  auto handle = std::unique_ptr<COpenSoundDriverHandle>(
      new COpenSoundDriverHandle(registered, &renderer, nullptr));
  std::mt19937 random(5);
  // 400 rounds at least, and on until both sources have rendered enough to
  // have met: a loaded machine gives the driver's thread fewer turns.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  auto enough = [&] {
    return renderer.drivenBlocks.load() > 100u && renderer.silentBlocks.load() > 0u;
  };
  for (int round = 0; round < 400 || (!enough() && std::chrono::steady_clock::now() < deadline);
       ++round) {
    switch (random() % 7) {
      case 0: handle->SwitchDriver(random() % 2 ? registered : other, nullptr); break;
      case 1:
        if (handle->State() == kDriverOpen) handle->SuspendDriver();
        break;
      case 2:
        if (handle->State() == kDriverSuspended) handle->ResumeDriver(nullptr);
        break;
      case 3:
        if (handle->State() == kDriverOpen) handle->EnterSilentMode();
        // Now and then long enough for the silent thread to pay a block.
        if (random() % 4 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(150));
        break;
      case 4: {
        renderer.raiseNext = true;
        try {
          handle->PollDriver();
        } catch (const std::exception&) {
        }
        break;
      }
      case 5: {
        control->Raise(Fakes::kGetSettings, 17, 1);
        CSoundDriverSettings s;
        handle->ReadDriverSettings(s);
        break;
      }
      default: std::this_thread::sleep_for(std::chrono::milliseconds(random() % 3)); break;
    }
    // A switch from suspension keeps the silent thread on beside the new
    // driver; resume first, as a caller should.
    if (handle->State() == kDriverSuspended && random() % 2) {
      while (handle->State() == kDriverSuspended) handle->ResumeDriver(nullptr);
    }
    ASSERT_EQ(renderer.overlaps.load(), 0) << "round " << round;
  }
  handle.reset();
  EXPECT_GT(renderer.drivenBlocks.load(), 100u);
  EXPECT_GT(renderer.silentBlocks.load(), 0u);
  EXPECT_EQ(renderer.overlaps.load(), 0);
}
