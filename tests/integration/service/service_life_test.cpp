// The start in its order, with each of its failures, and the ways to stop what it started.
#include "service/service_life.h"

#include <algorithm>
#include <future>
#include <thread>
#include <vector>

#include "bitmap/bitmap_manager.h"
#include "driver/driver_port.h"
#include "driver/message_threads.h"
#include "service/service_main.h"
#include "service/service_status.h"
#include "tests/integration/support/bitmap_file.h"
#include "tests/integration/support/cbt_directory.h"
#include "tests/integration/support/cleanup_waits.h"
#include "tests/integration/support/log_fixture.h"
#include "tests/integration/support/poll.h"
#include "tests/integration/support/service_status_recorder.h"
#include "tests/integration/support/service_world.h"
#include "tracking/volume_list.h"
#include "win32/stop_requested.h"

extern "C" void* __imp_RegEnumValueW;

namespace zel {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::Not;

constexpr auto kLimit = std::chrono::seconds(30);

// ZelServiceStart on a thread of its own.
class StartedService {
 public:
  explicit StartedService(std::vector<const wchar_t*> arguments = {})
      : arguments_(std::move(arguments)) {}

  // The result of the start; 77 when it does not return.
  [[nodiscard]] std::uint32_t Result() {
    if (result_.wait_for(kLimit) == std::future_status::ready) return result_.get();
    ADD_FAILURE() << "ZelServiceStart has not returned";
    StopService();
    return 77;
  }

 private:
  std::vector<const wchar_t*> arguments_;
  std::future<std::uint32_t> result_ =
      std::async(std::launch::async, [this] { return ZelServiceStart(arguments_); });
};

class ZelServiceStartTest : public test::LogFixture {
 protected:
  ZelServiceStartTest() : install_directory_(directory().wstring()) {
    test::UseCbtDirectoryOf(install_directory_);
  }

  [[nodiscard]] bool ReachesRunning() const {
    return test::PollUntil([&] { return recorder_.LastState() == DWORD{SERVICE_RUNNING}; });
  }

  std::wstring install_directory_;
  test::ServiceWorld world_;
  test::ServiceStatusRecorder recorder_;
};

TEST_F(ZelServiceStartTest, StartsEverythingInItsOrder) {
  StartLogging("zelservicelog=info\n");
  StartedService service;
  ASSERT_TRUE(ReachesRunning());
  EXPECT_TRUE(DriverPortConnected());
  StopService();
  EXPECT_EQ(service.Result(), 0u);
  EXPECT_FALSE(DriverPortConnected());
  EXPECT_THAT(world_.calls(),
              ElementsAre("privilege", "driver service", "delete TrackedFiles",
                          "delete FileReliability", "list key", "port", "command 2", "command 1"));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  Starting bitmap idle scanner thread",
                          "INFO  InitBitmapManager: initializing cache",
                          HasSubstr("Mini-filter version 0.0.0.0 started at 1601-01-01"),
                          "INFO     Not started during boot; previous shutdown was dirty; no older "
                          "driver already loaded",
                          "INFO     0 messages loaded from disk on startup",
                          "INFO     0 messages vaulted", "INFO     0 messages sent from the vault",
                          "INFO     Messages loaded on startup status: Uninitialized",
                          "INFO     0 files pending to be marked unreliable",
                          "INFO  Synchronizing tracked files during startup",
                          "INFO  Completed synchronizing tracked files"));
}

TEST_F(ZelServiceStartTest, BitmapsInAnotherDirectoryThanAtTheLastStartAreOneWarning) {
  constexpr wchar_t kLast[] = L"\\\\?\\C:\\velmora";
  UniqueRegistryKey parameters;
  ASSERT_EQ(::RegCreateKeyW(HKEY_LOCAL_MACHINE, L"Parameters", parameters.put()), ERROR_SUCCESS);
  ASSERT_EQ(::RegSetValueExW(parameters.get(), L"BitmapDirectory", 0, REG_SZ,
                             reinterpret_cast<const BYTE*>(kLast), sizeof kLast),
            ERROR_SUCCESS);
  StartLogging("zelservicelog=warn\nzelservicelog:bitmap=none\nzelservicelog:drivercomm=none\n");
  StartedService service;
  ASSERT_TRUE(ReachesRunning());
  StopService();
  EXPECT_EQ(service.Result(), 0u);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(HasSubstr("were in \\\\?\\C:\\velmora at the last start")));
}

// Leaves a tracked file in the registry, as an earlier life of the service does.
void LeaveTrackedFile() {
  VolumeFileList list(test::kVolume);
  list.Set(L"C:\\data\\file", test::kFileId);
  UniqueRegistryKey key;
  ASSERT_EQ(::RegCreateKeyW(HKEY_LOCAL_MACHINE, L"Parameters\\TrackedFileList", key.put()),
            ERROR_SUCCESS);
  ASSERT_EQ(::RegSetValueExW(key.get(), test::kVolumeText, 0, REG_BINARY,
                             reinterpret_cast<const BYTE*>(list.value().data()),
                             static_cast<DWORD>(list.value().size())),
            ERROR_SUCCESS);
}

TEST_F(ZelServiceStartTest, DriverIsToldOfTheFilesThatAreTrackedAlready) {
  LeaveTrackedFile();
  StartedService service;
  ASSERT_TRUE(ReachesRunning());
  StopService();
  EXPECT_EQ(service.Result(), 0u);
  std::vector<std::string> commands = world_.calls();
  std::erase_if(commands, [](const std::string& call) { return !call.starts_with("command"); });
  EXPECT_THAT(commands, ElementsAre("command 2", "command 0", "command 1"));
}

TEST_F(ZelServiceStartTest, MissingPrivilegeEndsTheStartBeforeAnythingElse) {
  world_.answers.privilege = ERROR_NOT_ALL_ASSIGNED;
  StartLogging();
  EXPECT_EQ(ZelServiceStart({}), DWORD{ERROR_NOT_ALL_ASSIGNED});
  EXPECT_THAT(world_.calls(), ElementsAre("privilege"));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR Unable to acquire SeBackupPrivilege"));
}

TEST_F(ZelServiceStartTest, DriverServiceThatDoesNotStartEndsTheStart) {
  world_.answers.driver_service = ERROR_SERVICE_DISABLED;
  StartLogging();
  EXPECT_EQ(ZelServiceStart({}), DWORD{ERROR_SERVICE_DISABLED});
  EXPECT_THAT(world_.calls(), ElementsAre("privilege", "driver service"));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(EndsWith(" [ERROR_SERVICE_DISABLED]"),
                          "ERROR Cannot start Velmora Activity Monitor Driver, aborting service "
                          "start (1058)"));
}

TEST_F(ZelServiceStartTest, DeletedObsoleteKeysAreNamed) {
  world_.answers.obsolete_keys = ERROR_SUCCESS;
  world_.answers.connect = E_ACCESSDENIED;  // far enough
  StartLogging();
  EXPECT_NE(ZelServiceStart({}), 0u);
  const std::string parameters =
      "SYSTEM\\CurrentControlSet\\Services\\VelmoraActivityMonitor\\Parameters\\";
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      IsSupersetOf({"INFO  Deleted obsolete registry key: " + parameters + "TrackedFiles",
                    "INFO  Deleted obsolete registry key: " + parameters + "FileReliability"}));
}

TEST_F(ZelServiceStartTest, RefusedListKeyIsLoggedAndTheStartGoesOn) {
  world_.answers.list_key = ERROR_ACCESS_DENIED;
  StartLogging();
  StartedService service;
  ASSERT_TRUE(ReachesRunning());
  StopService();
  EXPECT_EQ(service.Result(), 0u);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              Contains("WARN  RegCreateKey SYSTEM\\CurrentControlSet\\Services\\"
                       "VelmoraActivityMonitor\\Parameters\\TrackedFileList failed: 5"));
}

TEST_F(ZelServiceStartTest, RefusedPortEndsTheStartAndWhatItStarted) {
  world_.answers.connect = E_ACCESSDENIED;
  StartLogging();
  EXPECT_EQ(ZelServiceStart({}), static_cast<DWORD>(E_ACCESSDENIED));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              IsSupersetOf({"ERROR FilterConnectCommunications Port failed",
                            "DEBUG Bitmap idle scanner thread exiting..."}));
}

TEST_F(ZelServiceStartTest, PortThatIsOpenAlreadyGives1247) {
  ASSERT_EQ(ConnectDriverPort(), S_OK);
  EXPECT_EQ(ZelServiceStart({}), DWORD{ERROR_ALREADY_INITIALIZED});
  StopDriverThreads();
}

TEST_F(ZelServiceStartTest, DriverThatTellsNoStatusEndsTheStartAndTheThreadsBeforeTheBitmaps) {
  world_.answers.status = E_FAIL;
  StartLogging();
  EXPECT_EQ(ZelServiceStart({}), static_cast<DWORD>(E_FAIL));
  EXPECT_FALSE(DriverPortConnected());
  const std::vector<std::string> messages = StopLoggingAndGetMessages();
  EXPECT_THAT(messages, Contains("ERROR FilterSendMessage failed: -2147467259 (0x80004005)"));
  const auto bitmaps_end =
      std::find(messages.begin(), messages.end(), "DEBUG Bitmap idle scanner thread exiting...");
  EXPECT_NE(bitmaps_end, messages.end());
  EXPECT_EQ(std::count(messages.begin(), bitmaps_end, "DEBUG Service thread shutdown"), 4);
}

TEST_F(ZelServiceStartTest, StopThatComesBeforeTheStartIsNotLost) {
  StopService();
  StartedService service;
  EXPECT_EQ(service.Result(), 0u);
  EXPECT_FALSE(DriverPortConnected());
  WaitForServiceStopped();
}

TEST_F(ZelServiceStartTest, ManyStopsAtOnceLeaveTheServiceStopped) {
  StartedService service;
  ASSERT_TRUE(ReachesRunning());
  {
    std::vector<std::jthread> stoppers;
    for (int i = 0; i < 8; ++i) {
      stoppers.emplace_back([] {
        for (int j = 0; j < 100; ++j) StopService();
      });
    }
  }
  EXPECT_EQ(service.Result(), 0u);
  WaitForServiceStopped();
  WaitForRunningStops();
}

TEST_F(ZelServiceStartTest, RunningStopsNeedNotBeWaitedForWhenThereAreNone) {
  WaitForRunningStops();
}

TEST_F(ZelServiceStartTest, StopAndShutdownControlsStopItAndOthersDoNot) {
  StartedService service;
  ASSERT_TRUE(ReachesRunning());
  for (const DWORD control : {SERVICE_CONTROL_PAUSE, SERVICE_CONTROL_CONTINUE,
                              SERVICE_CONTROL_INTERROGATE, SERVICE_CONTROL_PRESHUTDOWN, 0}) {
    ServiceCtrlHandler(control);
  }
  EXPECT_FALSE(StopRequested);
  ServiceCtrlHandler(SERVICE_CONTROL_SHUTDOWN);
  EXPECT_EQ(service.Result(), 0u);
}

TEST_F(ZelServiceStartTest, CtrlCStopsItAndSaysSo) {
  StartLogging();
  StartedService service;
  ASSERT_TRUE(ReachesRunning());
  EXPECT_TRUE(ConsoleCtrlHandler(CTRL_C_EVENT));
  EXPECT_EQ(service.Result(), 0u);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              Contains("INFO  Stopping Velmora Activity Monitoring Service"));
}

TEST_F(ZelServiceStartTest, CtrlBreakStopsItAndSaysSo) {
  StartLogging();
  StartedService service;
  ASSERT_TRUE(ReachesRunning());
  EXPECT_TRUE(ConsoleCtrlHandler(CTRL_BREAK_EVENT));
  EXPECT_EQ(service.Result(), 0u);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              Contains("INFO  Stopping Velmora Activity Monitoring Service"));
}

TEST_F(ZelServiceStartTest, OtherConsoleControlsAreLeftToOthers) {
  StartLogging();
  for (const DWORD type : {CTRL_CLOSE_EVENT, CTRL_LOGOFF_EVENT, CTRL_SHUTDOWN_EVENT, 3, 4}) {
    EXPECT_FALSE(ConsoleCtrlHandler(type)) << type;
  }
  EXPECT_FALSE(StopRequested);
  EXPECT_THAT(StopLoggingAndGetMessages(), IsEmpty());
}

TEST_F(ZelServiceStartTest, DriverIsIgnoredInDebugModeWithItsSwitch) {
  DebugMode = true;
  StartLogging();
  StopService();
  EXPECT_EQ(ZelServiceStart(std::vector<const wchar_t*>{L"zelservice", L"-debug", L"-nodriver"}),
            0u);
  EXPECT_THAT(world_.calls(), Not(Contains("port")));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              IsSupersetOf({"INFO  service running in driver ignore mode",
                            "INFO  Completed synchronizing tracked files"}));
}

TEST_F(ZelServiceStartTest, DriverIsNotIgnoredWithOneArgumentMore) {
  DebugMode = true;
  world_.answers.connect = E_ACCESSDENIED;
  const std::vector<const wchar_t*> arguments = {L"zelservice", L"-debug", L"x", L"-nodriver"};
  EXPECT_EQ(ZelServiceStart(arguments), static_cast<DWORD>(E_ACCESSDENIED));
  EXPECT_THAT(world_.calls(), Contains("port"));
}

TEST_F(ZelServiceStartTest, DriverIsNotIgnoredByTheService) {
  world_.answers.connect = E_ACCESSDENIED;
  const std::vector<const wchar_t*> arguments = {L"zelservice", L"-debug", L"-nodriver"};
  EXPECT_EQ(ZelServiceStart(arguments), static_cast<DWORD>(E_ACCESSDENIED));
  EXPECT_THAT(world_.calls(), Contains("port"));
}

TEST_F(ZelServiceStartTest, DeletionOfAFilesLastBitmapWakesTheCleanup) {
  const test::CleanupWaits waits;
  StartedService service;
  ASSERT_TRUE(ReachesRunning());
  ASSERT_TRUE(waits.PassesReach(1));
  AddBitmap({}, 1, 2, L"C:\\gone", 0);
  DiscardBitmapsOfFile({{}, 1});
  EXPECT_TRUE(waits.PassesReach(2));
  StopService();
  EXPECT_EQ(service.Result(), 0u);
}

LSTATUS WINAPI FailToEnumerate(HKEY, DWORD, wchar_t*, DWORD*, DWORD*, DWORD*, BYTE*, DWORD*) {
  return ERROR_NO_SYSTEM_RESOURCES;
}

// Files that could not be read would be taken for untracked.
TEST_F(ZelServiceStartTest, WithAListThatCannotBeReadToItsEndNothingIsCleanedUp) {
  const auto bitmap =
      directory() / "cbt" / "00000001-89ab-cdef-0123-456789abcdef" / "00000000000000ab" / "bitmap";
  test::WriteFileBytes(bitmap, "bits");
  const test::ImportHook hook(__imp_RegEnumValueW, &FailToEnumerate);
  const test::CleanupWaits waits;
  StartedService service;
  ASSERT_TRUE(ReachesRunning());
  StopService();
  EXPECT_EQ(service.Result(), 0u);
  EXPECT_EQ(waits.passes, 0);
  EXPECT_TRUE(std::filesystem::exists(bitmap));
}

}  // namespace
}  // namespace zel
