#include "driver/driver_status_report.h"

#include "driver/driver_port.h"
#include "driver/driver_protocol.h"
#include "logging/log_message.h"

namespace zel {

namespace {

// In the machine's current time zone, with the offset that it had then. All zeros for a time that
// has no date.
SYSTEMTIME LocalTime(FileTime time) {
  const FILETIME file_time = {static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
  SYSTEMTIME utc = {};
  SYSTEMTIME local = {};
  if (!::FileTimeToSystemTime(&file_time, &utc) ||
      !::SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local)) {
    return {};
  }
  return local;
}

void LogVersion(const DriverStatus& status) {
  const SYSTEMTIME start = LocalTime(status.StartTime);
  LogMessage(kGeneralInfo,
             L"Mini-filter version %hu.%hu.%hu.%hu started at "
             L"%04hu-%02hu-%02hu %02hu:%02hu:%02hu.%03hu\n",
             status.Version[0], status.Version[1], status.Version[2], status.Version[3],
             start.wYear, start.wMonth, start.wDay, start.wHour, start.wMinute, start.wSecond,
             start.wMilliseconds);
}

}  // namespace

HRESULT LogDriverStatus() {
  DriverStatusBytes reply = {};
  const HRESULT result = SendDriverCommand(DriverCommand::kQueryStatus, reply);
  if (result != S_OK) return result;
  const DriverStatus status = ParseDriverStatus(reply);
  LogVersion(status);
  LogMessage(kGeneralInfo,
             L"   %s during boot; previous shutdown was %s; %solder driver already loaded\n",
             status.StartedDuringBoot != 0 ? L"Started" : L"Not started",
             status.PreviousShutdownClean != 0 ? L"clean" : L"dirty",
             status.OlderDriverLoaded != 0 ? L"" : L"no ");
  LogMessage(kGeneralInfo, L"   %lu messages loaded from disk on startup\n",
             status.MessagesLoadedFromDisk);
  LogMessage(kGeneralInfo, L"   %I64u messages vaulted\n", status.MessagesVaulted);
  LogMessage(kGeneralInfo, L"   %I64u messages sent from the vault\n",
             status.MessagesSentFromVault);
  LogMessage(kGeneralInfo, L"   Messages loaded on startup status: %hs\n",
             LoadStatusText(status.LoadStatus));
  LogMessage(kGeneralInfo, L"   %lu files pending to be marked unreliable\n",
             status.FilesToBeMarkedUnreliable);
  return S_OK;
}

}  // namespace zel
