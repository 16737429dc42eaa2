// Every way in which the service's run under the service manager ends: the whole program between a
// hooked manager, a hooked RPC runtime and a world that can be made to fail.
#include <algorithm>
#include <functional>
#include <string_view>
#include <thread>

#include "driver/driver_port.h"
#include "service/program.h"
#include "service/service_main.h"
#include "tests/integration/support/cbt_directory.h"
#include "tests/integration/support/log_fixture.h"
#include "tests/integration/support/poll.h"
#include "tests/integration/support/rpc_runtime_hooks.h"
#include "tests/integration/support/service_status_recorder.h"
#include "tests/integration/support/service_world.h"

extern "C" {
extern void* __imp_RegisterServiceCtrlHandlerW;
extern void* __imp_StartServiceCtrlDispatcherW;
extern void* __imp_TerminateProcess;
extern void* __imp__beginthreadex;
}

namespace zel {
namespace {

using test::RpcRuntimeHooks;
using test::ServiceStatusRecorder;
using test::ServiceWorld;

SERVICE_STATUS_HANDLE WINAPI AcceptHandler(LPCWSTR, LPHANDLER_FUNCTION) {
  return reinterpret_cast<SERVICE_STATUS_HANDLE>(0x5A);
}

// As the system's: runs the service main on a thread of its own, and returns when the stopped state
// has been reported.
std::jthread service_main_thread;
BOOL WINAPI Dispatch(const SERVICE_TABLE_ENTRYW* services) {
  service_main_thread = std::jthread([entry = services[0].lpServiceProc] { entry(0, nullptr); });
  return test::PollUntil([] { return ServiceStatusRecorder::LastState() == SERVICE_STOPPED; },
                         60'000);
}

decltype(&::_beginthreadex) real_begin_thread = nullptr;

// Nobody gets a thread once the driver's port is open: these are the message threads.
uintptr_t BeginNoMessageThread(void* security, unsigned stack, unsigned(__stdcall* start)(void*),
                               void* argument, unsigned flags, unsigned* id) {
  if (DriverPortConnected()) {
    ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
  return real_begin_thread(security, stack, start, argument, flags, id);
}

// The server ends when the process would, as with a client that keeps its call.
HANDLE process_ends = nullptr;
BOOL WINAPI EndProcess(HANDLE process, UINT code) {
  EXPECT_EQ(process, ::GetCurrentProcess());
  EXPECT_EQ(code, 0u);
  return ::SetEvent(process_ends);
}
void KeepACall() {
  static const test::ImportHook hook(__imp_TerminateProcess, &EndProcess);
  process_ends = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  RpcRuntimeHooks::on_wait = [] {
    EXPECT_EQ(::WaitForSingleObject(process_ends, 60'000), WAIT_OBJECT_0);
  };
}

struct Ending {
  const char* name;
  std::function<void()> arrange;
  // What the log says before a control comes; null when the service ends by itself.
  const char* awaited;
  DWORD control;
  DWORD exit_code;
  const char* error;  // the log's only error, which it begins with; null for none
};

void PrintTo(const Ending& ending, std::ostream* out) {
  *out << ending.name;
}

constexpr char kWaitsForItsStop[] = "stays start-pending until it is stopped: ";
constexpr char kRuns[] = "Completed synchronizing tracked files";

Ending PendingStart(const char* name, std::function<void()> arrange, DWORD code,
                    const char* error) {
  return {name, std::move(arrange), kWaitsForItsStop, SERVICE_CONTROL_STOP, code, error};
}

Ending FailedStep(const char* name, const char* call, const char* error) {
  return {name,
          [call] { RpcRuntimeHooks::Answer(call, RPC_S_OUT_OF_RESOURCES); },
          nullptr,
          0,
          RPC_S_OUT_OF_RESOURCES,
          error};
}

const Ending kEndings[] = {
    PendingStart(
        "NoPrivilege", [] { ServiceWorld::answers.privilege = ERROR_NOT_ALL_ASSIGNED; },
        ERROR_NOT_ALL_ASSIGNED, "Unable to acquire SeBackupPrivilege"),
    PendingStart(
        "NoDriverService", [] { ServiceWorld::answers.driver_service = ERROR_SERVICE_DISABLED; },
        ERROR_SERVICE_DISABLED, "VelmoraStartDriver: StartService failed: "),
    PendingStart(
        "PortAlreadyOpen", [] { EXPECT_EQ(ConnectDriverPort(), S_OK); }, ERROR_ALREADY_INITIALIZED,
        nullptr),
    PendingStart(
        "RefusedPort", [] { ServiceWorld::answers.connect = E_ACCESSDENIED; },
        static_cast<DWORD>(E_ACCESSDENIED), "FilterConnectCommunications Port failed"),
    PendingStart(
        "NoMessageThread",
        [] {
          static const test::ImportHook hook(__imp__beginthreadex, &BeginNoMessageThread);
          real_begin_thread = reinterpret_cast<decltype(real_begin_thread)>(hook.original());
        },
        ERROR_NOT_ENOUGH_MEMORY, "CreateThread failed 8"),
    PendingStart(
        "NoDriverStatus", [] { ServiceWorld::answers.status = E_FAIL; }, static_cast<DWORD>(E_FAIL),
        "FilterSendMessage failed: -2147467259"),
    {"NoProtocolSequence", [] { RpcRuntimeHooks::AnswerAllSequences(RPC_S_PROTSEQ_NOT_SUPPORTED); },
     "no protocols registered", SERVICE_CONTROL_STOP, NO_ERROR, "no protocols registered"},
    {"RefusedReport", [] { ServiceStatusRecorder::Refuse(2); }, "SetServiceStatus(2, 0, 3000)",
     SERVICE_CONTROL_STOP, NO_ERROR, "SetServiceStatus(2, 0, 3000) failed: "},
    FailedStep("NoInterface", "register", "RpcServerRegisterIf failed: "),
    FailedStep("NoBindings", "bindings", "RpcServerInqBindings failed: "),
    FailedStep("NoEndpoints", "publish", "RpcEpRegister failed: "),
    FailedStep("NoAuthentication", "authentication", "RpcServerRegisterAuthInfo failed: "),
    FailedStep("NoListening", "listen", "RpcServerListen failed: "),
    FailedStep("FailedWait", "wait", "RpcMgmtWaitServerListen failed: "),
    FailedStep("EndpointsThatStay", "withdraw", "RpcEpUnregister failed: "),
    {"StopControl", [] {}, kRuns, SERVICE_CONTROL_STOP, NO_ERROR, nullptr},
    {"ShutdownControl", [] {}, kRuns, SERVICE_CONTROL_SHUTDOWN, NO_ERROR, nullptr},
    {"ClientThatKeepsItsCall", KeepACall, kRuns, SERVICE_CONTROL_STOP, NO_ERROR, nullptr},
    {"StopBeforeTheStart", [] { ServiceCtrlHandler(SERVICE_CONTROL_STOP); }, nullptr, 0, NO_ERROR,
     nullptr},
};

// The log takes some seconds to be written out.
class ServiceEndTest : public test::LogFixture, public ::testing::WithParamInterface<Ending> {
 protected:
  ServiceEndTest() : install_directory_(directory().wstring()) {
    test::UseCbtDirectoryOf(install_directory_);
    test::WriteFileBytes(config_path(), test::kEverythingOn);
    std::filesystem::create_directories(log_path().parent_path());
    GetParam().arrange();
  }

  std::string Log() const { return test::ReadFileBytes(log_path()); }

  // The messages of the lines at ERROR. A line that lacks its end is cut before the next one.
  std::vector<std::string> Errors() const {
    std::vector<std::string> errors;
    const std::string log = Log();
    for (std::size_t at = 0; (at = log.find(" ERROR [", at)) != std::string::npos; ++at) {
      const std::size_t message = log.find("] ", at) + 2;
      errors.push_back(log.substr(message, log.find("\r\n", message) - message));
    }
    return errors;
  }

  std::wstring install_directory_;
  ServiceWorld world_;
  ServiceStatusRecorder recorder_;
  RpcRuntimeHooks runtime_;
  test::ImportHook registry_{__imp_RegGetValueW, &test::AnswerInstallDirectory};
  test::ImportHook handler_{__imp_RegisterServiceCtrlHandlerW, &AcceptHandler};
  test::ImportHook dispatcher_{__imp_StartServiceCtrlDispatcherW, &Dispatch};
};

TEST_P(ServiceEndTest, StoppedIsReportedOnceWithTheFirstCode) {
  const Ending& ending = GetParam();
  std::jthread program([] {
    const wchar_t* const arguments[] = {L"zelservice"};
    RunProgram(arguments);
  });
  if (ending.awaited != nullptr) {
    EXPECT_TRUE(
        test::PollUntil([&] { return Log().find(ending.awaited) != std::string::npos; }, 30'000));
    EXPECT_NE(ServiceStatusRecorder::LastState(), DWORD{SERVICE_STOPPED});
    ServiceCtrlHandler(ending.control);
  }
  program.join();
  service_main_thread.join();

  const auto& reports = ServiceStatusRecorder::reports();
  const auto is_stopped = [](const auto& report) {
    return report.status.dwCurrentState == SERVICE_STOPPED;
  };
  EXPECT_EQ(std::count_if(reports.begin(), reports.end(), is_stopped), 1);
  EXPECT_EQ(reports.back().status.dwCurrentState, DWORD{SERVICE_STOPPED});
  EXPECT_EQ(reports.back().status.dwWin32ExitCode, ending.exit_code);

  EXPECT_FALSE(DriverPortConnected());
  EXPECT_TRUE(Log().ends_with("Service stopped\r\n"));
  EXPECT_EQ(
      Log().find("A client keeps its call although the service has stopped: ") != std::string::npos,
      std::string_view(ending.name) == "ClientThatKeepsItsCall");
  const std::vector<std::string> errors = Errors();
  if (ending.error == nullptr) {
    EXPECT_THAT(errors, ::testing::IsEmpty());
  } else {
    ASSERT_FALSE(errors.empty());
    EXPECT_THAT(errors.front(), ::testing::StartsWith(ending.error));
    // The driver's service has two texts.
    EXPECT_EQ(errors.size(), std::string_view(ending.name) == "NoDriverService" ? 2u : 1u);
  }
}

INSTANTIATE_TEST_SUITE_P(Service, ServiceEndTest, ::testing::ValuesIn(kEndings),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace zel
