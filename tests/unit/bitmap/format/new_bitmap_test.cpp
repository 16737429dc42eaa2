#include "bitmap/format/new_bitmap.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace zel {
namespace {

constexpr NewBitmap kBitmap = {
    .volume_guid = {0x33221100, 0x5544, 0x7766, {0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF}},
    .file_id = 0x0102030405060708,
    .creation_time = 0x01D2A3B4C5D6E7F8,
    .bitmap_size = 0x0A0B0C0D,
    .block_size = 0x10000,
    .file_size = 0x1112131415161718};

TEST(ComposeNewBitmapBytesTest, HoldsEachFieldAtItsOffsetAndZerosElsewhere) {
  std::string expected(520, '\0');
  const auto put = [&](std::size_t offset, const std::string& bytes) {
    expected.replace(offset, bytes.size(), bytes);
  };
  const std::string time = "\xF8\xE7\xD6\xC5\xB4\xA3\xD2\x01";
  put(0x00, "ZELb");
  put(0x04, std::string("\x00\x02\x16\x00", 4));
  put(0x08, std::string("\x00\x11\x22\x33\x44\x55\x66\x77\x88\x99\xAA\xBB\xCC\xDD\xEE\xFF", 16));
  put(0x18, "\x08\x07\x06\x05\x04\x03\x02\x01");
  put(0x20, time);
  put(0x28, time);
  put(0x30, time);
  put(0x38, std::string("\x00\x00\x01\x00\x01\x00\x00\x00", 8));
  put(0x40, "\x0D\x0C\x0B\x0A");
  put(0x48, "\x18\x17\x16\x15\x14\x13\x12\x11");
  put(0x50, "\x28\x27\x26\x25\x24\x23\x22\x21");
  put(0x58, time);
  const NewBitmapBytes bytes = ComposeNewBitmapBytes(kBitmap, 0x2122232425262728);
  EXPECT_EQ(std::memcmp(&bytes, expected.data(), sizeof bytes), 0);
  EXPECT_EQ(sizeof bytes, expected.size());
}

TEST(NewBitmapLengthTest, IsA32BitSum) {
  EXPECT_EQ(NewBitmapLength(0), 512u);
  EXPECT_EQ(NewBitmapLength(3), 515u);
  EXPECT_EQ(NewBitmapLength(0xFFFFFFFF - 512), 0xFFFFFFFFu);
  EXPECT_EQ(NewBitmapLength(0xFFFFFFFF - 511), 0u);
  EXPECT_EQ(NewBitmapLength(0xFFFFFFFF), 511u);
}

}  // namespace
}  // namespace zel
