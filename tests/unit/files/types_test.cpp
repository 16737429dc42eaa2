#include "files/types.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace zel {
namespace {

static_assert(std::is_trivially_copyable_v<FileKey>);

TEST(VolumeGuidTest, OrderIsThatOfTheRawBytesNotOfTheNumbers) {
  const VolumeGuid low_first_byte{0x02000001, 0, 0, {}};   // bytes 01 00 00 02
  const VolumeGuid high_first_byte{0x01000002, 0, 0, {}};  // bytes 02 00 00 01
  EXPECT_LT(low_first_byte, high_first_byte);
}

TEST(VolumeGuidTest, BytesAreComparedUnsigned) {
  const VolumeGuid below{0, 0, 0, {0x7F}};
  const VolumeGuid above{0, 0, 0, {0x80}};
  EXPECT_LT(below, above);
}

TEST(VolumeGuidTest, EveryByteCounts) {
  const VolumeGuid zero{};
  for (std::size_t i = 0; i < sizeof(VolumeGuid); ++i) {
    VolumeGuid other{};
    reinterpret_cast<unsigned char*>(&other)[i] = 1;
    EXPECT_NE(zero, other) << i;
    EXPECT_LT(zero, other) << i;
  }
  EXPECT_EQ(zero, VolumeGuid{});
}

TEST(FileKeyTest, GuidDecidesBeforeTheFileId) {
  const FileKey first{{1, 0, 0, {}}, 9};
  const FileKey second{{2, 0, 0, {}}, 1};
  EXPECT_LT(first, second);
}

TEST(FileKeyTest, FileIdIsComparedUnsigned) {
  const FileKey below{{}, 0x7FFFFFFFFFFFFFFF};
  const FileKey above{{}, 0x8000000000000000};
  EXPECT_LT(below, above);
  EXPECT_NE(below, above);
  EXPECT_EQ(above, (FileKey{{}, 0x8000000000000000}));
}

}  // namespace
}  // namespace zel
