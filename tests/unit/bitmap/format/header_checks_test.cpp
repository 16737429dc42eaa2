#include "bitmap/format/header_checks.h"

#include <gtest/gtest.h>

#include <cstring>

namespace zel {
namespace {

constexpr std::uint32_t kBlockSize = 65'536;
constexpr FileTime kNow = 0x01dc000000000000;
constexpr FileTime kBefore = 0x01db000000000000;

BitmapFileHeader GoodHeader() {
  BitmapFileHeader header = {};
  header.Magic = kBitmapMagic;
  header.HeaderSize = kBitmapHeaderSize;
  header.Version = kBitmapVersion;
  header.LastUpdateTime = kBefore;
  header.BlockSize = kBlockSize;
  header.ClosedCleanly = 1;
  return header;
}

bool SameBytes(const BitmapFileHeader& a, const BitmapFileHeader& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

TEST(MarkInUseTest, CleanBitmapIsMarkedAndStamped) {
  BitmapFileHeader header = GoodHeader();
  BitmapFileHeader expected = header;
  expected.ClosedCleanly = 0;
  expected.LastUpdateTime = kNow;
  EXPECT_EQ(MarkInUse(header, kNow), InUseMark::kWasClean);
  EXPECT_TRUE(SameBytes(header, expected));
}

TEST(MarkInUseTest, CleanBitmapThatIsUnreliableStaysSo) {
  BitmapFileHeader header = GoodHeader();
  header.Unreliable = 1;
  EXPECT_EQ(MarkInUse(header, kNow), InUseMark::kWasClean);
  EXPECT_EQ(header.Unreliable, 1);
}

TEST(MarkInUseTest, BitmapNotClosedCleanlyBecomesUnreliableAndKeepsItsTime) {
  BitmapFileHeader header = GoodHeader();
  header.ClosedCleanly = 0;
  BitmapFileHeader expected = header;
  expected.Unreliable = 1;
  EXPECT_EQ(MarkInUse(header, kNow), InUseMark::kNewlyUnreliable);
  EXPECT_TRUE(SameBytes(header, expected));
  EXPECT_EQ(MarkInUse(header, kNow), InUseMark::kStillUnreliable);
  EXPECT_TRUE(SameBytes(header, expected));
}

TEST(MarkInUseTest, AnyOtherMarkThanOneIsNotAClean) {
  for (int mark = 2; mark <= 255; ++mark) {
    BitmapFileHeader header = GoodHeader();
    header.ClosedCleanly = static_cast<std::uint8_t>(mark);
    EXPECT_EQ(MarkInUse(header, kNow), InUseMark::kNewlyUnreliable);
    EXPECT_EQ(header.ClosedCleanly, 0);
  }
}

TEST(NextHeaderStepTest, GoodHeaderIsAccepted) {
  EXPECT_EQ(NextHeaderStep(GoodHeader(), kBlockSize), HeaderStep::kAccept);
}

TEST(NextHeaderStepTest, EachFaultIsRefusedInTheFixedOrder) {
  BitmapFileHeader header = GoodHeader();
  header.HeaderSize = 513;
  EXPECT_EQ(NextHeaderStep(header, kBlockSize), HeaderStep::kRefuseHeaderSize);
  header.Version = 23;
  EXPECT_EQ(NextHeaderStep(header, kBlockSize), HeaderStep::kRefuseVersion);
  header.Magic ^= 0x80000000;
  EXPECT_EQ(NextHeaderStep(header, kBlockSize), HeaderStep::kRefuseMagic);
  header.BlockSize = 4096;
  EXPECT_EQ(NextHeaderStep(header, kBlockSize), HeaderStep::kRefuseBlockSize);
}

TEST(NextHeaderStepTest, EveryOtherVersionAndHeaderSizeIsRefused) {
  for (std::uint32_t value = 0; value <= 0xFFFF; ++value) {
    BitmapFileHeader header = GoodHeader();
    header.Version = static_cast<std::uint16_t>(value);
    if (value != 21 && value != 22) {
      ASSERT_EQ(NextHeaderStep(header, kBlockSize), HeaderStep::kRefuseVersion) << value;
    }
    header = GoodHeader();
    header.HeaderSize = static_cast<std::uint16_t>(value);
    if (value != 520 && value != 512) {
      ASSERT_EQ(NextHeaderStep(header, kBlockSize), HeaderStep::kRefuseHeaderSize) << value;
    }
  }
}

TEST(NextHeaderStepTest, MalformedNameIsRefusedWhateverTheHeaderSays) {
  BitmapFileHeader header = GoodHeader();
  EXPECT_EQ(NextHeaderStep(header, 0), HeaderStep::kRefuseBlockSize);
  header.BlockSize = 0;
  EXPECT_EQ(NextHeaderStep(header, 0), HeaderStep::kRefuseBlockSize);
}

TEST(NextHeaderStepTest, OldBitmapIsUpgradedFirstAndThenRepaired) {
  BitmapFileHeader header = GoodHeader();
  header.Version = kOldBitmapVersion;
  header.HeaderSize = kOldBitmapHeaderSize;
  BitmapFileHeader expected = GoodHeader();
  expected.BitmapId = 0x1122334455667788;
  expected.NameCreationTime = kBefore;

  EXPECT_EQ(NextHeaderStep(header, kBlockSize), HeaderStep::kUpgradeVersion);
  UpgradeVersion(header, 0x1122334455667788, kBefore);
  EXPECT_EQ(NextHeaderStep(header, kBlockSize), HeaderStep::kRepairHeaderSize);
  RepairHeaderSize(header);
  EXPECT_EQ(NextHeaderStep(header, kBlockSize), HeaderStep::kAccept);
  EXPECT_TRUE(SameBytes(header, expected));
}

TEST(NextHeaderStepTest, OldBitmapWithAWrongHeaderSizeIsUpgradedAndThenRefused) {
  BitmapFileHeader header = GoodHeader();
  header.Version = kOldBitmapVersion;
  header.HeaderSize = 0;
  EXPECT_EQ(NextHeaderStep(header, kBlockSize), HeaderStep::kUpgradeVersion);
  UpgradeVersion(header, 1, 1);
  EXPECT_EQ(NextHeaderStep(header, kBlockSize), HeaderStep::kRefuseHeaderSize);
}

}  // namespace
}  // namespace zel
