#include "bitmap/record_changes.h"

#include "bitmap/bitmap_sweep.h"
#include "tests/integration/support/driver_fixture.h"
#include "tests/integration/support/flush_hooks.h"
#include "tests/integration/support/held_file.h"
#include "win32/handles.h"

namespace zel {
namespace {

using test::kFile;
using test::kVolume;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint32_t k64K = 65'536;
constexpr std::uint64_t k4G = std::uint64_t{1} << 32;

class RecordChangesTest : public test::DriverFixture {
 protected:
  static void Write(std::uint64_t offset, std::uint32_t length) {
    UpdateBitmapsForFile(kFile, kVolume, offset, length);
  }
  static void Resize(std::uint64_t size) { ApplySizeChange(kFile, kVolume, size); }
  static void LoseChanges() { MarkUnreportedChanges(kFile, kVolume); }
};

TEST_F(RecordChangesTest, WriteAcrossABoundarySetsBothBits) {
  const BitmapId id = Create(16);
  Write(65'535, 2);
  EXPECT_THAT(Bits(id), ElementsAre(0, 1));
  EXPECT_EQ(Header(id).SizeChanged, 0);
}

TEST_F(RecordChangesTest, WriteOfOneWholeBlockSetsItsBitAlone) {
  const BitmapId id = Create(16);
  Write(131'072, 65'536);
  EXPECT_THAT(Bits(id), ElementsAre(2));
}

TEST_F(RecordChangesTest, WriteOfNoBytesSetsABitOnlyInsideABlock) {
  const BitmapId id = Create(16);
  Write(2 * k64K, 0);
  EXPECT_THAT(Bits(id), IsEmpty());
  Write(2 * k64K + 1, 0);
  EXPECT_THAT(Bits(id), ElementsAre(2));
  Write(16 * k64K, 0);
  EXPECT_EQ(Header(id).SizeChanged, 0);
}

TEST_F(RecordChangesTest, EveryBitmapOfTheFileIsUpdatedByItsOwnBlockSize) {
  const BitmapId large = Create(16, k64K);
  const BitmapId small = Create(64, 16'384);
  Write(k64K, 1);
  Write(40'000, 10'000);
  EXPECT_THAT(Bits(large), ElementsAre(0, 1));
  EXPECT_THAT(Bits(small), ElementsAre(2, 3, 4));
}

TEST_F(RecordChangesTest, OtherFilesAreLeftAlone) {
  const BitmapId id = Create(16);
  UpdateBitmapsForFile(kFile + 1, kVolume, 0, 1);
  UpdateBitmapsForFile(kFile, {}, 0, 1);
  EXPECT_THAT(Bits(id), IsEmpty());
}

TEST_F(RecordChangesTest, WriteIsLoggedWithTheNumberOfBitmaps) {
  Create(16);
  Create(16);
  StartLogging(test::kDriverDebug);
  Write(65'535, 2);
  UpdateBitmapsForFile(7, kVolume, 1, 4'294'967'295);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("DEBUG FileId 0x0001000000000123 write at offset 65535 length 2; "
                          "2 bitmaps updated",
                          "DEBUG FileId 0x0000000000000007 write at offset 1 length 4294967295; "
                          "0 bitmaps updated"));
}

TEST_F(RecordChangesTest, WriteIsStampedAndReleasesItsPins) {
  const BitmapId id = Create(16);
  const test::FakeClock clock;
  test::FakeClock::now = 1000;
  Write(0, 1);
  EXPECT_EQ(Header(id).LastUpdateTime, 1000u);
  test::FakeClock::now = 2000;
  Write(0, 1);  // the bit is set already
  EXPECT_EQ(Header(id).LastUpdateTime, 2000u);
  EXPECT_EQ(GetBitmapById(id)->InUseCount, 1u);
}

TEST_F(RecordChangesTest, WritePastTheEndSetsTheLastBitsMarksAndFlushes) {
  const BitmapId id = Create(16);
  Write(0, 1);  // loads
  test::FlushHooks flushes;
  Write(15 * k64K, 2 * k64K);
  EXPECT_THAT(Bits(id), ElementsAre(0, 15));
  EXPECT_EQ(Header(id).SizeChanged, 1);
  EXPECT_THAT(flushes.Take(), ElementsAre("header s", "file"));
  Write(14 * k64K, 3 * k64K);
  EXPECT_THAT(Bits(id), ElementsAre(0, 14, 15));
  EXPECT_THAT(flushes.Take(), IsEmpty());  // the mark is on the device
}

TEST_F(RecordChangesTest, WriteWithinTheBitmapFlushesNothing) {
  Create(16);
  Write(0, 1);  // loads
  test::FlushHooks flushes;
  Write(0, 16 * k64K);
  EXPECT_THAT(flushes.Take(), IsEmpty());
}

TEST_F(RecordChangesTest, WriteBehindTheEndOnlyMarks) {
  const BitmapId id = Create(16);
  Write(16 * k64K, 1);
  EXPECT_THAT(Bits(id), IsEmpty());
  EXPECT_EQ(Header(id).SizeChanged, 1);
  EXPECT_EQ(Header(id).Unreliable, 0);
}

TEST_F(RecordChangesTest, WriteBehindFourGigabytesIsAsAnyOther) {
  const BitmapId id = Create(131'072 + 8);
  Write(k4G + k64K, 1);
  Write(2 * k4G, 1);
  EXPECT_THAT(Bits(id), ElementsAre(65'537, 131'072));
  EXPECT_EQ(Header(id).SizeChanged, 0);
}

// The first two would fit with 32-bit sums and block numbers.
TEST_F(RecordChangesTest, WriteBehindFourGigablocksIsLoggedMarksAndSetsTheCutBit) {
  const BitmapId id = Create(16, 1);
  StartLogging(test::kDriverErrors);
  Write(k4G + 3, 2);
  EXPECT_THAT(Bits(id), ElementsAre(3, 4));
  EXPECT_EQ(Header(id).SizeChanged, 1);
  Write(k4G - 1, 2);  // the last block that has a 32-bit number, and one more
  EXPECT_THAT(Bits(id), ElementsAre(3, 4));
  Write(~std::uint64_t{0}, ~std::uint32_t{0});
  EXPECT_THAT(Bits(id), ElementsAre(3, 4));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR UpdateBitmapsForFile: bitmap is larger than 4GB, not supported",
                          "ERROR UpdateBitmapsForFile: bitmap is larger than 4GB, not supported"));
}

TEST_F(RecordChangesTest, RangeWhoseEndHasMoreThan32BitsMarksAndSetsUpToTheLastBit) {
  const BitmapId id = Create(16, 1);
  Write(10, ~std::uint32_t{0});
  EXPECT_THAT(Bits(id), ElementsAre(10, 11, 12, 13, 14, 15));
  EXPECT_EQ(Header(id).SizeChanged, 1);
}

TEST_F(RecordChangesTest, BitmapWithoutBitsIsMarkedAndNothingElseOfItTouched) {
  const BitmapId id = Create(0, k64K, 1);
  Write(0, 0);
  EXPECT_EQ(Header(id).SizeChanged, 0);
  Write(0, 1);
  EXPECT_EQ(Header(id).SizeChanged, 1);
  Resize(0);
  LoseChanges();
  EXPECT_EQ(Header(id).Unreliable, 1);
}

TEST_F(RecordChangesTest, LargerSizeMarksStampsAndFlushesButSetsNoBit) {
  const BitmapId id = Create(16);
  Write(0, 1);  // loads
  test::FlushHooks flushes;
  const test::FakeClock clock;
  test::FakeClock::now = 1000;
  Resize(16 * k64K + 1);
  EXPECT_THAT(Bits(id), ElementsAre(0));
  EXPECT_EQ(Header(id).SizeChanged, 1);
  EXPECT_EQ(Header(id).LastUpdateTime, 1000u);
  EXPECT_EQ(Header(id).FileSize, 16u * k64K);
  EXPECT_THAT(flushes.Take(), ElementsAre("header s", "file"));
}

TEST_F(RecordChangesTest, SmallerSizeSetsEveryBitFromTheNewEndOn) {
  const BitmapId id = Create(16);
  Resize(13 * k64K);
  EXPECT_EQ(Header(id).SizeChanged, 1);
  EXPECT_THAT(Bits(id), ElementsAre(13, 14, 15));
  Resize(13 * k64K - 1);
  EXPECT_THAT(Bits(id), ElementsAre(12, 13, 14, 15));
}

TEST_F(RecordChangesTest, SmallerSizeBehindTheLastBitOnlyMarks) {
  const BitmapId id = Create(16, k64K, 20 * k64K);
  Resize(16 * k64K);
  EXPECT_THAT(Bits(id), IsEmpty());
  EXPECT_EQ(Header(id).SizeChanged, 1);
}

TEST_F(RecordChangesTest, SizeThatTheBitmapWasMadeForLeavesItAlone) {
  const BitmapId same = Create(16, k64K, 1'000'000);
  const BitmapId other = Create(16, k64K, 1'000'001);
  Write(0, 1);
  const test::FakeClock clock;
  test::FakeClock::now = 1000;
  Resize(1'000'000);
  EXPECT_EQ(Header(same).SizeChanged, 0);
  EXPECT_NE(Header(same).LastUpdateTime, 1000u);
  EXPECT_EQ(Header(other).SizeChanged, 1);
  EXPECT_EQ(Header(other).LastUpdateTime, 1000u);
  EXPECT_EQ(GetBitmapById(same)->InUseCount, 1u);
}

TEST_F(RecordChangesTest, SameSizeReportedAgainStampsAgainAndFlushesNothing) {
  const BitmapId id = Create(16);
  Resize(k64K);
  const test::FakeClock clock;
  test::FakeClock::now = 1000;
  test::FlushHooks flushes;
  Resize(k64K);
  EXPECT_EQ(Header(id).LastUpdateTime, 1000u);
  EXPECT_THAT(flushes.Take(), IsEmpty());  // the mark is on the device
}

TEST_F(RecordChangesTest, FileThatShrinksAndGrowsKeepsTheBitsOfBoth) {
  const BitmapId id = Create(16);
  Resize(14 * k64K);
  Resize(16 * k64K);
  Write(16 * k64K, 100);
  EXPECT_THAT(Bits(id), ElementsAre(14, 15));
  EXPECT_EQ(Header(id).SizeChanged, 1);
}

TEST_F(RecordChangesTest, UnreportedChangesMarkEveryBitmapAndAreLoggedOnce) {
  const BitmapId first = Create(16);
  const BitmapId second = Create(16);
  const test::FakeClock clock;
  test::FakeClock::now = 1000;
  StartLogging("zelservicelog=none\nzelservicelog:bitmap=none\n");
  LoseChanges();
  for (const BitmapId id : {first, second}) {
    EXPECT_EQ(Header(id).Unreliable, 1);
    EXPECT_EQ(Header(id).SizeChanged, 0);
    EXPECT_EQ(Header(id).LastUpdateTime, 1000u);
    EXPECT_THAT(Bits(id), IsEmpty());
    EXPECT_EQ(GetBitmapById(id)->InUseCount, 1u);
  }
  test::FakeClock::now = 2000;
  test::FlushHooks flushes;
  LoseChanges();
  EXPECT_EQ(Header(first).LastUpdateTime, 2000u);
  EXPECT_THAT(flushes.Take(), IsEmpty());  // the marks are on the device
  const auto line = [](BitmapId id) {
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(id));
    return std::string(
               "INFO  Filter driver indicated unreported changes for Volume "
               "01234567-89ab-cdef-0123-456789abcdef, FileId 0x0001000000000123, "
               "BitmapId 0x") +
           text;
  };
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre(line(first), line(second)));
}

TEST_F(RecordChangesTest, UnreportedChangesReachTheDevice) {
  Create(16);
  Write(0, 1);  // loads
  test::FlushHooks flushes;
  LoseChanges();
  EXPECT_THAT(flushes.Take(), ElementsAre("header u", "file"));
}

// A bitmap that cannot be opened for a report does not stay trusted, whatever the report.
TEST_F(RecordChangesTest, BitmapThatMissesAReportIsUnreliable) {
  const std::vector<void (*)()> reports = {[] { Write(0, 1); }, [] { Resize(1); }, LoseChanges};
  for (const auto report : reports) {
    const BitmapId id = Create(16);
    const std::wstring path = GetBitmapById(id)->FileName;
    UnloadAllBitmaps();  // clean
    UniqueFile other = test::HoldFile(path);
    report();
    other.reset();
    EXPECT_EQ(Header(id).Unreliable, 1);
  }
}

}  // namespace
}  // namespace zel
