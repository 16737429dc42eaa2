#include "simulator/read_log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace zel::sim {
namespace {

constexpr FileKey kFile = {{1, 2, 3, {}}, 7};
constexpr FileKey kOther = {{1, 2, 3, {}}, 8};

TEST(ReadLogTest, NothingReadIsNothing) {
  EXPECT_EQ(ReadLog().Take(kFile), "0");
}

TEST(ReadLogTest, EachFileIsToldOfOnce) {
  ReadLog log;
  log.Add(kFile, 5, 3);
  log.Add(kOther, 0, 1);
  EXPECT_EQ(log.Take(kFile), "3 5+3");
  EXPECT_EQ(log.Take(kFile), "0");
  EXPECT_EQ(log.Take(kOther), "1 0+1");
}

TEST(ReadLogTest, ReadsThatTouchAreOneRange) {
  ReadLog log;
  log.Add(kFile, 20, 10);
  log.Add(kFile, 0, 10);
  EXPECT_EQ(log.Take(kFile), "20 0+10 20+10");
  log.Add(kFile, 20, 10);
  log.Add(kFile, 0, 10);
  log.Add(kFile, 10, 10);
  EXPECT_EQ(log.Take(kFile), "30 0+30");
}

TEST(ReadLogTest, BytesReadTwiceCountTwice) {
  ReadLog log;
  log.Add(kFile, 0, 100);
  log.Add(kFile, 40, 10);
  EXPECT_EQ(log.Take(kFile), "110 0+100");
}

TEST(ReadLogTest, ReadOfNoByteHasNoPlace) {
  ReadLog log;
  log.Add(kFile, 5, 0);
  EXPECT_EQ(log.Take(kFile), "0");
}

TEST(ReadLogTest, ReadBehindTheLastByteEndsThere) {
  ReadLog log;
  log.Add(kFile, 0, 10);
  log.Add(kFile, UINT64_MAX - 5, 100);
  EXPECT_EQ(log.Take(kFile), "110 0+10 18446744073709551610+5");
}

TEST(ReadLogTest, RandomReadsMatchAPlainArray) {
  std::mt19937 random(1);
  for (int round = 0; round < 200; ++round) {
    ReadLog log;
    std::vector<bool> read(65, false);  // the last one never
    std::uint64_t bytes = 0;
    for (int count = 0; count < 12; ++count) {
      const std::uint64_t begin = random() % 64;
      const std::uint64_t length = random() % std::min<std::uint64_t>(65 - begin, 9);
      log.Add(kFile, begin, length);
      bytes += length;
      std::fill_n(read.begin() + static_cast<std::ptrdiff_t>(begin), length, true);
    }
    std::string expected = std::to_string(bytes);
    for (std::size_t at = 0; at < read.size(); ++at) {
      const std::size_t begin = at;
      while (read[at]) ++at;
      if (at > begin) expected += " " + std::to_string(begin) + "+" + std::to_string(at - begin);
    }
    ASSERT_EQ(log.Take(kFile), expected) << "round " << round;
  }
}

}  // namespace
}  // namespace zel::sim
