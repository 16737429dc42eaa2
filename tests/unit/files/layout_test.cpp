#include "files/layout.h"

#include <gtest/gtest.h>

namespace zel {
namespace {

TEST(ComposeCbtDirectoryTest, StandsInTheInstallDirectory) {
  EXPECT_EQ(ComposeCbtDirectory(L"D:\\Program Files\\agent"),
            L"\\\\?\\D:\\Program Files\\agent\\cbt");
}

TEST(ComposeCbtDirectoryTest, WithoutInstallDirectoryHasNoCbtComponent) {
  EXPECT_EQ(ComposeCbtDirectory(L""), L"\\\\?\\C:\\velmora");
}

TEST(ComposeReceivedMessagesPathTest, StandsInTheCbtDirectory) {
  EXPECT_EQ(ComposeReceivedMessagesPath(L"\\\\?\\D:\\cbt"), L"\\\\?\\D:\\cbt\\received-messages");
}

TEST(ComposeCbtDirectoryTest, InstallDirectoryOf251CharactersIsTheLongestPossible) {
  EXPECT_EQ(ComposeCbtDirectory(std::wstring(251, L'd')).size(), kMaxPathLength);
  EXPECT_GT(ComposeCbtDirectory(std::wstring(252, L'd')).size(), kMaxPathLength);
}

TEST(GuidTextInVolumeNameTest, IsWhatStandsBetweenTheBraces) {
  EXPECT_EQ(GuidTextInVolumeName(L"\\\\?\\Volume{01234567-89ab-cdef-0123-456789abcdef}\\"),
            L"01234567-89ab-cdef-0123-456789abcdef");
}

TEST(GuidTextInVolumeNameTest, ShorterNamesGiveWhatThereIs) {
  const std::wstring_view name = L"\\\\?\\Volume{01234567-89ab-cdef-0123-456789abcdef}\\";
  for (std::size_t length = 0; length < 47; ++length) {
    const std::size_t expected = length < 11 ? 0 : length - 11;
    EXPECT_EQ(GuidTextInVolumeName(name.substr(0, length)).size(), expected) << length;
  }
}

TEST(FileIdDirectoryTest, IsSixteenLowerCaseDigitsAndReadsBack) {
  EXPECT_EQ(FormatFileIdDirectory(0x000100000000ABCD), L"000100000000abcd");
  EXPECT_EQ(ParseFileIdDirectory(L"000100000000abcd"), 0x000100000000ABCDu);
  EXPECT_EQ(ParseFileIdDirectory(L"000100000000ABCD"), 0x000100000000ABCDu);
}

TEST(FileIdDirectoryTest, OtherLengthsZeroAndAllOnesAreNone) {
  EXPECT_EQ(ParseFileIdDirectory(L"00100000000abcd"), std::nullopt);
  EXPECT_EQ(ParseFileIdDirectory(L"0000100000000abcd"), std::nullopt);
  EXPECT_EQ(ParseFileIdDirectory(L""), std::nullopt);
  EXPECT_EQ(ParseFileIdDirectory(L"0000000000000000"), std::nullopt);
  EXPECT_EQ(ParseFileIdDirectory(L"ffffffffffffffff"), std::nullopt);
  EXPECT_EQ(ParseFileIdDirectory(L"not a file id..."), std::nullopt);
}

TEST(FormatBitmapNameTest, TimeAndBlockSizeAreLowerCaseHexFilledWithZeros) {
  EXPECT_EQ(FormatBitmapName(0x01d2a3b4c5d6e7f8, 0x10000), L"01d2a3b4c5d6e7f800010000");
  EXPECT_EQ(FormatBitmapName(0, 0), L"000000000000000000000000");
  EXPECT_EQ(FormatBitmapName(0xFEDCBA9876543210, 0xFFFFFFFF), L"fedcba9876543210ffffffff");
}

TEST(LastPathComponentTest, IsTheTextBehindTheLastBackslash) {
  EXPECT_EQ(LastPathComponent(LR"(\\?\C:\cbt\volume\file\name)"), L"name");
  EXPECT_EQ(LastPathComponent(L"name"), L"name");
  EXPECT_EQ(LastPathComponent(LR"(directory\)"), L"");
  EXPECT_EQ(LastPathComponent(LR"(a/b\c/d)"), L"c/d");
}

TEST(ParseNameTest, ReadsWhatFormatWrote) {
  for (const FileTime time : {FileTime{1}, FileTime{0x01d2a3b4c5d6e7f8}, ~FileTime{1}}) {
    for (const std::uint32_t size : {1u, 65'536u, 0xFFFFFFFEu}) {
      const std::wstring name = FormatBitmapName(time, size);
      EXPECT_EQ(ParseNameCreationTime(name), time);
      EXPECT_EQ(ParseNameBlockSize(name), size);
    }
  }
}

TEST(ParseNameTest, ZeroAndAllOnesAreNone) {
  EXPECT_EQ(ParseNameCreationTime(L"000000000000000000010000"), std::nullopt);
  EXPECT_EQ(ParseNameCreationTime(L"ffffffffffffffff00010000"), std::nullopt);
  EXPECT_EQ(ParseNameBlockSize(L"01d2a3b4c5d6e7f800000000"), std::nullopt);
  EXPECT_EQ(ParseNameBlockSize(L"01d2a3b4c5d6e7f8ffffffff"), std::nullopt);
}

TEST(ParseNameTest, EachHalfIsReadAlone) {
  EXPECT_EQ(ParseNameCreationTime(L"01d2a3b4c5d6e7f8????????"), 0x01d2a3b4c5d6e7f8u);
  EXPECT_EQ(ParseNameBlockSize(L"????????????????00010000"), 65'536u);
}

TEST(ParseNameTest, NumbersAreReadAsTheRunTimeLibraryReadsThem) {
  EXPECT_EQ(ParseNameCreationTime(L"01D2A3B4C5D6E7F800010000"), 0x01d2a3b4c5d6e7f8u);
  EXPECT_EQ(ParseNameCreationTime(L"12zzzzzzzzzzzzzz00010000"), 0x12u);
  EXPECT_EQ(ParseNameCreationTime(L"  +0x1f         00010000"), 0x1Fu);
  EXPECT_EQ(ParseNameCreationTime(L"-2              00010000"), ~FileTime{1});
  EXPECT_EQ(ParseNameCreationTime(L"-1              00010000"), std::nullopt);
  EXPECT_EQ(ParseNameCreationTime(L"zzzzzzzzzzzzzzzz00010000"), std::nullopt);
  EXPECT_EQ(ParseNameBlockSize(L"01d2a3b4c5d6e7f8-0000002"), 0xFFFFFFFEu);
  EXPECT_EQ(ParseNameBlockSize(L"01d2a3b4c5d6e7f8-0000001"), std::nullopt);
  EXPECT_EQ(ParseNameBlockSize(L"01d2a3b4c5d6e7f80x1000zz"), 0x1000u);
}

TEST(ComposeNewBitmapPathsTest, EachDirectoryLiesInTheOneBefore) {
  const NewBitmapPaths paths = ComposeNewBitmapPaths(
      L"\\\\?\\C:\\a\\cbt", L"<guid>", 0x0102030405060708, 0x01D2A3B4C5D6E7F8, 0x10000);
  EXPECT_EQ(paths.directories[0], L"\\\\?\\C:\\a\\cbt");
  EXPECT_EQ(paths.directories[1], L"\\\\?\\C:\\a\\cbt\\<guid>");
  EXPECT_EQ(paths.directories[2], L"\\\\?\\C:\\a\\cbt\\<guid>\\0102030405060708");
  EXPECT_EQ(paths.file, L"\\\\?\\C:\\a\\cbt\\<guid>\\0102030405060708\\01d2a3b4c5d6e7f800010000");
}

}  // namespace
}  // namespace zel
