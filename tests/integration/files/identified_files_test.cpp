#include "files/identified_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <span>
#include <string>
#include <vector>

#include "errors/error_info.h"
#include "files/directory_listing.h"
#include "files/file_identity.h"
#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/log_fixture.h"
#include "tests/integration/support/temp_directory.h"

extern "C" {
extern void* __imp_GetFileInformationByHandleEx;
extern void* __imp_GetFileInformationByHandle;
extern void* __imp_CreateFileW;
extern void* __imp_FindFirstFileW;
extern void* __imp_GetFileAttributesW;
}

namespace zel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// What the names and the look-up give, in the listing's order.
std::vector<IdentifiedFile> LookedUp(const std::wstring& directory) {
  std::vector<IdentifiedFile> files;
  DirectoryListing listing(directory);
  while (const WIN32_FIND_DATAW* entry = listing.Next()) {
    IdentifiedFile file{.name = entry->cFileName, .id = 0, .size = 0};
    const std::wstring path = directory + L'\\' + file.name;
    if (GetFileIdAndSize(path.c_str(), &file.id, &file.size) == ERROR_SUCCESS) {
      files.push_back(file);
    }
  }
  return files;
}

// More files than a batch holds, of different sizes, and a directory among them.
void FillDirectory(const std::filesystem::path& directory) {
  for (int i = 0; i < 1500; ++i) {
    test::WriteFileBytes(directory / (L"file with a long name " + std::to_wstring(i)),
                         std::string(static_cast<std::size_t>(i % 7), 'x'));
  }
  std::filesystem::create_directory(directory / L"sub");
}

int look_ups = 0;
decltype(&::GetFileInformationByHandle) real_look_up = nullptr;

BOOL WINAPI CountLookUp(HANDLE file, BY_HANDLE_FILE_INFORMATION* information) {
  ++look_ups;
  return real_look_up(file, information);
}

class LookUpCount {
 public:
  LookUpCount() {
    look_ups = 0;
    real_look_up = reinterpret_cast<decltype(real_look_up)>(hook_.original());
  }

 private:
  test::ImportHook hook_{__imp_GetFileInformationByHandle, &CountLookUp};
};

using ListBatch = decltype(&::GetFileInformationByHandleEx);
ListBatch real_list_batch = nullptr;
FileId told_id = 0;

BOOL WINAPI TellAnotherId(HANDLE handle, FILE_INFO_BY_HANDLE_CLASS info_class, void* buffer,
                          DWORD size) {
  if (!real_list_batch(handle, info_class, buffer, size)) return FALSE;
  for (auto* at = static_cast<char*>(buffer);;) {
    auto* entry = reinterpret_cast<FILE_ID_BOTH_DIR_INFO*>(at);
    entry->FileId.QuadPart = static_cast<LONGLONG>(told_id);
    if (entry->NextEntryOffset == 0) return TRUE;
    at += entry->NextEntryOffset;
  }
}

BOOL WINAPI TellLinks(HANDLE handle, FILE_INFO_BY_HANDLE_CLASS info_class, void* buffer,
                      DWORD size) {
  if (!TellAnotherId(handle, info_class, buffer, size)) return FALSE;
  for (auto* at = static_cast<char*>(buffer);;) {
    auto* entry = reinterpret_cast<FILE_ID_BOTH_DIR_INFO*>(at);
    entry->FileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
    if (entry->NextEntryOffset == 0) return TRUE;
    at += entry->NextEntryOffset;
  }
}

DWORD refusal = 0;

BOOL WINAPI RefuseBatch(HANDLE, FILE_INFO_BY_HANDLE_CLASS, void*, DWORD) {
  ::SetLastError(refusal);
  return FALSE;
}

BOOL WINAPI RefuseSecondBatch(HANDLE handle, FILE_INFO_BY_HANDLE_CLASS info_class, void* buffer,
                              DWORD size) {
  if (info_class == FileIdBothDirectoryRestartInfo) {
    return real_list_batch(handle, info_class, buffer, size);
  }
  return RefuseBatch(handle, info_class, buffer, size);
}

class BatchHook {
 public:
  explicit BatchHook(ListBatch replacement)
      : hook_(__imp_GetFileInformationByHandleEx, replacement) {
    real_list_batch = reinterpret_cast<ListBatch>(hook_.original());
  }

 private:
  test::ImportHook hook_;
};

TEST(IdentifiedFilesTest, TellsTheIdsOfTheLookUpWithoutOpeningAFile) {
  const test::TempDirectory directory;
  FillDirectory(directory.path());
  const std::vector<IdentifiedFile> expected = LookedUp(directory.path());
  ASSERT_THAT(expected, SizeIs(1500));
  const LookUpCount count;
  EXPECT_EQ(ListIdentifiedFiles(directory.path()), expected);
  EXPECT_EQ(look_ups, 0);
}

TEST(IdentifiedFilesTest, LooksUpWhatTheDirectoryDoesNotTell) {
  const test::TempDirectory directory;
  FillDirectory(directory.path());
  const std::vector<IdentifiedFile> expected = LookedUp(directory.path());
  const BatchHook hook(&TellAnotherId);
  for (const FileId no_id : {FileId{0}, ~FileId{0}}) {
    told_id = no_id;
    const LookUpCount count;
    EXPECT_EQ(ListIdentifiedFiles(directory.path()), expected);
    EXPECT_EQ(look_ups, 1500);
  }
}

class IdentifiedLinksTest : public test::LogFixture {
 protected:
  // Lists; nothing is to come of it but one line.
  void ExpectNothing(const std::filesystem::path& path, const std::string& message) {
    StartLogging("zelservicelog=none\nzelservicelog:bitmap=warn\nzelservicelog:drivercomm=none\n");
    bool is_complete = true;
    EXPECT_THAT(ListIdentifiedFiles(path, &is_complete), IsEmpty());
    EXPECT_FALSE(is_complete);
    EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre(message));
  }

  const std::filesystem::path path_ = directory() / L"listed";
};

TEST_F(IdentifiedLinksTest, LinkAmongTheFilesIsLeftOut) {
  test::WriteFileBytes(path_ / L"link", "x");
  const BatchHook hook(&TellLinks);
  told_id = 7;
  ExpectNothing(path_, "WARN  " + (path_ / L"link").string() + " is a link, which is not followed");
}

HANDLE WINAPI FindALink(const wchar_t* pattern, WIN32_FIND_DATAW* entry) {
  const HANDLE find =
      ::FindFirstFileExW(pattern, FindExInfoStandard, entry, FindExSearchNameMatch, nullptr, 0);
  while (entry->cFileName[0] == L'.' && ::FindNextFileW(find, entry)) {
  }
  entry->dwFileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
  return find;
}

TEST_F(IdentifiedLinksTest, LinkIsLeftOutWhereIdsCannotBeListed) {
  test::WriteFileBytes(path_ / L"link", "x");
  const BatchHook batches(&RefuseBatch);
  refusal = ERROR_INVALID_PARAMETER;
  const test::ImportHook finds(__imp_FindFirstFileW, &FindALink);
  ExpectNothing(path_, "WARN  " + (path_ / L"link").string() + " is a link, which is not followed");
}

DWORD WINAPI AnswerLink(const wchar_t*) {
  return FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
}

TEST_F(IdentifiedLinksTest, DirectoryThatIsALinkIsNotListed) {
  test::WriteFileBytes(path_ / L"file", "x");
  const test::ImportHook hook(__imp_GetFileAttributesW, &AnswerLink);
  ExpectNothing(path_, "ERROR Listing directory " + path_.string() +
                           " failed: " + ErrorInfo(ERROR_CANT_ACCESS_FILE).text());
}

TEST(IdentifiedFilesTest, ListsByNameWhereIdsCannotBeListed) {
  const test::TempDirectory directory;
  FillDirectory(directory.path());
  const std::vector<IdentifiedFile> expected = LookedUp(directory.path());
  const BatchHook hook(&RefuseBatch);
  for (const DWORD error : {ERROR_INVALID_PARAMETER, ERROR_NOT_SUPPORTED, ERROR_INVALID_FUNCTION,
                            ERROR_INVALID_LEVEL}) {
    refusal = error;
    EXPECT_EQ(ListIdentifiedFiles(directory.path()), expected) << error;
  }
}

using IdentifiedFilesLogTest = test::LogFixture;

TEST_F(IdentifiedFilesLogTest, MissingAndEmptyDirectoriesHaveNoFilesAndLogNothing) {
  StartLogging();
  const std::filesystem::path empty = directory() / L"empty";
  std::filesystem::create_directory(empty);
  EXPECT_THAT(ListIdentifiedFiles(empty), IsEmpty());
  EXPECT_THAT(ListIdentifiedFiles(empty / L"missing"), IsEmpty());
  EXPECT_THAT(ListIdentifiedFiles(empty / L"missing\\deeper"), IsEmpty());
  EXPECT_THAT(StopLogging(), IsEmpty());
}

TEST_F(IdentifiedFilesLogTest, FailureInTheMiddleKeepsWhatWasListedAndIsLogged) {
  const std::filesystem::path full = directory() / L"full";
  FillDirectory(full);
  const std::vector<IdentifiedFile> all = LookedUp(full);
  StartLogging("zelservicelog=none\nzelservicelog:bitmap=error\nzelservicelog:drivercomm=none\n");
  {
    const BatchHook hook(&RefuseSecondBatch);
    refusal = ERROR_CRC;
    const std::vector<IdentifiedFile> listed = ListIdentifiedFiles(full);
    EXPECT_FALSE(listed.empty());
    EXPECT_LT(listed.size(), all.size());
    EXPECT_TRUE(std::ranges::equal(listed, std::span(all).first(listed.size())));
  }
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre("ERROR Listing directory " + full.string() +
                                                       " failed: " + ErrorInfo(ERROR_CRC).text()));
}

HANDLE WINAPI RefuseToOpen(const wchar_t*, DWORD, DWORD, SECURITY_ATTRIBUTES*, DWORD, DWORD,
                           HANDLE) {
  ::SetLastError(ERROR_ACCESS_DENIED);
  return INVALID_HANDLE_VALUE;
}

TEST_F(IdentifiedFilesLogTest, FilesWhoseIdCannotBeReadAreLeftOutSilently) {
  const std::filesystem::path full = directory() / L"full";
  test::WriteFileBytes(full / L"file", "");
  StartLogging();
  {
    const test::ImportHook hook(__imp_CreateFileW, &RefuseToOpen);
    EXPECT_THAT(ListIdentifiedFiles(full), IsEmpty());
  }
  EXPECT_THAT(StopLogging(), IsEmpty());
}

}  // namespace
}  // namespace zel
