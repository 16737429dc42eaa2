#include "bitmap/change/block_range.h"

#include <gtest/gtest.h>

#include <random>

namespace zel {

void PrintTo(const BitRange& range, std::ostream* out) {
  *out << "[" << range.first << ", +" << range.count << ")";
}

namespace {

constexpr std::uint32_t k64K = 65'536;
constexpr std::uint32_t kMax32 = 0xFFFFFFFF;
constexpr std::uint64_t kMax64 = ~std::uint64_t{0};
constexpr std::uint64_t k4G = std::uint64_t{1} << 32;

TEST(BlocksOfWriteTest, WriteAcrossABoundaryTouchesBothBlocks) {
  EXPECT_EQ(BlocksOfWrite(65'535, 2, k64K), (BlockRange{0, 2}));
}

TEST(BlocksOfWriteTest, WriteOfOneWholeBlockTouchesItAlone) {
  EXPECT_EQ(BlocksOfWrite(131'072, 65'536, k64K), (BlockRange{2, 1}));
}

TEST(BlocksOfWriteTest, WriteOfNoBytesTouchesTheBlockThatItIsInsideOf) {
  EXPECT_EQ(BlocksOfWrite(0, 0, k64K), (BlockRange{0, 0}));
  EXPECT_EQ(BlocksOfWrite(k64K, 0, k64K), (BlockRange{1, 0}));
  EXPECT_EQ(BlocksOfWrite(k64K + 1, 0, k64K), (BlockRange{1, 1}));
  EXPECT_EQ(BlocksOfWrite(2 * k64K - 1, 0, k64K), (BlockRange{1, 1}));
}

TEST(BlocksOfWriteTest, LargestNumbersDoNotWrap) {
  EXPECT_EQ(BlocksOfWrite(kMax64, kMax32, 1), (BlockRange{kMax64, kMax32}));
  EXPECT_EQ(BlocksOfWrite(kMax64, kMax32, kMax32), (BlockRange{kMax64 / kMax32, 1}));
  EXPECT_EQ(BlocksOfWrite(kMax32 - 1, kMax32, kMax32), (BlockRange{0, 2}));
  EXPECT_EQ(BlocksOfWrite(kMax64, kMax32, 2), (BlockRange{kMax64 / 2, 0x80000000}));
}

// The first and the last byte of a write, each divided by itself.
TEST(BlocksOfWriteTest, AnyWriteAgreesWithTheBlocksOfItsFirstAndLastByte) {
  std::mt19937_64 random(1);
  for (int i = 0; i < 100'000; ++i) {
    const std::uint64_t offset = random() >> (1 + random() % 63);
    const auto length = static_cast<std::uint32_t>(random() >> (32 + random() % 31)) | 1;
    const auto block_size = static_cast<std::uint32_t>(random() >> (32 + random() % 31)) | 1;
    const BlockRange blocks = BlocksOfWrite(offset, length, block_size);
    ASSERT_TRUE(blocks.first == offset / block_size &&
                blocks.first + blocks.count - 1 == (offset + length - 1) / block_size)
        << offset << " " << length << " " << block_size;
  }
}

TEST(BitsOfBlocksTest, RangeWithinTheBitmapIsTakenAsItIs) {
  const BitsToSet bits = BitsOfBlocks({7, 10}, 17);
  EXPECT_EQ(bits.bits, (BitRange{7, 10}));
  EXPECT_FALSE(bits.passes_end);
  EXPECT_FALSE(bits.first_cut);
}

TEST(BitsOfBlocksTest, RangePastTheEndIsClippedAndToldOf) {
  const BitsToSet bits = BitsOfBlocks({7, 10}, 16);
  EXPECT_EQ(bits.bits, (BitRange{7, 9}));
  EXPECT_TRUE(bits.passes_end);
  EXPECT_FALSE(bits.first_cut);
}

TEST(BitsOfBlocksTest, RangeBehindTheEndHasNoBit) {
  for (const std::uint64_t first : {std::uint64_t{16}, std::uint64_t{17}, std::uint64_t{kMax32}}) {
    const BitsToSet bits = BitsOfBlocks({first, 1}, 16);
    EXPECT_EQ(bits.bits, std::nullopt);
    EXPECT_TRUE(bits.passes_end);
    EXPECT_FALSE(bits.first_cut);
  }
}

TEST(BitsOfBlocksTest, EmptyRangeAtTheEndIsWithinAndOneBehindItIsNot) {
  EXPECT_FALSE(BitsOfBlocks({16, 0}, 16).passes_end);
  EXPECT_TRUE(BitsOfBlocks({17, 0}, 16).passes_end);
}

TEST(BitsOfBlocksTest, BitmapWithoutBitsIsNeverTouched) {
  EXPECT_EQ(BitsOfBlocks({0, 0}, 0).bits, std::nullopt);
  EXPECT_FALSE(BitsOfBlocks({0, 0}, 0).passes_end);
  EXPECT_EQ(BitsOfBlocks({0, 1}, 0).bits, std::nullopt);
  EXPECT_TRUE(BitsOfBlocks({0, 1}, 0).passes_end);
}

// With 32 bits these sums would be 0, 1, and 2^32 - 2, and pass for ranges that fit.
TEST(BitsOfBlocksTest, RangeWhoseSumHasMoreThan32BitsPassesTheEnd) {
  const BitsToSet to_the_end = BitsOfBlocks({kMax32 - 1, 2}, kMax32);
  EXPECT_EQ(to_the_end.bits, (BitRange{kMax32 - 1, 1}));
  EXPECT_TRUE(to_the_end.passes_end);
  const BitsToSet small = BitsOfBlocks({kMax32, 2}, 100);
  EXPECT_EQ(small.bits, std::nullopt);
  EXPECT_TRUE(small.passes_end);
  const BitsToSet all = BitsOfBlocks({0x7FFFFFFF, kMax32}, kMax32);
  EXPECT_EQ(all.bits, (BitRange{0x7FFFFFFF, 0x80000000}));
  EXPECT_TRUE(all.passes_end);
}

TEST(BitsOfBlocksTest, FirstBlockAbove32BitsIsCutAndPassesTheEnd) {
  const BitsToSet inside = BitsOfBlocks({k4G + 5, 2}, 16);
  EXPECT_EQ(inside.bits, (BitRange{5, 2}));
  EXPECT_TRUE(inside.passes_end);
  EXPECT_TRUE(inside.first_cut);
  const BitsToSet behind = BitsOfBlocks({k4G + 16, 1}, 16);
  EXPECT_EQ(behind.bits, std::nullopt);
  EXPECT_TRUE(behind.passes_end);
  EXPECT_TRUE(behind.first_cut);
  EXPECT_FALSE(BitsOfBlocks({kMax32, 1}, 16).first_cut);
}

TEST(BitsFromNewEndTest, SmallerFileLosesEveryBlockFromItsNewEnd) {
  EXPECT_EQ(BitsFromNewEnd(65'535, 10 * k64K, k64K, 10), (BitRange{0, 10}));
  EXPECT_EQ(BitsFromNewEnd(65'536, 10 * k64K, k64K, 10), (BitRange{1, 9}));
  EXPECT_EQ(BitsFromNewEnd(10 * k64K - 1, 10 * k64K, k64K, 16), (BitRange{9, 7}));
  EXPECT_EQ(BitsFromNewEnd(0, 1, k64K, 8), (BitRange{0, 8}));
}

TEST(BitsFromNewEndTest, FileAsLargeOrLargerLosesNone) {
  EXPECT_EQ(BitsFromNewEnd(10, 10, 1, 100), std::nullopt);
  EXPECT_EQ(BitsFromNewEnd(kMax64, 10, 1, 100), std::nullopt);
}

TEST(BitsFromNewEndTest, NewEndBehindTheLastBitLosesNone) {
  EXPECT_EQ(BitsFromNewEnd(100, 200, 1, 101), (BitRange{100, 1}));
  EXPECT_EQ(BitsFromNewEnd(100, 200, 1, 100), std::nullopt);
  EXPECT_EQ(BitsFromNewEnd(k4G + 3, kMax64, 1, 100), std::nullopt);  // not cut to 32 bits
}

}  // namespace
}  // namespace zel
