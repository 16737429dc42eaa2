// Who waits for whose disk: each operation on a file is held up at a gate while others go on.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "bitmap/bitmap_sweep.h"
#include "bitmap/flusher.h"
#include "bitmap/record_changes.h"
#include "config/settings.h"
#include "tests/portable/support/memory_bitmap_files.h"

namespace zel {
namespace {

using test::FileOperation;
using test::Files;
using test::Gate;
using test::kBlockSize;
using test::kVolume;

constexpr std::uint32_t kBits = 256;

void Write(FileId file, std::uint32_t block) {
  UpdateBitmapsForFile(file, kVolume, std::uint64_t{block} * kBlockSize, 1);
}

class BitmapWaitsTest : public ::testing::Test {
 protected:
  BitmapWaitsTest() {
    BitmapIdleTimeout = 0;
    StartFlusher();
  }
  ~BitmapWaitsTest() override {
    UnloadAllBitmaps();
    StopFlusher();
    Files().SetHook(nullptr);
  }

  // Ids are the process's, whose state all tests share.
  std::wstring Create(FileId file) { return Files().Create(file, next_id_++, kBits); }
  static FileId NewFile() { return next_file_++; }

  // Holds up the operation on that path, once there is something to hold up.
  void CloseGate(FileOperation operation, const std::wstring& path) {
    Files().SetHook([this, operation, path](FileOperation called, const std::wstring& of) {
      if (called == operation && of == path) gate_.Pass();
    });
  }

  Gate gate_;

 private:
  static inline BitmapId next_id_ = 1000;
  static inline FileId next_file_ = 1;
};

// Whether the bitmaps' lock can be taken by another thread while this one stands still.
bool LockIsFree() {
  auto other = std::async(std::launch::async, [] { SetLastVerifyTime({kVolume, ~FileId{0}}, 1); });
  return other.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
}

TEST_F(BitmapWaitsTest, NoFileIsTouchedUnderTheLock) {
  const FileId file = NewFile();
  const std::wstring path = Create(file);
  std::map<FileOperation, int> seen;
  std::mutex mutex;
  Files().SetHook([&](FileOperation operation, const std::wstring&) {
    EXPECT_TRUE(LockIsFree()) << static_cast<int>(operation);
    const std::lock_guard guard(mutex);
    ++seen[operation];
  });
  Write(file, 1);      // opens, owes its mark
  Write(file, kBits);  // owes another
  WaitForRecordedMarks();
  UnloadIdleBitmaps();  // flushes, closes
  EXPECT_FALSE(Files().IsOpen(path));
  Write(file, 2);
  VolumeGuid volume;
  FileId owner;
  DeleteBitmapById(ListAllBitmaps().at({kVolume, file}).at(0).BitmapId, volume, owner);
  EXPECT_FALSE(Files().Exists(path));
  for (const FileOperation operation :
       {FileOperation::kOpen, FileOperation::kFlushHeader, FileOperation::kFlushView,
        FileOperation::kFlushToDevice, FileOperation::kClose, FileOperation::kDelete}) {
    EXPECT_GT(seen[operation], 0) << static_cast<int>(operation);
  }
}

class HeldUpTest : public BitmapWaitsTest {
 protected:
  HeldUpTest() {
    Write(loaded_, 1);
    WaitForRecordedMarks();
  }

  // Everything that has nothing to do with the other file goes on.
  void ExpectOthersGoOn() {
    Write(loaded_, 2);
    Write(loaded_, kBits + 1);  // owes a mark
    const FileId another = NewFile();
    const std::wstring path = Create(another);
    Write(another, 3);
    EXPECT_TRUE(Files().IsOpen(path));
    EXPECT_TRUE(ListAllBitmaps().contains({kVolume, loaded_}));
    EXPECT_TRUE(GetBitmapById(ListAllBitmaps().at({kVolume, loaded_}).at(0).BitmapId));
  }

  const FileId loaded_ = NewFile();
  const std::wstring loaded_path_ = Create(loaded_);
  const FileId slow_ = NewFile();
  const std::wstring slow_path_ = Create(slow_);
};

TEST_F(HeldUpTest, LoadHoldsUpNobodyElse) {
  CloseGate(FileOperation::kOpen, slow_path_);
  std::jthread loader([&] { Write(slow_, 7); });
  gate_.WaitForThreads(1);
  ExpectOthersGoOn();
  gate_.Open();
  loader.join();
  EXPECT_TRUE(Files().InCache(slow_path_).bits[7]);
}

TEST_F(HeldUpTest, WriterDoesNotWaitForItsOwnMark) {
  CloseGate(FileOperation::kFlushToDevice, slow_path_);
  Write(slow_, 7);
  gate_.WaitForThreads(1);
  Write(slow_, 8);
  Write(slow_, kBits);
  ExpectOthersGoOn();
  EXPECT_EQ(Files().OnDevice(slow_path_).header.ClosedCleanly, 1);
  gate_.Open();
}

TEST_F(HeldUpTest, SynchronizationWaitsForTheMarksOwedBeforeIt) {
  CloseGate(FileOperation::kFlushToDevice, slow_path_);
  Write(slow_, 7);
  gate_.WaitForThreads(1);
  auto synchronization = std::async(std::launch::async, WaitForRecordedMarks);
  ExpectOthersGoOn();
  EXPECT_EQ(synchronization.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  gate_.Open();
  synchronization.get();
  EXPECT_EQ(Files().OnDevice(slow_path_).header.ClosedCleanly, 0);
}

TEST_F(HeldUpTest, StartOfTrackingWaitsForItsBitmapsMark) {
  CloseGate(FileOperation::kFlushToDevice, slow_path_);
  const PinnedBitmaps pinned = FindBitmapsForFile(kVolume, slow_);
  gate_.WaitForThreads(1);
  auto start = std::async(std::launch::async, [&] { FlushOwedMark(*pinned[0]); });
  ExpectOthersGoOn();
  EXPECT_EQ(start.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  gate_.Open();
  start.get();
  EXPECT_EQ(Files().OnDevice(slow_path_).header.ClosedCleanly, 0);
}

TEST_F(HeldUpTest, ScanHoldsUpNobodyElse) {
  Write(slow_, 7);
  WaitForRecordedMarks();
  CloseGate(FileOperation::kFlushToDevice, slow_path_);
  std::jthread scanner([] { UnloadIdleBitmaps(); });
  gate_.WaitForThreads(1);
  ExpectOthersGoOn();
  gate_.Open();
}

TEST_F(HeldUpTest, BitmapWrittenToWhileAScanFlushesItStaysLoadedAndIsFlushedByTheNext) {
  Write(slow_, 7);
  WaitForRecordedMarks();
  CloseGate(FileOperation::kFlushToDevice, slow_path_);
  std::jthread scanner([] { UnloadIdleBitmaps(); });
  gate_.WaitForThreads(1);
  Write(slow_, 9);  // its pages are on their way, its lock is not held
  gate_.Open();
  scanner.join();
  EXPECT_TRUE(Files().IsOpen(slow_path_));
  EXPECT_EQ(Files().InCache(slow_path_).header.ClosedCleanly, 0);
  UnloadIdleBitmaps();
  EXPECT_FALSE(Files().IsOpen(slow_path_));
  EXPECT_TRUE(Files().OnDevice(slow_path_).bits[9]);
}

// The last step of an unload: the mark of a clean close.
TEST_F(HeldUpTest, WriterOfABitmapThatIsBeingClosedWaitsAndLoadsItAgain) {
  Write(slow_, 7);
  WaitForRecordedMarks();
  CloseGate(FileOperation::kClose, slow_path_);
  std::jthread scanner([] { UnloadIdleBitmaps(); });
  gate_.WaitForThreads(1);
  auto writer = std::async(std::launch::async, [&] { Write(slow_, 9); });
  ExpectOthersGoOn();
  EXPECT_EQ(writer.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  gate_.Open();
  writer.get();
  EXPECT_TRUE(Files().IsOpen(slow_path_));
  EXPECT_EQ(Files().InCache(slow_path_).header.Unreliable, 0);
  EXPECT_TRUE(Files().InCache(slow_path_).bits[9]);
}

TEST_F(HeldUpTest, ThoseWhoNeedABitmapThatIsBeingLoadedShareTheLoad) {
  std::atomic<int> opened{0};
  Files().SetHook([&](FileOperation called, const std::wstring& path) {
    if (called != FileOperation::kOpen || path != slow_path_) return;
    ++opened;
    gate_.Pass();
  });
  std::vector<std::jthread> writers;
  for (std::uint32_t block = 0; block < 4; ++block) {
    writers.emplace_back([this, block] { Write(slow_, block); });
  }
  gate_.WaitForThreads(1);
  ExpectOthersGoOn();
  gate_.Open();
  writers.clear();
  EXPECT_EQ(opened, 1);
  for (std::uint32_t block = 0; block < 4; ++block) {
    EXPECT_TRUE(Files().InCache(slow_path_).bits[block]) << block;
  }
}

TEST_F(HeldUpTest, DeletionHoldsUpNobodyElseAndTheStopWaitsForIt) {
  const BitmapId id = ListAllBitmaps().at({kVolume, slow_}).at(0).BitmapId;
  CloseGate(FileOperation::kDelete, slow_path_);
  auto deletion = std::async(std::launch::async, [=] {
    VolumeGuid volume;
    FileId owner;
    DeleteBitmapById(id, volume, owner);
    return owner;
  });
  gate_.WaitForThreads(1);
  ExpectOthersGoOn();
  EXPECT_FALSE(GetBitmapById(id));
  auto stop = std::async(std::launch::async, UnloadAllBitmaps);
  EXPECT_EQ(stop.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  gate_.Open();
  stop.get();
  EXPECT_FALSE(Files().Exists(slow_path_));
  EXPECT_EQ(deletion.get(), slow_);
}

TEST_F(HeldUpTest, StopFlushesSideBySide) {
  std::vector<std::wstring> paths;
  for (int i = 0; i < 8; ++i) {
    const FileId file = NewFile();
    paths.push_back(Create(file));
    Write(file, 5);
  }
  WaitForRecordedMarks();
  Files().SetHook([&](FileOperation called, const std::wstring& path) {
    if (called == FileOperation::kFlushToDevice && std::ranges::find(paths, path) != paths.end()) {
      gate_.Pass();
    }
  });
  std::jthread stop([] { UnloadAllBitmaps(); });
  gate_.WaitForThreads(8);
  gate_.Open();
  stop.join();
  for (const std::wstring& path : paths) {
    EXPECT_TRUE(Files().OnDevice(path).bits[5]);
    EXPECT_EQ(Files().InCache(path).header.ClosedCleanly, 1);
  }
}

TEST_F(HeldUpTest, HurriedScanLeavesTheRestToTheNext) {
  HurryScans(true);
  UnloadIdleBitmaps();
  HurryScans(false);
  EXPECT_TRUE(Files().IsOpen(loaded_path_));
  UnloadIdleBitmaps();
  EXPECT_FALSE(Files().IsOpen(loaded_path_));
}

// A bitmap that is held by another program is tried once, not at every report.
TEST_F(HeldUpTest, BitmapThatCannotBeOpenedIsPassedByAndUnreliableAfterwards) {
  Files().Hold(slow_path_, true);
  std::atomic<int> opened{0};
  Files().SetHook([&](FileOperation called, const std::wstring& path) {
    opened += called == FileOperation::kOpen && path == slow_path_ ? 1 : 0;
  });
  for (std::uint32_t block = 0; block < 100; ++block) Write(slow_, block);
  EXPECT_EQ(opened, 1);
  Files().Hold(slow_path_, false);
  UnloadIdleBitmaps();
  EXPECT_EQ(opened, 2);
  EXPECT_EQ(Files().InCache(slow_path_).header.Unreliable, 1);
  Write(slow_, 3);
  EXPECT_TRUE(Files().InCache(slow_path_).bits[3]);
}

TEST_F(HeldUpTest, BitmapWhoseFileIsGoneIsNotTriedByEveryScan) {
  ASSERT_EQ(Files().Delete(slow_path_), 0u);
  std::atomic<int> opened{0};
  Files().SetHook([&](FileOperation called, const std::wstring& path) {
    opened += called == FileOperation::kOpen && path == slow_path_ ? 1 : 0;
  });
  Write(slow_, 1);
  for (int scan = 0; scan < 3; ++scan) UnloadIdleBitmaps();
  EXPECT_EQ(opened, 1);
}

}  // namespace
}  // namespace zel
