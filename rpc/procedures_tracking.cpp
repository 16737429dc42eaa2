// Starting and stopping the tracking of a file.
#include <optional>
#include <string>

#include "bitmap/bitmap_manager.h"
#include "bitmap/create_bitmap.h"
#include "bitmap/format/new_bitmap.h"
#include "driver/driver_port.h"
#include "driver/synchronize.h"
#include "files/file_identity.h"
#include "logging/log_message.h"
#include "rpc/bitmap_description.h"
#include "rpc/procedures.h"
#include "tracking/tracked_file_table.h"
#include "win32/stop_requested.h"

namespace zel {

namespace {

constexpr std::uint64_t kMinTrackedFileSize = 4096;
constexpr std::uint32_t kGenericFailure = 1;

struct FileToTrack {
  std::wstring path;
  VolumeGuid volume_guid;
  FileId file_id;
  std::uint64_t size;
};

// Makes a bitmap for the file. `bitmap_id` is set on success.
bool MakeBitmap(const FileToTrack& file, std::uint32_t block_size, BitmapId& bitmap_id) {
  const std::optional<std::uint32_t> size = ComputeBitmapSize(file.size, block_size);
  if (size &&
      CreateNewBitmap(file.volume_guid, file.file_id, *size, block_size, file.size, bitmap_id)) {
    return true;
  }
  LogMessage(kGeneralError,
             L"StartTracking: CreateNewBitmap for Volume %s, FileId 0x%016I64x failed\n",
             GuidToString(file.volume_guid).c_str(), file.file_id);
  return false;
}

// Has the driver show that it tracks the file; a file that it does not track is given up again.
std::uint32_t VerifyOrGiveUp(const FileToTrack& file) {
  const std::uint32_t result = VerifyFileIsTracked(file.path, file.volume_guid, file.file_id);
  if (result != ERROR_SUCCESS) {
    (void)ForceTrackingStop(file.path, file.volume_guid, file.file_id);
  }
  return result;
}

// Makes a bitmap of the tracked file and shows a new one to the driver. No code when the number of
// blocks cannot be computed because a block has no bytes.
std::optional<std::uint32_t> BeginBitmap(const FileToTrack& file, bool is_new,
                                         std::uint32_t block_size, wire::BitmapInfo& info) {
  if (is_new) (void)NotifyDriverOfTrackingChanges();
  if (block_size == 0) return std::nullopt;
  BitmapId bitmap_id = 0;
  if (!MakeBitmap(file, block_size, bitmap_id)) return kGenericFailure;
  const std::uint32_t result = is_new ? VerifyOrGiveUp(file) : ERROR_SUCCESS;
  if (const PinnedBitmap bitmap = GetBitmapById(bitmap_id)) {
    FlushOwedMark(*bitmap);  // whoever has the answer has the bitmap, whatever happens then
    info = DescribeBitmap(*bitmap);
  } else if (result == ERROR_SUCCESS && StopRequested) {
    return ERROR_SHUTDOWN_IN_PROGRESS;
  }
  return result;
}

// What both procedures do once they know the file. No code as for BeginBitmap.
std::optional<std::uint32_t> Start(const FileToTrack& file, std::uint32_t block_size,
                                   wire::BitmapInfo& info) {
  const wchar_t* const path = file.path.c_str();
  if (file.size < kMinTrackedFileSize) {
    LogMessage(kGeneralWarn, L"StartTracking: cannot track file %s because size is %I64u\n", path,
               file.size);
    return ERROR_INSUFFICIENT_BUFFER;
  }
  bool is_new = false;
  if (!StartTrackingFile(file.path, file.volume_guid, file.file_id, is_new)) {
    if (StopRequested) return ERROR_SHUTDOWN_IN_PROGRESS;
    LogMessage(kGeneralWarn, L"StartTracking: cannot track file %s\n", path);
    return ERROR_MEDIA_CHANGED;
  }
  const std::optional<std::uint32_t> result = BeginBitmap(file, is_new, block_size, info);
  if (is_new && !EndTrackingStart(file.path)) return ERROR_SHUTDOWN_IN_PROGRESS;
  return result;
}

// Start, and the line about its end.
std::optional<std::uint32_t> StartAndLog(
    const FileToTrack& file, std::uint32_t block_size, wire::BitmapInfo& info,
    LogFormat<int, BitmapId, std::uint64_t, const wchar_t*> exit_line) {
  const std::optional<std::uint32_t> result = Start(file, block_size, info);
  if (result) {
    LogMessage(kGeneralDebug, exit_line, static_cast<int>(*result), info.BitmapId, file.size,
               file.path.c_str());
  }
  return result;
}

std::optional<std::uint32_t> StartByPath(const wchar_t* path, std::uint32_t block_size,
                                         wire::BitmapInfo& info) {
  LogMessage(kGeneralDebug, L"StartTracking invoked: %s\n", path);
  FileToTrack file = {.path = path, .volume_guid = {}, .file_id = 0, .size = 0};
  if (const std::uint32_t error = GetFileIdAndSize(path, &file.file_id, &file.size)) return error;
  if (const std::uint32_t error = GetVolumeGuidForPath(path, file.volume_guid)) return error;
  return StartAndLog(file, block_size, info,
                     L"StartTracking exit %d: BitmapId 0x%016I64x, size %I64u, %s\n");
}

std::optional<std::uint32_t> StartByIdentity(const FileToTrack& file, std::uint32_t block_size,
                                             wire::BitmapInfo& info) {
  LogMessage(kGeneralDebug, L"StartTracking2 invoked: %s\n", file.path.c_str());
  return StartAndLog(file, block_size, info,
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

std::uint32_t Stop(const std::wstring& path) {
  LogMessage(kGeneralInfo, L"StopTracking invoked: %s\n", path.c_str());
  VolumeGuid volume_guid;
  FileId file_id;
  const std::uint32_t result = FindTrackedFile(path, volume_guid, file_id)
                                   ? ForceTrackingStop(path, volume_guid, file_id)
                                   : NotTracked();
  LogMessage(kGeneralInfo, L"StopTracking exit %d: %s\n", static_cast<int>(result), path.c_str());
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
      StartByIdentity({path, *volume_guid, file_id, file_size}, block_size, *info);
  return AnswerOrRaise(result);
}

error_status_t StopTracking(handle_t, wchar_t* path) {
  return Stop(path);
}

}  // namespace zel
