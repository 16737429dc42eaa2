#include "bitmap/idle_cutoff.h"

#include <gtest/gtest.h>

#include <limits>

namespace zel {
namespace {

constexpr FileTime kNow = 0x01D2A3B4C5D6E7F8;
constexpr FileTime kLatest = std::numeric_limits<FileTime>::max();
constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();

TEST(IdleCutoffTest, LiesTheTimeoutBeforeThePresent) {
  EXPECT_EQ(IdleCutoff(kNow, 600), kNow - 6'000'000'000);
  EXPECT_EQ(IdleCutoff(kNow, 1), kNow - 10'000'000);
  EXPECT_EQ(IdleCutoff(kNow, 0), kNow);
}

TEST(IdleCutoffTest, NegativeTimeoutLiesBehindThePresent) {
  EXPECT_EQ(IdleCutoff(kNow, -2), kNow + 20'000'000);
}

TEST(IdleCutoffTest, EndsAtTheBeginOfTime) {
  EXPECT_EQ(IdleCutoff(10'000'000, 1), 0u);
  EXPECT_EQ(IdleCutoff(9'999'999, 1), 0u);
  EXPECT_EQ(IdleCutoff(10'000'001, 1), 1u);
  EXPECT_EQ(IdleCutoff(0, 0), 0u);
  for (const std::int64_t huge :
       {kMost, kMost / 10'000'000, kMost / 10'000'000 + 1, std::int64_t{1'844'674'407'370},
        std::int64_t{1'844'674'407'371}}) {
    EXPECT_EQ(IdleCutoff(kNow, huge), 0u) << huge;
  }
}

TEST(IdleCutoffTest, EndsAtTheEndOfTime) {
  EXPECT_EQ(IdleCutoff(kLatest - 10'000'000, -1), kLatest);
  EXPECT_EQ(IdleCutoff(kLatest - 9'999'999, -1), kLatest);
  EXPECT_EQ(IdleCutoff(kLatest - 10'000'001, -1), kLatest - 1);
  EXPECT_EQ(IdleCutoff(kNow, kLeast), kLatest);
  EXPECT_EQ(IdleCutoff(kLatest, kLeast), kLatest);
  EXPECT_EQ(IdleCutoff(kLatest, kMost), 0u);
}

}  // namespace
}  // namespace zel
