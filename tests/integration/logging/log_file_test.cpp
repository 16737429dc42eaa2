#include "logging/log_file.h"

#include <atomic>
#include <thread>

#include "logging/log_message.h"
#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/log_fixture.h"
#include "tests/integration/support/poll.h"
#include "win32/file_time.h"
#include "win32/handles.h"

extern "C" void* __imp_GetSystemTimeAsFileTime;

namespace zel {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

bool TakeSignal(HANDLE event) {
  return ::WaitForSingleObject(event, 0) == WAIT_OBJECT_0;
}

std::filesystem::path Rolled(const std::filesystem::path& log, int number) {
  return log.wstring() + L"." + std::to_wstring(number);
}

// The log file alone, without its threads: the test does what they would.
class LogFileTest : public test::LogFixture {
 protected:
  LogFileTest() { LogEnableMask = 0x7FFF; }
  ~LogFileTest() override { SetLogEvents(nullptr, nullptr); }

  void Open() {
    std::filesystem::create_directories(log_path().parent_path());
    OpenLogFile(log_path().wstring());
    SetLogEvents(write_event_.get(), roll_event_.get());
  }

  // Makes the open file larger than the limit, with `name` at its begin.
  void FillLog(const std::string& name) {
    CloseLogFile();
    test::WriteFileBytes(log_path(), name + std::string(kLogRollSize, '.') + "\r\n");
    Open();
  }

  HANDLE write_event() const { return write_event_.get(); }
  HANDLE roll_event() const { return roll_event_.get(); }

 private:
  UniqueEvent write_event_{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
  UniqueEvent roll_event_{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
};

TEST_F(LogFileTest, FileOfExactlyTheLimitStaysAndOneByteMoreIsRolled) {
  test::WriteFileBytes(log_path(), std::string(kLogRollSize, '.'));
  Open();
  RollLogFileIfLarge();
  EXPECT_FALSE(std::filesystem::exists(Rolled(log_path(), 1)));
  CloseLogFile();
  test::WriteFileBytes(log_path(), std::string(kLogRollSize + 1, '.'));
  Open();
  RollLogFileIfLarge();
  EXPECT_EQ(std::filesystem::file_size(Rolled(log_path(), 1)), kLogRollSize + 1);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  New log file started due to log file rolling"));
}

TEST_F(LogFileTest, TenRollsLeaveTheNewestNineInOrder) {
  for (int roll = 1; roll <= 10; ++roll) {
    FillLog("roll " + std::to_string(roll));
    RollLogFileIfLarge();
  }
  for (int number = 1; number <= 9; ++number) {
    const std::string name = "roll " + std::to_string(11 - number) + ".";
    EXPECT_EQ(test::ReadFileBytes(Rolled(log_path(), number)).substr(0, name.size()), name);
  }
  EXPECT_FALSE(std::filesystem::exists(Rolled(log_path(), 10)));
}

TEST_F(LogFileTest, RollEventIsSetByEveryLineBehindTheLimitUntilTheRoll) {
  Open();
  const std::wstring padding(10'000, L'x');
  const std::int64_t prefix =
      36 + static_cast<std::int64_t>(std::to_string(::GetCurrentThreadId()).size());
  std::int64_t written = 0;
  for (; written + prefix + 10'001 <= kLogRollSize; written += prefix + 10'001) {
    LogMessage(kGeneralInfo, L"%s\n", padding.c_str());
  }
  EXPECT_FALSE(TakeSignal(roll_event())) << "at " << written << " characters";
  for (int line = 0; line < 3; ++line) {
    LogMessage(kGeneralInfo, L"%s\n", padding.c_str());
    EXPECT_TRUE(TakeSignal(roll_event()));
  }
  RollLogFileIfLarge();
  LogMessage(kGeneralInfo, L"small again\n");
  EXPECT_FALSE(TakeSignal(roll_event()));
}

// At least `count` of them, in lines.
void LogCharacters(wchar_t character, std::int64_t count) {
  const std::wstring text(kMaxLoggedText, character);
  for (; count > 0; count -= static_cast<std::int64_t>(kMaxLoggedText)) {
    LogMessage(kGeneralInfo, L"%s\n", text.c_str());
  }
}

TEST_F(LogFileTest, CharactersAreCountedNotBytes) {
  Open();
  LogCharacters(L'\u6570', kLogRollSize / 2);  // 15 MiB in the file, 5 Mi characters
  EXPECT_GT(std::filesystem::file_size(log_path()), 14u << 20);
  EXPECT_FALSE(TakeSignal(roll_event()));
}

TEST_F(LogFileTest, ASmallFileIsNotRolledWhateverTheCounterSays) {
  Open();
  LogCharacters(L'x', kLogRollSize * 3 / 2);
  CloseLogFile();  // the counter goes on over a new file of the same path
  std::filesystem::remove(log_path());
  Open();
  for (int line = 0; line < 2; ++line) {
    LogMessage(kGeneralInfo, L"line\n");
    EXPECT_TRUE(TakeSignal(roll_event()));
    RollLogFileIfLarge();
  }
  EXPECT_FALSE(std::filesystem::exists(Rolled(log_path(), 1)));
}

TEST_F(LogFileTest, AFileThatCannotBeMovedKeepsGrowingAndEachAttemptDropsTheOldestRolledOne) {
  for (int number = 1; number <= 9; ++number) {
    test::WriteFileBytes(Rolled(log_path(), number), "rolled " + std::to_string(number));
  }
  FillLog("held");
  {
    const UniqueFile reader(::CreateFileW(log_path().c_str(), GENERIC_READ,
                                          FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                          OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(reader);
    RollLogFileIfLarge();
    RollLogFileIfLarge();
  }
  LogMessage(kGeneralInfo, L"after\n");
  ShutdownLogging();
  for (int number = 1; number <= 9; ++number) {
    EXPECT_EQ(test::ReadFileBytes(Rolled(log_path(), number)),
              number <= 2 ? "" : "rolled " + std::to_string(number - 2));
  }
  const std::string bytes = test::ReadFileBytes(log_path());
  EXPECT_TRUE(bytes.starts_with("held"));
  EXPECT_TRUE(bytes.ends_with("after\r\n"));
}

TEST_F(LogFileTest, WithoutReopenLinesGoToStandardOutput) {
  FillLog("last");
  std::filesystem::create_directory(Rolled(log_path(), 1));  // nothing can be moved here, but
  RollLogFileIfLarge();                                      // number 1 moves to number 2
  EXPECT_TRUE(std::filesystem::is_directory(Rolled(log_path(), 2)));
  CloseLogFile();
  testing::internal::CaptureStdout();
  LogMessage(kGeneralInfo, L"no file\n");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "no file\n");
}

TEST_F(LogFileTest, LogThatCouldNotBeOpenedIsOpenedWhenItCanBe) {
  test::WriteFileBytes(log_path(), "of the process before\r\n");
  UniqueFile holder(::CreateFileW(log_path().c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                  OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(holder);
  Open();
  EXPECT_FALSE(ReopenLogFile());
  holder.reset();
  EXPECT_TRUE(ReopenLogFile());
  EXPECT_TRUE(ReopenLogFile());  // nothing is left to do
  LogMessage(kGeneralInfo, L"written again\n");
  CloseLogFile();
  const std::string log = test::ReadFileBytes(log_path());
  EXPECT_TRUE(log.starts_with("of the process before\r\n"));
  const std::vector<test::LogLine> lines = test::ParseLog(log.substr(log.find('\n') + 1));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].message, "Log file opened again: earlier lines are missing");
  EXPECT_EQ(lines[1].message, "written again");
}

TEST_F(LogFileTest, ClosedLogStaysClosed) {
  Open();
  CloseLogFile();
  EXPECT_TRUE(ReopenLogFile());
  LogMessage(kGeneralInfo, L"on standard output\n");
  EXPECT_EQ(test::ReadFileBytes(log_path()), "");
}

TEST_F(LogFileTest, ReadersAreAllowedAndOtherWritersAreNot) {
  Open();
  const auto can_open = [this](DWORD access) {
    return static_cast<bool>(UniqueFile(::CreateFileW(
        log_path().c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
        OPEN_EXISTING, 0, nullptr)));
  };
  EXPECT_TRUE(can_open(GENERIC_READ));
  EXPECT_FALSE(can_open(GENERIC_WRITE));
}

TEST_F(LogFileTest, LinesWaitForTheIdleRuleAndAreThenFlushed) {
  Open();
  EXPECT_EQ(FlushLogFileIfIdle(), 0) << "nothing waits";
  LogMessage(kGeneralInfo, L"waiting\n");
  EXPECT_TRUE(TakeSignal(write_event()));
  const std::int64_t due = FlushLogFileIfIdle();
  EXPECT_GE(due, 1);
  EXPECT_LE(due, 3);
  EXPECT_THAT(test::ReadFileBytes(log_path()), IsEmpty());
  LogMessage(kGeneralInfo, L"too\n");
  ASSERT_TRUE(test::PollUntil([] { return FlushLogFileIfIdle() == 0; }));
  EXPECT_EQ(test::ParseLog(test::ReadFileBytes(log_path())).size(), 2u);
  LogMessage(kGeneralInfo, L"the next one asks for a flush again\n");
  EXPECT_TRUE(TakeSignal(write_event()));
}

std::atomic<std::int64_t> clock_shift{0};  // in 100 ns
decltype(&::GetSystemTimeAsFileTime) real_time = nullptr;

void WINAPI ShiftedTime(FILETIME* time) {
  real_time(time);
  const auto shifted = static_cast<std::uint64_t>(
      static_cast<std::int64_t>(JoinHalves(time->dwHighDateTime, time->dwLowDateTime)) +
      clock_shift);
  *time = {static_cast<DWORD>(shifted), static_cast<DWORD>(shifted >> 32)};
}

TEST_F(LogFileTest, LinesDoNotWaitForAClockThatWasSetBack) {
  real_time = reinterpret_cast<decltype(real_time)>(__imp_GetSystemTimeAsFileTime);
  const test::ImportHook hook(__imp_GetSystemTimeAsFileTime, &ShiftedTime);
  Open();
  LogMessage(kGeneralInfo, L"an hour ahead\n");
  clock_shift = -3600 * std::int64_t{kFileTimeUnitsPerSecond};
  EXPECT_EQ(FlushLogFileIfIdle(), 0);
  EXPECT_EQ(test::ParseLog(test::ReadFileBytes(log_path())).size(), 1u);
}

TEST_F(LogFileTest, EightThreadsAcrossRollsLoseAndTearNoLine) {
  constexpr int kThreads = 8;
  constexpr int kLines = 100'000;
  StartLogging();  // with the roller
  {
    std::vector<std::jthread> writers;
    for (int writer = 0; writer < kThreads; ++writer) {
      writers.emplace_back([writer] {
        for (int line = 0; line < kLines; ++line) {
          LogMessage(kBitmapInfo, L"writer %d line %d %s\n", writer, line, L"C:\\data\\\u6570.db");
        }
      });
    }
  }
  ShutdownLogging();

  std::vector<int> next(kThreads);
  int rolls = 0;
  for (int number = 9; number >= 0; --number) {
    const std::filesystem::path file = number == 0 ? log_path() : Rolled(log_path(), number);
    if (!std::filesystem::exists(file)) continue;
    const std::vector<test::LogLine> lines = test::ParseLog(test::ReadFileBytes(file));
    for (std::size_t i = 0; i < lines.size(); ++i) {
      if (i == 0 && lines[i].message.starts_with("New log file")) {
        ++rolls;
        continue;
      }
      int writer = 0;
      int line = 0;
      ASSERT_EQ(std::sscanf(lines[i].message.c_str(), "writer %d line %d C:", &writer, &line), 2)
          << lines[i].message;
      ASSERT_TRUE(lines[i].message.ends_with("C:\\data\\\xe6\x95\xb0.db"));
      ASSERT_EQ(line, next[static_cast<std::size_t>(writer)]++) << "of writer " << writer;
    }
  }
  EXPECT_EQ(next, std::vector<int>(kThreads, kLines));
  EXPECT_GE(rolls, 3);
}

}  // namespace
}  // namespace zel
