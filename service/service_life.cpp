#include "service/service_life.h"

#include <windows.h>

#include <vector>

#include "bitmap/bitmap_manager.h"
#include "driver/driver_port.h"
#include "driver/driver_status_report.h"
#include "driver/message_threads.h"
#include "driver/synchronize.h"
#include "files/install_directory.h"
#include "files/own_rights.h"
#include "logging/log_message.h"
#include "rpc/rpc_server.h"
#include "service/backup_privilege.h"
#include "service/install.h"
#include "service/service_status.h"
#include "tracking/tracked_file_table.h"
#include "tracking/untracked_cleanup.h"
#include "win32/critical_section.h"
#include "win32/file_time.h"
#include "win32/process_event.h"
#include "win32/stop_requested.h"

namespace zel {

namespace {

// The lock makes one step of the counter and the event: with the two apart, a stop that has just
// counted itself out could set the event that a new stop has just cleared.
CriticalSection stopLock;
std::uint32_t stopsInProgress ZEL_GUARDED_BY(stopLock) = 0;
ProcessEvent serviceStoppedEvent(ProcessEvent::Initially::kClear);  // changed under stopLock

// Clear while the RPC server runs.
ProcessEvent rpcServerEndedEvent(ProcessEvent::Initially::kSet);

void BeginStop() ZEL_EXCLUDES(stopLock) {
  const LockGuard guard(stopLock);
  serviceStoppedEvent.Clear();
  ++stopsInProgress;
}

void EndStop() ZEL_EXCLUDES(stopLock) {
  const LockGuard guard(stopLock);
  if (--stopsInProgress == 0) serviceStoppedEvent.Set();
}

bool StopIsRunning() ZEL_EXCLUDES(stopLock) {
  const LockGuard guard(stopLock);
  return stopsInProgress != 0;
}

std::uint32_t StartDriverService() {
  const std::uint32_t result = VelmoraStartDriver();
  if (result != 0) {
    LogMessage(kGeneralError,
               L"Cannot start Velmora Activity Monitor Driver, aborting service start (%d)\n",
               result);
  }
  return result;
}

// Connects to the driver, starts the message threads and reports the driver's status.
std::uint32_t StartDriverSide() {
  if (DriverPortConnected()) return ERROR_ALREADY_INITIALIZED;
  if (const HRESULT result = ConnectDriverPort(); result != 0) return result;
  if (const std::uint32_t result = StartDriverThreads(); result != 0) return result;
  return LogDriverStatus();
}

// Tells the driver of the list again: a process that died after it had changed the list may not
// have. The next start of tracking would find such a file tracked and not tell the driver either.
void AnnounceTrackedFiles() {
  std::vector<TrackedFileEntry> files;
  CollectTrackedFiles(files);
  if (!files.empty()) NotifyDriverOfTrackingChanges();
}

void SynchronizeWithDriver() {
  LogMessage(kGeneralInfo, L"Synchronizing tracked files during startup\n");
  static_cast<void>(Synchronize(SystemTimeNow()));  // best effort; failures are logged
  LogMessage(kGeneralInfo, L"Completed synchronizing tracked files\n");
}

// Whoever sets bits ends before the bitmaps are let go of.
void StopParts() {
  StopDriverThreads();
  ShutdownBitmapManager();
  ShutdownTrackedFiles();
}

// The report of the RPC server's steps as the service's own.
bool ReportRpcServer(RpcServerStep step, std::uint32_t status) {
  constexpr std::uint32_t kStepHintMs = 3000;
  switch (step) {
    case RpcServerStep::kStarting:
      return ReportServiceStatus(SERVICE_START_PENDING, NO_ERROR, kStepHintMs);
    case RpcServerStep::kListening:
      return ReportServiceStatus(SERVICE_RUNNING, NO_ERROR, 0);
    default:
      return ReportServiceStatus(SERVICE_STOPPED, status, 0);
  }
}

std::uint32_t Serve() {
  rpcServerEndedEvent.Clear();
  const std::uint32_t status = RunRpcServer(ReportRpcServer);
  rpcServerEndedEvent.Set();
  return status;
}

}  // namespace

std::uint32_t ZelServiceStart(Arguments arguments) {
  const bool ignores_driver = DebugMode && AsksForNoDriver(arguments);
  if (ignores_driver) LogMessage(kGeneralInfo, L"service running in driver ignore mode\n");
  if (const std::uint32_t result = AcquireBackupPrivilege(); result != 0) return result;
  if (const std::uint32_t result = StartDriverService(); result != 0) return result;
  DeleteObsoleteRegistryKeys();
  // Before anybody lists, makes or deletes anything in it.
  if (const std::uint32_t result = TakeOverCbtDirectory(GetCbtDirectory()); result != 0) {
    return result;
  }
  StartTrackedFiles();
  WhenFileHasNoBitmapsLeft(WakeCleanup);
  InitBitmapManager();
  if (!ignores_driver) {
    if (const std::uint32_t result = StartDriverSide(); result != 0) {
      StopParts();
      return StopRequested ? 0 : result;  // a stop is no failure
    }
    AnnounceTrackedFiles();
  }
  SynchronizeWithDriver();
  // A stop that came before this line found only a part of all this standing.
  if (StopRequested) {
    StopService();
    return 0;
  }
  const std::uint32_t rpc_status = Serve();
  // The service manager has heard of a failure by the report; in a console nobody has.
  return DebugMode ? rpc_status : 0;
}

void StopService() {
  BeginStop();
  StopRequested = true;
  StopRpcServer();
  StopParts();
  EndStop();
}

bool WaitForRpcServerEnd(std::uint32_t timeout_ms) {
  return rpcServerEndedEvent.WaitFor(timeout_ms);
}

void WaitForServiceStopped() {
  serviceStoppedEvent.Wait();
}

void WaitForRunningStops() {
  if (StopIsRunning()) serviceStoppedEvent.Wait();
}

}  // namespace zel
