// Who waits for whose disk: each operation on a file is held up at a gate while others go on.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <set>
#include <thread>

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
using test::Gate;
using test::kBlockSize;
using test::kVolume;

constexpr std::uint32_t kBits = 256;

void WaitForRecordedMarks() {
  const RecordedReports reports;
  while (!reports.AreSafe()) std::this_thread::yield();
}

void Write(FileId file, std::uint32_t block) {
  UpdateBitmapsForFile(file, kVolume, std::uint64_t{block} * kBlockSize, 1);
}

// A hook of a test's own. Nobody calls it any more when what it refers to goes.
class Hooked {
 public:
  explicit Hooked(test::FileHook hook) { Files().SetHook(std::move(hook)); }
  ~Hooked() {
    WaitForRecordedMarks();
    Files().SetHook(nullptr);
  }
  Hooked(const Hooked&) = delete;
  Hooked& operator=(const Hooked&) = delete;
};

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

// Whether the bitmaps' lock can be taken by another thread while this one stands still. That thread
// is left alone if it cannot.
bool LockIsFree() {
  const auto taken = std::make_shared<std::promise<void>>();
  std::thread([taken] {
    SetLastVerifyTime({kVolume, ~FileId{0}}, 1);
    taken->set_value();
  }).detach();
  return taken->get_future().wait_for(std::chrono::seconds(10)) == std::future_status::ready;
}

TEST_F(BitmapWaitsTest, NoFileIsTouchedUnderTheLock) {
  const FileId file = NewFile();
  const std::wstring path = Create(file);
  std::map<FileOperation, int> seen;
  std::mutex mutex;
  const Hooked hook([&](FileOperation operation, const std::wstring&) {
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
        FileOperation::kFlushToDevice, FileOperation::kClose, FileOperation::kDistrust,
        FileOperation::kDelete}) {
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

  static bool IsListed(FileId file) {
    const auto listed = ListAllBitmaps();
    const auto entry = listed.find({kVolume, file});
    return entry != listed.end() && !entry->second.empty();
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

TEST_F(HeldUpTest, SynchronizationVouchesForTheMarksOwedBeforeIt) {
  CloseGate(FileOperation::kFlushToDevice, slow_path_);
  Write(slow_, 7);
  gate_.WaitForThreads(1);
  const RecordedReports reports;
  ExpectOthersGoOn();
  EXPECT_FALSE(reports.AreSafe());
  EXPECT_EQ(Files().OnDevice(slow_path_).header.ClosedCleanly, 1);
  gate_.Open();
  while (!reports.AreSafe()) std::this_thread::yield();
  EXPECT_EQ(Files().OnDevice(slow_path_).header.ClosedCleanly, 0);
}

// Whoever finds a bitmap loaded finds its mark owed, or flushed.
TEST_F(HeldUpTest, LoadHandsItsMarkOverBeforeAnybodyFindsIt) {
  std::atomic<bool> found_unowed{false};
  const Hooked hook([&](FileOperation called, const std::wstring& path) {
    // Without threads the flush is made where the mark is handed over.
    if (called == FileOperation::kFlushToDevice && path == slow_path_) {
      const SharedGuard guard(bitmapCacheLock);
      for (const auto& record : *KnownBitmaps().Find({kVolume, slow_})) {
        if (record->Data != nullptr) found_unowed = true;
      }
    }
  });
  StopFlusher();
  Write(slow_, 7);
  EXPECT_FALSE(found_unowed);
  EXPECT_EQ(Files().OnDevice(slow_path_).header.ClosedCleanly, 0);
}

TEST_F(HeldUpTest, StartOfTrackingWaitsForItsBitmapsMark) {
  CloseGate(FileOperation::kFlushToDevice, slow_path_);
  const PinnedBitmaps pinned = FindBitmapsForFile(kVolume, slow_);
  gate_.WaitForThreads(1);
  auto start = std::async(std::launch::async, [&] {
    FlushOwedMark(*pinned[0]);
    return Files().OnDevice(slow_path_).header.ClosedCleanly;
  });
  ExpectOthersGoOn();
  gate_.Open();
  EXPECT_EQ(start.get(), 0);
}

// A disk so slow that no mark that is handed over gets its turn before the stop.
class BusyFlusherTest : public BitmapWaitsTest {
 protected:
  // Has every thread of the flusher stand at the gate, with bitmaps behind those made until then.
  void OccupyFlusher() {
    constexpr int kThreads = 32;
    std::set<std::wstring> busy;
    std::vector<FileId> files;
    for (int i = 0; i < kThreads; ++i) {
      files.push_back(NewFile());
      busy.insert(Create(files.back()));
    }
    Files().SetHook([this, busy](FileOperation called, const std::wstring& path) {
      if (called == FileOperation::kFlushHeader && busy.contains(path)) gate_.Pass();
    });
    for (const FileId file : files) Write(file, 1);
    gate_.WaitForThreads(kThreads);
  }

  // Stops until the bitmap is closed, and returns what the device has of it then.
  test::BitmapContents OnDeviceWhenClosedByTheStop(const std::wstring& path) {
    std::jthread stop(UnloadAllBitmaps);
    while (Files().IsOpen(path)) std::this_thread::yield();
    const test::BitmapContents device = Files().OnDevice(path);
    gate_.Open();
    return device;
  }
};

// A process that died before its mark reached the device: the next one's mark of distrust is there
// before a clean close is.
TEST_F(BusyFlusherTest, BitmapLeftBehindUnderAnOldHeaderIsUnreliableOnTheDeviceBeforeItIsClosed) {
  const FileId file = NewFile();
  const std::wstring path = Create(file);
  Files().LeaveInUse(path);
  ASSERT_TRUE(Files().OnDevice(path).IsTrusted());
  OccupyFlusher();
  (void)FindBitmapsForFile(kVolume, file);
  Files().WriteViewsThrough(false);
  EXPECT_EQ(OnDeviceWhenClosedByTheStop(path).header.Unreliable, 1);
  Files().WriteViewsThrough(true);
}

TEST_F(BusyFlusherTest, BitsThatCannotBeFlushedDoNotKeepTheMarkFromTheDevice) {
  const FileId file = NewFile();
  const std::wstring path = Create(file);
  OccupyFlusher();
  Write(file, 8);
  Files().FailFlushes(true);
  EXPECT_EQ(OnDeviceWhenClosedByTheStop(path).header.ClosedCleanly, 0);
  Files().FailFlushes(false);
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
  const Hooked hook([&](FileOperation called, const std::wstring& path) {
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
  auto stop = std::async(std::launch::async, [&] {
    UnloadAllBitmaps();
    return Files().Exists(slow_path_);
  });
  gate_.Open();
  EXPECT_FALSE(stop.get());
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
  const Hooked hook([&](FileOperation called, const std::wstring& path) {
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

// Another program holds the file, and shares nothing.
TEST_F(HeldUpTest, DeletedBitmapThatCanBeNeitherDeletedNorMarkedStaysInvisibleUntilItCan) {
  const BitmapId id = ListAllBitmaps().at({kVolume, slow_}).at(0).BitmapId;
  Files().Hold(slow_path_, true);
  VolumeGuid volume;
  FileId owner;
  DeleteBitmapById(id, volume, owner);
  EXPECT_EQ(owner, slow_);
  EXPECT_TRUE(ListAllBitmaps().at({kVolume, slow_}).empty());
  EXPECT_FALSE(GetBitmapById(id));
  UnloadIdleBitmaps();
  EXPECT_TRUE(Files().Exists(slow_path_));
  Files().Hold(slow_path_, false);
  UnloadIdleBitmaps();
  EXPECT_FALSE(Files().Exists(slow_path_));
  EXPECT_FALSE(ListAllBitmaps().contains({kVolume, slow_}));
}

TEST_F(HeldUpTest, DeletedBitmapIsUnreliableOnTheDeviceBeforeItsFileGoes) {
  std::atomic<bool> trusted{false};
  const Hooked hook([&](FileOperation called, const std::wstring& path) {
    if (called == FileOperation::kDelete && path == slow_path_) {
      trusted = Files().OnDevice(slow_path_).IsTrusted();
    }
  });
  ASSERT_TRUE(Files().OnDevice(slow_path_).IsTrusted());
  DiscardBitmapsOfFile({kVolume, slow_});
  EXPECT_FALSE(Files().Exists(slow_path_));
  EXPECT_FALSE(trusted);
}

// A report that a discarded bitmap does not get is forgotten at once: a kill must find a file that
// does not look clean.
TEST_F(HeldUpTest, DeletedBitmapIsWithheldFromReportsOnlyWhenItsFileSaysSo) {
  std::atomic<bool> was_marked{false};
  std::atomic<bool> was_withheld_before{false};
  const Hooked hook([&](FileOperation called, const std::wstring& path) {
    if (path != slow_path_ || called != FileOperation::kDistrust) return;
    if (!was_marked.exchange(true) && !IsListed(slow_)) was_withheld_before = true;
  });
  DiscardBitmapsOfFile({kVolume, slow_});
  EXPECT_TRUE(was_marked);
  EXPECT_FALSE(was_withheld_before);
}

TEST_F(HeldUpTest, BitmapThatIsDeletedWhileAScanUnloadsItNeverLooksClean) {
  Write(slow_, 7);
  WaitForRecordedMarks();
  std::atomic<bool> looked_clean{false};
  const Hooked hook([&](FileOperation called, const std::wstring& path) {
    if (path != slow_path_) return;
    if (called == FileOperation::kFlushToDevice) gate_.Pass();
    if (called != FileOperation::kClose || IsListed(slow_)) return;
    if (Files().InCache(slow_path_).IsTrusted()) looked_clean = true;
  });
  std::jthread scanner([] { UnloadIdleBitmaps(); });
  gate_.WaitForThreads(1);
  std::jthread deletion([&] { DiscardBitmapsOfFile({kVolume, slow_}); });
  // One that does not wait for the scan is seen soon.
  for (int i = 0; i < 100 && IsListed(slow_); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  gate_.Open();
  scanner.join();
  deletion.join();
  EXPECT_FALSE(looked_clean);
  EXPECT_FALSE(Files().Exists(slow_path_));
}

// A bitmap that is held by another program is tried once, not at every report.
TEST_F(HeldUpTest, BitmapThatCannotBeOpenedIsPassedByAndUnreliableAfterwards) {
  Files().Hold(slow_path_, true);
  std::atomic<int> opened{0};
  const Hooked hook([&](FileOperation called, const std::wstring& path) {
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
  const Hooked hook([&](FileOperation called, const std::wstring& path) {
    opened += called == FileOperation::kOpen && path == slow_path_ ? 1 : 0;
  });
  Write(slow_, 1);
  for (int scan = 0; scan < 3; ++scan) UnloadIdleBitmaps();
  EXPECT_EQ(opened, 1);
}

}  // namespace
}  // namespace zel
