// GetInstallDirectory and GetCbtDirectory against the real registry, with sleeps that do not last.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <functional>
#include <string>
#include <vector>

#include "files/install_directory.h"
#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/install_directory_value.h"

extern "C" {
extern void* __imp_Sleep;
}

namespace zel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// The sleeps of the test's own thread; other threads only yield.
DWORD sleeper_thread = 0;
std::vector<DWORD> sleeps_ms;
std::function<void(std::size_t)> during_sleep;  // told the number of the sleep, from 1

void WINAPI RecordSleep(DWORD ms) {
  if (::GetCurrentThreadId() != sleeper_thread) {
    ::SwitchToThread();
    return;
  }
  sleeps_ms.push_back(ms);
  if (during_sleep) during_sleep(sleeps_ms.size());
}

class InstallDirectoryTest : public ::testing::Test {
 protected:
  InstallDirectoryTest() {
    sleeper_thread = ::GetCurrentThreadId();
    sleeps_ms.clear();
    during_sleep = nullptr;
  }

  static std::wstring Read() {
    wchar_t buffer[260];
    std::fill_n(buffer, 260, L'#');
    GetInstallDirectory(buffer);
    return {buffer, std::find(buffer, buffer + 260, L'\0')};
  }

  test::InstallDirectoryValue value_;
  test::ImportHook sleep_hook_{__imp_Sleep, &RecordSleep};
};

TEST_F(InstallDirectoryTest, ValueOfUpTo129CharactersIsReadWithoutASleep) {
  for (const std::size_t length : {1, 128, 129}) {
    const std::wstring directory(length, L'd');
    value_.Set(directory);
    EXPECT_EQ(Read(), directory);
  }
  EXPECT_THAT(sleeps_ms, IsEmpty());
}

TEST_F(InstallDirectoryTest, ValueOfUpTo259CharactersIsReadAfterOneSleep) {
  for (const std::size_t length : {130, 258, 259}) {
    sleeps_ms.clear();
    const std::wstring directory(length, L'd');
    value_.Set(directory);
    EXPECT_EQ(Read(), directory);
    EXPECT_THAT(sleeps_ms, ElementsAre(5000)) << length;
  }
}

TEST_F(InstallDirectoryTest, ValueThatDoesNotFitIsNeverRead) {
  for (const std::size_t length : {260, 300, 5000}) {
    sleeps_ms.clear();
    value_.Set(std::wstring(length, L'd'));
    EXPECT_EQ(Read(), L"");
    EXPECT_THAT(sleeps_ms, ElementsAre(5000, 5000, 5000)) << length;
  }
}

TEST_F(InstallDirectoryTest, ValueThatAppearsWhileItWaitsIsRead) {
  during_sleep = [this](std::size_t sleep) {
    if (sleep == 1) value_.Set(L"D:\\agent");
  };
  EXPECT_EQ(Read(), L"D:\\agent");
}

TEST_F(InstallDirectoryTest, ValueOfAnotherTypeIsNone) {
  constexpr wchar_t kText[] = L"D:\\agent";
  for (const DWORD type : {REG_BINARY, REG_MULTI_SZ, REG_NONE}) {
    value_.SetBytes(type, kText, sizeof kText);
    EXPECT_EQ(Read(), L"") << type;
  }
}

TEST_F(InstallDirectoryTest, StringsWithoutTerminatorNeverLeaveTheBufferWithoutOne) {
  for (const std::size_t length : {1, 129, 130, 131, 258, 259, 260, 261}) {
    const std::wstring directory(length, L'd');
    value_.SetBytes(REG_SZ, directory.data(), length * sizeof(wchar_t));
    const std::wstring read = Read();
    EXPECT_TRUE(read == directory || read.empty()) << length << ": " << read.size();
    EXPECT_LT(read.size(), 260u);
    if (length <= 129) {
      EXPECT_EQ(read, directory);
    }
  }
}

TEST_F(InstallDirectoryTest, StringsOfAnOddNumberOfBytesStayInsideTheBuffer) {
  const std::string bytes(600, 'd');
  for (const std::size_t size : {1, 3, 259, 261, 517, 519, 521}) {
    value_.SetBytes(REG_SZ, bytes.data(), size);
    EXPECT_LT(Read().size(), 260u) << size;
  }
}

using CbtDirectoryTest = InstallDirectoryTest;

TEST_F(CbtDirectoryTest, StandsInTheInstallDirectoryAndIsComputedOnce) {
  value_.Set(L"D:\\agent");
  const std::wstring& directory = GetCbtDirectory();
  EXPECT_EQ(directory, L"\\\\?\\D:\\agent\\cbt");
  value_.Set(L"E:\\other");
  EXPECT_EQ(&GetCbtDirectory(), &directory);
  EXPECT_EQ(GetCbtDirectory(), L"\\\\?\\D:\\agent\\cbt");
}

TEST_F(CbtDirectoryTest, WithoutInstallDirectoryIsVelmoraOnDriveCAfter15Seconds) {
  EXPECT_EQ(GetCbtDirectory(), L"\\\\?\\C:\\velmora");
  EXPECT_THAT(sleeps_ms, ElementsAre(5000, 5000, 5000));
}

TEST_F(CbtDirectoryTest, InstallDirectoryOf251CharactersFits) {
  value_.Set(std::wstring(251, L'd'));
  EXPECT_EQ(GetCbtDirectory().size(), 259u);
}

using CbtDirectoryDeathTest = InstallDirectoryTest;

TEST_F(CbtDirectoryDeathTest, LongerInstallDirectoryEndsTheProcessAndSaysWhy) {
  value_.Set(std::wstring(252, L'd'));
  EXPECT_EXIT((void)GetCbtDirectory(), ::testing::ExitedWithCode(static_cast<int>(0xC0000417)),
              "CBT directory .*ddd.cbt has 260 characters, more than 259");
}

}  // namespace
}  // namespace zel
