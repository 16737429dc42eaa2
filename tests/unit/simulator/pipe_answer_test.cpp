#include "simulator/fltlib/pipe_answer.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "tests/unit/support/played_pipe.h"

namespace zel::sim {
namespace {

using test::PlayedAnswer;
using test::PlayedTaker;
using ::testing::ElementsAre;

// The bytes of "hex digits and blanks".
std::vector<std::byte> Bytes(const std::string& hex) {
  std::vector<std::byte> bytes;
  std::string digits;
  for (const char c : hex) {
    if (c != ' ') digits += c;
    if (digits.size() < 2) continue;
    bytes.push_back(static_cast<std::byte>(std::stoi(digits, nullptr, 16)));
    digits.clear();
  }
  return bytes;
}

class TakePipeTest : public ::testing::Test {
 protected:
  std::uint32_t Take(const std::string& hex) {
    const std::vector<std::byte> bytes = Bytes(hex);
    PlayedAnswer answer(bytes);
    return TakePipe(answer, taker, value);
  }

  PlayedTaker taker;
  std::uint32_t value = 77;
};

constexpr char kThreeChunks[] =
    "01000000 41 ffffff 04000000 42434445 03000000 464748 ff 00000000 90040000";

TEST_F(TakePipeTest, EmptyPipeIsItsEndAndTheReturnValue) {
  EXPECT_EQ(Take("00000000 90040000"), 0u);
  EXPECT_THAT(taker.pushes, ElementsAre(""));
  EXPECT_EQ(value, 1168u);
}

TEST_F(TakePipeTest, ChunksComeInOrderAndCountsAreAligned) {
  EXPECT_EQ(Take(kThreeChunks), 0u);
  EXPECT_THAT(taker.pushes, ElementsAre("A", "BCDE", "FGH", ""));
  EXPECT_THAT(taker.wanted, ElementsAre(1, 4, 3));
  EXPECT_EQ(value, 1168u);
}

TEST_F(TakePipeTest, ChunkIsPushedInPiecesOfTheRoom) {
  taker.room = 3;
  EXPECT_EQ(Take(kThreeChunks), 0u);
  EXPECT_THAT(taker.pushes, ElementsAre("A", "BCD", "E", "FGH", ""));
  EXPECT_THAT(taker.wanted, ElementsAre(1, 4, 1, 3));
}

TEST_F(TakePipeTest, NoRoomEndsTheCall) {
  taker.room = 0;
  EXPECT_EQ(Take(kThreeChunks), kInvalidBuffer);
  EXPECT_THAT(taker.pushes, ElementsAre());
}

TEST_F(TakePipeTest, WhatTheTakerRaisesEndsTheCall) {
  for (std::size_t push = 0; push < 4; ++push) {
    taker = {};
    taker.failing_push = push;
    EXPECT_EQ(Take(kThreeChunks), 112u);
    EXPECT_EQ(taker.pushes.size(), push);
  }
  EXPECT_EQ(value, 77u);
}

TEST_F(TakePipeTest, EveryTruncationIsFound) {
  std::string whole = kThreeChunks;
  std::erase(whole, ' ');
  for (std::size_t length = 0; length < whole.size(); length += 2) {
    EXPECT_EQ(Take(whole.substr(0, length)), kBadStubData) << length;
  }
  EXPECT_EQ(value, 77u);
}

TEST_F(TakePipeTest, MoreAfterTheReturnValueIsBadData) {
  EXPECT_EQ(Take("00000000 00000000 00"), kBadStubData);
  EXPECT_EQ(value, 77u);
}

}  // namespace
}  // namespace zel::sim
