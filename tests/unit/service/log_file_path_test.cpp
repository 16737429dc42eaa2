#include "service/log_file_path.h"

#include "files/layout.h"

#include <gtest/gtest.h>

#include <string>

namespace zel {
namespace {

std::wstring Beside(const std::wstring& program_path) {
  return DeriveLogFilePath(L"", program_path);
}

// A path of `length` characters without a dot.
std::wstring PathWithoutDot(std::size_t length) {
  return L"C:\\" + std::wstring(length - 3, L'p');
}

// A path of `length` characters whose first dot is at `dot`, with another one as its last
// character.
std::wstring PathWithDotAt(std::size_t dot, std::size_t length) {
  std::wstring path = PathWithoutDot(length);
  path[dot] = L'.';
  path.back() = L'.';
  return path;
}

TEST(DeriveLogFilePathTest, InstallDirectoryHoldsTheLog) {
  EXPECT_EQ(DeriveLogFilePath(L"D:\\agent", L"C:\\svc\\prog.exe"),
            L"D:\\agent\\log\\zelservice.log");
}

TEST(DeriveLogFilePathTest, InstallDirectoryIsTakenAsItIsStored) {
  EXPECT_EQ(DeriveLogFilePath(L"D:\\", L"x.exe"), L"D:\\\\log\\zelservice.log");
  EXPECT_EQ(DeriveLogFilePath(L"D:\\my agent.d", L"x.exe"), L"D:\\my agent.d\\log\\zelservice.log");
}

TEST(DeriveLogFilePathTest, InstallDirectoryTooLongForTheBufferIsCut) {
  const std::wstring directory = PathWithoutDot(250);
  EXPECT_EQ(DeriveLogFilePath(directory, L"x.exe"), directory + L"\\log\\zels");
  EXPECT_EQ(DeriveLogFilePath(PathWithoutDot(300), L"x.exe"), PathWithoutDot(259));
}

TEST(DeriveLogFilePathTest, ExtensionOfTheProgramBecomesLog) {
  EXPECT_EQ(Beside(L"C:\\svc\\prog.exe"), L"C:\\svc\\prog.log");
  EXPECT_EQ(Beside(L"prog."), L"prog.log");
  EXPECT_EQ(Beside(L".\\prog.exe"), L".log");
}

TEST(DeriveLogFilePathTest, FirstDotCountsEvenInADirectory) {
  EXPECT_EQ(Beside(L"C:\\a.b\\prog.exe"), L"C:\\a.log");
  EXPECT_EQ(Beside(L"C:\\svc\\prog.old.exe"), L"C:\\svc\\prog.log");
}

TEST(DeriveLogFilePathTest, ProgramWithoutDotGetsLogAppended) {
  EXPECT_EQ(Beside(L"C:\\svc\\prog"), L"C:\\svc\\prog.log");
  EXPECT_EQ(Beside(L""), L".log");
}

TEST(DeriveLogFilePathTest, DotAtIndex255StillLeavesRoomAndOneAt256DoesNot) {
  const std::wstring path = PathWithDotAt(255, 300);
  EXPECT_EQ(Beside(path), path.substr(0, 255) + L".log");
  EXPECT_EQ(Beside(PathWithDotAt(255, 256)).size(), kMaxPathLength);
  EXPECT_EQ(Beside(PathWithDotAt(256, 300)), L"zelservice.log");
  EXPECT_EQ(Beside(PathWithDotAt(256, 257)), L"zelservice.log");
}

TEST(DeriveLogFilePathTest, PathsWithoutDotFitUpTo254Characters) {
  EXPECT_EQ(Beside(PathWithoutDot(254)), PathWithoutDot(254) + L".log");
  for (const std::size_t length : {255u, 256u, 259u, 260u, 300u, 32767u}) {
    EXPECT_EQ(Beside(PathWithoutDot(length)), L"zelservice.log") << length;
  }
}

TEST(DeriveLogFilePathTest, NoInputGivesMoreThanTheBufferHolds) {
  for (std::size_t length = 4; length <= 300; ++length) {
    EXPECT_LE(Beside(PathWithoutDot(length)).size(), kMaxPathLength) << length;
    EXPECT_LE(Beside(PathWithDotAt(length - 1, length)).size(), kMaxPathLength) << length;
    EXPECT_LE(DeriveLogFilePath(PathWithoutDot(length), L"").size(), kMaxPathLength) << length;
  }
}

}  // namespace
}  // namespace zel
