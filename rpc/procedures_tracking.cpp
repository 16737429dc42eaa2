// Starting and stopping the tracking of a file.
#include <cstdint>
#include <optional>
#include <string>

#include "driver/synchronize.h"
#include "files/file_identity.h"
#include "files/path_check.h"
#include "logging/log_message.h"
#include "rpc/bitmap_description.h"
#include "rpc/callers_path.h"
#include "rpc/procedures.h"
#include "rpc/start_tracking.h"
#include "tracking/tracked_file_table.h"
#include "win32/stop_requested.h"

namespace zel {

namespace {

// The start, its answer, and the line about its end.
std::optional<std::uint32_t> StartAndLog(
    const FileToTrack& file, std::uint32_t block_size, wire::BitmapInfo& info,
    LogFormat<int, BitmapId, std::uint64_t, const wchar_t*> exit_line) {
  StartedBitmap bitmap = {};
  const std::optional<std::uint32_t> result = StartTrackingWithBitmap(file, block_size, bitmap);
  if (result == ERROR_SUCCESS) info = DescribeBitmap(bitmap.header, bitmap.file_size);
  if (result) {
    LogMessage(kGeneralDebug, exit_line, static_cast<int>(*result), info.BitmapId, file.size,
               file.path.c_str());
  }
  return result;
}

std::optional<std::uint32_t> StartByPath(const wchar_t* path, std::uint32_t block_size,
                                         wire::BitmapInfo& info) noexcept {
  if (const std::uint32_t error = RefusePath(L"StartTracking", path)) return error;
  LogMessage(kGeneralDebug, L"StartTracking invoked: %s\n", path);
  FileToTrack file = {.path = path, .volume_guid = {}, .file_id = 0, .size = 0};
  if (const std::uint32_t error = GetFileIdAndSize(path, &file.file_id, &file.size)) return error;
  if (const std::uint32_t error = GetVolumeGuidForPath(path, file.volume_guid)) return error;
  return StartAndLog(file, block_size, info,
                     L"StartTracking exit %d: BitmapId 0x%016I64x, size %I64u, %s\n");
}

std::optional<std::uint32_t> StartByIdentity(const wchar_t* path, const FileKey& file,
                                             std::uint64_t size, std::uint32_t block_size,
                                             wire::BitmapInfo& info) noexcept {
  if (const std::uint32_t error = RefusePath(L"StartTracking2", path)) return error;
  LogMessage(kGeneralDebug, L"StartTracking2 invoked: %s\n", path);
  return StartAndLog({path, file.volume, file.file_id, size}, block_size, info,
                     L"StartTracking2 exit %d: BitmapId 0x%016I64x, size %I64u, %s\n");
}

// Called in a statement of its own, where nothing is owned any more.
error_status_t AnswerOrRaise(std::optional<std::uint32_t> result) {
  if (!result) ::RpcRaiseException(STATUS_INTEGER_DIVIDE_BY_ZERO);
  return *result;
}

// Unless the list is closed by a stop.
std::uint32_t NotTracked() {
  return StopRequested ? ERROR_SHUTDOWN_IN_PROGRESS : ERROR_FILE_NOT_FOUND;
}

// Whatever the path, so that what an earlier version let in can be taken out again: nothing is
// opened for one that is not tracked.
std::uint32_t Stop(const std::wstring& path) {
  const std::wstring printable = PrintablePath(path);
  LogMessage(kGeneralInfo, L"StopTracking invoked: %s\n", printable.c_str());
  VolumeGuid volume_guid;
  FileId file_id;
  const std::uint32_t result = FindTrackedFile(path, volume_guid, file_id)
                                   ? ForceTrackingStop(path, volume_guid, file_id)
                                   : NotTracked();
  LogMessage(kGeneralInfo, L"StopTracking exit %d: %s\n", static_cast<int>(result),
             printable.c_str());
  return result;
}

}  // namespace

error_status_t StartTracking(handle_t, wchar_t* path, std::uint32_t block_size,
                             wire::BitmapInfo* info) {
  const std::optional<std::uint32_t> result = StartByPath(path, block_size, *info);
  return AnswerOrRaise(result);
}

error_status_t StartTracking2(handle_t, wchar_t* path, VolumeGuid* volume_guid, FileId file_id,
                              std::uint64_t file_size, std::uint32_t block_size,
                              wire::BitmapInfo* info) {
  const std::optional<std::uint32_t> result =
      StartByIdentity(path, {*volume_guid, file_id}, file_size, block_size, *info);
  return AnswerOrRaise(result);
}

error_status_t StopTracking(handle_t, wchar_t* path) noexcept {
  if (IsTooLong(path)) return RefusePath(L"StopTracking", path);
  return Stop(path);
}

}  // namespace zel
