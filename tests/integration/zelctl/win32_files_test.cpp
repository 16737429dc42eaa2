// The tool's files on a real file system.
#include "zelctl/win32_files.h"

#include <gmock/gmock.h>

#include "tests/integration/support/temp_directory.h"
#include "zelctl/wide_text.h"
#include "zelctl/win32_machine.h"

namespace zel::ctl {
namespace {

using test::ReadFileBytes;
using test::WriteFileBytes;

class Win32FilesTest : public testing::Test {
 protected:
  std::wstring Path(const wchar_t* name) const { return (directory_.path() / name).wstring(); }
  std::string Utf8Path(const wchar_t* name) const { return ToUtf8(Path(name)); }
  static std::span<const std::byte> Bytes(std::string_view text) {
    return std::as_bytes(std::span(text));
  }

  test::TempDirectory directory_;
  Win32Machine machine_;
};

TEST_F(Win32FilesTest, SourceIsReadWhereAskedAndEndsWithItsCode) {
  WriteFileBytes(Path(L"file"), "0123456789");
  std::unique_ptr<SourceFile> file;
  ASSERT_EQ(OpenSystemSource(Path(L"file"), file), 0u);
  std::uint64_t size = 0;
  EXPECT_EQ(file->GetSize(size), 0u);
  EXPECT_EQ(size, 10u);
  std::byte buffer[4];
  EXPECT_EQ(file->Read(6, buffer), 0u);
  EXPECT_EQ(std::memcmp(buffer, "6789", 4), 0);
  EXPECT_EQ(file->Read(7, buffer), kEndOfFile);
  EXPECT_EQ(file->Read(10, buffer), kEndOfFile);
  EXPECT_EQ(file->Read(10, {}), 0u);
}

TEST_F(Win32FilesTest, SourceMayBeWrittenByOthersAndTheTargetMayNot) {
  WriteFileBytes(Path(L"file"), "x");
  std::unique_ptr<SourceFile> source;
  std::unique_ptr<TargetFile> target;
  std::unique_ptr<TargetFile> another;
  ASSERT_EQ(OpenSystemSource(Path(L"file"), source), 0u);
  EXPECT_EQ(OpenSystemTarget(Path(L"file"), target), 0u);
  EXPECT_EQ(OpenSystemTarget(Path(L"file"), another), DWORD{ERROR_SHARING_VIOLATION});
}

TEST_F(Win32FilesTest, MissingFilesAreNotMade) {
  std::unique_ptr<SourceFile> source;
  std::unique_ptr<TargetFile> target;
  EXPECT_EQ(OpenSystemSource(Path(L"none"), source), DWORD{ERROR_FILE_NOT_FOUND});
  EXPECT_EQ(OpenSystemTarget(Path(L"none"), target), DWORD{ERROR_FILE_NOT_FOUND});
  EXPECT_FALSE(std::filesystem::exists(Path(L"none")));
}

TEST_F(Win32FilesTest, TargetGrowsWithZerosAndShrinks) {
  WriteFileBytes(Path(L"file"), "abcdef");
  std::unique_ptr<TargetFile> file;
  ASSERT_EQ(OpenSystemTarget(Path(L"file"), file), 0u);
  EXPECT_EQ(file->SetSize(3), 0u);
  EXPECT_EQ(file->SetSize(5), 0u);
  EXPECT_EQ(file->Write(4, Bytes("x")), 0u);
  EXPECT_EQ(file->Flush(), 0u);
  file.reset();
  EXPECT_EQ(ReadFileBytes(Path(L"file")), std::string("abc\0x", 5));
}

TEST_F(Win32FilesTest, OffsetsBehindFourGibibytesAreReached) {
  constexpr std::uint64_t kFar = (std::uint64_t{5} << 30) + 7;
  WriteFileBytes(Path(L"file"), "near");
  std::unique_ptr<TargetFile> file;
  ASSERT_EQ(OpenSystemTarget(Path(L"file"), file), 0u);
  ASSERT_EQ(file->SetSize(kFar + 3), 0u);  // sparse below Wine
  ASSERT_EQ(file->Write(kFar, Bytes("far")), 0u);
  std::byte buffer[3];
  EXPECT_EQ(file->Read(kFar, buffer), 0u);
  EXPECT_EQ(std::memcmp(buffer, "far", 3), 0);
  EXPECT_EQ(file->Read(0, buffer), 0u);
  EXPECT_EQ(std::memcmp(buffer, "nea", 3), 0);
}

TEST_F(Win32FilesTest, FileWithHolesTakesLessThanItsSize) {
  WriteFileBytes(Path(L"file"), std::string(100'000, 'x'));
  std::unique_ptr<TargetFile> file;
  ASSERT_EQ(OpenSystemTarget(Path(L"file"), file), 0u);
  EXPECT_FALSE(file->HasHoles());
  ASSERT_TRUE(file->KeepHoles());
  ASSERT_EQ(file->SetSize(10'000'000), 0u);
  EXPECT_TRUE(file->HasHoles());
  std::byte buffer[3] = {};
  EXPECT_EQ(file->Read(9'000'000, buffer), 0u);
  EXPECT_EQ(std::memcmp(buffer, "\0\0\0", 3), 0);
}

TEST_F(Win32FilesTest, ReplacementTakesThePlaceWhenItIsCommitted) {
  WriteFileBytes(Path(L"file"), "old");
  for (const wchar_t* beside : {L"", L"ours"}) {
    std::unique_ptr<ReplacementFile> file;
    const std::wstring path = *beside == 0 ? L"" : Path(beside);
    ASSERT_EQ(CreateSystemReplacement(Path(L"file"), path, file), 0u);
    EXPECT_EQ(file->Write(0, Bytes("newer")), 0u);
    EXPECT_EQ(ReadFileBytes(Path(L"file")), "old");
    EXPECT_EQ(file->Commit(), 0u);
    file.reset();
    EXPECT_EQ(ReadFileBytes(Path(L"file")), "newer");
    EXPECT_FALSE(std::filesystem::exists(Path(L"file.zelctl-new")));
    EXPECT_FALSE(std::filesystem::exists(Path(L"ours")));
    WriteFileBytes(Path(L"file"), "old");
  }
}

TEST_F(Win32FilesTest, ReplacementWithoutANameTakesNobodysAndVanishes) {
  WriteFileBytes(Path(L"file"), "old");
  WriteFileBytes(Path(L"file.zelctl-new"), "somebody's");
  std::unique_ptr<ReplacementFile> file;
  ASSERT_EQ(CreateSystemReplacement(Path(L"file"), {}, file), 0u);
  file.reset();
  EXPECT_EQ(ReadFileBytes(Path(L"file")), "old");
  EXPECT_EQ(ReadFileBytes(Path(L"file.zelctl-new")), "somebody's");
  EXPECT_FALSE(std::filesystem::exists(Path(L"file.zelctl-new-2")));
}

TEST_F(Win32FilesTest, ReplacementUnderOurNameOverwritesWhatAKilledProcessLeft) {
  WriteFileBytes(Path(L"ours"), "left");
  std::unique_ptr<ReplacementFile> file;
  ASSERT_EQ(CreateSystemReplacement(Path(L"file"), Path(L"ours"), file), 0u);
  std::uint64_t size = 1;
  EXPECT_EQ(file->GetSize(size), 0u);
  EXPECT_EQ(size, 0u);
  std::unique_ptr<ReplacementFile> another;
  EXPECT_EQ(CreateSystemReplacement(Path(L"file"), Path(L"ours"), another),
            DWORD{ERROR_SHARING_VIOLATION});
  file.reset();
  EXPECT_FALSE(std::filesystem::exists(Path(L"ours")));
}

TEST_F(Win32FilesTest, ReplacementThatCannotTakeThePlaceVanishes) {
  std::filesystem::create_directories(Path(L"place\\in use"));
  std::unique_ptr<ReplacementFile> file;
  ASSERT_EQ(CreateSystemReplacement(Path(L"place"), Path(L"ours"), file), 0u);
  EXPECT_NE(file->Commit(), 0u);
  file.reset();
  EXPECT_TRUE(std::filesystem::is_directory(Path(L"place")));
  EXPECT_FALSE(std::filesystem::exists(Path(L"ours")));
}

TEST_F(Win32FilesTest, LockIsOnesOwnAndGoesWithItsObject) {
  std::unique_ptr<HeldLock> first;
  std::unique_ptr<HeldLock> second;
  ASSERT_EQ(machine_.Lock(Utf8Path(L"lock"), first), 0u);
  EXPECT_EQ(machine_.Lock(Utf8Path(L"lock"), second), DWORD{ERROR_SHARING_VIOLATION});
  first.reset();
  EXPECT_FALSE(std::filesystem::exists(Path(L"lock")));
  EXPECT_EQ(machine_.Lock(Utf8Path(L"lock"), second), 0u);
}

TEST_F(Win32FilesTest, StampIsKeptWhenTheFileIsClosed) {
  WriteFileBytes(Path(L"file"), "x");
  std::unique_ptr<TargetFile> file;
  ASSERT_EQ(OpenSystemTarget(Path(L"file"), file), 0u);
  EXPECT_EQ(file->Write(0, Bytes("y")), 0u);
  FileTime stamped = 0;
  constexpr FileTime kTime = 0x01dc92bf4c8a6d00;
  ASSERT_EQ(file->Stamp(kTime, stamped), 0u);
  EXPECT_EQ(stamped, kTime);
  file.reset();
  ASSERT_EQ(OpenSystemTarget(Path(L"file"), file), 0u);
  FileTime written = 0;
  EXPECT_EQ(file->GetWriteTime(written), 0u);
  EXPECT_EQ(written, stamped);
  EXPECT_EQ(file->Write(0, Bytes("z")), 0u);
  file.reset();
  ASSERT_EQ(OpenSystemTarget(Path(L"file"), file), 0u);
  EXPECT_EQ(file->GetWriteTime(written), 0u);
  EXPECT_NE(written, stamped);
}

TEST_F(Win32FilesTest, PathIsResolvedToTheFileOrItsFolder) {
  WriteFileBytes(Path(L"file"), "x");
  const std::string whole = machine_.Resolve(Utf8Path(L"file"));
  EXPECT_EQ(machine_.Resolve(Utf8Path(L".\\FILE")).size(), whole.size());
  EXPECT_THAT(whole, testing::EndsWith("\\file"));
  EXPECT_THAT(machine_.Resolve(Utf8Path(L"none")), testing::EndsWith("\\none"));
  std::unique_ptr<SourceFile> file;
  ASSERT_EQ(machine_.OpenSource(whole, file), 0u);
  FileIdentity by_handle;
  FileIdentity by_path;
  EXPECT_EQ(file->Identify(by_handle), 0u);
  EXPECT_EQ(machine_.Identify(Utf8Path(L"file"), by_path), 0u);
  EXPECT_EQ(by_handle, by_path);
  EXPECT_TRUE(by_path.volume.has_value());
}

TEST_F(Win32FilesTest, FolderMayBeThereAndItsRoomIsTold) {
  EXPECT_EQ(machine_.MakeFolder(Utf8Path(L"folder")), 0u);
  EXPECT_EQ(machine_.MakeFolder(Utf8Path(L"folder")), 0u);
  EXPECT_EQ(machine_.MakeFolder(Utf8Path(L"none\\folder")), DWORD{ERROR_PATH_NOT_FOUND});
  std::uint64_t bytes = 0;
  EXPECT_EQ(machine_.GetFreeBytes(Utf8Path(L"folder"), bytes), 0u);
  EXPECT_GT(bytes, 0u);
}

TEST_F(Win32FilesTest, PastMomentIsOver) {
  const FileTime moment = machine_.PastMoment();
  EXPECT_LT(moment, machine_.Now());
}

TEST_F(Win32FilesTest, FileIsIdentifiedByItsIndexAndVolume) {
  WriteFileBytes(Path(L"file"), "x");
  FileIdentity first;
  FileIdentity second;
  ASSERT_EQ(machine_.Identify(Utf8Path(L"file"), first), 0u);
  std::filesystem::create_hard_link(Path(L"file"), Path(L"link"));
  ASSERT_EQ(machine_.Identify(Utf8Path(L"link"), second), 0u);
  EXPECT_NE(first.file_id, 0u);
  EXPECT_EQ(first.file_id, second.file_id);
  EXPECT_TRUE(first.volume.has_value());
  EXPECT_EQ(first.volume, second.volume);
  EXPECT_EQ(machine_.Identify(Utf8Path(L"none"), first), DWORD{ERROR_FILE_NOT_FOUND});
}

TEST_F(Win32FilesTest, ErrorsAreDescribedByNameAndWords) {
  const ErrorWords denied = machine_.Describe(ERROR_ACCESS_DENIED);
  EXPECT_EQ(denied.name, "ERROR_ACCESS_DENIED");
  EXPECT_THAT(denied.text, testing::AllOf(testing::Not(""), testing::Not(testing::EndsWith("."))));
  EXPECT_EQ(machine_.Describe(65'000).name, "65000");
  EXPECT_EQ(machine_.Describe(0x81234567).name, "0x81234567");
}

TEST_F(Win32FilesTest, RelativePathsBecomeAbsoluteAndOthersStay) {
  wchar_t here[MAX_PATH];
  ::GetCurrentDirectoryW(MAX_PATH, here);
  EXPECT_EQ(machine_.AbsolutePath("x"), ToUtf8(here) + "\\x");
  EXPECT_EQ(machine_.AbsolutePath("C:\\a\\..\\b"), "C:\\b");
  EXPECT_EQ(machine_.AbsolutePath("\\\\?\\C:\\a"), "\\\\?\\C:\\a");
}

TEST(WideTextTest, TextGoesBothWaysAndHalvesAreReplaced) {
  const std::wstring text = L"a\u00E4\u20AC\U0001F600";
  EXPECT_EQ(ToUtf8(text), "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_EQ(ToWide(ToUtf8(text)), text);
  EXPECT_EQ(ToUtf8(std::wstring(1, wchar_t{0xD83D})), "\xEF\xBF\xBD");
  EXPECT_EQ(ToWide("\xFF"), L"\uFFFD");
  EXPECT_EQ(ToWide(""), L"");
}

}  // namespace
}  // namespace zel::ctl
