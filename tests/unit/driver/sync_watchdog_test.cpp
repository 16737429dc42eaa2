#include "driver/sync_watchdog.h"

#include "win32/file_time.h"

#include <gtest/gtest.h>

namespace zel {
namespace {

using Verdict = SyncWatchdog::Verdict;

constexpr FileTime kSecond = kFileTimeUnitsPerSecond;
constexpr FileTime kSent = 0x01DC000000000000;
constexpr std::uint64_t kTimeout = 60;

TEST(WaitBackoffTest, WaitsDoubleUpToFiveSeconds) {
  WaitBackoff backoff(50);
  for (const std::uint32_t wait_ms : {50, 100, 200, 400, 800, 1600, 3200, 5000, 5000, 5000}) {
    EXPECT_EQ(backoff.Next(), wait_ms);
  }
}

TEST(InactivityTimerTest, IsOverWhenMoreWholeSecondsThanTheTimeoutHavePassed) {
  InactivityTimer timer(kSent, kTimeout);
  EXPECT_FALSE(timer.IsOver(kSent));
  EXPECT_FALSE(timer.IsOver(kSent + 61 * kSecond - 1));
  EXPECT_TRUE(timer.IsOver(kSent + 61 * kSecond));
}

TEST(InactivityTimerTest, RestartCountsFromThen) {
  InactivityTimer timer(kSent, kTimeout);
  timer.Restart(kSent + 60 * kSecond);
  EXPECT_FALSE(timer.IsOver(kSent + 121 * kSecond - 1));
  EXPECT_TRUE(timer.IsOver(kSent + 121 * kSecond));
}

TEST(InactivityTimerTest, ClockSetBackStartsTheTimeoutAnew) {
  InactivityTimer timer(kSent, kTimeout);
  const FileTime back = kSent - 3600 * kSecond;
  EXPECT_FALSE(timer.IsOver(back));
  EXPECT_FALSE(timer.IsOver(back + 61 * kSecond - 1));
  EXPECT_TRUE(timer.IsOver(back + 61 * kSecond));
}

TEST(InactivityTimerTest, TimeoutOfNothingIsOverAfterASecondAndANegativeOneNever) {
  EXPECT_FALSE(InactivityTimer(0, 0).IsOver(kSecond - 1));
  EXPECT_TRUE(InactivityTimer(0, 0).IsOver(kSecond));
  EXPECT_FALSE(InactivityTimer(0, static_cast<std::uint64_t>(-5)).IsOver(~FileTime{0}));
}

TEST(SyncWatchdogTest, QuietDriverIsGivenUpAfterTheTimeout) {
  SyncWatchdog watchdog(kSent, 7, kSent, kTimeout);
  EXPECT_EQ(watchdog.Check(7, kSent + 61 * kSecond - 1), Verdict::kGoOn);
  EXPECT_EQ(watchdog.Check(7, kSent + 61 * kSecond), Verdict::kNoMessages);
}

TEST(SyncWatchdogTest, EveryNewMessageStartsTheTimeoutAnew) {
  SyncWatchdog watchdog(kSent, 7, kSent, kTimeout);
  FileTime now = kSent;
  for (FileTime message = 8; message < 20; ++message) {
    now += 61 * kSecond;
    EXPECT_EQ(watchdog.Check(message, now), Verdict::kGoOn);
  }
  EXPECT_EQ(watchdog.Check(19, now + 61 * kSecond), Verdict::kNoMessages);
}

TEST(SyncWatchdogTest, MessageFromLongAfterTheRequestEndsTheWait) {
  SyncWatchdog watchdog(kSent, 7, kSent, kTimeout);
  EXPECT_EQ(watchdog.Check(kSent + 61 * kSecond - 1, kSent), Verdict::kGoOn);
  EXPECT_EQ(watchdog.Check(kSent + 61 * kSecond, kSent), Verdict::kMessagesTooLate);
}

TEST(SyncWatchdogTest, MessageFromBeforeTheRequestIsNeverTooLate) {
  SyncWatchdog watchdog(kSent, 0, kSent, kTimeout);
  EXPECT_EQ(watchdog.Check(1, kSent), Verdict::kGoOn);
  EXPECT_EQ(watchdog.Check(kSent, kSent), Verdict::kGoOn);
}

TEST(SyncWatchdogTest, LateMessageSeenBeforeTheRequestCountsAsQuiet) {
  SyncWatchdog watchdog(kSent, kSent + 3600 * kSecond, kSent, kTimeout);
  EXPECT_EQ(watchdog.Check(kSent + 3600 * kSecond, kSent + kSecond), Verdict::kGoOn);
  EXPECT_EQ(watchdog.Check(kSent + 3600 * kSecond, kSent + 61 * kSecond), Verdict::kNoMessages);
}

TEST(SyncWatchdogTest, ClockSetBackDoesNotEndTheWait) {
  SyncWatchdog watchdog(kSent, 7, kSent, kTimeout);
  EXPECT_EQ(watchdog.Check(7, kSent - 1), Verdict::kGoOn);
  EXPECT_EQ(watchdog.Check(8, kSent - 2), Verdict::kGoOn);
  EXPECT_EQ(watchdog.Check(8, kSent + 61 * kSecond), Verdict::kNoMessages);
}

}  // namespace
}  // namespace zel
