// UnloadIdleBitmaps, with a clock that the test sets.
#include <limits>

#include "bitmap/bitmap_manager.h"
#include "config/settings.h"
#include "tests/integration/support/bitmap_fixture.h"
#include "win32/handles.h"

namespace zel {
namespace {

using test::FakeClock;
using test::Get;
using test::GoodBitmap;
using test::IdOf;
using test::kCreated;
using test::kFile;
using test::kKey;
using test::kSecond;
using test::kVolume;
using test::ReadFileBytes;
using ::testing::ElementsAre;

constexpr FileTime kLoaded = kCreated + 1'000'000 * kSecond;

class IdleUnloadingTest : public test::BitmapFixture {
 protected:
  IdleUnloadingTest() { FakeClock::now = kLoaded; }

  static void Load(FileId file = kFile) { (void)FindBitmapsForFile(kVolume, file); }

  static void ScanAt(FileTime now) {
    FakeClock::now = now;
    UnloadIdleBitmaps();
  }

  // A bitmap that the service died on: not closed cleanly.
  std::filesystem::path AddUnclean() {
    std::string bytes = GoodBitmap(kKey, std::string(16, '\0'));
    bytes[test::kAtClosedCleanly] = 0;
    return Add(kKey, kCreated, bytes);
  }

  // Whether the manager holds the file open, so that nobody else may write to it.
  static bool IsHeldOpen(const std::filesystem::path& path) {
    const UniqueFile file(::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                        OPEN_EXISTING, 0, nullptr));
    return !file;
  }

  FakeClock clock_;
};

TEST_F(IdleUnloadingTest, UntouchedBitmapGoesWhenTheDefaultOf600SecondsHasPassed) {
  const auto path = AddGood();
  Load();
  ScanAt(kLoaded + 600 * kSecond - 1);
  EXPECT_TRUE(IsLoaded(path));
  ScanAt(kLoaded + 600 * kSecond);
  EXPECT_FALSE(IsLoaded(path));
  EXPECT_FALSE(IsHeldOpen(path));
}

TEST_F(IdleUnloadingTest, ChangedBitmapStaysLoaded) {
  const auto path = AddGood();
  Load();
  FakeClock::now = kLoaded + 599 * kSecond;
  Report();
  ScanAt(kLoaded + 1198 * kSecond);
  EXPECT_TRUE(IsLoaded(path));
  ScanAt(kLoaded + 1199 * kSecond);
  EXPECT_FALSE(IsLoaded(path));
}

TEST_F(IdleUnloadingTest, LookupAloneDoesNotKeepABitmapLoaded) {
  const auto path = AddGood();
  Load();
  FakeClock::now = kLoaded + 599 * kSecond;
  Load();
  ScanAt(kLoaded + 600 * kSecond);
  EXPECT_FALSE(IsLoaded(path));
}

TEST_F(IdleUnloadingTest, PinnedBitmapIsNeverUnloaded) {
  const auto path = AddGood();
  {
    const PinnedBitmap pin = GetBitmapById(IdOf(path));
    ScanAt(kLoaded + 1'000'000 * kSecond);
    EXPECT_TRUE(IsLoaded(path));
    EXPECT_EQ(pin->header()->ClosedCleanly, 0);
  }
  UnloadIdleBitmaps();
  EXPECT_FALSE(IsLoaded(path));
}

TEST_F(IdleUnloadingTest, BitmapNotClosedCleanlyGoesWithTheFirstScan) {
  const auto path = AddUnclean();
  Load();
  EXPECT_TRUE(IsHeldOpen(path));
  ScanAt(kLoaded);
  EXPECT_FALSE(IsHeldOpen(path));
  EXPECT_EQ(Get(ReadFileBytes(path), test::kAtLastUpdateTime, 8), kCreated);
  EXPECT_EQ(Get(ReadFileBytes(path), test::kAtUnreliable, 1), 1u);
}

TEST_F(IdleUnloadingTest, BitmapNotClosedCleanlyStaysWhenChangedOrPinned) {
  const auto path = AddUnclean();
  {
    const PinnedBitmap pin = GetBitmapById(IdOf(path));
    ScanAt(kLoaded);
    EXPECT_TRUE(IsHeldOpen(path));
    Report();
  }
  ScanAt(kLoaded + 599 * kSecond);
  EXPECT_TRUE(IsHeldOpen(path));
}

TEST_F(IdleUnloadingTest, TimeoutOfZeroUnloadsEveryUnpinnedBitmapAtEveryScan) {
  BitmapIdleTimeout = 0;
  const auto first = AddGood();
  const auto second = AddGood({kVolume, kFile + 1}, kCreated);
  for (int round = 0; round < 3; ++round) {
    Load(kFile);
    Load(kFile + 1);
    EXPECT_TRUE(IsLoaded(first) && IsLoaded(second));
    ScanAt(kLoaded);
    EXPECT_FALSE(IsLoaded(first) || IsLoaded(second));
  }
}

TEST_F(IdleUnloadingTest, NegativeTimeoutUnloadsWhatWasChangedAheadOfTheClock) {
  BitmapIdleTimeout = -5;
  const auto path = AddGood();
  Load();
  ScanAt(kLoaded - 5 * kSecond - 1);
  EXPECT_TRUE(IsLoaded(path));
  ScanAt(kLoaded - 5 * kSecond);
  EXPECT_FALSE(IsLoaded(path));
}

TEST_F(IdleUnloadingTest, TimeoutsThatNoFileTimeHoldsKeepAllOrNone) {
  const auto path = AddGood();
  Load();
  BitmapIdleTimeout = std::numeric_limits<std::int64_t>::max();
  ScanAt(kLoaded + 1'000'000 * kSecond);
  EXPECT_TRUE(IsLoaded(path));
  BitmapIdleTimeout = std::numeric_limits<std::int64_t>::min();
  ScanAt(kCreated);
  EXPECT_FALSE(IsLoaded(path));
}

TEST_F(IdleUnloadingTest, CorruptedFileIsDeletedByTheNextScanWithItsEntry) {
  std::string bytes = GoodBitmap(kKey, std::string(16, '\0'));
  bytes.pop_back();
  const auto path = Add(kKey, kCreated, bytes);
  ScanAt(kLoaded);
  EXPECT_TRUE(std::filesystem::exists(path));  // nobody has looked at it yet
  Load();
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_TRUE(ListAllBitmaps().at(kKey).empty());
  ScanAt(kLoaded);
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_FALSE(ListAllBitmaps().contains(kKey));
}

TEST_F(IdleUnloadingTest, ScanDeletesAmongOthersWhatIsDueAndGoesOn) {
  std::vector<std::filesystem::path> paths;
  for (FileTime i = 0; i < 5; ++i) paths.push_back(AddGood(kKey, kCreated + i));
  {
    const PinnedBitmaps pins = FindBitmapsForFile(kVolume, kFile);
    for (const int deleted : {0, 1, 4}) Delete(IdOf(paths[deleted]));
  }
  ScanAt(kLoaded);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(std::filesystem::exists(paths[i]), i == 2 || i == 3) << i;
  EXPECT_EQ(ListAllBitmaps().at(kKey).size(), 2u);
}

TEST_F(IdleUnloadingTest, TellsWhatItUnloadsInTheOrderOfTheCache) {
  const auto later = AddGood({kVolume, kFile + 1}, kCreated);
  const auto first = AddGood();
  Load(kFile);
  Load(kFile + 1);
  StartLogging("zelservicelog=none\nzelservicelog:bitmap=debug\nzelservicelog:drivercomm=none\n");
  ScanAt(kLoaded + 600 * kSecond);
  const auto lines = [](const std::filesystem::path& path, const char* file) {
    char id[17];
    std::snprintf(id, sizeof id, "%016llx", IdOf(path));
    const std::string of = "Volume 01234567-89ab-cdef-0123-456789abcdef, FileId 0x";
    return std::vector<std::string>{
        "DEBUG Unloading idle bitmap: " + of + file + ", BitmapId 0x" + id,
        std::string("DEBUG Cleanly unloaded BitmapId 0x") + id + " for " + of + file};
  };
  std::vector<std::string> expected = lines(first, "0001000000000123");
  for (const std::string& line : lines(later, "0001000000000124")) expected.push_back(line);
  EXPECT_THAT(StopLoggingAndGetMessages(), ::testing::ElementsAreArray(expected));
}

}  // namespace
}  // namespace zel
