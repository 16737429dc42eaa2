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

TEST_F(Win32FilesTest, ReplacementTakesThePlaceWhenItIsCommitted) {
  WriteFileBytes(Path(L"file"), "old");
  std::unique_ptr<ReplacementFile> file;
  ASSERT_EQ(CreateSystemReplacement(Path(L"file"), file), 0u);
  EXPECT_EQ(file->Write(0, Bytes("newer")), 0u);
  EXPECT_EQ(ReadFileBytes(Path(L"file")), "old");
  EXPECT_EQ(file->Commit(), 0u);
  file.reset();
  EXPECT_EQ(ReadFileBytes(Path(L"file")), "newer");
  EXPECT_FALSE(std::filesystem::exists(Path(L"file.zelctl-new")));
}

TEST_F(Win32FilesTest, ReplacementThatIsNotCommittedVanishes) {
  WriteFileBytes(Path(L"file"), "old");
  WriteFileBytes(Path(L"file.zelctl-new"), "left by a process that was killed");
  std::unique_ptr<ReplacementFile> file;
  ASSERT_EQ(CreateSystemReplacement(Path(L"file"), file), 0u);
  std::uint64_t size = 1;
  EXPECT_EQ(file->GetSize(size), 0u);
  EXPECT_EQ(size, 0u);
  file.reset();
  EXPECT_EQ(ReadFileBytes(Path(L"file")), "old");
  EXPECT_FALSE(std::filesystem::exists(Path(L"file.zelctl-new")));
}

TEST_F(Win32FilesTest, ReplacementThatCannotTakeThePlaceVanishes) {
  std::filesystem::create_directories(Path(L"place\\in use"));
  std::unique_ptr<ReplacementFile> file;
  ASSERT_EQ(CreateSystemReplacement(Path(L"place"), file), 0u);
  EXPECT_NE(file->Commit(), 0u);
  file.reset();
  EXPECT_TRUE(std::filesystem::is_directory(Path(L"place")));
  EXPECT_FALSE(std::filesystem::exists(Path(L"place.zelctl-new")));
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
