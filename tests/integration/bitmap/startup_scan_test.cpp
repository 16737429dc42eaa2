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
using test::IdOf;
using test::kCreated;
using test::kFile;
using test::kVolume;
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

}  // namespace
}  // namespace zel
