#include "bitmap/startup_scan.h"

#include <algorithm>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "tests/integration/support/bitmap_fixture.h"
#include "win32/critical_section.h"
#include "win32/handles.h"

extern "C" {
extern void* __imp__beginthreadex;
}

namespace zel {
namespace {

using test::BitmapName;
using test::GoodBitmap;
using test::IdOf;
using test::kCreated;
using test::kFile;
using test::kKey;
using test::kVolume;
using test::ReadFileBytes;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Found = std::tuple<VolumeGuid, FileId, BitmapId, std::wstring, std::uint32_t>;

CriticalSection foundLock;
std::vector<Found> all_found ZEL_GUARDED_BY(foundLock);
std::set<DWORD> finders ZEL_GUARDED_BY(foundLock);
HANDLE second_finder = nullptr;  // signalled when two threads have called

bool Note(const VolumeGuid& volume_guid, FileId file_id, BitmapId bitmap_id,
          const std::wstring& file_name, std::uint32_t file_size) {
  const LockGuard guard(foundLock);
  all_found.emplace_back(volume_guid, file_id, bitmap_id, file_name, file_size);
  return true;
}

// Does not return before another thread has called, so that one thread cannot find everything.
bool NoteInTwoThreads(const VolumeGuid& volume_guid, FileId file_id, BitmapId bitmap_id,
                      const std::wstring& file_name, std::uint32_t file_size) {
  {
    const LockGuard guard(foundLock);
    finders.insert(::GetCurrentThreadId());
    if (finders.size() == 2) ::SetEvent(second_finder);
  }
  EXPECT_EQ(::WaitForSingleObject(second_finder, 30'000), WAIT_OBJECT_0);
  ::SetEvent(second_finder);  // one thread alone waits in vain once
  return Note(volume_guid, file_id, bitmap_id, file_name, file_size);
}

uintptr_t FailToBeginThread(void*, unsigned, unsigned(__stdcall*)(void*), void*, unsigned,
                            unsigned*) {
  ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return 0;
}

class FindBitmapFilesTest : public test::BitmapFixture {
 protected:
  static constexpr std::size_t kFiles = 40;
  static constexpr std::size_t kBitmaps = 5;  // of each file

  // Returns what a scan finds, sorted by file, each file's bitmaps as they were made.
  std::vector<Found> MakeBitmaps() {
    std::vector<Found> made;
    for (FileId file = kFile; file < kFile + kFiles; ++file) {
      for (FileTime created = kCreated; created < kCreated + kBitmaps; ++created) {
        const auto size = static_cast<std::uint32_t>(made.size() + 1);
        const auto path = Write({kVolume, file}, created, std::string(size, 'x'));
        made.emplace_back(kVolume, file, IdOf(path), path.wstring(), size);
      }
    }
    return made;
  }

  static std::vector<Found> Sorted() {
    const LockGuard guard(foundLock);
    std::vector<Found> found = all_found;
    const auto place = [](const Found& one) { return std::get<std::wstring>(one); };
    std::ranges::sort(found, {}, place);
    return found;
  }
};

TEST_F(FindBitmapFilesTest, SeveralThreadsFindEachFileOnceAndHaveEndedOnReturn) {
  const std::vector<Found> made = MakeBitmaps();
  second_finder = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  EXPECT_THAT(FindBitmapFiles({.path = cbt().wstring()}, NoteInTwoThreads), IsEmpty());
  EXPECT_EQ(Sorted(), made);
  ::CloseHandle(second_finder);
}

TEST_F(FindBitmapFilesTest, BitmapsOfOneFileComeInTheOrderOfTheFileSystem) {
  MakeBitmaps();
  EXPECT_THAT(FindBitmapFiles({.path = cbt().wstring()}, Note), IsEmpty());
  const LockGuard guard(foundLock);
  for (FileId file = kFile; file < kFile + kFiles; ++file) {
    std::vector<std::wstring> listed;
    WIN32_FIND_DATAW entry;
    const UniqueFind find(::FindFirstFileW((DirectoryOf({kVolume, file}) / L"*").c_str(), &entry));
    ASSERT_TRUE(find);
    do {
      if (entry.cFileName[0] != L'.') {
        listed.push_back((DirectoryOf({kVolume, file}) / entry.cFileName).wstring());
      }
    } while (::FindNextFileW(find.get(), &entry));
    std::vector<std::wstring> found;
    for (const Found& one : all_found) {
      if (std::get<1>(one) == file) found.push_back(std::get<std::wstring>(one));
    }
    EXPECT_EQ(found, listed);
  }
}

TEST_F(FindBitmapFilesTest, WithoutAnotherThreadTheCallingOneFindsEverything) {
  const std::vector<Found> made = MakeBitmaps();
  const test::ImportHook hook(__imp__beginthreadex, &FailToBeginThread);
  EXPECT_THAT(FindBitmapFiles({.path = cbt().wstring()}, Note), IsEmpty());
  EXPECT_EQ(Sorted(), made);
}

class StartupScanTest : public test::BitmapFixture {};

TEST_F(StartupScanTest, RegistersEveryBitmapFileUnloadedAndTellsSo) {
  const auto first = Write(kKey, kCreated, GoodBitmap(kKey, "12345"));
  const VolumeGuid other_volume = {7, 0, 0, {}};
  const auto second = Write({other_volume, 9}, kCreated, "not a bitmap");
  const std::string untouched = ReadFileBytes(first);
  StartLogging();
  InitBitmapManager();
  EXPECT_THAT(IdsListed(), ElementsAre(IdOf(first)));
  EXPECT_THAT(IdsListed({other_volume, 9}), ElementsAre(IdOf(second)));
  EXPECT_EQ(ListAllBitmaps().at(kKey)[0].FileSize, 517u);
  EXPECT_EQ(ReadFileBytes(first), untouched);
  const std::vector<std::string> messages = StopLoggingAndGetMessages();
  ASSERT_EQ(messages.size(), 4u);
  EXPECT_EQ(messages[0], "INFO  Starting bitmap idle scanner thread");
  EXPECT_EQ(messages[1], "INFO  InitBitmapManager: initializing cache");
  const auto adding = [](const std::filesystem::path& path) {
    char id[17];
    std::snprintf(id, sizeof id, "%016llx", IdOf(path));
    return "DEBUG Adding bitmap FileName " + path.string() + ", BitmapId 0x" + id + " to cache";
  };
  EXPECT_THAT(std::vector(messages.begin() + 2, messages.end()),
              ::testing::UnorderedElementsAre(adding(first), adding(second)));
}

TEST_F(StartupScanTest, TakesDirectoriesOf16HexadecimalDigitsOnly) {
  const std::filesystem::path volume = cbt() / test::kVolumeText;
  for (const wchar_t* name :
       {L"000000000000012", L"00000000000000123", L"0000000000000000", L"ffffffffffffffff",
        L"FFFFFFFFFFFFFFFF", L"zzzzzzzzzzzzzzzz", L"...............a"}) {
    test::WriteFileBytes(volume / name / BitmapName(kCreated), "x");
  }
  test::WriteFileBytes(volume / L"0000000000000124", "a plain file");
  test::WriteFileBytes(cbt() / L"0000000000000125" / BitmapName(kCreated), "x");
  test::WriteFileBytes(volume / L"00000000000001AB" / BitmapName(kCreated), "x");
  StartLogging(test::kBitmapErrors);
  InitBitmapManager();
  EXPECT_THAT(StopLogging(), IsEmpty());  // as a plain file could not be listed
  const auto listed = ListAllBitmaps();
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed.begin()->first, (FileKey{kVolume, 0x1AB}));
}

TEST_F(StartupScanTest, LeavesOutDirectoriesInTheFilesPlaces) {
  std::filesystem::create_directories(DirectoryOf(kKey) / BitmapName(kCreated));
  StartLogging();
  InitBitmapManager();
  EXPECT_THAT(ListAllBitmaps(), IsEmpty());
  EXPECT_EQ(StopLogging().size(), 2u);  // only the two opening lines
}

TEST_F(StartupScanTest, TakesTheLow32BitsOfALargeFilesSize) {
  const auto path = Write(kKey, kCreated, "");
  std::filesystem::resize_file(path, (5ull << 32) + 7);
  InitBitmapManager();
  EXPECT_EQ(ListAllBitmaps().at(kKey).at(0).FileSize, 7u);
}

TEST_F(StartupScanTest, WithoutACbtDirectoryFindsNothing) {
  std::filesystem::remove_all(cbt());
  StartLogging(test::kBitmapErrors);
  InitBitmapManager();
  EXPECT_THAT(ListAllBitmaps(), IsEmpty());
  EXPECT_THAT(StopLogging(), IsEmpty());
}

TEST_F(StartupScanTest, LinkOfTheSameFileInOneDirectoryIsRegisteredOnce) {
  const auto path = Write(kKey, kCreated, GoodBitmap(kKey, "bits"));
  const auto link = DirectoryOf(kKey) / BitmapName(kCreated + 1);
  ASSERT_TRUE(::CreateHardLinkW(link.c_str(), path.c_str(), nullptr));
  StartLogging(test::kBitmapErrors);
  InitBitmapManager();
  EXPECT_THAT(IdsListed(), ElementsAre(IdOf(path)));
  ShutdownLogging();
  EXPECT_THAT(ReadFileBytes(log_path()),
              ::testing::HasSubstr("AddBitmap: Bitmap is already added: "));
}

}  // namespace
}  // namespace zel
