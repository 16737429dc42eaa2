#include "files/directory_listing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "errors/error_info.h"
#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/log_fixture.h"
#include "tests/integration/support/temp_directory.h"

extern "C" {
extern void* __imp_FindFirstFileW;
extern void* __imp_FindNextFileW;
extern void* __imp_GetFileAttributesW;
}

namespace zel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

std::vector<std::wstring> NamesIn(const std::wstring& directory) {
  std::vector<std::wstring> names;
  DirectoryListing listing(directory);
  while (const WIN32_FIND_DATAW* entry = listing.Next()) names.emplace_back(entry->cFileName);
  return names;
}

TEST(DirectoryListingTest, GivesFilesAndDirectoriesButNotItselfAndItsParent) {
  const test::TempDirectory directory;
  test::WriteFileBytes(directory.path() / L"file", "");
  test::WriteFileBytes(directory.path() / L".hidden", "");
  test::WriteFileBytes(directory.path() / L"sub\\below", "");
  EXPECT_THAT(NamesIn(directory.path()), UnorderedElementsAre(L"file", L".hidden", L"sub"));
}

TEST(DirectoryListingTest, BackslashAtTheEndMakesNoDifference) {
  const test::TempDirectory directory;
  test::WriteFileBytes(directory.path() / L"file", "");
  EXPECT_THAT(NamesIn(directory.path().wstring() + L"\\"), ElementsAre(L"file"));
  EXPECT_THAT(NamesIn(L"\\\\?\\" + directory.path().wstring() + L"\\"), ElementsAre(L"file"));
}

// A volume's root has no "." and "..": the search begins with an entry.
HANDLE WINAPI FindBehindDots(const wchar_t* pattern, WIN32_FIND_DATAW* entry) {
  const HANDLE find =
      ::FindFirstFileExW(pattern, FindExInfoStandard, entry, FindExSearchNameMatch, nullptr, 0);
  while (entry->cFileName[0] == L'.' && ::FindNextFileW(find, entry)) {
  }
  return find;
}

TEST(DirectoryListingTest, RootThatBeginsWithAnEntryLosesNone) {
  const test::TempDirectory directory;
  test::WriteFileBytes(directory.path() / L"first", "");
  test::WriteFileBytes(directory.path() / L"second", "");
  const test::ImportHook hook(__imp_FindFirstFileW, &FindBehindDots);
  EXPECT_THAT(NamesIn(directory.path()), UnorderedElementsAre(L"first", L"second"));
}

TEST(DirectoryListingTest, TellsAnEntrysAttributes) {
  const test::TempDirectory directory;
  test::WriteFileBytes(directory.path() / L"sub\\below", "");
  DirectoryListing listing(directory.path());
  const WIN32_FIND_DATAW* entry = listing.Next();
  ASSERT_NE(entry, nullptr);
  EXPECT_NE(entry->dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY, 0u);
  EXPECT_EQ(listing.Next(), nullptr);
  EXPECT_EQ(listing.Next(), nullptr);
}

using DirectoryListingLogTest = test::LogFixture;

TEST_F(DirectoryListingLogTest, MissingAndEmptyDirectoriesHaveNoEntriesAndLogNothing) {
  StartLogging();
  const std::filesystem::path empty = directory() / L"empty";
  std::filesystem::create_directory(empty);
  EXPECT_THAT(NamesIn(empty), IsEmpty());
  EXPECT_THAT(NamesIn(empty / L"missing"), IsEmpty());
  EXPECT_THAT(NamesIn(empty / L"missing\\deeper"), IsEmpty());
  EXPECT_THAT(StopLogging(), IsEmpty());
}

TEST(DirectoryListingTest, EntriesMayBeDeletedWhileTheyAreListed) {
  const test::TempDirectory directory;
  for (int i = 0; i < 500; ++i) test::WriteFileBytes(directory.path() / std::to_wstring(i), "");
  int deleted = 0;
  DirectoryListing listing(directory.path());
  while (const WIN32_FIND_DATAW* entry = listing.Next()) {
    deleted += ::DeleteFileW((directory.path() / entry->cFileName).c_str());
  }
  EXPECT_EQ(deleted, 500);
}

BOOL WINAPI FailToFindNext(HANDLE, WIN32_FIND_DATAW*) {
  ::SetLastError(ERROR_CRC);
  return FALSE;
}

TEST_F(DirectoryListingLogTest, FailureInTheMiddleEndsTheListingAndIsLogged) {
  StartLogging("zelservicelog=none\nzelservicelog:bitmap=error\nzelservicelog:drivercomm=none\n");
  {
    const test::ImportHook hook(__imp_FindNextFileW, &FailToFindNext);
    EXPECT_THAT(NamesIn(directory()), IsEmpty());
  }
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR Listing directory " + directory().string() +
                          " failed: " + ErrorInfo(ERROR_CRC).text()));
}

DWORD WINAPI AnswerLink(const wchar_t*) {
  return FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
}

TEST_F(DirectoryListingLogTest, LinkIsNotFollowed) {
  test::WriteFileBytes(directory() / L"file", "");
  StartLogging("zelservicelog=none\nzelservicelog:bitmap=error\nzelservicelog:drivercomm=none\n");
  {
    const test::ImportHook hook(__imp_GetFileAttributesW, &AnswerLink);
    DirectoryListing listing(directory());
    EXPECT_EQ(listing.Next(), nullptr);
    EXPECT_TRUE(listing.HasFailed());
  }
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR Listing directory " + directory().string() +
                          " failed: " + ErrorInfo(ERROR_CANT_ACCESS_FILE).text()));
}

}  // namespace
}  // namespace zel
