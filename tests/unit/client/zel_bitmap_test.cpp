// The agent's C header against the format as the service has it.
#include "client/zel_bitmap.h"

#include <gtest/gtest.h>

#include <cstddef>

#include "bitmap/change/set_bits.h"
#include "bitmap/format/bitmap_header.h"

extern "C" int BlockChangedInC(const std::uint8_t* bits, std::uint32_t bitmap_size,
                               std::uint64_t block);

namespace zel {
namespace {

static_assert(ZEL_BITMAP_MAGIC == kBitmapMagic);
static_assert(ZEL_BITMAP_HEADER_SIZE == kBitmapHeaderSize);
static_assert(ZEL_BITMAP_VERSION == kBitmapVersion);

template <typename Theirs, typename Ours>
constexpr bool SamePlace(std::size_t their_offset, std::size_t our_offset) {
  return their_offset == our_offset && sizeof(Theirs) == sizeof(Ours);
}

#define EXPECT_SAME_FIELD(theirs, ours)                                                        \
  EXPECT_TRUE((SamePlace<decltype(ZelBitmapHeader::theirs), decltype(BitmapFileHeader::ours)>( \
      offsetof(ZelBitmapHeader, theirs), offsetof(BitmapFileHeader, ours))))                   \
      << #theirs

TEST(ZelBitmapTest, FieldsLieWhereTheServiceHasThem) {
  EXPECT_EQ(sizeof(ZelBitmapHeader), sizeof(BitmapFileHeader));
  EXPECT_SAME_FIELD(Magic, Magic);
  EXPECT_SAME_FIELD(HeaderSize, HeaderSize);
  EXPECT_SAME_FIELD(Version, Version);
  EXPECT_SAME_FIELD(VolumeGuid, Volume);
  EXPECT_SAME_FIELD(FileId, FileId);
  EXPECT_SAME_FIELD(CreationTime, CreationTime);
  EXPECT_SAME_FIELD(InitialTime, InitialTime);
  EXPECT_SAME_FIELD(LastUpdateTime, LastUpdateTime);
  EXPECT_SAME_FIELD(BlockSize, BlockSize);
  EXPECT_SAME_FIELD(ClosedCleanly, ClosedCleanly);
  EXPECT_SAME_FIELD(SizeChanged, SizeChanged);
  EXPECT_SAME_FIELD(Unreliable, Unreliable);
  EXPECT_SAME_FIELD(BitmapSize, BitmapSize);
  EXPECT_SAME_FIELD(FileSize, FileSize);
  EXPECT_SAME_FIELD(BitmapId, BitmapId);
  EXPECT_SAME_FIELD(NameCreationTime, NameCreationTime);
}

TEST(ZelBitmapTest, BlocksHaveChangedWhoseBitsTheServiceSets) {
  constexpr std::uint32_t kBlocks = 128;
  alignas(8) std::uint32_t words[kBlocks / 32] = {};
  const RtlBitmap bitmap{kBlocks, words};
  SetBitsInRange(bitmap, 7, 10);
  SetBitsInRange(bitmap, 127, 1);
  const auto* const bits = reinterpret_cast<const std::uint8_t*>(words);
  for (std::uint64_t block = 0; block < kBlocks; ++block) {
    const bool is_set = (block >= 7 && block < 17) || block == 127;
    EXPECT_EQ(ZelBlockChanged(bits, sizeof words, block) != 0, is_set) << block;
    EXPECT_EQ(BlockChangedInC(bits, sizeof words, block) != 0, is_set) << block;
  }
  EXPECT_NE(ZelBlockChanged(bits, sizeof words, kBlocks), 0);
  EXPECT_NE(ZelBlockChanged(bits, sizeof words, 0x2'0000'0000), 0);
}

}  // namespace
}  // namespace zel
