#include "bitmap/format/new_bitmap.h"

#include <gtest/gtest.h>

namespace zel {
namespace {

constexpr std::uint64_t kMaxFile = 0xFFFFFFFFFFFFFFFF;

TEST(CountBlocksTest, AShortLastBlockCounts) {
  EXPECT_EQ(CountBlocks(0, 65'536), 0u);
  EXPECT_EQ(CountBlocks(4096, 65'536), 1u);
  EXPECT_EQ(CountBlocks(65'536, 65'536), 1u);
  EXPECT_EQ(CountBlocks(65'537, 65'536), 2u);
  EXPECT_EQ(CountBlocks(kMaxFile, 1), kMaxFile);
  EXPECT_EQ(CountBlocks(kMaxFile, 2), kMaxFile / 2 + 1);
}

TEST(ComputeBitmapSizeTest, EightBlocksAreAByte) {
  EXPECT_EQ(ComputeBitmapSize(0, 4096), 0u);
  EXPECT_EQ(ComputeBitmapSize(1, 4096), 1u);
  EXPECT_EQ(ComputeBitmapSize(8 * 4096, 4096), 1u);
  EXPECT_EQ(ComputeBitmapSize(8 * 4096 + 1, 4096), 2u);
}

TEST(ComputeBitmapSizeTest, NoSizeWhenTheBitmapFileWouldReachFourGigabytes) {
  constexpr std::uint64_t kLargest = 0xFFFFFFFFu - 512;
  EXPECT_EQ(ComputeBitmapSize(kLargest * 8, 1), kLargest);
  EXPECT_EQ(ComputeBitmapSize(kLargest * 8 + 1, 1), std::nullopt);
  EXPECT_EQ(ComputeBitmapSize(kMaxFile, 1), std::nullopt);
}

TEST(FitsBitmapFileTest, OneByteDecides) {
  EXPECT_TRUE(FitsBitmapFile(3, 515));
  EXPECT_FALSE(FitsBitmapFile(3, 514));
  EXPECT_TRUE(FitsBitmapFile(3, 516));
}

TEST(FitsBitmapFileTest, NothingFitsAFileShorterThanAHeader) {
  EXPECT_TRUE(FitsBitmapFile(0, 512));
  EXPECT_FALSE(FitsBitmapFile(0, 511));
  EXPECT_FALSE(FitsBitmapFile(0, 0));
}

TEST(FitsBitmapFileTest, ASumOverThirtyTwoBitsDoesNotFit) {
  EXPECT_FALSE(FitsBitmapFile(0xFFFFFFFF, 511));
  EXPECT_FALSE(FitsBitmapFile(0xFFFFFE00, 0xFFFFFFFF));
  EXPECT_TRUE(FitsBitmapFile(0xFFFFFDFF, 0xFFFFFFFF));
}

TEST(CountBitsTest, FiveHundredTwelveMebibytesAndMoreAreAsManyAsFit) {
  EXPECT_EQ(CountBits(0), 0u);
  EXPECT_EQ(CountBits(3), 24u);
  EXPECT_EQ(CountBits(0x1FFFFFFF), 0xFFFFFFF8u);
  EXPECT_EQ(CountBits(0x20000000), 0xFFFFFFFFu);
  EXPECT_EQ(CountBits(0xFFFFFFFF), 0xFFFFFFFFu);
}

}  // namespace
}  // namespace zel
