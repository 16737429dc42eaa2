// The service main between a hooked service control manager and a real log.
#include "service/service_main.h"

#include <rpc.h>

#include <future>
#include <optional>

#include "service/service_life.h"
#include "tests/integration/support/cbt_directory.h"
#include "tests/integration/support/log_fixture.h"
#include "tests/integration/support/poll.h"
#include "tests/integration/support/service_status_recorder.h"
#include "tests/integration/support/service_world.h"

extern "C" {
extern void* __imp_RegisterServiceCtrlHandlerW;
extern void* __imp_RpcServerUseProtseqW;
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

RPC_STATUS RPC_ENTRY RefuseSequence(RPC_WSTR, unsigned int, void*) {
  return RPC_S_PROTSEQ_NOT_SUPPORTED;
}

struct FailedStart {
  const char* name;
  void (*arrange)(test::ServiceWorldAnswers& answers);
  bool has_sequences;
  const char* last_line;
  DWORD result;
};

void PrintTo(const FailedStart& start, std::ostream* out) {
  *out << start.name;
}

const FailedStart kFailedStarts[] = {
    {"NoPrivilege", [](auto& answers) { answers.privilege = ERROR_NOT_ALL_ASSIGNED; }, true,
     "Unable to acquire SeBackupPrivilege", ERROR_NOT_ALL_ASSIGNED},
    {"NoDriverService", [](auto& answers) { answers.driver_service = ERROR_SERVICE_DISABLED; },
     true, "aborting service start (1058)", ERROR_SERVICE_DISABLED},
    {"RefusedPort", [](auto& answers) { answers.connect = E_ACCESSDENIED; }, true,
     "FilterConnectCommunications Port failed", static_cast<DWORD>(E_ACCESSDENIED)},
    {"NoDriverStatus", [](auto& answers) { answers.status = E_FAIL; }, true,
     "FilterSendMessage failed: -2147467259", static_cast<DWORD>(E_FAIL)},
    {"NoProtocolSequence", [](auto&) {}, false, "no protocols registered", NO_ERROR},
};

// The log takes some seconds to be written out.
class FailedStartTest : public test::LogFixture, public ::testing::WithParamInterface<FailedStart> {
 protected:
  FailedStartTest() : install_directory_(directory().wstring()) {
    test::UseCbtDirectoryOf(install_directory_);
    GetParam().arrange(world_.answers);
    if (!GetParam().has_sequences) {
      use_sequence_.emplace(__imp_RpcServerUseProtseqW, &RefuseSequence);
    }
  }

  std::wstring install_directory_;
  test::ServiceWorld world_;
  test::ServiceStatusRecorder recorder_;
  std::optional<test::ImportHook> use_sequence_;
};

TEST_P(FailedStartTest, StaysPendingUntilAStopControlEndsIt) {
  const test::ImportHook hook(__imp_RegisterServiceCtrlHandlerW, &AcceptHandler);
  StartLogging();
  auto service_main = std::async(std::launch::async, [] { VelmoraServiceMain(0, nullptr); });
  EXPECT_TRUE(test::PollUntil([&] {
    return test::ReadFileBytes(log_path()).find(GetParam().last_line) != std::string::npos;
  }));
  EXPECT_EQ(recorder_.LastState(), DWORD{SERVICE_START_PENDING});
  ServiceCtrlHandler(SERVICE_CONTROL_STOP);
  service_main.get();
  const SERVICE_STATUS& last = recorder_.reports().back().status;
  EXPECT_EQ(last.dwCurrentState, DWORD{SERVICE_STOPPED});
  EXPECT_EQ(last.dwWin32ExitCode, GetParam().result);
  EXPECT_NE(test::ReadFileBytes(log_path()).find("Service stopped"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(ServiceMain, FailedStartTest, ::testing::ValuesIn(kFailedStarts),
                         [](const auto& info) { return info.param.name; });

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
