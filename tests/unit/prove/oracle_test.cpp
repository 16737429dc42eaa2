#include "prove/oracle.h"

#include <gmock/gmock.h>

#include <cstring>
#include <vector>

namespace zel::prove {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::vector<std::byte> Bytes(std::size_t count, int value) {
  return std::vector<std::byte>(count, std::byte(value));
}

// A bitmap of a file of 10 blocks of 4096 bytes less one byte.
std::vector<std::byte> SmallBitmap() {
  std::vector<std::byte> bytes(0x202);
  const unsigned char header[] = {0x5A, 0x45, 0x4C, 0x62, 0x00, 0x02, 22, 0};
  std::memcpy(bytes.data(), header, sizeof header);
  bytes[0x39] = std::byte{0x10};  // BlockSize 4096
  bytes[0x40] = std::byte{2};     // BitmapSize
  bytes[0x48] = std::byte{0xFF};  // FileSize 40,959
  bytes[0x49] = std::byte{0x9F};
  bytes[0x200] = std::byte{0b10000001};
  bytes[0x201] = std::byte{0b11111110};  // bit 9, and bits past the end
  return bytes;
}

TEST(OracleTest, BitsOfTheFilesBlocksAreRead) {
  const std::optional<BitmapCopy> bitmap = ReadBitmap(SmallBitmap());
  ASSERT_TRUE(bitmap);
  EXPECT_EQ(bitmap->block_size, 4096u);
  EXPECT_EQ(bitmap->file_size, 40'959u);
  EXPECT_THAT(bitmap->set, ElementsAre(0, 7, 9));
  EXPECT_FALSE(bitmap->closed_cleanly || bitmap->size_changed || bitmap->unreliable);
}

TEST(OracleTest, EachFlagIsReadFromItsByte) {
  for (const auto& [offset, flag] :
       {std::pair{0x3C, &BitmapCopy::closed_cleanly}, std::pair{0x3E, &BitmapCopy::size_changed},
        std::pair{0x3F, &BitmapCopy::unreliable}}) {
    std::vector<std::byte> bytes = SmallBitmap();
    bytes[static_cast<std::size_t>(offset)] = std::byte{1};
    const std::optional<BitmapCopy> bitmap = ReadBitmap(bytes);
    ASSERT_TRUE(bitmap);
    EXPECT_TRUE((*bitmap).*flag) << offset;
  }
}

TEST(OracleTest, WhatIsNoBitmapIsRefused) {
  const std::vector<std::byte> good = SmallBitmap();
  for (std::size_t size = 0; size < good.size(); ++size) {
    EXPECT_FALSE(ReadBitmap(ByteSpan(good).first(size))) << size;
  }
  for (const std::size_t offset : {0x00, 0x06, 0x40, 0x4A}) {
    std::vector<std::byte> bytes = good;
    bytes[offset] ^= std::byte{0x40};
    EXPECT_FALSE(ReadBitmap(bytes)) << offset;
  }
  std::vector<std::byte> without_blocks = good;
  without_blocks[0x39] = std::byte{0};
  EXPECT_FALSE(ReadBitmap(without_blocks));
}

TEST(OracleTest, BlocksThatDifferAreCounted) {
  std::vector<std::byte> before = Bytes(10, 1);
  std::vector<std::byte> after = before;
  EXPECT_THAT(DifferingBlocks(before, after, 4), IsEmpty());
  after[4] = std::byte{2};
  after[9] = std::byte{2};
  EXPECT_THAT(DifferingBlocks(before, after, 4), ElementsAre(1, 2));
}

TEST(OracleTest, BlocksThatAreCutOrGrowDiffer) {
  EXPECT_THAT(DifferingBlocks(Bytes(10, 1), Bytes(5, 1), 4), ElementsAre(1, 2));
  EXPECT_THAT(DifferingBlocks(Bytes(10, 1), Bytes(11, 1), 4), ElementsAre(2));
  EXPECT_THAT(DifferingBlocks(Bytes(10, 1), {}, 4), ElementsAre(0, 1, 2));
}

TEST(OracleTest, WriteTouchesTheBlocksOfItsFirstAndLastByte) {
  for (const auto& [offset, length, expected] :
       {std::tuple{0, 1, Blocks{0}}, std::tuple{3, 1, Blocks{0}}, std::tuple{3, 2, Blocks{0, 1}},
        std::tuple{4, 4, Blocks{1}}, std::tuple{2, 8, Blocks{0, 1, 2}}}) {
    Blocks blocks;
    AddWrite(blocks, static_cast<std::uint64_t>(offset), static_cast<std::uint64_t>(length), 4);
    EXPECT_EQ(blocks, expected) << offset << " " << length;
  }
}

TEST(OracleTest, DifferenceTellsBothSides) {
  EXPECT_EQ(Difference({1, 2}, {1, 2}), "");
  EXPECT_EQ(Difference({1, 2, 5}, {2, 7}),
            "2 blocks missing, the first is block 1\n1 blocks too many, the first is block 7\n");
  EXPECT_EQ(Missing({1, 2}, {1, 2, 3}), "");
}

}  // namespace
}  // namespace zel::prove
