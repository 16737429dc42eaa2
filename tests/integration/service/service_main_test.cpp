// The service main between a hooked service control manager and a real log.
#include "service/service_main.h"

#include <future>

#include "service/service_life.h"
#include "tests/integration/support/log_fixture.h"
#include "tests/integration/support/poll.h"
#include "tests/integration/support/service_status_recorder.h"
#include "tests/integration/support/service_world.h"

extern "C" {
extern void* __imp_RegisterServiceCtrlHandlerW;
}

namespace zel {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::SizeIs;
using ::testing::StartsWith;

const auto kHandle = reinterpret_cast<SERVICE_STATUS_HANDLE>(0x5A);
std::wstring registered_name;

SERVICE_STATUS_HANDLE WINAPI AcceptHandler(LPCWSTR name, LPHANDLER_FUNCTION handler) {
  EXPECT_EQ(handler, &ServiceCtrlHandler);
  registered_name = name;
  return kHandle;
}

SERVICE_STATUS_HANDLE WINAPI RefuseHandler(LPCWSTR, LPHANDLER_FUNCTION) {
  ::SetLastError(ERROR_ACCESS_DENIED);
  return nullptr;
}

// The start itself fails at once: what it does is another test's subject.
class ServiceMainTest : public test::LogFixture {
 protected:
  ServiceMainTest() { world_.answers.privilege = ERROR_NOT_ALL_ASSIGNED; }

  test::ServiceWorld world_;
  test::ServiceStatusRecorder recorder_;
};

TEST_F(ServiceMainTest, ReportsItsWayFromStartToStopAndClosesTheLog) {
  const test::ImportHook hook(__imp_RegisterServiceCtrlHandlerW, &AcceptHandler);
  StartLogging();
  ServiceCtrlHandler(SERVICE_CONTROL_STOP);
  VelmoraServiceMain(0, nullptr);
  EXPECT_EQ(registered_name, L"ZelService");
  ASSERT_THAT(recorder_.reports(), SizeIs(2));
  EXPECT_EQ(recorder_.reports()[0].handle, kHandle);
  EXPECT_EQ(recorder_.reports()[0].status.dwCurrentState, DWORD{SERVICE_START_PENDING});
  EXPECT_EQ(recorder_.reports()[0].status.dwWaitHint, 3000u);
  EXPECT_EQ(recorder_.reports()[1].status.dwCurrentState, DWORD{SERVICE_STOPPED});
  EXPECT_EQ(recorder_.reports()[1].status.dwWin32ExitCode, DWORD{ERROR_NOT_ALL_ASSIGNED});
  // Nobody has closed the log but the service main.
  EXPECT_TRUE(::MoveFileW(log_path().wstring().c_str(), (log_path().wstring() + L".x").c_str()));
  std::vector<std::string> messages;
  for (const test::LogLine& line :
       test::ParseLog(test::ReadFileBytes(log_path().wstring() + L".x"))) {
    messages.push_back(line.level + " " + line.message);
  }
  EXPECT_THAT(messages,
              ElementsAre("INFO  Service started", "ERROR Unable to acquire SeBackupPrivilege",
                          "INFO  Service stopped"));
}

TEST_F(ServiceMainTest, WithoutAHandlerItOnlySaysSo) {
  const test::ImportHook hook(__imp_RegisterServiceCtrlHandlerW, &RefuseHandler);
  StartLogging();
  VelmoraServiceMain(0, nullptr);
  WaitForServiceMainEnd();
  EXPECT_THAT(recorder_.reports(), SizeIs(0));
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      ElementsAre(AllOf(StartsWith("ERROR VelmoraServiceMain call to RegisterServiceCtrlHandler "
                                   "failed: "),
                        EndsWith(" [ERROR_ACCESS_DENIED]"))));
}

TEST_F(ServiceMainTest, ItsEndIsWaitedForOnlyWhenItWasEntered) {
  WaitForServiceMainEnd();  // returns, not having been entered

  const test::ImportHook hook(__imp_RegisterServiceCtrlHandlerW, &AcceptHandler);
  StartLogging();
  auto service_main = std::async(std::launch::async, [] { VelmoraServiceMain(0, nullptr); });
  ASSERT_TRUE(test::PollUntil([] { return !registered_name.empty(); }));
  auto waiter = std::async(std::launch::async, WaitForServiceMainEnd);
  EXPECT_EQ(waiter.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  StopService();
  waiter.get();
  service_main.get();
}

}  // namespace
}  // namespace zel
