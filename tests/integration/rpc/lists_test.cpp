// ListFiles and ListBitmaps, called by a client.
#include "rpc/list_slot.h"
#include "tests/integration/support/rpc_fixture.h"

// After <windows.h>:
#include <psapi.h>

namespace zel {
namespace {

using test::kCreated;
using test::kFile;
using test::kKey;
using test::kVolume;
using test::Track;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr CallResult kDone = {0, ERROR_SUCCESS};
constexpr CallResult kNoMore = {0, ERROR_NO_MORE_ITEMS};
constexpr CallResult kNoRoom = {RPC_S_INVALID_BOUND, 0};
constexpr std::uint16_t kRoom = 600;

std::size_t MemoryInUse() {
  PROCESS_MEMORY_COUNTERS counters = {};
  EXPECT_TRUE(::GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof counters));
  return counters.WorkingSetSize;
}

class ListFilesTest : public test::RpcFixture {
 protected:
  CallResult Next(std::uint16_t room = kRoom) {
    file = {};
    return client.ListFiles(list, room, file);
  }

  // The paths of a whole enumeration, which then has ended.
  std::vector<std::wstring> ListAll() {
    std::vector<std::wstring> paths;
    CallResult result;
    while ((result = Next()).ok()) paths.push_back(file.path);
    EXPECT_EQ(result, kNoMore);
    EXPECT_FALSE(list);
    return paths;
  }

  FileList list;
  ListedFile file;
};

TEST_F(ListFilesTest, NoTrackedFileEndsTheListAtOnce) {
  EXPECT_EQ(Next(), kNoMore);
  EXPECT_FALSE(list);
  EXPECT_EQ(file.path, L"");
}

TEST_F(ListFilesTest, EachCallGivesOneFileAndTheLastIsFollowedByTheEndOnce) {
  const FileKey second = {kVolume, ~0ull};
  Track(L"C:\\a", kKey);
  Track(L"C:\\b\u00e4\u4e2d", second);
  ASSERT_EQ(Next(), kDone);
  EXPECT_TRUE(list);
  EXPECT_EQ(file.path, L"C:\\a");
  EXPECT_EQ(file.key, kKey);
  ASSERT_EQ(Next(), kDone);
  EXPECT_EQ(file.path, L"C:\\b\u00e4\u4e2d");
  EXPECT_EQ(file.key, second);
  EXPECT_EQ(Next(), kNoMore);
  EXPECT_FALSE(list);
}

TEST_F(ListFilesTest, ListIsTheFirstCallsAndTheNextListIsNew) {
  Track(L"C:\\a");
  ASSERT_EQ(Next(), kDone);
  Track(L"C:\\b", {kVolume, 2});
  EXPECT_THAT(ListAll(), IsEmpty());
  EXPECT_THAT(ListAll(), ElementsAre(L"C:\\a", L"C:\\b"));
}

TEST_F(ListFilesTest, PathTakesAsManyBytesAsTheBufferHasCharacters) {
  const std::wstring path = L"C:\\\u1234\u5678";
  Track(path);
  for (std::uint16_t room = 2; room < 16; ++room) {
    std::string bytes(reinterpret_cast<const char*>(path.c_str()), (path.size() + 1) * 2);
    bytes.resize(std::min<std::size_t>(room, bytes.size()));
    bytes.resize(64);
    ASSERT_EQ(Next(room), kDone);
    EXPECT_EQ(file.path, reinterpret_cast<const wchar_t*>(bytes.data())) << room;
    list.reset();
  }
}

TEST_F(ListFilesTest, RoomForOneCharacterGivesTheEmptyString) {
  Track(L"C:\\a");
  ASSERT_EQ(Next(1), kDone);
  EXPECT_EQ(file.path, L"");
  EXPECT_EQ(file.key, kKey);
}

TEST_F(ListFilesTest, RoomForNoCharacterFailsTheCallAndLeavesTheList) {
  Track(L"C:\\a");
  EXPECT_EQ(Next(0), kNoRoom);
  ASSERT_EQ(Next(), kDone);
  EXPECT_EQ(Next(0), kNoRoom);
  EXPECT_TRUE(list);
  EXPECT_EQ(Next(), kNoMore);
}

TEST_F(ListFilesTest, LargestRoomTakesTheLongestPath) {
  const std::wstring path = L"\\\\?\\C:\\" + std::wstring(32'000, L'x');
  Track(path);
  ASSERT_EQ(Next(65'535), kDone);
  EXPECT_EQ(file.path, path);
}

// As many copies of the list would take 400 MB.
TEST_F(ListFilesTest, EnumerationsThatNobodyGoesOnWithShareTheirFiles) {
  const std::wstring folder = L"C:\\" + std::wstring(200, L'x') + L"\\";
  for (FileId id = 1; id <= 1000; ++id) Track(folder + std::to_wstring(id), {kVolume, id});
  std::vector<FileList> lists(kMaxListsOfAClient);
  ASSERT_EQ(client.ListFiles(lists[0], kRoom, file), kDone);
  const std::size_t before = MemoryInUse();
  for (FileList& each : lists) {
    if (!each) {
      ASSERT_EQ(client.ListFiles(each, kRoom, file), kDone);
    }
  }
  EXPECT_LT(MemoryInUse(), before + (20 << 20));
  for (FileList& each : lists) {
    ASSERT_EQ(client.ListFiles(each, kRoom, file), kDone);
    EXPECT_EQ(file.key.file_id, 10u);  // behind the first in the order of the paths
  }
}

TEST_F(ListFilesTest, ClientHasABoundOfOpenListsAndGetsRoomWithEachThatEnds) {
  AddGood();
  std::vector<FileList> lists(kMaxListsOfAClient);
  for (FileList& each : lists) ASSERT_EQ(client.ListFiles(each, kRoom, file), kNoMore);
  Track(L"C:\\a");
  for (FileList& each : lists) ASSERT_EQ(client.ListFiles(each, kRoom, file), kDone);
  constexpr CallResult kTooMany = {0, ERROR_NO_SYSTEM_RESOURCES};
  EXPECT_EQ(Next(), kTooMany);
  EXPECT_FALSE(list);
  BitmapList bitmaps;
  NamedBitmap bitmap;
  EXPECT_EQ(client.ListBitmaps(kKey, bitmaps, kRoom, bitmap), kTooMany);
  // Another client is not kept from its lists.
  const ZelClient other = test::ConnectTo(L"ncacn_ip_tcp");
  FileList others;
  EXPECT_EQ(other.ListFiles(others, kRoom, file), kDone);
  EXPECT_EQ(client.ListFiles(lists[7], kRoom, file), kNoMore);
  EXPECT_EQ(Next(), kDone);
}

TEST_F(ListFilesTest, OnlyTheFirstCallIsLogged) {
  StartLogging();
  Track(L"C:\\a");
  EXPECT_THAT(ListAll(), ElementsAre(L"C:\\a"));
  const std::vector<std::string> messages = StopLoggingAndGetMessages();
  EXPECT_EQ(std::count(messages.begin(), messages.end(), "DEBUG ListFiles called"), 1);
}

TEST_F(ListFilesTest, ListOfTheOtherKindIsRefusedAndStaysUsable) {
  AddGood();
  NamedBitmap bitmap;
  ASSERT_EQ(client.ListBitmaps(kKey, list, kRoom, bitmap), kDone);
  EXPECT_EQ(Next(), (CallResult{0, ERROR_INVALID_HANDLE}));
  EXPECT_EQ(client.ListBitmaps(kKey, list, kRoom, bitmap), kNoMore);
}

class ListBitmapsTest : public test::RpcFixture {
 protected:
  CallResult Next(std::uint16_t room = kRoom) {
    bitmap = {};
    return client.ListBitmaps(kKey, list, room, bitmap);
  }

  BitmapList list;
  NamedBitmap bitmap;
};

TEST_F(ListBitmapsTest, FilesThatNobodyKnowsAreNotRemembered) {
  BitmapList bitmaps;
  NamedBitmap bitmap;
  for (FileId id = 1; id <= 100; ++id) {
    ASSERT_EQ(client.ListBitmaps({kVolume, id}, bitmaps, kRoom, bitmap), kNoMore);
  }
  EXPECT_THAT(ListAllBitmaps(), IsEmpty());
}

TEST_F(ListBitmapsTest, FileWithoutBitmapsEndsTheListAtOnce) {
  EXPECT_EQ(Next(), kNoMore);
  EXPECT_FALSE(list);
}

TEST_F(ListBitmapsTest, EachCallGivesOneBitmapInTheOrderOfCreationThenTheEndOnce) {
  const auto first = AddGood(kKey, kCreated);
  const auto second = AddGood(kKey, kCreated + 1);
  AddGood({kVolume, kFile + 1}, kCreated);
  ASSERT_EQ(Next(), kDone);
  EXPECT_TRUE(list);
  EXPECT_EQ(bitmap.name, first.wstring());
  ASSERT_EQ(Next(), kDone);
  EXPECT_EQ(bitmap.name, second.wstring());
  EXPECT_EQ(bitmap.info.FileSize, 528u);
  EXPECT_EQ(bitmap.info.CreationTime, kCreated + 1);
  EXPECT_EQ(bitmap.info.BlockSize, test::kBlockSize);
  EXPECT_EQ(bitmap.info.BitmapId, test::IdOf(second));
  EXPECT_EQ(bitmap.info.VolumeGuid, kVolume);
  EXPECT_EQ(bitmap.info.FileId, kFile);
  EXPECT_EQ(Next(), kNoMore);
  EXPECT_FALSE(list);
}

TEST_F(ListBitmapsTest, IdentityIsTheOneAskedForWhateverTheHeaderSays) {
  const auto path = Add(kKey, kCreated, test::GoodBitmap({{9, 9, 9, {}}, 99}, "bits"));
  ASSERT_EQ(Next(), kDone);
  EXPECT_EQ(bitmap.info.BitmapId, test::IdOf(path));
  EXPECT_EQ(bitmap.info.VolumeGuid, kVolume);
  EXPECT_EQ(bitmap.info.FileId, kFile);
}

TEST_F(ListBitmapsTest, ListIsTheFirstCallsAndTheNextListIsNew) {
  AddGood(kKey, kCreated);
  ASSERT_EQ(Next(), kDone);
  AddGood(kKey, kCreated + 1);
  EXPECT_EQ(Next(), kNoMore);
  EXPECT_EQ(Next(), kDone);
  EXPECT_EQ(Next(), kDone);
  EXPECT_EQ(Next(), kNoMore);
}

TEST_F(ListBitmapsTest, BitmapsAreNotPinnedBetweenTheCalls) {
  const auto path = AddGood();
  ASSERT_EQ(Next(), kDone);
  EXPECT_EQ(GetBitmapById(test::IdOf(path))->InUseCount, 1u);  // this very one
}

TEST_F(ListBitmapsTest, NameThatDoesNotFitIsRefusedAndOfferedAgain) {
  const std::wstring name = AddGood().wstring();
  const auto length = static_cast<std::uint16_t>(name.size());
  for (const std::uint16_t room : {length, std::uint16_t{1}}) {
    EXPECT_EQ(Next(room), (CallResult{0, ERROR_INSUFFICIENT_BUFFER}));
    EXPECT_EQ(bitmap.name, L"");
  }
  ASSERT_EQ(Next(static_cast<std::uint16_t>(length + 1)), kDone);
  EXPECT_EQ(bitmap.name, name);
  EXPECT_EQ(Next(), kNoMore);
}

TEST_F(ListBitmapsTest, RoomForNoCharacterFailsTheCall) {
  AddGood();
  EXPECT_EQ(Next(0), kNoRoom);
  EXPECT_EQ(Next(65'535), kDone);
}

TEST_F(ListBitmapsTest, FirstCallIsLoggedWithTheNumberOfBitmaps) {
  AddGood(kKey, kCreated);
  AddGood(kKey, kCreated + 1);
  StartLogging("zelservicelog=trace\nzelservicelog:bitmap=none\nzelservicelog:drivercomm=none\n");
  while (Next().ok()) continue;
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("DEBUG ListBitmaps Volume 01234567-89ab-cdef-0123-456789abcdef, FileId "
                          "0x0001000000000123 called, 2 bitmaps"));
}

TEST_F(ListBitmapsTest, ListOfTheOtherKindIsRefused) {
  Track(L"C:\\a");
  ListedFile file;
  ASSERT_EQ(client.ListFiles(list, kRoom, file), kDone);
  EXPECT_EQ(Next(), (CallResult{0, ERROR_INVALID_HANDLE}));
}

}  // namespace
}  // namespace zel
