// The worked stream of docs/rpc-interface.md against the code. The exchanges there are checked
// against a server (tests/e2e).
#include <gtest/gtest.h>

#include "client/tracked_files_reader.h"
#include "rpc/tracked_files_stream.h"
#include "tests/unit/support/hex_dump.h"

namespace zel {
namespace {

constexpr VolumeGuid kVolume = {
    0x8a3f10c2, 0x4d5e, 0x4b7a, {0x9e, 0x21, 0xd0, 0x4f, 0x7c, 0x6b, 0x5a, 0x3e}};
constexpr FileId kFile = 0x000300000001a2b4;
constexpr FileTime kCreated = 0x01dc92bf4c8a6d00;
constexpr BitmapId kBitmap = 0x000500000001a9f0;

TEST(RpcInterfaceExampleTest, StreamIsWhatTheCodeWritesAndReads) {
  const auto dumps = test::ReadHexDumps("docs/rpc-interface.md");
  ASSERT_EQ(dumps.size(), 5u);
  std::string written;
  TrackedFilesWriter writer([&](std::span<const std::byte> piece) {
    written.append(reinterpret_cast<const char*>(piece.data()), piece.size());
  });
  writer.PutFileCount(1);
  writer.PutFile(kVolume, kFile, L"D:\\Mail.pst", 1);
  writer.PutBitmap(515, kCreated, kBitmap);
  EXPECT_EQ(dumps[0].bytes, written);

  std::vector<TrackedFile> files;
  EXPECT_STREQ(ReadTrackedFiles(std::as_bytes(std::span(dumps[0].bytes)), files), nullptr);
  EXPECT_EQ(
      files,
      (std::vector<TrackedFile>{{{kVolume, kFile}, L"D:\\Mail.pst", {{515, kCreated, kBitmap}}}}));
}

}  // namespace
}  // namespace zel
