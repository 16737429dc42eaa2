#include "bitmap/unread_directories.h"

#include "bitmap/bitmap_manager.h"
#include "bitmap/bitmap_sweep.h"
#include "bitmap/record_changes.h"
#include "tests/integration/support/bitmap_fixture.h"
#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/poll.h"
#include "win32/handles.h"

extern "C" {
extern void* __imp_CreateFileW;
extern void* __imp_FindFirstFileW;
extern void* __imp_GetFileInformationByHandleEx;
extern void* __imp_WaitForSingleObject;
}

namespace zel {
namespace {

using test::GoodBitmap;
using test::kCreated;
using test::kFile;
using test::kKey;
using test::kVolume;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

std::wstring refused;  // paths that end so
int refusals = 0;
decltype(&::CreateFileW) real_create = nullptr;
decltype(&::FindFirstFileW) real_find = nullptr;

bool Refuses(std::wstring_view path) {
  if (!path.ends_with(refused)) return false;
  ++refusals;
  ::SetLastError(ERROR_ACCESS_DENIED);
  return true;
}

HANDLE WINAPI CreateOrRefuse(const wchar_t* path, DWORD access, DWORD share,
                             SECURITY_ATTRIBUTES* security, DWORD disposition, DWORD flags,
                             HANDLE model) {
  return Refuses(path) ? INVALID_HANDLE_VALUE
                       : real_create(path, access, share, security, disposition, flags, model);
}

HANDLE WINAPI FindOrRefuse(const wchar_t* pattern, WIN32_FIND_DATAW* entry) {
  const std::wstring_view text = pattern;
  return Refuses(text.substr(0, text.size() - 2)) ? INVALID_HANDLE_VALUE
                                                  : real_find(pattern, entry);
}

BOOL WINAPI RefuseToListIds(HANDLE, FILE_INFO_BY_HANDLE_CLASS, void*, DWORD) {
  ::SetLastError(ERROR_NOT_SUPPORTED);
  return FALSE;
}

// Neither lists nor opens what is at such paths.
class Refusal {
 public:
  explicit Refusal(std::wstring end) {
    refused = std::move(end);
    refusals = 0;
    real_create = reinterpret_cast<decltype(real_create)>(create_.original());
    real_find = reinterpret_cast<decltype(real_find)>(find_.original());
  }

 private:
  test::ImportHook create_{__imp_CreateFileW, &CreateOrRefuse};
  test::ImportHook find_{__imp_FindFirstFileW, &FindOrRefuse};
};

class UnreadDirectoriesTest : public test::BitmapFixture {
 protected:
  static void ReadAgain() { ReadUnreadDirectories(AddBitmapFoundLate); }

  // A start that cannot read what is at paths with this end, a report, and a second look.
  void StartWithout(const std::wstring& end) {
    {
      const Refusal refusal(end);
      InitBitmapManager();
      ASSERT_GT(refusals, 0);
      ASSERT_EQ(IdsListed().size(), 0u);
    }
    Report();
    ReadAgain();
  }

  const std::filesystem::path path_ = Write(kKey, kCreated, GoodBitmap(kKey, "bits"));
};

TEST_F(UnreadDirectoriesTest, BitmapsOfAFileFoundLaterAreUnreliable) {
  StartWithout(test::Hex(kFile, 16));
  EXPECT_EQ(IdsListed().size(), 1u);
  EXPECT_TRUE(IsUnreliable(path_));
  ASSERT_EQ(FindBitmapsForFile(kVolume, kFile).size(), 1u);
}

TEST_F(UnreadDirectoriesTest, BitmapsOfAVolumeFoundLaterAreUnreliable) {
  StartWithout(test::kVolumeText);
  EXPECT_EQ(IdsListed().size(), 1u);
  EXPECT_TRUE(IsUnreliable(path_));
}

TEST_F(UnreadDirectoriesTest, BitmapsOfAllVolumesFoundLaterAreUnreliable) {
  StartWithout(L"\\cbt");
  EXPECT_EQ(IdsListed().size(), 1u);
  EXPECT_TRUE(IsUnreliable(path_));
}

TEST_F(UnreadDirectoriesTest, FileWhoseIdIsReadLaterIsUnreliableAndTheOthersAreNot) {
  const auto other = Write(kKey, kCreated + 1, GoodBitmap(kKey, "bits", kCreated + 1));
  const test::ImportHook no_ids(__imp_GetFileInformationByHandleEx, &RefuseToListIds);
  {
    const Refusal refusal(test::BitmapName(kCreated));
    InitBitmapManager();
    ASSERT_EQ(IdsListed().size(), 1u);
  }
  Report();
  ReadAgain();
  EXPECT_EQ(IdsListed().size(), 2u);
  EXPECT_TRUE(IsUnreliable(path_));
  EXPECT_FALSE(IsUnreliable(other));
}

TEST_F(UnreadDirectoriesTest, WhatWasReadIsNotReadAgain) {
  StartWithout(test::kVolumeText);
  const Refusal refusal(test::kVolumeText);
  for (int i = 0; i < 10; ++i) ReadAgain();
  EXPECT_EQ(refusals, 0);
}

TEST_F(UnreadDirectoriesTest, StartThatReadsEverythingLeavesNothing) {
  InitBitmapManager();
  EXPECT_EQ(IdsListed().size(), 1u);
  const Refusal refusal(L"");
  ReadAgain();
  EXPECT_EQ(refusals, 0);
  EXPECT_FALSE(IsUnreliable(path_));
}

TEST_F(UnreadDirectoriesTest, DirectoryThatStaysUnreadableIsTriedEverMoreRarelyAndNamedAtTheEnd) {
  StartLogging(test::kBitmapErrors);
  {
    const Refusal refusal(test::kVolumeText);
    InitBitmapManager();
    refusals = 0;
    for (int i = 0; i < 20; ++i) ReadAgain();
    EXPECT_EQ(refusals, 4);  // at the first, third, seventh and fifteenth
    ShutdownBitmapManager();
  }
  const std::string path = (cbt() / test::kVolumeText).string();
  EXPECT_THAT(StopLoggingAndGetMessages(),
              Contains("ERROR Directory " + path +
                       " was never read: bitmaps in it may have missed changes"));
}

// Has the idle scanner wait for the test, not for ten seconds.
class ScanOnDemand {
 public:
  static void Scan() { ::SetEvent(is_due_.get()); }

 private:
  static DWORD WINAPI Wait(HANDLE handle, DWORD timeout_ms) {
    if (timeout_ms != 10'000) return real_(handle, timeout_ms);
    const HANDLE either[] = {handle, is_due_.get()};
    const DWORD ended = ::WaitForMultipleObjects(2, either, FALSE, INFINITE);
    return ended == WAIT_OBJECT_0 ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
  }

  static inline UniqueEvent is_due_{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
  static inline auto* const real_ =
      reinterpret_cast<decltype(&::WaitForSingleObject)>(__imp_WaitForSingleObject);
  test::ImportHook hook_{__imp_WaitForSingleObject, &Wait};
};

TEST_F(UnreadDirectoriesTest, IdleScannerReadsAgainWhatTheStartCouldNot) {
  const ScanOnDemand scanner;
  {
    const Refusal refusal(test::kVolumeText);
    InitBitmapManager();
  }
  scanner.Scan();
  EXPECT_TRUE(test::PollUntil([] { return IdsListed().size() == 1; }));
  ShutdownBitmapManager();
  EXPECT_TRUE(IsUnreliable(path_));
}

bool AddAndHurry(const VolumeGuid& volume, FileId file, BitmapId bitmap, const std::wstring& name,
                 std::uint32_t size) {
  HurryScans(true);
  return AddBitmapFoundLate(volume, file, bitmap, name, size);
}

// Each bitmap costs a mark on the device, and a directory of a slow disk a long wait.
TEST_F(UnreadDirectoriesTest, StopLeavesTheRestAndNamesItsDirectory) {
  constexpr FileKey kOtherFile = {kVolume, kFile + 1};
  Write(kKey, kCreated + 1, GoodBitmap(kKey, "bits", kCreated + 1));
  Write(kOtherFile, kCreated, GoodBitmap(kOtherFile, "bits"));
  StartLogging("zelservicelog=none\nzelservicelog:bitmap=error\nzelservicelog:drivercomm=none\n");
  SetUnreadDirectories({{DirectoryOf(kKey).wstring(), kVolume, kFile},
                        {DirectoryOf(kOtherFile).wstring(), kVolume, kOtherFile.file_id}});
  ReadUnreadDirectories(AddAndHurry);
  HurryScans(false);
  EXPECT_EQ(IdsListed().size(), 1u);
  EXPECT_FALSE(ListAllBitmaps().contains(kOtherFile));
  LogUnreadDirectories();
  const auto is_named = [](const std::filesystem::path& path) {
    return "ERROR Directory " + path.string() +
           " was never read: bitmaps in it may have missed changes";
  };
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(is_named(DirectoryOf(kKey)), is_named(DirectoryOf(kOtherFile))));
}

// A new bitmap that a late look finds before its maker has told of it.
TEST_F(UnreadDirectoriesTest, BitmapThatIsKnownIsLeftAsItIs) {
  InitBitmapManager();
  EXPECT_FALSE(AddBitmapFoundLate(kVolume, kFile, test::IdOf(path_), path_.wstring(), 516));
  EXPECT_FALSE(IsUnreliable(path_));
  EXPECT_TRUE(IsBitmapKnown(kKey, test::IdOf(path_), path_.wstring()));
  EXPECT_FALSE(IsBitmapKnown(kKey, test::IdOf(path_), L"another"));
}

TEST_F(UnreadDirectoriesTest, DeletedBitmapWhoseFileIsHeldDoesNotComeBack) {
  InitBitmapManager();
  const PinnedBitmap pin = GetBitmapById(test::IdOf(path_));
  ASSERT_TRUE(pin);
  DiscardBitmapsOfFile(kKey);
  EXPECT_FALSE(AddBitmapFoundLate(kVolume, kFile, pin->BitmapId, path_.wstring(), 516));
  EXPECT_EQ(IdsListed().size(), 0u);
}

}  // namespace
}  // namespace zel
