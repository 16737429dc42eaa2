#include "bitmap/create_bitmap.h"

#include <functional>

#include "errors/error_info.h"
#include "tests/integration/support/bitmap_fixture.h"
#include "win32/handles.h"

extern "C" {
extern void* __imp_CreateDirectoryW;
extern void* __imp_CreateFileW;
extern void* __imp_DeleteFileW;
extern void* __imp_GetFileAttributesW;
extern void* __imp_GetFileInformationByHandle;
extern void* __imp_SetEndOfFile;
extern void* __imp_SetFilePointerEx;
extern void* __imp_WriteFile;
}

namespace zel {
namespace {

using test::FakeClock;
using test::IdOf;
using test::kBlockSize;
using test::kCreated;
using test::kFile;
using test::kKey;
using test::kVolume;
using test::ReadFileBytes;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::string_view kBitmapInfoAndErrors =
    "zelservicelog=none\nzelservicelog:bitmap=info\nzelservicelog:drivercomm=none\n";

std::string Text(BitmapId id) {
  char text[19];
  std::snprintf(text, sizeof text, "0x%016llx", id);
  return text;
}

class CreateNewBitmapTest : public test::BitmapFixture {
 protected:
  CreateNewBitmapTest() {
    FakeClock::now = kCreated;
    std::filesystem::remove_all(cbt());
  }

  bool Create(std::uint32_t bitmap_size) {
    return CreateNewBitmap(kVolume, kFile, bitmap_size, kBlockSize, kFileSize, id_);
  }

  [[nodiscard]] std::filesystem::path path() const {
    return DirectoryOf(kKey) / test::BitmapName(kCreated);
  }

  [[nodiscard]] std::string CreatedLine() const {
    return "INFO  New BitmapId " + Text(id_) +
           " created for Volume 01234567-89ab-cdef-0123-456789abcdef, FileId 0x0001000000000123";
  }

  // A creation that fails after the file was made: it says `text`, the id and the error behind the
  // creation's line, leaves the closed file in place and registers nothing.
  void ExpectFailureAfterTheIdIsKnown(std::uint32_t bitmap_size, const std::string& text,
                                      std::uint32_t error) {
    StartLogging(kBitmapInfoAndErrors);
    EXPECT_FALSE(Create(bitmap_size));
    EXPECT_EQ(id_, IdOf(path()));
    EXPECT_THAT(ListAllBitmaps(), IsEmpty());
    EXPECT_THAT(
        StopLoggingAndGetMessages(),
        ElementsAre(CreatedLine(), "ERROR " + text + Text(id_) + ": " + ErrorInfo(error).text()));
    EXPECT_TRUE(std::filesystem::remove(path()));  // and thus not held open
  }

  // What the next process makes of the file that is there.
  bool NextProcessTrustsIt() {
    EXPECT_TRUE(AddBitmap({}, 1, IdOf(path()), path().wstring(), 0));
    const PinnedBitmap bitmap = GetBitmapById(IdOf(path()));
    EXPECT_TRUE(bitmap);
    return bitmap && bitmap->header()->Unreliable == 0;
  }

  static constexpr std::uint64_t kFileSize = 0x1234567890;
  FakeClock clock_;
  BitmapId id_ = 0;
};

TEST_F(CreateNewBitmapTest, MakesTheDirectoriesAndAFileWithHeaderAndZeros) {
  StartLogging(kBitmapInfoAndErrors);
  ASSERT_TRUE(Create(100));
  std::string expected = test::GoodBitmap(kKey, std::string(100, '\0'), kCreated);
  test::Put(expected, 0x48, kFileSize, 8);
  test::Put(expected, 0x50, id_, 8);
  EXPECT_EQ(ReadFileBytes(path()), expected);
  EXPECT_EQ(id_, IdOf(path()));
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre(CreatedLine()));
}

TEST_F(CreateNewBitmapTest, RegistersTheBitmapUnloaded) {
  ASSERT_TRUE(Create(100));
  const std::string bytes = ReadFileBytes(path());
  const BitmapInfo info = ListAllBitmaps().at(kKey).at(0);
  EXPECT_EQ(info.FileSize, 612u);
  EXPECT_EQ(info.CreationTime, kCreated);
  EXPECT_EQ(info.BlockSize, kBlockSize);
  EXPECT_EQ(info.BitmapId, id_);
  EXPECT_FALSE(IsLoaded(path()));
  const PinnedBitmap bitmap = GetBitmapById(id_);
  ASSERT_TRUE(bitmap);
  EXPECT_EQ(bitmap->FileName, path().wstring());
  EXPECT_EQ(bitmap->BitmapHeader.SizeOfBitMap, 800u);
  EXPECT_TRUE(IsLoaded(path()));
}

std::vector<DWORD> written;
decltype(&::WriteFile) real_write = nullptr;
BOOL WINAPI RecordWrite(HANDLE file, const void* bytes, DWORD size, DWORD* done, OVERLAPPED* o) {
  written.push_back(size);
  return real_write(file, bytes, size, done, o);
}

TEST_F(CreateNewBitmapTest, BitmapOf3BytesIsWrittenWith520BytesAndCutTo515) {
  real_write = reinterpret_cast<decltype(real_write)>(__imp_WriteFile);
  {
    const test::ImportHook hook(__imp_WriteFile, &RecordWrite);
    ASSERT_TRUE(Create(3));
  }
  EXPECT_THAT(written, ElementsAre(520u, 1u));  // the mark of a clean close
  EXPECT_EQ(ReadFileBytes(path()).size(), 515u);
  EXPECT_EQ(ReadFileBytes(path()).substr(512), std::string(3, '\0'));
  EXPECT_TRUE(GetBitmapById(id_));
}

TEST_F(CreateNewBitmapTest, SecondOneInTheSameTickCollidesAndTouchesNothing) {
  ASSERT_TRUE(Create(100));
  const std::string bytes = ReadFileBytes(path());
  const BitmapId first = std::exchange(id_, 77);
  StartLogging(kBitmapInfoAndErrors);
  EXPECT_FALSE(Create(100));
  EXPECT_EQ(id_, 77u);
  EXPECT_EQ(ReadFileBytes(path()), bytes);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR Failed to create new bitmap file " + path().string() + ": " +
                          ErrorInfo(ERROR_FILE_EXISTS).text()));
  ++FakeClock::now;
  EXPECT_TRUE(Create(100));
  ASSERT_EQ(ListAllBitmaps().at(kKey).size(), 2u);
  EXPECT_EQ(ListAllBitmaps().at(kKey)[0].BitmapId, first);
}

TEST_F(CreateNewBitmapTest, LengthIsA32BitSumUpToOneByteBelow4GiB) {
  ASSERT_TRUE(Create(0xFFFFFFFF - 512));
  EXPECT_EQ(std::filesystem::file_size(path()), 0xFFFFFFFFu);
  EXPECT_EQ(ListAllBitmaps().at(kKey)[0].FileSize, 0xFFFFFFFFu);
}

TEST_F(CreateNewBitmapTest, SizeThatMakesTheSumWrapIsFoundCorruptedByTheFirstLookup) {
  ASSERT_TRUE(Create(0xFFFFFFFF));
  EXPECT_EQ(std::filesystem::file_size(path()), 511u);
  EXPECT_FALSE(GetBitmapById(id_));
  UnloadIdleBitmaps();
  EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(CreateNewBitmapTest, DirectoryThatCannotBeMadeIsNamed) {
  for (const std::filesystem::path& blocked :
       {cbt(), cbt() / test::kVolumeText, DirectoryOf(kKey)}) {
    std::filesystem::remove_all(cbt());
    test::WriteFileBytes(blocked, "a file in the directory's place");
    EXPECT_FALSE(Create(100)) << blocked;
    EXPECT_EQ(id_, 0u);
  }
  std::filesystem::remove_all(cbt());
  test::WriteFileBytes(cbt() / test::kVolumeText, "a file in the directory's place");
  StartLogging(kBitmapInfoAndErrors);
  EXPECT_FALSE(Create(100));
  const std::vector<std::string> messages = StopLoggingAndGetMessages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_THAT(messages[0], ::testing::StartsWith("ERROR Failed to create directory " +
                                                 DirectoryOf(kKey).string() + ": "));
  EXPECT_THAT(ListAllBitmaps(), IsEmpty());
}

BOOL WINAPI FailToCreateDirectory(const wchar_t*, SECURITY_ATTRIBUTES*) {
  ::SetLastError(ERROR_ACCESS_DENIED);
  return FALSE;
}

TEST_F(CreateNewBitmapTest, FailureOfTheFirstDirectoryEndsTheCreation) {
  StartLogging(kBitmapInfoAndErrors);
  {
    const test::ImportHook hook(__imp_CreateDirectoryW, &FailToCreateDirectory);
    EXPECT_FALSE(Create(100));
  }
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR Failed to create directory " + cbt().string() + ": " +
                          ErrorInfo(ERROR_ACCESS_DENIED).text()));
}

DWORD WINAPI AnswerLink(const wchar_t*) {
  return FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
}

TEST_F(CreateNewBitmapTest, LinkInTheWayEndsTheCreation) {
  std::filesystem::create_directories(cbt());
  StartLogging(kBitmapInfoAndErrors);
  {
    const test::ImportHook hook(__imp_GetFileAttributesW, &AnswerLink);
    EXPECT_FALSE(Create(100));
  }
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR Failed to create directory " + cbt().string() + ": " +
                          ErrorInfo(ERROR_CANT_ACCESS_FILE).text()));
  EXPECT_TRUE(std::filesystem::is_empty(cbt()));
}

// Does something of the test's own before the bitmap's file is created, and counts how often that
// is tried.
struct BeforeCreation {
  static inline std::function<bool()> action;  // false: the creation fails with the last error
  static inline int tries = 0;

  static HANDLE WINAPI Create(const wchar_t* path, DWORD access, DWORD sharing,
                              SECURITY_ATTRIBUTES* security, DWORD disposition, DWORD flags,
                              HANDLE original) {
    if (disposition == CREATE_NEW) {
      ++tries;
      if (!action()) return INVALID_HANDLE_VALUE;
    }
    return real(path, access, sharing, security, disposition, flags, original);
  }

  static inline auto* const real = reinterpret_cast<decltype(&::CreateFileW)>(__imp_CreateFileW);
  test::ImportHook hook{__imp_CreateFileW, &Create};
};

TEST_F(CreateNewBitmapTest, DirectoriesThatAreTakenBetweenTwoStepsAreMadeAgain) {
  BeforeCreation::action = [&] {
    if (BeforeCreation::tries == 1) std::filesystem::remove(DirectoryOf(kKey));
    if (BeforeCreation::tries == 2) std::filesystem::remove_all(cbt() / test::kVolumeText);
    return true;
  };
  StartLogging(kBitmapInfoAndErrors);
  const BeforeCreation hook;
  EXPECT_TRUE(Create(100));
  EXPECT_EQ(BeforeCreation::tries, 3);
  EXPECT_EQ(id_, IdOf(path()));
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre(CreatedLine()));
}

int directories_made = 0;
decltype(&::CreateDirectoryW) real_create_directory = nullptr;
BOOL WINAPI TakeTheVolumeOnce(const wchar_t* path, SECURITY_ATTRIBUTES* security) {
  if (++directories_made == 3) std::filesystem::remove(std::filesystem::path(path).parent_path());
  return real_create_directory(path, security);
}

TEST_F(CreateNewBitmapTest, VolumesDirectoryThatIsTakenMeanwhileIsMadeAgain) {
  real_create_directory = reinterpret_cast<decltype(real_create_directory)>(__imp_CreateDirectoryW);
  const test::ImportHook hook(__imp_CreateDirectoryW, &TakeTheVolumeOnce);
  EXPECT_TRUE(Create(100));
  EXPECT_EQ(directories_made, 6);
}

TEST_F(CreateNewBitmapTest, DirectoryThatIsAboutToGoIsWaitedFor) {
  BeforeCreation::action = [] {
    ::SetLastError(ERROR_ACCESS_DENIED);
    return BeforeCreation::tries == 4;
  };
  const BeforeCreation hook;
  EXPECT_TRUE(Create(100));
}

TEST_F(CreateNewBitmapTest, DirectoryThatIsTakenEachTimeEndsTheCreationWithOneMessage) {
  BeforeCreation::action = [&] { return std::filesystem::remove(DirectoryOf(kKey)); };
  StartLogging(kBitmapInfoAndErrors);
  const BeforeCreation hook;
  EXPECT_FALSE(Create(100));
  EXPECT_EQ(BeforeCreation::tries, 6);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR Failed to create new bitmap file " + path().string() + ": " +
                          ErrorInfo(ERROR_PATH_NOT_FOUND).text()));
}

BOOL WINAPI FailToInform(HANDLE, BY_HANDLE_FILE_INFORMATION*) {
  ::SetLastError(ERROR_CRC);
  return FALSE;
}

TEST_F(CreateNewBitmapTest, FailureToGetTheIdIsLoggedAndTheFileLeft) {
  StartLogging(kBitmapInfoAndErrors);
  id_ = 77;
  {
    const test::ImportHook hook(__imp_GetFileInformationByHandle, &FailToInform);
    EXPECT_FALSE(Create(100));
  }
  EXPECT_EQ(id_, 77u);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR Failed to get the BitmapId of " + path().string() + ": " +
                          ErrorInfo(ERROR_CRC).text()));
  EXPECT_TRUE(std::filesystem::remove(path()));
  EXPECT_THAT(ListAllBitmaps(), IsEmpty());
}

BOOL WINAPI InformOfAKnownId(HANDLE, BY_HANDLE_FILE_INFORMATION* information) {
  *information = {};
  information->nFileIndexLow = 7;
  return TRUE;
}

TEST_F(CreateNewBitmapTest, IdThatTheFileHasABitmapOfAlreadyFailsAndLeavesNoFile) {
  AddBitmap(kVolume, kFile, 7, L"C:\\gone\\" + test::BitmapName(kCreated + 1), 612);
  {
    const test::ImportHook hook(__imp_GetFileInformationByHandle, &InformOfAKnownId);
    EXPECT_FALSE(Create(100));
  }
  EXPECT_FALSE(std::filesystem::exists(path()));
  EXPECT_EQ(ListAllBitmaps()[kKey].size(), 1u);
}

// Does something of the test's own before a new file gets its length.
struct BeforeLength {
  static inline std::function<void()> action;

  static BOOL WINAPI SetEnd(HANDLE file) {
    action();
    return real(file);
  }

  static inline auto* const real = reinterpret_cast<decltype(&::SetEndOfFile)>(__imp_SetEndOfFile);
  test::ImportHook hook{__imp_SetEndOfFile, &SetEnd};
};

TEST_F(CreateNewBitmapTest, BitmapThatALateLookHasFoundFirstIsMadeAndUnreliable) {
  BeforeLength::action = [&] {
    EXPECT_TRUE(AddBitmapFoundLate(kVolume, kFile, IdOf(path()), path().wstring(), 612));
  };
  const BeforeLength hook;
  EXPECT_TRUE(Create(100));
  EXPECT_THAT(IdsListed(), ElementsAre(id_));
  EXPECT_EQ(GetBitmapById(id_)->header()->Unreliable, 1);
}

BOOL WINAPI FailToDelete(const wchar_t*) {
  ::SetLastError(ERROR_SHARING_VIOLATION);
  return FALSE;
}

TEST_F(CreateNewBitmapTest, FileThatIsNotRegisteredAndCannotBeDeletedIsNotTrusted) {
  AddBitmap(kVolume, kFile, 7, L"C:\\gone\\" + test::BitmapName(kCreated + 1), 612);
  {
    const test::ImportHook hook(__imp_GetFileInformationByHandle, &InformOfAKnownId);
    const test::ImportHook deletion(__imp_DeleteFileW, &FailToDelete);
    EXPECT_FALSE(Create(100));
  }
  EXPECT_FALSE(NextProcessTrustsIt());
}

// Whether the file looked clean when its end was set, and whether its bitmap was listed when the
// file became clean.
bool was_clean_at_its_end = false;
bool was_listed_when_clean = false;
std::filesystem::path watched;
decltype(&::SetEndOfFile) real_set_end = nullptr;
BOOL WINAPI SetEndAndLook(HANDLE file) {
  const BOOL done = real_set_end(file);
  was_clean_at_its_end = test::Get(ReadFileBytes(watched), test::kAtClosedCleanly, 1) == 1;
  return done;
}
BOOL WINAPI WriteAndLook(HANDLE file, const void* bytes, DWORD size, DWORD* done, OVERLAPPED* o) {
  if (size == 1) was_listed_when_clean = ListAllBitmaps().contains(kKey);
  return real_write(file, bytes, size, done, o);
}

TEST_F(CreateNewBitmapTest, FileLooksCleanOnlyWhenItsBitmapIsKnown) {
  watched = path();
  real_write = reinterpret_cast<decltype(real_write)>(__imp_WriteFile);
  real_set_end = reinterpret_cast<decltype(real_set_end)>(__imp_SetEndOfFile);
  {
    const test::ImportHook write(__imp_WriteFile, &WriteAndLook);
    const test::ImportHook end(__imp_SetEndOfFile, &SetEndAndLook);
    ASSERT_TRUE(Create(100));
  }
  EXPECT_FALSE(was_clean_at_its_end);
  EXPECT_TRUE(was_listed_when_clean);
  EXPECT_FALSE(IsLoaded(path()));
}

BOOL WINAPI FailToMark(HANDLE file, const void* bytes, DWORD size, DWORD* done, OVERLAPPED* o) {
  if (size != 1) return real_write(file, bytes, size, done, o);
  ::SetLastError(ERROR_CRC);
  return FALSE;
}

TEST_F(CreateNewBitmapTest, BitmapThatCannotBeMarkedCleanIsUnreliable) {
  real_write = reinterpret_cast<decltype(real_write)>(__imp_WriteFile);
  StartLogging(kBitmapInfoAndErrors);
  {
    const test::ImportHook write(__imp_WriteFile, &FailToMark);
    EXPECT_TRUE(Create(100));
  }
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(CreatedLine(), "ERROR Failed to mark new BitmapId " + Text(id_) +
                                             " as closed cleanly: " + ErrorInfo(ERROR_CRC).text()));
  EXPECT_EQ(GetBitmapById(id_)->header()->Unreliable, 1);
}

// Only the creation's own writes: the run-time library of the log has another import table.
BOOL WINAPI FailToWrite(HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*) {
  ::SetLastError(ERROR_CRC);
  return FALSE;
}

TEST_F(CreateNewBitmapTest, FailureToWriteTheHeaderIsLoggedAndTheFileLeft) {
  const test::ImportHook hook(__imp_WriteFile, &FailToWrite);
  ExpectFailureAfterTheIdIsKnown(100, "Failed to write out a new bitmap header to new BitmapId ",
                                 ERROR_CRC);
}

BOOL WINAPI WriteHalf(HANDLE, const void*, DWORD size, DWORD* done, OVERLAPPED*) {
  *done = size / 2;
  ::SetLastError(ERROR_SUCCESS);
  return TRUE;
}

TEST_F(CreateNewBitmapTest, WriteOfLessThanAllIsAFailure) {
  const test::ImportHook hook(__imp_WriteFile, &WriteHalf);
  ExpectFailureAfterTheIdIsKnown(100, "Failed to write out a new bitmap header to new BitmapId ",
                                 ERROR_DISK_FULL);
}

BOOL WINAPI FailToSeek(HANDLE, LARGE_INTEGER, LARGE_INTEGER*, DWORD) {
  ::SetLastError(ERROR_CRC);
  return FALSE;
}

TEST_F(CreateNewBitmapTest, FailureToSeekIsLoggedWithTheOffsetAndTheFileLeft) {
  const test::ImportHook hook(__imp_SetFilePointerEx, &FailToSeek);
  ExpectFailureAfterTheIdIsKnown(0xFFFFFFFF - 512,
                                 "Failed to seek to offset 4294967295 in new BitmapId ", ERROR_CRC);
}

BOOL WINAPI FailToSetEnd(HANDLE) {
  ::SetLastError(ERROR_DISK_FULL);
  return FALSE;
}

TEST_F(CreateNewBitmapTest, FailureToSetTheEndIsLoggedWithTheOffsetAndTheFileLeft) {
  const test::ImportHook hook(__imp_SetEndOfFile, &FailToSetEnd);
  ExpectFailureAfterTheIdIsKnown(100, "Failed to set EOF at offset 612 in new BitmapId ",
                                 ERROR_DISK_FULL);
}

// The first 520 bytes are a whole file of so few bits.
TEST_F(CreateNewBitmapTest, SmallFileWhoseEndCannotBeSetIsNotTrusted) {
  {
    const test::ImportHook hook(__imp_SetEndOfFile, &FailToSetEnd);
    EXPECT_FALSE(Create(8));
  }
  EXPECT_FALSE(NextProcessTrustsIt());
}

// A CBT directory whose path has `length` characters, below the test's own.
class LongPathTest : public test::LogFixture {
 protected:
  ~LongPathTest() override { ShutdownBitmapManager(); }

  void UseCbtDirectoryOfLength(std::size_t length) {
    const std::size_t around =
        std::wcslen(LR"(\\?\)") + std::wcslen(LR"(\)") + std::wcslen(LR"(\cbt)");
    const std::wstring install =
        directory() / std::wstring(length - around - directory().wstring().size(), L'd');
    std::filesystem::create_directories(install);
    cbt_ = test::UseCbtDirectoryOf(install);
    ASSERT_EQ(cbt_.size(), length);
  }

  std::wstring cbt_;
  BitmapId id_ = 77;
};

TEST_F(LongPathTest, PathOf259CharactersFits) {
  UseCbtDirectoryOfLength(259 - 79);
  ASSERT_TRUE(CreateNewBitmap(kVolume, kFile, 3, kBlockSize, 4096, id_));
  EXPECT_EQ(GetBitmapById(id_)->FileName.size(), 259u);
}

TEST_F(LongPathTest, PathOf260CharactersIsRefusedBeforeAnythingIsMade) {
  UseCbtDirectoryOfLength(260 - 79);
  StartLogging(kBitmapInfoAndErrors);
  EXPECT_FALSE(CreateNewBitmap(kVolume, kFile, 3, kBlockSize, 4096, id_));
  EXPECT_EQ(id_, 77u);
  EXPECT_FALSE(std::filesystem::exists(cbt_));
  const std::vector<std::string> messages = StopLoggingAndGetMessages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_THAT(messages[0], ::testing::MatchesRegex(
                               "ERROR Failed to create new bitmap file .*00010000: the path has "
                               "260 characters, more than 259"));
}

}  // namespace
}  // namespace zel
