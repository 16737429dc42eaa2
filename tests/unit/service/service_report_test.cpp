#include "service/service_report.h"

#include <gtest/gtest.h>

namespace zel {
namespace {

constexpr std::uint32_t kStopPending = 3;

TEST(MakeServiceReportTest, StartPendingAcceptsNoControlAndCarriesTheCheckpoint) {
  std::uint32_t next_checkpoint = 1;
  const ServiceReport report =
      MakeServiceReport(kServiceStateStartPending, 0, 3000, next_checkpoint);
  EXPECT_EQ(report.state, 2u);
  EXPECT_EQ(report.controls_accepted, 0u);
  EXPECT_EQ(report.win32_exit_code, 0u);
  EXPECT_EQ(report.checkpoint, 1u);
  EXPECT_EQ(report.wait_hint_ms, 3000u);
}

TEST(MakeServiceReportTest, RunningAndStoppedAcceptStopAndShutdownAndCarryNoCheckpoint) {
  for (const std::uint32_t state : {kServiceStateRunning, kServiceStateStopped}) {
    std::uint32_t next_checkpoint = 7;
    const ServiceReport report = MakeServiceReport(state, 1247, 0, next_checkpoint);
    EXPECT_EQ(report.state, state);
    EXPECT_EQ(report.controls_accepted, 5u);
    EXPECT_EQ(report.win32_exit_code, 1247u);
    EXPECT_EQ(report.checkpoint, 0u);
    EXPECT_EQ(report.wait_hint_ms, 0u);
    EXPECT_EQ(next_checkpoint, 7u);
  }
}

TEST(MakeServiceReportTest, CheckpointsRiseOverPendingReportsAndAreNotReset) {
  std::uint32_t next_checkpoint = 1;
  const auto checkpoint = [&](std::uint32_t state) {
    return MakeServiceReport(state, 0, 3000, next_checkpoint).checkpoint;
  };
  EXPECT_EQ(checkpoint(kServiceStateStartPending), 1u);
  EXPECT_EQ(checkpoint(kServiceStateStartPending), 2u);
  EXPECT_EQ(checkpoint(kServiceStateRunning), 0u);
  EXPECT_EQ(checkpoint(kStopPending), 3u);
  EXPECT_EQ(checkpoint(kServiceStateStartPending), 4u);
}

TEST(MakeServiceReportTest, PendingStatesOtherThanTheStartAcceptControls) {
  std::uint32_t next_checkpoint = 1;
  EXPECT_EQ(MakeServiceReport(kStopPending, 0, 0, next_checkpoint).controls_accepted, 5u);
}

}  // namespace
}  // namespace zel
