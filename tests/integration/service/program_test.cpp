// What the modes log, with the log that only the service mode has set up by itself.
#include "service/program.h"

#include <atomic>
#include <cstring>
#include <future>
#include <vector>

#include "driver/driver_port.h"
#include "service/service_life.h"
#include "service/service_main.h"
#include "service/service_status.h"
#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/log_fixture.h"
#include "tests/integration/support/poll.h"
#include "tests/integration/support/rpc_runtime_hooks.h"
#include "tests/integration/support/service_world.h"

extern "C" {
extern void* __imp_RegGetValueW;
extern void* __imp_SetConsoleCtrlHandler;
}

namespace zel {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// Every install directory is C:\agent.
LSTATUS WINAPI AnswerInstallDirectory(HKEY, LPCWSTR, LPCWSTR, DWORD, LPDWORD, PVOID data,
                                      LPDWORD size) {
  constexpr wchar_t kDirectory[] = L"C:\\agent";
  std::memcpy(data, kDirectory, sizeof kDirectory);
  *size = sizeof kDirectory;
  return ERROR_SUCCESS;
}

std::atomic<PHANDLER_ROUTINE> installed_handler{nullptr};

BOOL WINAPI RecordHandler(PHANDLER_ROUTINE handler, BOOL add) {
  if (add) installed_handler = handler;
  return TRUE;
}

class ProgramTest : public test::LogFixture {
 protected:
  static void Run(std::vector<const wchar_t*> arguments) { RunProgram(arguments); }

  test::ImportHook registry_hook_{__imp_RegGetValueW, &AnswerInstallDirectory};
};

TEST_F(ProgramTest, UnknownSwitchExplainsTheOthers) {
  StartLogging();
  Run({L"zelservice", L"-x"});
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      ElementsAre("INFO  ZelService -install          to install the service",
                  "INFO  ZelService -remove           to remove the service",
                  "INFO  ZelService -debug <params>   to run as a console app for debugging"));
}

TEST_F(ProgramTest, DebugModeTellsTheCodeOfAStartThatFailed) {
  const test::ServiceWorld world;
  world.answers.privilege = ERROR_NOT_ALL_ASSIGNED;
  StartLogging();
  Run({L"zelservice", L"-debug"});
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  Debugging ZelService", "ERROR Unable to acquire SeBackupPrivilege",
                          "ERROR ZelServiceStart failed 1300"));
}

// The errors themselves go nowhere in debug mode: it has no log.
TEST_F(ProgramTest, DebugModeTellsStandardErrorWhyAStartFailed) {
  const test::ServiceWorld world;
  world.answers.privilege = ERROR_NOT_ALL_ASSIGNED;
  testing::internal::CaptureStderr();
  Run({L"zelservice", L"-debug"});
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::AllOf(StartsWith("ZelServiceStart failed 1300: "),
                             HasSubstr(" [ERROR_NOT_ALL_ASSIGNED]")));
}

TEST_F(ProgramTest, DebugModeStopsInOrderWhenTheRpcServerCannotBeSetUp) {
  const test::ServiceWorld world;
  const test::RpcRuntimeHooks runtime;
  test::RpcRuntimeHooks::Answer("authentication", RPC_S_UNKNOWN_AUTHN_SERVICE);
  StartLogging();
  testing::internal::CaptureStderr();
  Run({L"zelservice", L"-debug"});
  EXPECT_THAT(testing::internal::GetCapturedStderr(), StartsWith("ZelServiceStart failed 1747: "));
  EXPECT_FALSE(DriverPortConnected());
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      testing::IsSupersetOf(
          {testing::Matcher<std::string>(StartsWith("ERROR RpcServerRegisterAuthInfo failed: ")),
           testing::Matcher<std::string>("ERROR ZelServiceStart failed 1747"),
           testing::Matcher<std::string>("DEBUG Bitmap idle scanner thread exiting...")}));
}

TEST_F(ProgramTest, DebugModeStopsInOrderWithoutAnyProtocolSequence) {
  const test::ServiceWorld world;
  const test::RpcRuntimeHooks runtime;
  test::RpcRuntimeHooks::AnswerAllSequences(RPC_S_PROTSEQ_NOT_SUPPORTED);
  testing::internal::CaptureStderr();
  Run({L"zelservice", L"-debug"});
  EXPECT_THAT(testing::internal::GetCapturedStderr(), StartsWith("ZelServiceStart failed 1719: "));
  EXPECT_FALSE(DriverPortConnected());
}

TEST_F(ProgramTest, DebugModeThatIsStoppedDuringItsStartHasNotFailed) {
  const test::ServiceWorld world;
  StopService();
  testing::internal::CaptureStderr();
  Run({L"zelservice", L"-debug"});
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(ProgramTest, DebugModeRunsUntilItsConsoleHandlerStopsIt) {
  const test::ImportHook hook(__imp_SetConsoleCtrlHandler, &RecordHandler);
  const test::ServiceWorld world;
  StartLogging();
  auto program = std::async(std::launch::async, [] {
    Run({L"zelservice", L"-debug", L"/nodriver"});
  });
  ASSERT_TRUE(test::PollUntil([] { return installed_handler.load() != nullptr; }));
  EXPECT_EQ(installed_handler.load(), &ConsoleCtrlHandler);
  EXPECT_TRUE(DebugMode);
  installed_handler.load()(CTRL_C_EVENT);
  program.get();
  EXPECT_THAT(StopLoggingAndGetMessages(),
              testing::IsSupersetOf({"INFO  Debugging ZelService",
                                     "INFO  service running in driver ignore mode",
                                     "INFO  Stopping Velmora Activity Monitoring Service"}));
}

}  // namespace
}  // namespace zel
