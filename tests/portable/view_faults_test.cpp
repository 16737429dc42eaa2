// A view that fails: whoever meets it, the bitmap alone fails, no lock stays taken, and no change
// is lost that the bitmap does not own up to.
#include <gtest/gtest.h>

#include <future>
#include <thread>
#include <vector>

#include "bitmap/bitmap_sweep.h"
#include "bitmap/flusher.h"
#include "bitmap/record_changes.h"
#include "config/settings.h"
#include "tests/portable/support/memory_bitmap_files.h"

namespace zel {
namespace {

using test::Files;
using test::kBlockSize;
using test::kVolume;
using End = test::MemoryBitmapFiles::End;

class ViewFaultsTest : public ::testing::Test {
 protected:
  ViewFaultsTest() {
    BitmapIdleTimeout = 0;
    AllowLoads(true);
    StartFlusher();
  }
  ~ViewFaultsTest() override {
    Files().HealViews();
    UnloadAllBitmaps();
    StopFlusher();
  }

  void Write(std::uint32_t block) const {
    UpdateBitmapsForFile(file_, kVolume, std::uint64_t{block} * kBlockSize, 1);
  }

  // Whether the bitmap says that it cannot be trusted, in the next process at the latest.
  bool IsDistrustedByTheNextProcess(End end) const {
    StopFlusher();
    Files().HealViews();
    Files().StartAnew(end);
    StartFlusher();
    const PinnedBitmap bitmap = GetBitmapById(id_);
    return bitmap && bitmap->header()->Unreliable == 1;
  }

  // The same after a fault that has passed, and a stop in order: nothing but the fault tells.
  bool IsDistrustedAfterAStop() const {
    Files().HealViews();
    UnloadAllBitmaps();
    return IsDistrustedByTheNextProcess(End::kKill);
  }

  // Other files' bitmaps, and this one's locks, are as free as before.
  void ExpectOthersGoOn() const {
    auto others = std::async(std::launch::async, [this] {
      UpdateBitmapsForFile(other_, kVolume, 0, 1);
      (void)GetBitmapById(id_);
      UnloadIdleBitmaps();
    });
    ASSERT_EQ(others.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_TRUE(Files().InCache(other_path_).bits[0]);
    EXPECT_EQ(Files().InCache(other_path_).header.Unreliable, 0);
  }

  const BitmapId id_ = next_id_;
  const FileId file_ = id_;
  const std::wstring path_ = Files().Create(file_, id_, 64);
  const FileId other_ = id_ + 1;
  const std::wstring other_path_ = Files().Create(other_, id_ + 1, 64);

 private:
  static inline BitmapId next_id_ = 2'000'000;

 protected:
  void SetUp() override { next_id_ += 2; }
};

TEST_F(ViewFaultsTest, ReportThatMeetsAFaultMakesTheBitmapUnreliable) {
  Write(1);
  Files().FailView(path_);
  Write(2);
  EXPECT_TRUE(IsDistrustedAfterAStop());
  ExpectOthersGoOn();
}

// While the view goes on failing, nobody waits for a lock that somebody left.
TEST_F(ViewFaultsTest, ReportThatMeetsAFaultLeavesNoLockBehind) {
  Write(1);
  Files().FailView(path_);
  Write(2);
  ExpectOthersGoOn();
  EXPECT_TRUE(IsDistrustedByTheNextProcess(End::kKill));
}

TEST_F(ViewFaultsTest, SizeThatMeetsAFaultMakesTheBitmapUnreliable) {
  Write(1);
  Files().FailView(path_);
  ApplySizeChange(file_, kVolume, 1);
  EXPECT_TRUE(IsDistrustedAfterAStop());
  ExpectOthersGoOn();
}

TEST_F(ViewFaultsTest, UnreportedChangesThatMeetAFaultMakeTheBitmapUnreliable) {
  Write(1);
  Files().FailView(path_);
  MarkUnreportedChanges(file_, kVolume);
  EXPECT_TRUE(IsDistrustedAfterAStop());
  ExpectOthersGoOn();
}

// Each touch of a load in turn.
TEST_F(ViewFaultsTest, LoadForAReportThatMeetsAFaultMakesTheBitmapUnreliable) {
  for (int touch = 0; touch < 5; ++touch) {
    Files().FailView(path_, touch);
    Write(2);
    EXPECT_TRUE(IsDistrustedByTheNextProcess(End::kPowerCut)) << touch;
  }
  ExpectOthersGoOn();
}

TEST_F(ViewFaultsTest, LoadForAnAgentThatMeetsAFaultFailsAndIsTriedAgain) {
  Files().FailView(path_);
  EXPECT_FALSE(GetBitmapById(id_));
  EXPECT_FALSE(Files().IsOpen(path_));
  Files().HealViews();
  EXPECT_TRUE(GetBitmapById(id_));
}

TEST_F(ViewFaultsTest, ReadingABitmapThatFailsAnswersTheFaultAndGivesItUp) {
  std::byte bytes[16];
  {
    const PinnedBitmap bitmap = GetBitmapById(id_);
    ASSERT_TRUE(bitmap);
    EXPECT_EQ(ReadBitmap(bitmap, 0, bytes), 0u);
    Files().FailView(path_);
    EXPECT_EQ(ReadBitmap(bitmap, 0, bytes), Files().kViewFault);
    EXPECT_EQ(ReadBitmap(bitmap, 0, bytes), Files().kViewFault);
    ExpectOthersGoOn();
  }
  EXPECT_FALSE(Files().IsOpen(path_));
  EXPECT_TRUE(IsDistrustedByTheNextProcess(End::kPowerCut));
}

TEST_F(ViewFaultsTest, ScanThatMeetsAFaultGivesNoCleanMark) {
  Write(1);
  Files().FailView(path_);
  UnloadIdleBitmaps();
  EXPECT_FALSE(Files().IsOpen(path_));
  EXPECT_FALSE(Files().InCache(path_).IsTrusted());
  ExpectOthersGoOn();
  EXPECT_TRUE(IsDistrustedByTheNextProcess(End::kPowerCut));
}

// Each touch of an unload in turn: the look at the time, the mark of a clean close.
TEST_F(ViewFaultsTest, ScanThatMeetsAFaultLaterGivesNoCleanMarkEither) {
  Write(1);
  Files().FailView(path_, 1);
  UnloadIdleBitmaps();
  EXPECT_FALSE(Files().InCache(path_).IsTrusted());
  EXPECT_TRUE(IsDistrustedByTheNextProcess(End::kPowerCut));
}

TEST_F(ViewFaultsTest, StopThatMeetsAFaultGivesNoCleanMarkAndUnloadsTheOthers) {
  Write(1);
  UpdateBitmapsForFile(other_, kVolume, 0, 1);
  Files().FailView(path_);
  UnloadAllBitmaps();
  EXPECT_FALSE(Files().InCache(path_).IsTrusted());
  EXPECT_TRUE(Files().InCache(other_path_).IsTrusted());
  EXPECT_TRUE(IsDistrustedByTheNextProcess(End::kPowerCut));
}

TEST_F(ViewFaultsTest, DeletionThatMeetsAFaultTakesTheFile) {
  Write(1);
  Files().FailView(path_);
  DiscardBitmapsOfFile({kVolume, file_});
  EXPECT_FALSE(Files().Exists(path_));
}

// A bad sector stays bad: reports and scans do not come back to it every time.
TEST_F(ViewFaultsTest, BitmapThatFailedIsNotTriedByEveryReportAndScan) {
  Write(1);
  Files().FailView(path_);
  Write(2);
  int opened = 0;
  Files().SetHook([&](test::FileOperation operation, const std::wstring& path) {
    opened += operation == test::FileOperation::kOpen && path == path_ ? 1 : 0;
  });
  for (int i = 0; i < 5; ++i) {
    Write(3);
    UnloadIdleBitmaps();
  }
  Files().SetHook(nullptr);
  EXPECT_EQ(opened, 0);
}

TEST_F(ViewFaultsTest, ManyReadersMeetTheFaultAtOnce) {
  Write(1);
  Files().FailView(path_, 100);
  std::vector<std::jthread> readers;
  for (std::uint32_t reader = 0; reader < 4; ++reader) {
    readers.emplace_back([this, reader] {
      for (int i = 0; i < 100; ++i) Write(reader);
    });
  }
  readers.clear();
  EXPECT_TRUE(IsDistrustedAfterAStop());
}

}  // namespace
}  // namespace zel
