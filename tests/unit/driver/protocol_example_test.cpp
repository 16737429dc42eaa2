// The worked examples of docs/driver-protocol.md against the code.
#include <gtest/gtest.h>

#include "bitmap/change/block_range.h"
#include "driver/driver_protocol.h"
#include "tests/unit/support/hex_dump.h"

namespace zel {
namespace {

std::span<const std::byte> BytesOf(const std::string& text) {
  return std::as_bytes(std::span(text));
}

class ProtocolExampleTest : public ::testing::Test {
 protected:
  ProtocolExampleTest() { EXPECT_EQ(dumps_.size(), 2u); }

  std::vector<test::HexDump> dumps_ = test::ReadHexDumps("docs/driver-protocol.md");
};

TEST_F(ProtocolExampleTest, WriteReadsAsTheDocumentSays) {
  ASSERT_EQ(dumps_.at(0).bytes.size(), 80u);
  DriverMessage message;
  ASSERT_EQ(ParseDriverMessage(BytesOf(dumps_[0].bytes), message), DriverMessageFault::kNone);
  EXPECT_EQ(message.ReplyLength, 0u);
  EXPECT_EQ(message.MessageId, 42u);
  EXPECT_EQ(message.Type, DriverMessageType::kWrite);
  EXPECT_EQ(message.UnreportedChanges, 0);
  EXPECT_EQ(message.ProcessId, 4711u);
  EXPECT_EQ(message.Timestamp, 0x01dc92c3a1b2c3d4u);
  EXPECT_EQ(message.FileId, 0x000300000001a2b4u);
  EXPECT_EQ(
      message.VolumeGuid,
      (VolumeGuid{0x8a3f10c2, 0x4d5e, 0x4b7a, {0x9e, 0x21, 0xd0, 0x4f, 0x7c, 0x6b, 0x5a, 0x3e}}));
  EXPECT_EQ(message.OffsetOrSize, 458'752u);
  EXPECT_EQ(message.Length, 655'360u);
  EXPECT_EQ(BlocksOfWrite(message.OffsetOrSize, message.Length, 65'536), (BlockRange{7, 10}));
}

TEST_F(ProtocolExampleTest, StatusReadsAsTheDocumentSays) {
  const std::string& bytes = dumps_.at(1).bytes;
  ASSERT_EQ(bytes.size(), sizeof(DriverStatus));
  const DriverStatus status = ParseDriverStatus(BytesOf(bytes).first<sizeof(DriverStatus)>());
  EXPECT_EQ(std::vector<int>(std::begin(status.Version), std::end(status.Version)),
            (std::vector{10, 2, 345, 6}));
  EXPECT_EQ(status.StartTime, 0x01dc92bf4c8a6d00u);
  EXPECT_EQ(status.StartedDuringBoot, 1);
  EXPECT_EQ(status.PreviousShutdownClean, 1);
  EXPECT_EQ(status.OlderDriverLoaded, 0);
  EXPECT_STREQ(LoadStatusText(status.LoadStatus), "Loaded");
  EXPECT_EQ(status.MessagesLoadedFromDisk, 3u);
  EXPECT_EQ(status.MessagesVaulted, 4u);
  EXPECT_EQ(status.MessagesSentFromVault, 5u);
  EXPECT_EQ(status.FilesToBeMarkedUnreliable, 6u);
}

}  // namespace
}  // namespace zel
