// Bitmap files that other programs hold, over a regular stop; what is found afterwards is what the
// next process would find.
#include "bitmap/missed_changes.h"

#include "bitmap/bitmap_manager.h"
#include "config/settings.h"
#include "files/layout.h"
#include "tests/integration/support/bitmap_fixture.h"
#include "tests/integration/support/flush_hooks.h"
#include "tests/integration/support/held_file.h"
#include "win32/handles.h"

namespace zel {
namespace {

using test::kCreated;
using test::kFile;
using test::kKey;
using test::kVolume;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class MissedChangesTest : public test::BitmapFixture {
 protected:
  // As a program that reads the file and lets nobody write, unless it shares that too.
  void Hold(DWORD access = GENERIC_READ, DWORD share = FILE_SHARE_READ) {
    holder_ = test::HoldFile(path_, access, share);
  }
  void LetGo() { holder_.reset(); }

  [[nodiscard]] bool IsMarkedBeside() const { return std::filesystem::is_directory(mark_); }

  // What the next process makes of the file at its first look.
  [[nodiscard]] bool NextProcessTrustsIt() const {
    BitmapRecord record;
    record.VolumeGuid = kVolume;
    record.FileId = kFile;
    record.BitmapId = id_;
    record.FileName = path_.wstring();
    record.BlockSize = test::kBlockSize;
    record.CreationTime = kCreated;
    const LockGuard guard(record.Lock);
    EXPECT_TRUE(LoadBitmap(record));
    const auto data = LoadedData(record);
    return data->header()->Unreliable == 0;
  }

  const std::filesystem::path path_ = AddGood();
  const BitmapId id_ = test::IdOf(path_);
  const std::filesystem::path mark_ = MissedMarkPath(path_.wstring());
  UniqueFile holder_;
};

TEST_F(MissedChangesTest, ReportedBitmapThatAReaderHoldsOverTheStopIsUnreliableAfterwards) {
  Hold();
  Report();
  EXPECT_TRUE(IsMarkedBeside());
  ShutdownBitmapManager();
  LetGo();
  EXPECT_FALSE(NextProcessTrustsIt());
  EXPECT_FALSE(IsMarkedBeside());
}

TEST_F(MissedChangesTest, DeletedBitmapThatAReaderHoldsOverTheStopIsUnreliableAfterwards) {
  Hold();
  EXPECT_EQ(Delete(id_), kKey);
  ShutdownBitmapManager();
  LetGo();
  ASSERT_TRUE(std::filesystem::exists(path_));
  EXPECT_FALSE(NextProcessTrustsIt());
}

// Without the stop, which a killed process does not come to.
TEST_F(MissedChangesTest, ReportedBitmapIsMarkedAtOnce) {
  Hold();
  Report();
  LetGo();
  EXPECT_FALSE(NextProcessTrustsIt());
}

TEST_F(MissedChangesTest, BitmapWhoseHolderSharesWritingIsMarkedInItself) {
  Hold(GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE);
  Report();
  EXPECT_TRUE(IsUnreliable(path_));
  EXPECT_FALSE(IsMarkedBeside());
  ShutdownBitmapManager();
  LetGo();
  EXPECT_FALSE(NextProcessTrustsIt());
}

// Not even reading is asked for.
TEST_F(MissedChangesTest, BitmapWhoseHolderSharesWritingAloneIsMarkedInItself) {
  Hold(GENERIC_WRITE, FILE_SHARE_WRITE);
  Report();
  LetGo();
  EXPECT_TRUE(IsUnreliable(path_));
}

TEST_F(MissedChangesTest, EachMarkIsFlushedToTheDevice) {
  test::FlushHooks flushes;
  Hold();
  Report();
  EXPECT_THAT(flushes.Take(), ElementsAre("file"));  // the directory
  LetGo();
  UnloadIdleBitmaps();  // the load settles it: the mark in the file, before the one beside goes
  EXPECT_FALSE(IsMarkedBeside());
  EXPECT_THAT(flushes.Take(), ElementsAre("header u", "file"));
}

TEST_F(MissedChangesTest, MarkBesideStaysUntilTheOneInTheFileIsOnTheDevice) {
  Hold();
  Report();
  LetGo();
  {
    test::FlushHooks flushes;
    flushes.FailAfter(1);  // the file's, after the header's view
    UnloadIdleBitmaps();
  }
  EXPECT_TRUE(IsMarkedBeside());
}

TEST_F(MissedChangesTest, StopNamesTheBitmapThatIsStillHeld) {
  StartLogging(test::kBitmapErrors);
  Hold();
  Report();
  ShutdownBitmapManager();
  const auto messages = StopLoggingAndGetMessages();
  EXPECT_THAT(messages, Contains(AllOf(
                            StartsWith("ERROR Bitmap " + path_.string() + ", BitmapId 0x"),
                            HasSubstr("misses changes and could not be loaded again: its next load "
                                      "marks it unreliable"))));
}

TEST_F(MissedChangesTest, DeletionTakesTheMarkWithTheFile) {
  Hold();
  EXPECT_EQ(Delete(id_), kKey);
  EXPECT_TRUE(IsMarkedBeside());
  LetGo();
  UnloadIdleBitmaps();
  EXPECT_FALSE(std::filesystem::exists(path_));
  EXPECT_FALSE(IsMarkedBeside());
}

// Nor does any earlier version's: it takes files alone.
TEST_F(MissedChangesTest, StartupScanTakesNoMarkForABitmap) {
  std::filesystem::create_directory(mark_);
  InitBitmapManager();
  ASSERT_EQ(ListAllBitmaps().size(), 1u);
  EXPECT_EQ(ListAllBitmaps().at(kKey).size(), 1u);
}

}  // namespace
}  // namespace zel
