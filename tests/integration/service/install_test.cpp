// Installing and removing, with the log that the program itself does not have then.
#include "service/install.h"

#include <functional>

#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/service_manager_fixture.h"

extern "C" {
extern void* __imp_DeleteService;
extern void* __imp_GetModuleFileNameW;
extern void* __imp_OpenSCManagerW;
extern void* __imp_RegCloseKey;
extern void* __imp_RegSetValueExW;
extern void* __imp_Sleep;
}

namespace zel {
namespace {

using test::ImportHook;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr wchar_t kDriverKey[] = L"SYSTEM\\CurrentControlSet\\Services\\VelmoraActivityMonitor";

// A system's error text differs between systems; its name does not.
auto Failure(const std::string& start, const std::string& error_name) {
  return AllOf(StartsWith("ERROR " + start), EndsWith(" [" + error_name + "]"));
}

SC_HANDLE WINAPI RefuseManager(LPCWSTR, LPCWSTR, DWORD) {
  ::SetLastError(ERROR_ACCESS_DENIED);
  return nullptr;
}

BOOL WINAPI RefuseDelete(SC_HANDLE) {
  ::SetLastError(ERROR_ACCESS_DENIED);
  return FALSE;
}

DWORD WINAPI RefuseModuleFileName(HMODULE, LPWSTR, DWORD) {
  ::SetLastError(ERROR_ACCESS_DENIED);
  return 0;
}

DWORD WINAPI TooLongModuleFileName(HMODULE, LPWSTR, DWORD size) {
  ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
  return size;
}

LSTATUS WINAPI RefuseSetValue(HKEY, LPCWSTR, DWORD, DWORD, const BYTE*, DWORD) {
  return ERROR_WRITE_PROTECT;
}

LSTATUS WINAPI RefuseCloseKey(HKEY) {
  return ERROR_INVALID_HANDLE;
}

// Stands for the waits of a second, which then do not last; a poll's short ones do.
std::function<void()> during_wait;
int waits = 0;

void WINAPI RecordWait(DWORD ms) {
  if (ms < 1000) {
    ::SleepEx(ms, FALSE);
    return;
  }
  ++waits;
  if (during_wait) during_wait();
}

class InstallTest : public test::ServiceManagerFixture {
 protected:
  InstallTest() {
    during_wait = nullptr;
    waits = 0;
  }

  ImportHook sleep_hook_{__imp_Sleep, &RecordWait};
};

TEST_F(InstallTest, SaysThatItInstalledAndThatThereIsNoDriver) {
  InstallService();
  EXPECT_TRUE(Exists(kServiceName));
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      ElementsAre("INFO  Velmora Activity Monitoring Service installed.",
                  "ERROR VelmoraUpdateDriverinstallation: unable to open driver service key (2)"));
}

TEST_F(InstallTest, MakesTheDriverABootDriverAndSaysNothingOfIt) {
  const UniqueServiceHandle driver = CreateDummy(kDriverServiceName);
  InstallService();
  DWORD start = 77;
  DWORD size = sizeof start;
  EXPECT_EQ(::RegGetValueW(HKEY_LOCAL_MACHINE, kDriverKey, L"Start", RRF_RT_REG_DWORD, nullptr,
                           &start, &size),
            ERROR_SUCCESS);
  EXPECT_EQ(start, 0u);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  Velmora Activity Monitoring Service installed."));
}

TEST_F(InstallTest, SecondTimeFailsForTheServiceAndGoesOnToTheDriver) {
  InstallService();
  const UniqueServiceHandle driver = CreateDummy(kDriverServiceName);
  InstallService();
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      ElementsAre("INFO  Velmora Activity Monitoring Service installed.",
                  "ERROR VelmoraUpdateDriverinstallation: unable to open driver service key (2)",
                  Failure("CreateService failed: ", "ERROR_SERVICE_EXISTS")));
}

TEST_F(InstallTest, WithoutAManagerStillGoesOnToTheDriver) {
  const ImportHook hook(__imp_OpenSCManagerW, &RefuseManager);
  InstallService();
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      ElementsAre(Failure("OpenSCManager failed: ", "ERROR_ACCESS_DENIED"),
                  "ERROR VelmoraUpdateDriverinstallation: unable to open driver service key (2)"));
}

TEST_F(InstallTest, WithoutTheProgramsPathDoesNothing) {
  {
    const ImportHook hook(__imp_GetModuleFileNameW, &RefuseModuleFileName);
    InstallService();
  }
  {
    const ImportHook hook(__imp_GetModuleFileNameW, &TooLongModuleFileName);
    InstallService();
  }
  EXPECT_FALSE(Exists(kServiceName));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(Failure("Unable to install ZelService: ", "ERROR_ACCESS_DENIED"),
                          Failure("Unable to install ZelService: ", "ERROR_INSUFFICIENT_BUFFER")));
}

TEST_F(InstallTest, DriverKeyThatRefusesItsValueAndItsClosingIsLoggedTwice) {
  const UniqueServiceHandle driver = CreateDummy(kDriverServiceName);
  {
    const ImportHook set_hook(__imp_RegSetValueExW, &RefuseSetValue);
    const ImportHook close_hook(__imp_RegCloseKey, &RefuseCloseKey);
    InstallService();
  }
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      ElementsAre("INFO  Velmora Activity Monitoring Service installed.",
                  "ERROR VelmoraUpdateDriverinstallation: unable to update driver start value (19)",
                  "ERROR VelmoraUpdateDriverInstallation: unable to close driver service key (6)"));
}

using UniqueProcess = UniqueResource<KernelObjectTraits>;

class RemoveTest : public InstallTest {
 protected:
  // Lets a stubborn or slow dummy service stop when it is set.
  static UniqueEvent CreateMayStopEvent() {
    return UniqueEvent(::CreateEventW(nullptr, TRUE, FALSE, L"Global\\zel_dummy_service_may_stop"));
  }

  static UniqueProcess OpenProcessOf(SC_HANDLE service) {
    SERVICE_STATUS_PROCESS status = {};
    DWORD size = 0;
    EXPECT_TRUE(::QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO,
                                       reinterpret_cast<BYTE*>(&status), sizeof status, &size));
    return UniqueProcess(::OpenProcess(SYNCHRONIZE, FALSE, status.dwProcessId));
  }
};

TEST_F(RemoveTest, StoppedServicesAreDeletedWithoutAWordOnStopping) {
  CreateDummy(kServiceName).reset();
  CreateDummy(kDriverServiceName).reset();
  RemoveService();
  EXPECT_FALSE(Exists(kServiceName));
  EXPECT_FALSE(Exists(kDriverServiceName));
  EXPECT_EQ(waits, 0);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  Velmora Activity Monitoring Service removed"));
}

TEST_F(RemoveTest, RunningServiceIsStoppedFirst) {
  const UniqueServiceHandle service = StartDummy(kServiceName);
  during_wait = [&] { EXPECT_TRUE(WaitForState(service.get(), SERVICE_STOPPED)); };
  RemoveService();
  EXPECT_EQ(waits, 1);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  Stopping Velmora Activity Monitoring Service",
                          "INFO  Velmora Activity Monitoring Service stopped",
                          "INFO  Velmora Activity Monitoring Service removed",
                          Failure("OpenService(VelmoraActivityMonitor) failed: ",
                                  "ERROR_SERVICE_DOES_NOT_EXIST")));
}

TEST_F(RemoveTest, StoppingServiceIsAskedEverySecondUntilItHasStopped) {
  const UniqueServiceHandle service = StartDummy(kServiceName, L"slow");
  const UniqueEvent may_stop = CreateMayStopEvent();
  during_wait = [&] {
    if (waits == 4) ::SetEvent(may_stop.get());
    EXPECT_TRUE(WaitForState(service.get(), waits < 4 ? SERVICE_STOP_PENDING : SERVICE_STOPPED));
  };
  RemoveService();
  EXPECT_EQ(waits, 4);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  Stopping Velmora Activity Monitoring Service",
                          "INFO  Velmora Activity Monitoring Service stopped",
                          "INFO  Velmora Activity Monitoring Service removed", testing::_));
}

TEST_F(RemoveTest, ServiceThatDoesNotStopIsDeletedAllTheSame) {
  const UniqueServiceHandle service = StartDummy(kServiceName, L"stubborn");
  const UniqueEvent may_stop = CreateMayStopEvent();
  const UniqueProcess process = OpenProcessOf(service.get());
  RemoveService();
  EXPECT_EQ(waits, 1);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  Stopping Velmora Activity Monitoring Service",
                          "ERROR Velmora Activity Monitoring Service failed to stop",
                          "INFO  Velmora Activity Monitoring Service removed", testing::_));
  ::SetEvent(may_stop.get());
  EXPECT_EQ(::WaitForSingleObject(process.get(), 20'000), WAIT_OBJECT_0);
}

TEST_F(RemoveTest, NothingInstalledIsLoggedForBothServices) {
  RemoveService();
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      ElementsAre(
          Failure("OpenService(ZelService) failed: ", "ERROR_SERVICE_DOES_NOT_EXIST"),
          Failure("OpenService(VelmoraActivityMonitor) failed: ", "ERROR_SERVICE_DOES_NOT_EXIST")));
}

TEST_F(RemoveTest, WithoutAManagerBothStepsSaySo) {
  const ImportHook hook(__imp_OpenSCManagerW, &RefuseManager);
  RemoveService();
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(Failure("OpenSCManager failed: ", "ERROR_ACCESS_DENIED"),
                          Failure("OpenSCManager failed: ", "ERROR_ACCESS_DENIED")));
}

TEST_F(RemoveTest, FailedDeletionNamesTheServiceByItsDisplayNameAndTheDriverByItsName) {
  CreateDummy(kServiceName).reset();
  CreateDummy(kDriverServiceName).reset();
  {
    const ImportHook hook(__imp_DeleteService, &RefuseDelete);
    RemoveService();
  }
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(Failure("DeleteService(Velmora Activity Monitoring Service) failed: ",
                                  "ERROR_ACCESS_DENIED"),
                          Failure("DeleteService(VelmoraActivityMonitor) failed: ",
                                  "ERROR_ACCESS_DENIED")));
}

class VelmoraStartDriverTest : public InstallTest {};

TEST_F(VelmoraStartDriverTest, StartsTheDriverAndIsContentWhenItRunsAlready) {
  const UniqueServiceHandle driver = CreateDummy(kDriverServiceName);
  EXPECT_EQ(VelmoraStartDriver(), 0u);
  EXPECT_TRUE(WaitForState(driver.get(), SERVICE_RUNNING));
  EXPECT_EQ(VelmoraStartDriver(), 0u);
  EXPECT_THAT(StopLoggingAndGetMessages(), IsEmpty());
}

TEST_F(VelmoraStartDriverTest, NoDriverServiceIsLogged) {
  EXPECT_EQ(VelmoraStartDriver(), DWORD{ERROR_SERVICE_DOES_NOT_EXIST});
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(Failure("VelmoraStartDriver: OpenService failed: ",
                                  "ERROR_SERVICE_DOES_NOT_EXIST")));
}

TEST_F(VelmoraStartDriverTest, DriverThatCannotBeStartedIsLogged) {
  const UniqueServiceHandle driver = Create(kDriverServiceName, L"no_such_program.exe");
  EXPECT_EQ(VelmoraStartDriver(), DWORD{ERROR_FILE_NOT_FOUND});
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      ElementsAre(Failure("VelmoraStartDriver: StartService failed: ", "ERROR_FILE_NOT_FOUND")));
}

TEST_F(VelmoraStartDriverTest, NoManagerIsLogged) {
  const ImportHook hook(__imp_OpenSCManagerW, &RefuseManager);
  EXPECT_EQ(VelmoraStartDriver(), DWORD{ERROR_ACCESS_DENIED});
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(Failure("VelmoraStartDriver: could not connect to SCM: ",
                                  "ERROR_ACCESS_DENIED")));
}

}  // namespace
}  // namespace zel
