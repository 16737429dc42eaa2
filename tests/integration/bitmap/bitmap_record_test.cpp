#include "bitmap/bitmap_record.h"

#include "bitmap/pinned_bitmap.h"
#include "bitmap/zel_set_bits.h"
#include "tests/integration/support/bitmap_file.h"
#include "tests/integration/support/flush_hooks.h"
#include "tests/integration/support/held_file.h"
#include "tests/integration/support/log_fixture.h"
#include "win32/file_time.h"
#include "win32/handles.h"

extern "C" void* __imp_CreateDirectoryW;

namespace zel {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char kIdentity[] =
    "BitmapId 0x0002000000000456 for Volume 12345678-9abc-def0-0f1e-2d3c4b5a6978, "
    "FileId 0x0001000000000123";

class BitmapRecordTest : public test::LogFixture {
 protected:
  std::filesystem::path path() const { return directory() / name_; }
  std::string path_text() const { return path().string(); }

  void WriteFile(const BitmapFileHeader& header, std::size_t length = 515) {
    test::WriteBitmapFile(path(), header, length);
    test::DescribeRecord(record_, path());
  }

  bool Load() { return test::Load(record_); }
  void Unload() { test::Unload(record_); }
  void Delete() { test::Delete(record_); }

  // Leave marks as reports do; true for a new one.
  bool MarkSizeChanged() {
    return test::Note(record_.Data, record_.Data->Changes->RecordSize(~std::uint64_t{0}, 5));
  }
  bool MarkUnreliable() { return test::Note(record_.Data, record_.Data->Changes->Distrust(5)); }

  std::string FileBytes() const { return test::ReadFileBytes(path()); }
  BitmapFileHeader OnDisk() const { return test::ReadHeader(path()); }

  std::wstring name_ = test::BitmapFileName();
  BitmapFileHeader good_ = test::MakeHeader(3);
  BitmapRecord record_;
};

class LoadBitmapTest : public BitmapRecordTest {};

TEST_F(LoadBitmapTest, CleanBitmapIsMarkedInUseAndStamped) {
  StartLogging();
  WriteFile(good_);
  const FileTime before = SystemTimeNow();
  ASSERT_TRUE(Load());
  EXPECT_EQ(record_.Data->BitmapId, test::kBitmapId);
  EXPECT_EQ(record_.Data->FileName, record_.FileName);
  EXPECT_EQ(record_.Data->InUseCount, 0u);
  EXPECT_FALSE(record_.Discarded);
  EXPECT_GE(OnDisk().LastUpdateTime, before);
  BitmapFileHeader expected = good_;
  expected.ClosedCleanly = 0;
  expected.LastUpdateTime = OnDisk().LastUpdateTime;
  const BitmapFileHeader found = OnDisk();
  EXPECT_EQ(std::memcmp(&found, &expected, sizeof found), 0);
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre(std::string("DEBUG Loaded ") + kIdentity));
}

TEST_F(LoadBitmapTest, LoadedBitmapIsLeftAsItIs) {
  WriteFile(good_);
  ASSERT_TRUE(Load());
  const std::shared_ptr<BitmapData> data = record_.Data;
  record_.Data->header()->LastUpdateTime = 5;
  EXPECT_TRUE(Load());
  EXPECT_EQ(record_.Data, data);
  EXPECT_EQ(record_.Data->header()->LastUpdateTime, 5u);
}

TEST_F(LoadBitmapTest, BitmapNotClosedCleanlyIsUnreliableForEver) {
  StartLogging();
  good_.ClosedCleanly = 0;
  WriteFile(good_);
  ASSERT_TRUE(Load());
  EXPECT_EQ(OnDisk().Unreliable, 1);
  EXPECT_EQ(OnDisk().ClosedCleanly, 0);
  EXPECT_EQ(OnDisk().LastUpdateTime, test::kCreated);
  Unload();
  EXPECT_EQ(OnDisk().ClosedCleanly, 1);
  ASSERT_TRUE(Load());
  EXPECT_EQ(OnDisk().Unreliable, 1);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(std::string("INFO  Marking ") + kIdentity +
                              " unreliable because it was not closed cleanly",
                          std::string("DEBUG Loaded ") + kIdentity,
                          std::string("DEBUG Cleanly unloaded ") + kIdentity,
                          std::string("DEBUG Loaded ") + kIdentity));
}

TEST_F(LoadBitmapTest, OldBitmapIsUpgradedAndThenRepairedByOneLoad) {
  StartLogging();
  good_.Version = kOldBitmapVersion;
  good_.HeaderSize = kOldBitmapHeaderSize;
  good_.BitmapId = 0;
  good_.NameCreationTime = 0;
  WriteFile(good_);
  test::FlushHooks flushes;
  ASSERT_TRUE(Load());
  EXPECT_THAT(flushes.Take(), ElementsAre("header", "file"));
  EXPECT_EQ(OnDisk().Version, 22);
  EXPECT_EQ(OnDisk().HeaderSize, 512);
  EXPECT_EQ(OnDisk().BitmapId, test::kBitmapId);
  EXPECT_EQ(OnDisk().NameCreationTime, test::kCreated);
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre("DEBUG Upgraded bitmap " + path_text(),
                                                       std::string("DEBUG Loaded ") + kIdentity));
}

TEST_F(LoadBitmapTest, EmptyBitmapLoads) {
  WriteFile(test::MakeHeader(0), 512);
  ASSERT_TRUE(Load());
  EXPECT_EQ(record_.Data->BitmapHeader.Buffer, nullptr);
}

// A refused bitmap: what is logged, and that it may be tried again.
class RefusedBitmapTest : public BitmapRecordTest {
 protected:
  void ExpectRefused(const std::string& message) {
    StartLogging();
    WriteFile(good_);
    EXPECT_FALSE(Load());
    EXPECT_EQ(record_.Data, nullptr);
    EXPECT_FALSE(record_.Discarded);
    // The mark goes before every check, and the file is let go of.
    EXPECT_EQ(OnDisk().ClosedCleanly, 0);
    EXPECT_FALSE(Load());
    EXPECT_EQ(OnDisk().Unreliable, 1);
    const std::string marking =
        std::string("INFO  Marking ") + kIdentity + " unreliable because it was not closed cleanly";
    EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre(message, marking, message));
    EXPECT_TRUE(std::filesystem::remove(path()));
  }
};

TEST_F(RefusedBitmapTest, BlockSizeIsNotThatOfTheName) {
  good_.BlockSize = 4096;
  good_.Magic = 0;
  ExpectRefused("ERROR Bitmap " + path_text() + " is invalid, block size doesn't match");
}

TEST_F(RefusedBitmapTest, MagicNumberIsWrong) {
  good_.Magic = 0x1234ABCD;
  good_.Version = 7;
  ExpectRefused("ERROR Bitmap " + path_text() +
                " has the wrong magic number: expected 0x624c455a, found 0x1234abcd");
}

TEST_F(RefusedBitmapTest, VersionIsWrong) {
  good_.Version = 23;
  good_.HeaderSize = 7;
  ExpectRefused("ERROR Bitmap " + path_text() +
                " has the wrong version: expected 0x0016, found 0x0017");
}

TEST_F(RefusedBitmapTest, HeaderSizeIsWrong) {
  good_.HeaderSize = 513;
  ExpectRefused("ERROR Bitmap " + path_text() +
                " has the wrong header size: expected 512, found 513");
}

class MalformedNameTest : public BitmapRecordTest {
 protected:
  void ExpectRefused(const std::wstring& name, const std::string& reason) {
    StartLogging();
    name_ = name;
    WriteFile(good_);
    EXPECT_FALSE(Load());
    EXPECT_THAT(
        StopLoggingAndGetMessages(),
        ElementsAre("WARN  ExtractFromBitmapName(" + path_text() + ") failed: " + reason,
                    "ERROR Bitmap " + path_text() + " is invalid, block size doesn't match"));
  }
};

TEST_F(MalformedNameTest, TwentyThreeCharacters) {
  ExpectRefused(name_.substr(1), "bitmap name is 23 characters long");
}

TEST_F(MalformedNameTest, TwentyFiveCharacters) {
  ExpectRefused(L"0" + name_, "bitmap name is 25 characters long");
}

TEST_F(MalformedNameTest, NoCreationTime) {
  ExpectRefused(L"000000000000000000010000", "could not extract creation time");
}

TEST_F(MalformedNameTest, NoBlockSize) {
  good_.BlockSize = 0;
  ExpectRefused(L"01dc00000000000000000000", "could not extract block size");
}

TEST_F(LoadBitmapTest, CorruptedBitmapIsDiscardedAndNotTouched) {
  StartLogging();
  WriteFile(good_, 514);
  const std::string before = FileBytes();
  EXPECT_FALSE(Load());
  EXPECT_TRUE(record_.Discarded);
  EXPECT_EQ(record_.Data, nullptr);
  EXPECT_EQ(FileBytes(), before);
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre(HasSubstr("is corrupted")));
}

TEST_F(LoadBitmapTest, FileThatCannotBeOpenedIsNotDiscarded) {
  test::DescribeRecord(record_, path());
  EXPECT_FALSE(Load());
  EXPECT_FALSE(record_.Discarded);
}

class UnloadBitmapTest : public BitmapRecordTest {};

TEST_F(UnloadBitmapTest, BitsAndMarkAreInTheFile) {
  StartLogging();
  WriteFile(good_);
  ASSERT_TRUE(Load());
  ZelSetBits(&record_.Data->BitmapHeader, 7, 10);
  Unload();
  EXPECT_EQ(record_.Data, nullptr);
  EXPECT_EQ(OnDisk().ClosedCleanly, 1);
  EXPECT_EQ(OnDisk().Unreliable, 0);
  EXPECT_EQ(FileBytes().substr(512), "\x80\xFF\x01");
  EXPECT_EQ(StopLoggingAndGetMessages().back(), std::string("DEBUG Cleanly unloaded ") + kIdentity);
}

TEST_F(UnloadBitmapTest, UnloadedBitmapIsLeftAlone) {
  WriteFile(good_);
  good_.ClosedCleanly = 0;
  test::WriteBitmapFile(path(), good_, 515);
  Unload();
  EXPECT_EQ(OnDisk().ClosedCleanly, 0);
}

TEST_F(UnloadBitmapTest, ViewStaysForWhoeverHoldsAPinYet) {
  WriteFile(good_);
  ASSERT_TRUE(Load());
  const PinnedBitmap pin(record_.Data);
  Unload();
  EXPECT_EQ(record_.Data, nullptr);
  EXPECT_EQ(pin->header()->Magic, kBitmapMagic);
}

// As in the moment in which the last pin is given back: counted out, the ownership not yet dropped.
TEST_F(UnloadBitmapTest, FileOfAnUnpinnedBitmapIsClosedEvenIfTheDataLives) {
  WriteFile(good_);
  ASSERT_TRUE(Load());
  const std::shared_ptr<BitmapData> data = record_.Data;
  Unload();
  EXPECT_EQ(data->header(), nullptr);
  EXPECT_TRUE(Load());
  Delete();
  EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(UnloadBitmapTest, DiscardedBitmapIsMarkedUnreliable) {
  WriteFile(good_);
  ASSERT_TRUE(Load());
  record_.Discarded = true;
  Unload();
  EXPECT_EQ(OnDisk().Unreliable, 1);
}

TEST_F(LoadBitmapTest, BitmapThatMissedAChangeIsUnreliableAndSaysSoOnce) {
  StartLogging("zelservicelog:bitmap=warn\n");
  WriteFile(good_);
  record_.ChangeMissed = true;
  ASSERT_TRUE(Load());
  EXPECT_EQ(OnDisk().Unreliable, 1);
  Unload();
  ASSERT_TRUE(Load());
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(AllOf(StartsWith("WARN  Marking BitmapId 0x"),
                                EndsWith("unreliable because a change was reported while it could "
                                         "not be opened"))));
}

TEST_F(UnloadBitmapTest, BitmapDroppedWithoutItStaysInUseOnDisk) {
  WriteFile(good_);
  ASSERT_TRUE(Load());
  record_.Data.reset();
  EXPECT_EQ(OnDisk().ClosedCleanly, 0);
}

class FlushOrderTest : public BitmapRecordTest {
 protected:
  void SetABit() { test::Note(record_.Data, record_.Data->Changes->RecordWrite(0, 1, 5).owed); }

  test::FlushHooks flushes_;
};

TEST_F(FlushOrderTest, LoadTakesTheMarkOfACleanCloseToTheDevice) {
  WriteFile(good_);
  ASSERT_TRUE(Load());
  EXPECT_THAT(flushes_.Take(), ElementsAre("header", "file"));
}

TEST_F(FlushOrderTest, LoadTakesANewMarkOfUnreliabilityToTheDeviceAndLeavesAnOldOneAlone) {
  good_.ClosedCleanly = 0;
  WriteFile(good_);
  ASSERT_TRUE(Load());
  EXPECT_THAT(flushes_.Take(), ElementsAre("header u", "file"));
  record_.Data.reset();  // as a crash leaves it
  ASSERT_TRUE(Load());
  EXPECT_THAT(flushes_.Take(), IsEmpty());
}

TEST_F(FlushOrderTest, MarkGoesToTheDeviceWhenItIsNew) {
  WriteFile(good_);
  ASSERT_TRUE(Load());
  flushes_.Take();
  EXPECT_TRUE(MarkSizeChanged());
  EXPECT_FALSE(MarkSizeChanged());
  EXPECT_TRUE(MarkUnreliable());
  EXPECT_THAT(flushes_.Take(), ElementsAre("header s", "file", "header su", "file"));
}

TEST_F(FlushOrderTest, SettingBitsFlushesNothing) {
  WriteFile(good_);
  ASSERT_TRUE(Load());
  flushes_.Take();
  ZelSetBits(&record_.Data->BitmapHeader, 0, 24);
  EXPECT_THAT(flushes_.Take(), IsEmpty());
}

TEST_F(FlushOrderTest, UnloadTakesTheBitsToTheDeviceBeforeItMarks) {
  WriteFile(good_);
  ASSERT_TRUE(Load());
  SetABit();
  flushes_.Take();
  Unload();
  EXPECT_THAT(flushes_.Take(), ElementsAre("all", "file", "all c"));
}

TEST_F(FlushOrderTest, UnloadOfABitmapThatWasNotChangedOwesNoFlushOfItsBits) {
  WriteFile(good_);
  ASSERT_TRUE(Load());
  SetABit();
  Unload();
  ASSERT_TRUE(Load());
  flushes_.Take();
  Unload();
  EXPECT_THAT(flushes_.Take(), ElementsAre("all c"));
  EXPECT_EQ(FileBytes()[512], 1);
}

// The system is writing the view's pages itself.
TEST_F(FlushOrderTest, FlushThatIsLockedOutForAMomentIsTriedAgain) {
  StartLogging("zelservicelog:bitmap=info\n");
  WriteFile(good_);
  ASSERT_TRUE(Load());
  SetABit();
  flushes_.Take();
  flushes_.FailAfter(0, 3, ERROR_LOCK_VIOLATION);
  Unload();
  EXPECT_THAT(flushes_.Take(), ElementsAre("all", "all", "all", "all", "file", "all c"));
  EXPECT_EQ(OnDisk().ClosedCleanly, 1);
  EXPECT_THAT(StopLoggingAndGetMessages(), IsEmpty());
}

TEST_F(FlushOrderTest, FlushThatStaysLockedOutFailsInTheEnd) {
  StartLogging("zelservicelog:bitmap=info\n");
  WriteFile(good_);
  ASSERT_TRUE(Load());
  SetABit();
  flushes_.FailAfter(0, 1000, ERROR_LOCK_VIOLATION);
  Unload();
  EXPECT_EQ(OnDisk().ClosedCleanly, 0);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(StartsWith("ERROR Failed to flush entire bitmap to disk: "),
                          StartsWith("WARN  Unloaded ")));
}

// The flush `failing` of an unload fails: the mark of a clean close stays away.
class FailingUnloadTest : public FlushOrderTest {
 protected:
  void ExpectNoMark(int failing, const std::string& message) {
    StartLogging("zelservicelog:bitmap=info\n");
    WriteFile(good_);
    ASSERT_TRUE(Load());
    SetABit();
    flushes_.Take();
    flushes_.FailAfter(failing);
    Unload();
    EXPECT_THAT(flushes_.Take(), testing::SizeIs(failing + 1));
    EXPECT_EQ(record_.Data, nullptr);
    EXPECT_EQ(OnDisk().ClosedCleanly, 0);
    ASSERT_TRUE(Load());
    EXPECT_EQ(OnDisk().Unreliable, 1);
    EXPECT_THAT(StopLoggingAndGetMessages(),
                ElementsAre(StartsWith(message),
                            std::string("WARN  Unloaded ") + kIdentity +
                                " without the mark of a clean close: it will be unreliable",
                            StartsWith("INFO  Marking ")));
  }
};

TEST_F(FailingUnloadTest, BitsThatCannotBeFlushedLeaveTheBitmapDistrusted) {
  ExpectNoMark(0, "ERROR Failed to flush entire bitmap to disk: ");
}

TEST_F(FailingUnloadTest, FileThatCannotBeFlushedLeavesTheBitmapDistrusted) {
  ExpectNoMark(1, "ERROR Failed to flush bitmap file " + path_text() + " to disk: ");
}

TEST_F(FlushOrderTest, MarkThatCannotBeFlushedIsLoggedAndDoesNoHarm) {
  StartLogging("zelservicelog:bitmap=info\n");
  WriteFile(good_);
  ASSERT_TRUE(Load());
  SetABit();
  flushes_.Take();
  flushes_.FailAfter(2);
  Unload();
  EXPECT_EQ(record_.Data, nullptr);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(StartsWith("ERROR Failed to flush entire bitmap to disk: ")));
}

TEST_F(FlushOrderTest, FailuresOfTheOtherFlushesAreLoggedOnly) {
  StartLogging("zelservicelog:bitmap=info\n");
  WriteFile(good_);
  flushes_.FailAfter(0);
  ASSERT_TRUE(Load());
  flushes_.FailAfter(1);
  EXPECT_TRUE(MarkSizeChanged());
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(StartsWith("ERROR Failed to flush bitmap header to disk: "),
                          StartsWith("ERROR Failed to flush bitmap file " + path_text())));
}

class DeleteBitmapFileTest : public BitmapRecordTest {};

TEST_F(DeleteBitmapFileTest, LoadedBitmapIsUnloadedAndItsFileDeleted) {
  StartLogging();
  WriteFile(good_);
  ASSERT_TRUE(Load());
  Delete();
  EXPECT_FALSE(std::filesystem::exists(path()));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(std::string("DEBUG Loaded ") + kIdentity,
                          std::string("DEBUG Cleanly unloaded ") + kIdentity,
                          "DEBUG Deleted bitmap " + path_text()));
}

TEST_F(DeleteBitmapFileTest, MissingFileOrDirectoryIsNoFailure) {
  StartLogging();
  test::DescribeRecord(record_, path());
  Delete();
  test::DescribeRecord(record_, directory() / "missing" / name_);
  Delete();
  EXPECT_THAT(StopLoggingAndGetMessages(), IsEmpty());
}

BOOL WINAPI RefuseDirectory(const wchar_t*, SECURITY_ATTRIBUTES*) {
  ::SetLastError(ERROR_ACCESS_DENIED);
  return FALSE;
}

TEST_F(DeleteBitmapFileTest, OtherFailuresAreLogged) {
  StartLogging();
  WriteFile(good_);
  const UniqueFile holder = test::HoldFile(path(), GENERIC_READ, FILE_SHARE_READ);
  const test::ImportHook no_mark_beside(__imp_CreateDirectoryW, &RefuseDirectory);
  Delete();
  EXPECT_TRUE(std::filesystem::exists(path()));
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      ElementsAre(StartsWith("ERROR Failed to delete bitmap " + path_text() + ": "),
                  StartsWith("ERROR Failed to mark bitmap " + path_text() + " unreliable: ")));
}

TEST_F(DeleteBitmapFileTest, FileThatCannotBeDeletedIsMarkedUnreliable) {
  WriteFile(good_);
  const UniqueFile holder =
      test::HoldFile(path(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE);
  Delete();
  EXPECT_EQ(OnDisk().Unreliable, 1);
}

TEST_F(DeleteBitmapFileTest, FileTooShortForAHeaderIsNotMadeLonger) {
  test::WriteFileBytes(path(), "short");
  test::DescribeRecord(record_, path());
  const UniqueFile holder =
      test::HoldFile(path(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE);
  Delete();
  EXPECT_EQ(FileBytes(), "short");
}

}  // namespace
}  // namespace zel
