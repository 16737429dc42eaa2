// The log's threads as InitLogging starts them.
#include "logging/log_message.h"
#include "tests/integration/support/handle_count.h"
#include "tests/integration/support/log_fixture.h"
#include "tests/integration/support/poll.h"
#include "win32/handles.h"

namespace zel {
namespace {

using testing::ElementsAre;

class LoggingTest : public test::LogFixture {};

TEST_F(LoggingTest, AFileTooLargeAtStartIsRolledAtOnce) {
  test::WriteFileBytes(log_path(), std::string(11 << 20, '.'));
  StartLogging();
  ASSERT_TRUE(
      test::PollUntil([this] { return std::filesystem::exists(log_path().wstring() + L".1"); }));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  New log file started due to log file rolling"));
}

TEST_F(LoggingTest, AnIdleLogIsFlushedByTheWatcher) {
  StartLogging();
  LogMessage(kGeneralInfo, L"to be seen\n");
  EXPECT_EQ(test::ReadFileBytes(log_path()), "");
  EXPECT_TRUE(test::PollUntil([this] { return !test::ReadFileBytes(log_path()).empty(); }));
}

TEST_F(LoggingTest, ALogThatAnotherProgramHeldIsOpenedByTheRoller) {
  test::WriteFileBytes(log_path(), "");
  UniqueFile holder(::CreateFileW(log_path().c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                  OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(holder);
  StartLogging();
  holder.reset();
  ASSERT_TRUE(test::PollUntil([this] { return !test::ReadFileBytes(log_path()).empty(); }));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("WARN  Log file opened again: earlier lines are missing"));
}

TEST_F(LoggingTest, ShutdownEndsBothThreadsAndClosesEveryHandle) {
  std::filesystem::create_directories(log_path().parent_path());
  StartLogging();
  ShutdownLogging();  // what the run-time library opens once is open now
  const std::size_t before = test::HandleCount();
  for (int round = 0; round < 3; ++round) {
    StartLogging();
    ShutdownLogging();
  }
  EXPECT_EQ(test::HandleCount(), before);
  testing::internal::CaptureStdout();
  LogMessage(kGeneralInfo, L"late\n");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "late\n");
}

}  // namespace
}  // namespace zel
