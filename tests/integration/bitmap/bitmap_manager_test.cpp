#include "bitmap/bitmap_manager.h"

#include <thread>

#include "tests/integration/support/bitmap_fixture.h"
#include "tests/integration/support/held_file.h"

namespace zel {
namespace {

using test::Get;
using test::GoodBitmap;
using test::IdOf;
using test::kCreated;
using test::kFile;
using test::kKey;
using test::kVolume;
using test::ReadFileBytes;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class BitmapManagerTest : public test::BitmapFixture {
 protected:
  static std::vector<BitmapId> IdsFound(const FileKey& file = kKey) {
    std::vector<BitmapId> ids;
    for (const PinnedBitmap& bitmap : FindBitmapsForFile(file.volume, file.file_id)) {
      ids.push_back(bitmap->BitmapId);
    }
    return ids;
  }

  static bool IsKnown(const FileKey& file) { return ListAllBitmaps().contains(file); }
};

TEST_F(BitmapManagerTest, FindGivesTheBitmapsOfAFileInTheOrderTheyWereAdded) {
  const auto newer = AddGood(kKey, kCreated + 1);
  const auto older = AddGood(kKey, kCreated);
  AddGood({kVolume, kFile + 1}, kCreated);
  EXPECT_THAT(IdsFound(), ElementsAre(IdOf(newer), IdOf(older)));
  EXPECT_THAT(IdsListed(), ElementsAre(IdOf(newer), IdOf(older)));
}

TEST_F(BitmapManagerTest, FindLeavesOutABadHeaderAndGivesTheOther) {
  std::string bad = GoodBitmap(kKey, "bits");
  bad[0] = 'X';
  Add(kKey, kCreated, bad);
  const auto good = AddGood(kKey, kCreated + 1);
  EXPECT_THAT(IdsFound(), ElementsAre(IdOf(good)));
}

TEST_F(BitmapManagerTest, FindLoadsOnceAndPinsEveryTime) {
  const auto path = AddGood();
  EXPECT_FALSE(IsLoaded(path));
  const PinnedBitmaps first = FindBitmapsForFile(kVolume, kFile);
  const PinnedBitmaps second = FindBitmapsForFile(kVolume, kFile);
  ASSERT_EQ(first.size(), 1u);
  EXPECT_TRUE(IsLoaded(path));
  EXPECT_EQ(&*first[0], &*second[0]);
  EXPECT_EQ(first[0]->InUseCount, 2u);
}

TEST_F(BitmapManagerTest, FindOfAnUnknownFileIsEmptyAndLeavesAnEmptyEntry) {
  EXPECT_FALSE(IsKnown(kKey));
  EXPECT_THAT(IdsFound(), IsEmpty());
  EXPECT_TRUE(IsKnown(kKey));
  EXPECT_THAT(IdsListed(), IsEmpty());
  UnloadIdleBitmaps();
  EXPECT_TRUE(IsKnown(kKey));  // only a deletion takes an entry away
}

TEST_F(BitmapManagerTest, LoadThatFailedIsTriedAgainByTheNextLookup) {
  std::string bytes = GoodBitmap(kKey, "bits");
  bytes[0] = 'X';
  const auto path = Add(kKey, kCreated, bytes);
  EXPECT_THAT(IdsFound(), IsEmpty());
  EXPECT_FALSE(GetBitmapById(IdOf(path)));
  bytes[0] = 'Z';
  std::fstream(path, std::ios::binary | std::ios::in | std::ios::out) << bytes;
  EXPECT_THAT(IdsFound(), ElementsAre(IdOf(path)));
}

TEST_F(BitmapManagerTest, GetByIdLoadsAndPinsThatBitmap) {
  AddGood();
  const auto path = AddGood({kVolume, kFile + 1}, kCreated + 1);
  const PinnedBitmap bitmap = GetBitmapById(IdOf(path));
  ASSERT_TRUE(bitmap);
  EXPECT_EQ(bitmap->FileName, path.wstring());
  EXPECT_EQ(bitmap->InUseCount, 1u);
  EXPECT_TRUE(IsLoaded(path));
}

TEST_F(BitmapManagerTest, GetByIdOfAnUnknownIdIsEmpty) {
  const auto path = AddGood();
  EXPECT_FALSE(GetBitmapById(IdOf(path) + 1));
  EXPECT_FALSE(IsLoaded(path));
}

// As it can be after somebody linked a bitmap file by hand.
TEST_F(BitmapManagerTest, OneIdUnderTwoFilesIsFoundInTheOrderOfTheFiles) {
  const FileKey second = {kVolume, kFile + 1};
  const auto path = AddGood(second, kCreated);
  const auto link = DirectoryOf(kKey) / test::BitmapName(kCreated);
  std::filesystem::create_directories(link.parent_path());
  ASSERT_TRUE(::CreateHardLinkW(link.c_str(), path.c_str(), nullptr));
  AddBitmap(kVolume, kFile, IdOf(path), link.wstring(), 528);
  EXPECT_EQ(GetBitmapById(IdOf(path))->FileName, link.wstring());
  EXPECT_EQ(Delete(IdOf(path)), kKey);
  EXPECT_EQ(GetBitmapById(IdOf(path))->FileName, path.wstring());
  EXPECT_EQ(Delete(IdOf(path)), second);
}

TEST_F(BitmapManagerTest, ListTellsEveryFieldWithoutLoading) {
  const auto path = Write(kKey, kCreated, GoodBitmap(kKey, std::string(16, '\0')));
  AddBitmap(kVolume, kFile, IdOf(path), path.wstring(), 0xFFFFFFF0);
  const auto listed = ListAllBitmaps();
  ASSERT_EQ(listed.size(), 1u);
  ASSERT_EQ(listed.at(kKey).size(), 1u);
  const BitmapInfo& info = listed.at(kKey)[0];
  EXPECT_EQ(info.FileSize, 0xFFFFFFF0u);
  EXPECT_EQ(info.CreationTime, kCreated);
  EXPECT_EQ(info.BlockSize, test::kBlockSize);
  EXPECT_EQ(info.BitmapId, IdOf(path));
  EXPECT_EQ(info.VolumeGuid, kVolume);
  EXPECT_EQ(info.FileId, kFile);
  EXPECT_FALSE(IsLoaded(path));
}

TEST_F(BitmapManagerTest, ListIsInTheOrderOfTheGuidsBytesAndThenOfTheIdsAsUnsigned) {
  const VolumeGuid low = {0x02000001, 0, 0, {}};   // bytes 01 00 00 02
  const VolumeGuid high = {0x01000002, 0, 0, {}};  // bytes 02 00 00 01
  for (const FileKey& file : {FileKey{high, 1}, FileKey{low, ~0ull}, FileKey{low, 2}}) {
    (void)IdsFound(file);
  }
  std::vector<FileKey> keys;
  for (const auto& [file, infos] : ListAllBitmaps()) keys.push_back(file);
  EXPECT_THAT(keys, ElementsAre(FileKey{low, 2}, FileKey{low, ~0ull}, FileKey{high, 1}));
}

TEST_F(BitmapManagerTest, DuplicateIdOfAFileIsLoggedAndLeftOut) {
  StartLogging(test::kBitmapErrors);
  const auto path = AddGood();
  AddBitmap(kVolume, kFile, IdOf(path), L"another", 1);
  EXPECT_THAT(IdsListed(), ElementsAre(IdOf(path)));
  EXPECT_EQ(ListAllBitmaps().at(kKey)[0].FileSize, 528u);
  ShutdownLogging();
  // The line's end is missing too, and the misprinted conversion takes no argument.
  EXPECT_THAT(ReadFileBytes(log_path()),
              ::testing::EndsWith("] AddBitmap: Bitmap is already added: "
                                  "01234567-89ab-cdef-0123-456789abcdef, 0xI4x, "
                                  "0x0001000000000123"));
}

TEST_F(BitmapManagerTest, AddTellsWhetherItAdded) {
  const auto path = Write(kKey, kCreated, GoodBitmap(kKey, "x"));
  EXPECT_TRUE(AddBitmap(kVolume, kFile, IdOf(path), path.wstring(), 513));
  EXPECT_FALSE(AddBitmap(kVolume, kFile, IdOf(path), path.wstring(), 513));
}

TEST_F(BitmapManagerTest, MalformedNameIsLoggedAndAddedWithZeros) {
  StartLogging(test::kBitmapWarnings);
  AddBitmap(kVolume, kFile, 77, L"C:\\odd", 9);
  const BitmapInfo info = ListAllBitmaps().at(kKey).at(0);
  EXPECT_EQ(info.BlockSize, 0u);
  EXPECT_EQ(info.CreationTime, 0u);
  EXPECT_EQ(info.BitmapId, 77u);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("WARN  ExtractFromBitmapName(C:\\odd) failed: bitmap name is 3 "
                          "characters long"));
}

TEST_F(BitmapManagerTest, DeleteOfAnUnpinnedBitmapTakesFileRecordAndEntry) {
  const auto unloaded = AddGood();
  EXPECT_EQ(Delete(IdOf(unloaded)), kKey);
  EXPECT_FALSE(std::filesystem::exists(unloaded));
  EXPECT_FALSE(IsKnown(kKey));

  const auto loaded = AddGood();
  (void)IdsFound();
  EXPECT_TRUE(IsLoaded(loaded));
  EXPECT_EQ(Delete(IdOf(loaded)), kKey);
  EXPECT_FALSE(std::filesystem::exists(loaded));
  EXPECT_FALSE(IsKnown(kKey));
}

TEST_F(BitmapManagerTest, DeleteLeavesTheOtherBitmapsOfTheFile) {
  const auto first = AddGood(kKey, kCreated);
  const auto second = AddGood(kKey, kCreated + 1);
  const auto third = AddGood(kKey, kCreated + 2);
  const std::string bytes = ReadFileBytes(third);
  Delete(IdOf(second));
  EXPECT_THAT(IdsListed(), ElementsAre(IdOf(first), IdOf(third)));
  EXPECT_EQ(ReadFileBytes(third), bytes);
}

TEST_F(BitmapManagerTest, DeleteOfAnUnknownIdZeroesTheOutputs) {
  const auto path = AddGood();
  EXPECT_EQ(Delete(IdOf(path) + 1), FileKey{});
  EXPECT_THAT(IdsListed(), ElementsAre(IdOf(path)));
}

TEST_F(BitmapManagerTest, DeleteOfAPinnedBitmapWaitsForThePinAndTheNextScan) {
  const auto path = AddGood();
  const BitmapId id = IdOf(path);
  {
    const PinnedBitmap pin = GetBitmapById(id);
    EXPECT_EQ(Delete(id), kKey);
    EXPECT_EQ(Delete(id), kKey);  // the identity is still known
    EXPECT_THAT(IdsFound(), IsEmpty());
    EXPECT_THAT(IdsListed(), IsEmpty());
    EXPECT_TRUE(IsKnown(kKey));
    EXPECT_FALSE(GetBitmapById(id));
    UnloadIdleBitmaps();
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_EQ(pin->header()->BitmapSize, 16u);  // still mapped
  }
  EXPECT_TRUE(std::filesystem::exists(path));
  UnloadIdleBitmaps();
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_FALSE(IsKnown(kKey));
  EXPECT_EQ(Delete(id), FileKey{});
}

TEST_F(BitmapManagerTest, ShutdownFinishesADeletionThatWaitedForAPin) {
  const auto path = AddGood();
  {
    const PinnedBitmap pin = GetBitmapById(IdOf(path));
    Delete(IdOf(path));
  }
  ShutdownBitmapManager();
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(BitmapManagerTest, DeletedBitmapThatIsPinnedOverShutdownIsUnreliableInTheNextLife) {
  const auto path = AddGood();
  const PinnedBitmap pin = GetBitmapById(IdOf(path));
  Delete(IdOf(path));
  ShutdownBitmapManager();
  EXPECT_EQ(Get(ReadFileBytes(path), test::kAtUnreliable, 1), 1u);
}

class MissedChangeTest : public BitmapManagerTest {
 protected:
  // Looks up while the bitmap cannot be opened.
  void FailToFind(decltype(FindBitmapsForFile)* find) {
    const UniqueFile holder = test::HoldFile(path_);
    EXPECT_TRUE(find(kVolume, kFile).empty());
  }

  const std::filesystem::path path_ = AddGood();
};

TEST_F(MissedChangeTest, NextLookupMarksTheBitmap) {
  FailToFind(FindBitmapsToChange);
  EXPECT_EQ(FindBitmapsForFile(kVolume, kFile).size(), 1u);
  EXPECT_TRUE(IsUnreliable(path_));
}

TEST_F(MissedChangeTest, NextScanMarksTheBitmap) {
  FailToFind(FindBitmapsToChange);
  UnloadIdleBitmaps();
  EXPECT_TRUE(IsUnreliable(path_));
}

TEST_F(MissedChangeTest, ShutdownMarksTheBitmap) {
  FailToFind(FindBitmapsToChange);
  ShutdownBitmapManager();
  EXPECT_TRUE(IsUnreliable(path_));
}

TEST_F(MissedChangeTest, ReadingMissesNone) {
  FailToFind(FindBitmapsForFile);
  EXPECT_EQ(FindBitmapsForFile(kVolume, kFile).size(), 1u);
  EXPECT_FALSE(IsUnreliable(path_));
}

TEST_F(BitmapManagerTest, SecondDeleteAfterThePinIsGoneDeletesAtOnce) {
  const auto path = AddGood();
  const BitmapId id = IdOf(path);
  {
    const PinnedBitmap pin = GetBitmapById(id);
    Delete(id);
  }
  EXPECT_EQ(Delete(id), kKey);
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_FALSE(IsKnown(kKey));
}

TEST_F(BitmapManagerTest, DeleteOfABitmapWhoseFileIsGoneForgetsItSilently) {
  const auto path = AddGood();
  const BitmapId id = IdOf(path);
  std::filesystem::remove_all(cbt());
  StartLogging(test::kBitmapErrors);
  EXPECT_EQ(Delete(id), kKey);
  EXPECT_FALSE(IsKnown(kKey));
  EXPECT_THAT(StopLogging(), IsEmpty());
}

TEST_F(BitmapManagerTest, DiscardOfAFileDeletesWhatIsUnpinnedAndTheRestLater) {
  const auto unloaded = AddGood(kKey, kCreated);
  const auto pinned = AddGood(kKey, kCreated + 1);
  const auto other = AddGood({kVolume, kFile + 1}, kCreated);
  {
    const PinnedBitmap pin = GetBitmapById(IdOf(pinned));
    DiscardBitmapsOfFile(kKey);
    EXPECT_FALSE(std::filesystem::exists(unloaded));
    EXPECT_TRUE(std::filesystem::exists(pinned));
    EXPECT_THAT(IdsFound(), IsEmpty());
    EXPECT_TRUE(IsKnown(kKey));
  }
  UnloadIdleBitmaps();
  EXPECT_FALSE(std::filesystem::exists(pinned));
  EXPECT_FALSE(IsKnown(kKey));
  EXPECT_THAT(IdsListed({kVolume, kFile + 1}), ElementsAre(IdOf(other)));
}

TEST_F(BitmapManagerTest, DiscardOfAFileDropsAnEmptyEntryAndMakesNone) {
  DiscardBitmapsOfFile(kKey);
  EXPECT_FALSE(IsKnown(kKey));
  (void)IdsFound();
  DiscardBitmapsOfFile(kKey);
  EXPECT_FALSE(IsKnown(kKey));
}

TEST_F(BitmapManagerTest, VerifyTimeCountsForEveryBitmapOfTheFile) {
  AddGood(kKey, kCreated);
  AddGood(kKey, kCreated + 1);
  AddGood({kVolume, kFile + 1}, kCreated);
  EXPECT_TRUE(AllVerifiedSince(kKey, 0));
  EXPECT_FALSE(AllVerifiedSince(kKey, 1));
  SetLastVerifyTime(kKey, 100);
  EXPECT_TRUE(AllVerifiedSince(kKey, 100));
  EXPECT_FALSE(AllVerifiedSince(kKey, 101));
  EXPECT_FALSE(AllVerifiedSince({kVolume, kFile + 1}, 1));
  AddGood(kKey, kCreated + 2);  // a bitmap that came later has not been verified
  EXPECT_FALSE(AllVerifiedSince(kKey, 100));
}

TEST_F(BitmapManagerTest, VerifyTimeNeverGoesBack) {
  AddGood();
  SetLastVerifyTime(kKey, 100);
  SetLastVerifyTime(kKey, 99);
  EXPECT_TRUE(AllVerifiedSince(kKey, 100));
}

TEST_F(BitmapManagerTest, SomeBitmapIsVerifiedWhenOneCameLater) {
  EXPECT_FALSE(AnyVerifiedSince(kKey, 0));
  AddGood(kKey, kCreated);
  EXPECT_FALSE(AnyVerifiedSince(kKey, 100));
  SetLastVerifyTime(kKey, 100);
  AddGood(kKey, kCreated + 1);
  EXPECT_TRUE(AnyVerifiedSince(kKey, 100));
  EXPECT_FALSE(AnyVerifiedSince(kKey, 101));
}

TEST_F(BitmapManagerTest, VerifyTimeOfAnUnknownFileMakesNoEntry) {
  SetLastVerifyTime(kKey, 100);
  EXPECT_FALSE(AllVerifiedSince(kKey, 0));
  EXPECT_FALSE(IsKnown(kKey));
  (void)IdsFound();
  EXPECT_TRUE(AllVerifiedSince(kKey, 100));  // an entry without bitmaps
}

TEST_F(BitmapManagerTest, VerifyTimeCountsForADiscardedBitmapToo) {
  const auto path = AddGood();
  const PinnedBitmap pin = GetBitmapById(IdOf(path));
  Delete(IdOf(path));
  EXPECT_FALSE(AllVerifiedSince(kKey, 1));
  SetLastVerifyTime(kKey, 1);
  EXPECT_TRUE(AllVerifiedSince(kKey, 1));
}

TEST_F(BitmapManagerTest, ShutdownClosesEveryLoadedBitmapCleanlyAndKeepsTheCache) {
  const auto first = AddGood();
  const auto second = AddGood({kVolume, kFile + 1}, kCreated);
  const auto unloaded = AddGood({kVolume, kFile + 2}, kCreated);
  const std::string untouched = ReadFileBytes(unloaded);
  FindBitmapsForFile(kVolume, kFile)[0]->header()->SizeChanged = 1;
  (void)IdsFound({kVolume, kFile + 1});
  ShutdownBitmapManager();
  EXPECT_FALSE(IsLoaded(first));
  EXPECT_FALSE(IsLoaded(second));
  EXPECT_EQ(Get(ReadFileBytes(first), 0x3E, 1), 1u);
  EXPECT_EQ(ReadFileBytes(unloaded), untouched);
  EXPECT_EQ(ListAllBitmaps().size(), 3u);
  EXPECT_TRUE(std::filesystem::remove(first));  // no handle is left
}

// As that of a call which waited for the shutdown: nobody would unload what it loads.
TEST_F(BitmapManagerTest, LookupAfterTheShutdownLoadsNothing) {
  const auto path = AddGood();
  ShutdownBitmapManager();
  EXPECT_THAT(IdsFound(), IsEmpty());
  EXPECT_FALSE(GetBitmapById(IdOf(path)));
  EXPECT_FALSE(IsLoaded(path));
  InitBitmapManager();
  EXPECT_THAT(IdsFound(), ElementsAre(IdOf(path)));
}

TEST_F(BitmapManagerTest, ShutdownTwiceAndWithoutInitIsHarmless) {
  ShutdownBitmapManager();
  ShutdownBitmapManager();
  InitBitmapManager();
  ShutdownBitmapManager();
  ShutdownBitmapManager();
}

TEST_F(BitmapManagerTest, ShutdownByManyThreadsAtOnceEndsForAll) {
  const auto path = AddGood();
  InitBitmapManager();
  (void)IdsFound();
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i) threads.emplace_back(ShutdownBitmapManager);
  }
  EXPECT_FALSE(IsLoaded(path));
}

TEST_F(BitmapManagerTest, PinOutlivesShutdownWithItsBitsReachingTheFile) {
  const auto path = AddGood();
  {
    const PinnedBitmap pin = GetBitmapById(IdOf(path));
    ShutdownBitmapManager();
    EXPECT_EQ(pin->header()->ClosedCleanly, 1);
    EXPECT_EQ(pin->InUseCount, 1u);
    pin->Changes->RecordWrite(3 * test::kBlockSize, 1, kCreated);
  }
  EXPECT_EQ(Get(ReadFileBytes(path), 512, 1), 8u);
  EXPECT_TRUE(std::filesystem::remove(path));
}

TEST_F(BitmapManagerTest, IdsOfAFileAreListedWithoutLoadingOrMakingAnEntry) {
  const auto path = AddGood(kKey, kCreated);
  const auto discarded = AddGood(kKey, kCreated + 1);
  const PinnedBitmap pinned = GetBitmapById(IdOf(discarded));
  Delete(pinned->BitmapId);
  EXPECT_THAT(BitmapIdsOfFile(kKey), ElementsAre(IdOf(path)));
  EXPECT_FALSE(IsLoaded(path));
  EXPECT_THAT(BitmapIdsOfFile({kVolume, kFile + 1}), IsEmpty());
  EXPECT_FALSE(IsKnown({kVolume, kFile + 1}));
}

int times_told = 0;

TEST_F(BitmapManagerTest, DeletionOfAFilesLastBitmapIsTold) {
  WhenFileHasNoBitmapsLeft([] {
    EXPECT_FALSE(IsKnown(kKey));
    ++times_told;
  });
  const BitmapId first = IdOf(AddGood(kKey, kCreated));
  const BitmapId last = IdOf(AddGood(kKey, kCreated + 1));
  Delete(first);
  EXPECT_EQ(times_told, 0);
  {
    const PinnedBitmap pinned = GetBitmapById(last);
    Delete(last);
    EXPECT_EQ(times_told, 0);
  }
  UnloadIdleBitmaps();
  EXPECT_EQ(times_told, 1);
  AddGood(kKey, kCreated + 2);
  DiscardBitmapsOfFile(kKey);
  EXPECT_EQ(times_told, 2);
}

}  // namespace
}  // namespace zel
