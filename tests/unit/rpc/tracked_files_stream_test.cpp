#include "rpc/tracked_files_stream.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace zel {
namespace {

using ::testing::ElementsAre;

constexpr VolumeGuid kVolume = {
    0x03020100, 0x0504, 0x0706, {0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f}};

std::string Hex(std::span<const std::byte> bytes) {
  std::string text;
  for (const std::byte byte : bytes) {
    text += "0123456789abcdef"[std::to_integer<int>(byte >> 4)];
    text += "0123456789abcdef"[std::to_integer<int>(byte & std::byte{15})];
  }
  return text;
}

class TrackedFilesWriterTest : public ::testing::Test {
 protected:
  std::vector<std::string> pieces;
  TrackedFilesWriter writer{
      [this](std::span<const std::byte> piece) { pieces.push_back(Hex(piece)); }};
};

TEST_F(TrackedFilesWriterTest, NoFilesAreFourZeroBytes) {
  writer.PutFileCount(0);
  EXPECT_THAT(pieces, ElementsAre("00000000"));
}

TEST_F(TrackedFilesWriterTest, FileWithoutBitmapsEndsWithItsCount) {
  writer.PutFileCount(1);
  writer.PutFile(kVolume, 0x1122334455667788, L"C:\\\u00e4", 0);
  EXPECT_THAT(pieces, ElementsAre("01000000", "000102030405060708090a0b0c0d0e0f",
                                  "8877665544332211", "43003a005c00e4000000", "00000000"));
}

TEST_F(TrackedFilesWriterTest, EachValueOfABitmapIsAPieceOfItsOwn) {
  writer.PutFile(kVolume, 1, L"", 1);
  pieces.clear();
  writer.PutBitmap(0x01020304, 0x0102030405060708, 0x1112131415161718);
  EXPECT_THAT(pieces, ElementsAre("04030201", "0807060504030201", "1817161514131211"));
}

TEST_F(TrackedFilesWriterTest, EmptyPathIsItsTerminator) {
  writer.PutFile(kVolume, 1, L"", 0);
  EXPECT_EQ(pieces.at(2), "0000");
}

}  // namespace
}  // namespace zel
