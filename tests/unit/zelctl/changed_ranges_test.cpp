#include "zelctl/changed_ranges.h"

#include <gmock/gmock.h>

#include <random>

#include "tests/unit/support/bitmap_bytes.h"
#include "zelctl/change_map.h"

namespace zel::ctl {
namespace {

using test::MakeBitmap;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<ByteRange> RangesOf(const BitmapFile& bitmap, std::uint64_t file_size) {
  std::vector<ByteRange> list;
  ChangedRanges ranges(bitmap, file_size);
  for (ByteRange range; ranges.Next(range);) list.push_back(range);
  EXPECT_FALSE([&] {
    ByteRange range;
    return ranges.Next(range);
  }()) << "the end comes once";
  return list;
}

TEST(ChangedRangesTest, UnchangedFileHasNone) {
  EXPECT_THAT(RangesOf(MakeBitmap(100'000, 4096, {}), 100'000), IsEmpty());
}

TEST(ChangedRangesTest, NeighbouringBlocksAreOneRange) {
  EXPECT_THAT(
      RangesOf(MakeBitmap(100 * 4096, 4096, {0, 2, 3, 4, 9}), 100 * 4096),
      ElementsAre(ByteRange{0, 4096}, ByteRange{8192, 3 * 4096}, ByteRange{9 * 4096, 4096}));
}

TEST(ChangedRangesTest, ShortLastBlockIsClippedToTheFile) {
  EXPECT_THAT(RangesOf(MakeBitmap(10'000, 4096, {2}), 10'000), ElementsAre(ByteRange{8192, 1808}));
}

TEST(ChangedRangesTest, BitsBehindTheLastBlockMeanNothing) {
  EXPECT_THAT(RangesOf(MakeBitmap(10'000, 4096, {3, 7}), 10'000), IsEmpty());
}

TEST(ChangedRangesTest, WhatAFileGrewByIsChanged) {
  EXPECT_THAT(RangesOf(MakeBitmap(10'000, 4096, {0}), 50'000),
              ElementsAre(ByteRange{0, 4096}, ByteRange{10'000, 40'000}));
  EXPECT_THAT(RangesOf(MakeBitmap(8192, 4096, {}), 8193), ElementsAre(ByteRange{8192, 1}));
}

TEST(ChangedRangesTest, GrowthJoinsAChangedLastBlock) {
  EXPECT_THAT(RangesOf(MakeBitmap(10'000, 4096, {2}), 50'000),
              ElementsAre(ByteRange{8192, 50'000 - 8192}));
}

TEST(ChangedRangesTest, TruncatedFileEndsTheRanges) {
  const BitmapFile bitmap = MakeBitmap(100'000, 4096, {0, 5, 6, 7, 20});
  EXPECT_THAT(RangesOf(bitmap, 6 * 4096 + 1),
              ElementsAre(ByteRange{0, 4096}, ByteRange{5 * 4096, 4097}));
  EXPECT_THAT(RangesOf(bitmap, 5 * 4096), ElementsAre(ByteRange{0, 4096}));
  EXPECT_THAT(RangesOf(bitmap, 1), ElementsAre(ByteRange{0, 1}));
  EXPECT_THAT(RangesOf(bitmap, 0), IsEmpty());
}

TEST(ChangedRangesTest, RangesAtTheEndsOfWordsAreWhole) {
  for (std::uint64_t first = 60; first <= 68; ++first) {
    for (std::uint64_t last = first; last <= 132; ++last) {
      std::vector<std::uint64_t> blocks;
      for (std::uint64_t block = first; block <= last; ++block) blocks.push_back(block);
      EXPECT_THAT(RangesOf(MakeBitmap(200, 1, blocks), 200),
                  ElementsAre(ByteRange{first, last - first + 1}))
          << first << " to " << last;
    }
  }
}

TEST(ChangedRangesTest, EmptyBitmapTakesAllForChanged) {
  EXPECT_THAT(RangesOf(MakeBitmap(0, 4096, {}), 0), IsEmpty());
  EXPECT_THAT(RangesOf(MakeBitmap(0, 4096, {}), 9), ElementsAre(ByteRange{0, 9}));
}

// Byte by byte, what the format says.
std::vector<bool> ChangedBytes(const BitmapFile& bitmap, std::uint64_t file_size) {
  std::vector<bool> changed;
  for (std::uint64_t at = 0; at < file_size; ++at) {
    const std::uint64_t block = at / bitmap.header.BlockSize;
    changed.push_back(at >= bitmap.header.FileSize ||
                      (bitmap.bits()[block / 8] >> block % 8 & std::byte{1}) != std::byte{0});
  }
  return changed;
}

TEST(ChangedRangesTest, RandomBitmapsAreLikeThePlainArray) {
  std::mt19937 random(20'260'131);
  for (int round = 0; round < 3000; ++round) {
    const std::uint32_t block_size = 1 + random() % 17;
    const std::uint64_t size_then = random() % 2000;
    const std::uint64_t size_now = random() % 3 == 0 ? size_then : random() % 2000;
    std::vector<std::byte> bytes = test::MakeBitmapBytes(size_then, block_size);
    const unsigned density = random() % 4;
    for (std::size_t i = kBitmapHeaderSize; i < bytes.size(); ++i) {
      for (unsigned bit = 0; bit < 8; ++bit) {
        if (random() % 8 < 1 + 2 * density) bytes[i] |= std::byte{1} << bit;
      }
    }
    const BitmapFile bitmap = test::ToBitmap(bytes);
    std::vector<bool> covered(size_now);
    std::uint64_t behind = 0;
    for (const ByteRange& range : RangesOf(bitmap, size_now)) {
      ASSERT_TRUE(range.offset > behind || (behind == 0 && range.offset == 0)) << "merged";
      ASSERT_GT(range.length, 0u);
      behind = range.end();
      for (std::uint64_t at = range.offset; at < behind; ++at) covered.at(at) = true;
    }
    ASSERT_EQ(covered, ChangedBytes(bitmap, size_now)) << block_size << ", " << size_then;
  }
}

TEST(CountChangesTest, ShortAndPartlyChangedBlocksCountAsBlocks) {
  EXPECT_EQ(CountChanges(MakeBitmap(10'000, 4096, {0, 2}), 10'000),
            (ChangeTotals{.file_size = 10'000,
                          .blocks = 3,
                          .changed_bytes = 4096 + 1808,
                          .changed_blocks = 2,
                          .ranges = 2}));
  EXPECT_EQ(
      CountChanges(MakeBitmap(10'000, 4096, {}), 10'001),
      (ChangeTotals{
          .file_size = 10'001, .blocks = 3, .changed_bytes = 1, .changed_blocks = 1, .ranges = 1}));
}

TEST(ChangeMapTest, FewBlocksHaveACellEach) {
  const ChangeMap map = MakeChangeMap(MakeBitmap(10'000, 4096, {0, 2}), 10'000, 100);
  EXPECT_THAT(map.shares, ElementsAre(1.0, 0.0, 1.0));
  EXPECT_EQ(map.CellBegin(2), 8192u);
  EXPECT_EQ(map.CellBegin(3), 10'000u);
}

TEST(ChangeMapTest, CellsShareTheBlocksOut) {
  const ChangeMap map = MakeChangeMap(MakeBitmap(10, 1, {0, 4, 5, 6}), 10, 4);
  EXPECT_THAT((std::vector{map.CellBegin(0), map.CellBegin(1), map.CellBegin(2), map.CellBegin(3),
                           map.CellBegin(4)}),
              ElementsAre(0, 2, 5, 7, 10));
  EXPECT_THAT(map.shares, ElementsAre(testing::DoubleEq(0.5), testing::DoubleEq(1.0 / 3),
                                      testing::DoubleEq(1.0), testing::DoubleEq(0.0)));
}

TEST(ChangeMapTest, EmptyFileHasNoCells) {
  EXPECT_THAT(MakeChangeMap(MakeBitmap(0, 4096, {}), 0, 10).shares, IsEmpty());
}

TEST(ChangeMapTest, RandomMapsAddUpToTheTotals) {
  std::mt19937 random(7);
  for (int round = 0; round < 500; ++round) {
    std::vector<std::uint64_t> blocks;
    const std::uint64_t size = 1 + random() % 5000;
    for (std::uint64_t block = 0; block * 3 < size; ++block) {
      if (random() % 3 == 0) blocks.push_back(block);
    }
    const ChangeMap map = MakeChangeMap(MakeBitmap(size, 3, blocks), size, 1 + random() % 300);
    double bytes = 0;
    for (std::size_t cell = 0; cell < map.shares.size(); ++cell) {
      ASSERT_LE(map.shares[cell], 1.0 + 1e-9);
      bytes +=
          map.shares[cell] * static_cast<double>(map.CellBegin(cell + 1) - map.CellBegin(cell));
    }
    ASSERT_NEAR(bytes, static_cast<double>(map.totals.changed_bytes), 1e-6);
  }
}

}  // namespace
}  // namespace zel::ctl
