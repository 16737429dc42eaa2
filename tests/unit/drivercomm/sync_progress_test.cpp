#include "drivercomm/sync_progress.h"

#include <gtest/gtest.h>

namespace zel {
namespace {

using Verdict = SyncProgress::Verdict;

constexpr FileTime kSecond = 10'000'000;
constexpr FileTime kSent = 0x01DC000000000000;
constexpr std::uint64_t kTimeout = 60;

TEST(PatienceTest, IsOverWhenMoreWholeSecondsThanTheTimeoutHavePassed) {
  Patience patience(kSent, kTimeout);
  EXPECT_FALSE(patience.IsOver(kSent));
  EXPECT_FALSE(patience.IsOver(kSent + 61 * kSecond - 1));
  EXPECT_TRUE(patience.IsOver(kSent + 61 * kSecond));
}

TEST(PatienceTest, RestartCountsFromThen) {
  Patience patience(kSent, kTimeout);
  patience.Restart(kSent + 60 * kSecond);
  EXPECT_FALSE(patience.IsOver(kSent + 121 * kSecond - 1));
  EXPECT_TRUE(patience.IsOver(kSent + 121 * kSecond));
}

TEST(PatienceTest, ClockSetBackStartsTheTimeoutAnew) {
  Patience patience(kSent, kTimeout);
  const FileTime back = kSent - 3600 * kSecond;
  EXPECT_FALSE(patience.IsOver(back));
  EXPECT_FALSE(patience.IsOver(back + 61 * kSecond - 1));
  EXPECT_TRUE(patience.IsOver(back + 61 * kSecond));
}

TEST(PatienceTest, TimeoutOfNothingIsOverAfterASecondAndANegativeOneNever) {
  EXPECT_FALSE(Patience(0, 0).IsOver(kSecond - 1));
  EXPECT_TRUE(Patience(0, 0).IsOver(kSecond));
  EXPECT_FALSE(Patience(0, static_cast<std::uint64_t>(-5)).IsOver(~FileTime{0}));
}

TEST(SyncProgressTest, QuietDriverIsGivenUpAfterTheTimeout) {
  SyncProgress progress(kSent, 7, kSent, kTimeout);
  EXPECT_EQ(progress.Judge(7, kSent + 61 * kSecond - 1), Verdict::kGoOn);
  EXPECT_EQ(progress.Judge(7, kSent + 61 * kSecond), Verdict::kNoMessages);
}

TEST(SyncProgressTest, EveryNewMessageStartsTheTimeoutAnew) {
  SyncProgress progress(kSent, 7, kSent, kTimeout);
  FileTime now = kSent;
  for (FileTime message = 8; message < 20; ++message) {
    now += 61 * kSecond;
    EXPECT_EQ(progress.Judge(message, now), Verdict::kGoOn);
  }
  EXPECT_EQ(progress.Judge(19, now + 61 * kSecond), Verdict::kNoMessages);
}

TEST(SyncProgressTest, MessageFromLongAfterTheRequestEndsTheWait) {
  SyncProgress progress(kSent, 7, kSent, kTimeout);
  EXPECT_EQ(progress.Judge(kSent + 61 * kSecond - 1, kSent), Verdict::kGoOn);
  EXPECT_EQ(progress.Judge(kSent + 61 * kSecond, kSent), Verdict::kMessagesTooLate);
}

TEST(SyncProgressTest, MessageFromBeforeTheRequestIsNeverTooLate) {
  SyncProgress progress(kSent, 0, kSent, kTimeout);
  EXPECT_EQ(progress.Judge(1, kSent), Verdict::kGoOn);
  EXPECT_EQ(progress.Judge(kSent, kSent), Verdict::kGoOn);
}

TEST(SyncProgressTest, LateMessageSeenBeforeTheRequestCountsAsQuiet) {
  SyncProgress progress(kSent, kSent + 3600 * kSecond, kSent, kTimeout);
  EXPECT_EQ(progress.Judge(kSent + 3600 * kSecond, kSent + kSecond), Verdict::kGoOn);
  EXPECT_EQ(progress.Judge(kSent + 3600 * kSecond, kSent + 61 * kSecond), Verdict::kNoMessages);
}

TEST(SyncProgressTest, ClockSetBackDoesNotEndTheWait) {
  SyncProgress progress(kSent, 7, kSent, kTimeout);
  EXPECT_EQ(progress.Judge(7, kSent - 1), Verdict::kGoOn);
  EXPECT_EQ(progress.Judge(8, kSent - 2), Verdict::kGoOn);
  EXPECT_EQ(progress.Judge(8, kSent + 61 * kSecond), Verdict::kNoMessages);
}

}  // namespace
}  // namespace zel
