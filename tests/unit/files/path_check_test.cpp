#include "files/path_check.h"

#include <gtest/gtest.h>

#include <ostream>

namespace zel {

inline void PrintTo(PathFault fault, std::ostream* out) {
  *out << static_cast<int>(fault);
}

namespace {

std::string Narrow(std::wstring_view text) {
  return {text.begin(), text.end()};
}

void ExpectAll(PathFault fault, std::initializer_list<const wchar_t*> paths) {
  for (const wchar_t* path : paths) EXPECT_EQ(CheckPath(path), fault) << Narrow(path);
}

TEST(CheckPathTest, FilesOnDrivesAndVolumesAreLocal) {
  ExpectAll(PathFault::kNone,
            {LR"(C:\data\file)", LR"(z:\data\file)", L"C:/data/file", LR"(\\?\C:\data\file)",
             LR"(\\?\Volume{01234567-89ab-cdef-0123-456789abcdef}\file)",
             LR"(\\?\volume{01234567-89AB-CDEF-0123-456789ABCDEF}\file)", LR"(C:\)"});
}

TEST(CheckPathTest, WhatWindowsResolvesAgainstTheProcessIsLocal) {
  ExpectAll(PathFault::kNone, {L"file", LR"(data\file)", LR"(\data\file)", L"C:file", L""});
}

TEST(CheckPathTest, SharesAreNot) {
  ExpectAll(PathFault::kNotLocal,
            {LR"(\\server\share\file)", L"//server/share/file", LR"(\/server\share\file)",
             LR"(/\server\share\file)", LR"(\\?\UNC\server\share\file)",
             LR"(\\.\UNC\server\share\file)", LR"(\??\UNC\server\share\file)",
             LR"(/??\UNC\server\share\file)", LR"(//?/UNC/server/share/file)",
             LR"(\\server@SSL\DavWWWRoot\file)", LR"(\\127.0.0.1\C$\file)", LR"(\\)"});
}

TEST(CheckPathTest, DevicesAreNot) {
  ExpectAll(PathFault::kNotLocal,
            {LR"(\\.\PhysicalDrive0)", LR"(\\.\C:)", LR"(\\.\C:\file)", LR"(\\.\COM1)",
             LR"(//./COM1)", LR"(\\?\GLOBALROOT\Device\HarddiskVolume1\file)",
             LR"(\\?\PhysicalDrive0)", LR"(\\?\HarddiskVolume1\file)", LR"(\??\C:\file)",
             LR"(\\?\C:)", LR"(\\?\)", LR"(\\?\C:file)", L"//?/C:/file", LR"(\\?/C:\file)"});
}

TEST(CheckPathTest, PipesAndMailslotsAreNot) {
  ExpectAll(PathFault::kNotLocal, {LR"(\\.\pipe\lsass)", LR"(\\server\pipe\spoolss)",
                                   LR"(\\?\pipe\lsass)", LR"(\\.\mailslot\messages)"});
}

TEST(CheckPathTest, VolumeNamesThatAreNoneAreNot) {
  ExpectAll(PathFault::kNotLocal,
            {LR"(\\?\Volume{01234567-89ab-cdef-0123-456789abcdef})",
             LR"(\\?\Volume{01234567-89ab-cdef-0123-456789abcde}\file)",
             LR"(\\?\Volume{01234567-89ab-cdef-0123-456789abcdefa}\file)",
             LR"(\\?\Volume{01234567-89ab-cdef-0123-456789abcdeg}\file)",
             LR"(\\?\Volume{01234567089ab-cdef-0123-456789abcdef}\file)", LR"(\\?\Volume{}\file)"});
}

TEST(CheckPathTest, StreamsAreNot) {
  ExpectAll(PathFault::kNotLocal,
            {LR"(C:\file:stream)", LR"(C:\file::$DATA)", LR"(C:\directory:$I30:$INDEX_ALLOCATION)",
             LR"(\\?\C:\file:stream)", L"file:stream", L"C:file:stream",
             LR"(\\?\Volume{01234567-89ab-cdef-0123-456789abcdef}\file:stream)", L"1:\\file",
             L"CC:\\file", LR"(C:\directory:stream\file)"});
}

TEST(CheckPathTest, DeviceNamesInTheLastPlaceAreNot) {
  ExpectAll(PathFault::kNotLocal,
            {L"NUL", L"nul", LR"(C:\data\NUL)", LR"(C:\data\nul.txt)", LR"(C:\data\NUL .txt)",
             LR"(C:\data\NUL.)", LR"(C:\data\NUL . .)", L"C:NUL", L"C:/data/con", LR"(C:\PRN)",
             LR"(C:\aux)", LR"(C:\COM1)", LR"(C:\com9.log)", L"C:\\LPT\u00b9", LR"(C:\LPT0)",
             LR"(C:\CONIN$)", LR"(C:\conout$)"});
}

TEST(CheckPathTest, NamesLikeThoseOfDevicesAreFiles) {
  ExpectAll(PathFault::kNone,
            {LR"(C:\data\NULL)", LR"(C:\NUL\file)", LR"(C:\data\COM)", LR"(C:\data\COM10)",
             LR"(C:\data\COMX)", LR"(C:\data\x.NUL)", LR"(C:\data\ NUL)", LR"(\\?\C:\data\NUL)",
             LR"(C:\data\.)", LR"(C:\data\CONIN)"});
}

// Windows leaves dots and blanks at the end out: it is the same file by another name.
TEST(CheckPathTest, DotsAndBlanksAtTheEndAreAllowed) {
  ExpectAll(PathFault::kNone, {LR"(C:\data\file.)", LR"(C:\data\file. .)", LR"(\\?\C:\data\file.)",
                               LR"(C:\data\.. )"});
}

TEST(CheckPathTest, ControlCharactersAreRefusedWhereverTheyStand) {
  for (wchar_t control = 1; control < L' '; ++control) {
    std::wstring path = L"C:\\data\\file";
    for (std::size_t place = 0; place <= path.size(); ++place) {
      EXPECT_EQ(CheckPath(std::wstring(path).insert(place, 1, control)),
                PathFault::kControlCharacter);
    }
  }
  EXPECT_EQ(CheckPath(L"C:\\\u007f\u0085\u2028\ud7ff"), PathFault::kNone);  // files can have them
}

TEST(CheckPathTest, LongestPathIsAllowedAndOneMoreIsTooLong) {
  std::wstring path = L"C:\\" + std::wstring(kLongestPath - 3, L'p');
  EXPECT_EQ(CheckPath(path), PathFault::kNone);
  path.push_back(L'p');
  EXPECT_EQ(CheckPath(path), PathFault::kTooLong);
  path[5] = L'\n';  // nothing of it is looked at
  EXPECT_EQ(CheckPath(path), PathFault::kTooLong);
}

TEST(PrintablePathTest, HasNoControlCharacters) {
  EXPECT_EQ(PrintablePath(L"C:\\a\r\n2026-01-01 forged\t"), L"C:\\a??2026-01-01 forged?");
  EXPECT_EQ(PrintablePath(L"C:\\plain \u00fcber"), L"C:\\plain \u00fcber");
}

TEST(PrintableStartTest, IsShort) {
  EXPECT_EQ(PrintableStart(std::wstring(80, L'p')), std::wstring(80, L'p'));
  EXPECT_EQ(PrintableStart(std::wstring(81, L'p')), std::wstring(80, L'p') + L"...");
  EXPECT_EQ(PrintableStart(L"a\nb"), L"a?b");
}

}  // namespace
}  // namespace zel
