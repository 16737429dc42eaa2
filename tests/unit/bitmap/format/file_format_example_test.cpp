// The worked example of docs/file-format.md against the code.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "bitmap/change/set_bits.h"
#include "bitmap/format/header_checks.h"
#include "bitmap/format/new_bitmap.h"
#include "files/layout.h"
#include "tests/unit/support/hex_dump.h"

namespace zel {
namespace {

constexpr std::size_t kLength = 515;
constexpr FileTime kCreated = 0x01dc92bf4c8a6d00;
constexpr NewBitmap kExample = {
    .volume_guid = {0x8a3f10c2, 0x4d5e, 0x4b7a, {0x9e, 0x21, 0xd0, 0x4f, 0x7c, 0x6b, 0x5a, 0x3e}},
    .file_id = 0x000300000001a2b4,
    .creation_time = kCreated,
    .bitmap_size = 3,
    .block_size = 65'536,
    .file_size = 1'114'113};

struct alignas(8) File {
  std::array<std::uint8_t, 516> bytes = {};  // one more than it has, for the last word

  BitmapFileHeader& header() { return *reinterpret_cast<BitmapFileHeader*>(bytes.data()); }
};

TEST(FileFormatExampleTest, IsWhatTheCodeWrites) {
  File file;
  const NewBitmapBytes first_bytes = ComposeNewBitmapBytes(kExample, 0x000500000001a9f0);
  std::memcpy(file.bytes.data(), &first_bytes.header, sizeof first_bytes.header);
  ASSERT_EQ(ComputeBitmapSize(kExample.file_size, kExample.block_size), kExample.bitmap_size);
  ASSERT_EQ(NewBitmapLength(kExample.bitmap_size), kLength);

  MarkInUse(file.header(), 0x01dc92c3a1b2c3d4);
  const RtlBitmap bits = {CountBits(3), reinterpret_cast<std::uint32_t*>(&file.header() + 1)};
  SetBitsInRange(bits, 0, 1);
  SetBitsInRange(bits, 7, 10);
  file.header().ClosedCleanly = 1;

  const test::HexDump dump = test::ReadHexDump("docs/file-format.md");
  EXPECT_EQ(dump.lines, 7u);
  EXPECT_EQ(dump.bytes, std::string(reinterpret_cast<const char*>(file.bytes.data()), kLength));
}

TEST(FileFormatExampleTest, IsCalledWhatTheCodeCallsIt) {
  const NewBitmapPaths paths =
      ComposeNewBitmapPaths(LR"(\\?\C:\Agent\cbt)", L"8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e",
                            kExample.file_id, kExample.creation_time, kExample.block_size);
  std::ifstream document("docs/file-format.md");
  std::stringstream text;
  text << document.rdbuf();
  std::string narrow;  // all of it is ASCII
  for (const wchar_t c : paths.file) narrow += static_cast<char>(c);
  EXPECT_NE(text.str().find("\n    " + narrow + "\n"), std::string::npos) << narrow;
}

}  // namespace
}  // namespace zel
