// A bitmap that another program holds while its file is changed, over every end of the process.
#include <gmock/gmock.h>

#include <algorithm>
#include <tuple>
#include <vector>

#include "bitmap/bitmap_cache.h"
#include "bitmap/bitmap_sweep.h"
#include "bitmap/flusher.h"
#include "bitmap/record_changes.h"
#include "config/settings.h"
#include "tests/portable/support/memory_bitmap_files.h"

namespace zel {
namespace {

using test::FileOperation;
using test::Files;
using test::kBlockSize;
using test::kVolume;
using End = test::MemoryBitmapFiles::End;

enum class Holder { kSharesNoWriting, kSharesAll };

class MissedChangesTest : public ::testing::Test {
 protected:
  MissedChangesTest() {
    BitmapIdleTimeout = 0;
    AllowLoads(true);
    StartFlusher();
    Files().SetHook(
        [this](FileOperation operation, const std::wstring&) { seen_.push_back(operation); });
  }
  ~MissedChangesTest() override {
    UnloadAllBitmaps();
    StopFlusher();
    Files().SetHook(nullptr);
    Files().FailMarks(false);
    AllowLoads(true);
  }

  void Hold(Holder holder, bool held) const {
    if (holder == Holder::kSharesAll) {
      Files().HoldSharing(path_, held);
    } else {
      Files().Hold(path_, held);
    }
  }

  void Write() const { UpdateBitmapsForFile(file_, kVolume, 0, 1); }
  void Delete() const {
    VolumeGuid volume;
    FileId owner;
    DeleteBitmapById(id_, volume, owner);
    EXPECT_EQ(owner, file_);
  }

  // What an agent gets of it.
  [[nodiscard]] bool IsTrusted() const {
    const PinnedBitmap bitmap = GetBitmapById(id_);
    return bitmap && bitmap->header()->Unreliable == 0;
  }

  [[nodiscard]] BitmapRecords Records() const {
    const SharedGuard guard(bitmapCacheLock);
    const BitmapRecords* const records = KnownBitmaps().Find({kVolume, file_});
    return records == nullptr ? BitmapRecords{} : *records;
  }
  [[nodiscard]] bool ReportsPassItBy() const {
    const BitmapRecords records = Records();
    const SharedGuard guard(bitmapCacheLock);
    return !records.empty() && records.front()->ChangeMissed;
  }
  // Whenever something is done with its file.
  void SeeWhetherReportsPassItBy() {
    Files().SetHook([this](FileOperation, const std::wstring&) {
      if (ReportsPassItBy()) was_passed_by_early_ = true;
    });
  }

  [[nodiscard]] long Times(FileOperation operation) const {
    return std::ranges::count(seen_, operation);
  }

  const BitmapId id_ = next_id_++;
  const FileId file_ = id_;
  const std::wstring path_ = Files().Create(file_, id_, 64);
  std::vector<FileOperation> seen_;
  bool was_passed_by_early_ = false;

 private:
  static inline BitmapId next_id_ = 1'000'000;
};

enum class Stop { kRegular, kKill, kPowerCut };

class MissedChangesOverAnEndTest : public MissedChangesTest,
                                   public ::testing::WithParamInterface<std::tuple<Holder, Stop>> {
 protected:
  [[nodiscard]] Holder holder() const { return std::get<0>(GetParam()); }

  // The process ends while the file is held; the holder goes; the next process starts.
  void EndAndStartAnew() {
    const Stop stop = std::get<1>(GetParam());
    StopFlusher();
    if (stop == Stop::kRegular) UnloadAllBitmaps();
    Files().StartAnew(stop == Stop::kPowerCut ? End::kPowerCut : End::kKill);
    Hold(holder(), false);
  }
};

TEST_P(MissedChangesOverAnEndTest, ReportedBitmapIsUnreliableAfterwards) {
  Hold(holder(), true);
  Write();
  EndAndStartAnew();
  EXPECT_FALSE(IsTrusted());
  EXPECT_FALSE(Files().HasMark(path_));
}

TEST_P(MissedChangesOverAnEndTest, DeletedBitmapIsUnreliableAfterwards) {
  Hold(holder(), true);
  Delete();
  Write();
  EndAndStartAnew();
  EXPECT_FALSE(IsTrusted());
}

TEST_P(MissedChangesOverAnEndTest, ReadingAloneCostsNoTrust) {
  Hold(holder(), true);
  EXPECT_FALSE(IsTrusted());
  EndAndStartAnew();
  EXPECT_TRUE(IsTrusted());
}

// A mark beside goes only when the device has the one in the file.
TEST_P(MissedChangesOverAnEndTest, MarkOutlivesAPowerCutAfterTheLoadThatSettlesIt) {
  Hold(holder(), true);
  Write();
  EndAndStartAnew();
  (void)GetBitmapById(id_);
  StopFlusher();
  Files().StartAnew(End::kPowerCut);
  EXPECT_FALSE(IsTrusted());
}

INSTANTIATE_TEST_SUITE_P(
    , MissedChangesOverAnEndTest,
    ::testing::Combine(::testing::Values(Holder::kSharesNoWriting, Holder::kSharesAll),
                       ::testing::Values(Stop::kRegular, Stop::kKill, Stop::kPowerCut)));

TEST_F(MissedChangesTest, MarkIsMadeOnceHoweverManyChangesAndScansFollow) {
  Files().Hold(path_, true);
  for (int i = 0; i < 10; ++i) Write();
  for (int i = 0; i < 3; ++i) UnloadIdleBitmaps();
  EXPECT_EQ(Times(FileOperation::kDistrust), 1);
  EXPECT_EQ(Times(FileOperation::kLeaveMark), 1);
}

TEST_F(MissedChangesTest, MarkThatFailedIsTriedAgainByEachScan) {
  Files().Hold(path_, true);
  Files().FailMarks(true);
  for (int i = 0; i < 10; ++i) Write();
  EXPECT_EQ(Times(FileOperation::kLeaveMark), 1);
  UnloadIdleBitmaps();
  EXPECT_EQ(Times(FileOperation::kLeaveMark), 2);
  Files().FailMarks(false);
  UnloadIdleBitmaps();
  UnloadIdleBitmaps();
  EXPECT_EQ(Times(FileOperation::kLeaveMark), 3);
  EXPECT_TRUE(Files().HasMark(path_));
}

// What is passed by is forgotten at once: a kill must find the mark then.
TEST_F(MissedChangesTest, ReportsPassTheBitmapByOnlyWhenItsMarkStands) {
  Files().Hold(path_, true);
  SeeWhetherReportsPassItBy();
  Write();
  EXPECT_FALSE(was_passed_by_early_);
  EXPECT_TRUE(Files().HasMark(path_));
  EXPECT_TRUE(ReportsPassItBy());
}

TEST_F(MissedChangesTest, ReportsPassABitmapThatIsFoundLateByOnlyWhenItsMarkStands) {
  const std::uint32_t size = ListAllBitmaps().at({kVolume, file_}).front().FileSize;
  {
    const BitmapRecords records = Records();
    const LockGuard guard(bitmapCacheLock);
    for (const auto& record : records) KnownBitmaps().Erase(record);
  }
  SeeWhetherReportsPassItBy();
  EXPECT_TRUE(AddBitmapFoundLate(kVolume, file_, id_, path_, size));
  EXPECT_FALSE(was_passed_by_early_);
  EXPECT_EQ(Files().OnDevice(path_).header.Unreliable, 1);
  EXPECT_TRUE(ReportsPassItBy());
}

TEST_F(MissedChangesTest, MarkGoesWithTheFile) {
  Files().Hold(path_, true);
  Delete();
  EXPECT_TRUE(Files().HasMark(path_));
  Files().Hold(path_, false);
  UnloadIdleBitmaps();
  EXPECT_FALSE(Files().Exists(path_));
  EXPECT_GE(Times(FileOperation::kRemoveMark), 1);
}

TEST_F(MissedChangesTest, FileThatIsNotThereGetsNoMark) {
  ASSERT_EQ(Files().Delete(path_), 0u);
  Write();
  EXPECT_EQ(Times(FileOperation::kLeaveMark), 0);
}

TEST_F(MissedChangesTest, FileThatIsNotThereIsNotTouchedByTheScans) {
  ASSERT_EQ(Files().Delete(path_), 0u);
  Write();
  seen_.clear();
  for (int i = 0; i < 3; ++i) UnloadIdleBitmaps();
  EXPECT_THAT(seen_, ::testing::IsEmpty());
}

TEST_F(MissedChangesTest, FileThatComesBackIsUnreliableToWhoeverLoadsIt) {
  ASSERT_EQ(Files().Delete(path_), 0u);
  Write();
  UnloadIdleBitmaps();
  ASSERT_EQ(Files().Create(file_, id_, 64), path_);
  EXPECT_FALSE(IsTrusted());
}

TEST_F(MissedChangesTest, FileThatComesBackIsUnreliableAfterAStop) {
  ASSERT_EQ(Files().Delete(path_), 0u);
  Write();
  UnloadIdleBitmaps();
  ASSERT_EQ(Files().Create(file_, id_, 64), path_);
  StopFlusher();
  UnloadAllBitmaps();
  Files().StartAnew(End::kKill);
  EXPECT_FALSE(IsTrusted());
}

// As that of a message which comes while the process ends.
TEST_F(MissedChangesTest, ChangeAfterTheEndOfLoadingLeavesItsMark) {
  AllowLoads(false);
  Write();
  AllowLoads(true);
  Files().StartAnew(End::kPowerCut);
  EXPECT_FALSE(IsTrusted());
}

}  // namespace
}  // namespace zel
