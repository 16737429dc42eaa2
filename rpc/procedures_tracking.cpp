// Starting and stopping the tracking of a file.
#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "bitmap/bitmap_manager.h"
#include "bitmap/create_bitmap.h"
#include "bitmap/format/new_bitmap.h"
#include "driver/driver_port.h"
#include "driver/missing_bitmaps.h"
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

// Has whatever bitmaps an untracked file still has marked before it becomes tracked: nobody has
// reported what was written since they were made. Marked before the list says "tracked", they stay
// so whenever the service dies.
std::uint32_t DistrustWhatWasNotTracked(const FileKey& file) {
  if (const std::uint32_t error = EnsureVolumeListIsRead(file.volume)) return error;
  // Before the question: one that is made after it belongs to somebody who has made the file
  // tracked.
  const std::vector<BitmapId> bitmaps = BitmapIdsOfFile(file);
  if (IsTracked(file)) return ERROR_SUCCESS;
  // Asked in this order: the stop is requested before it empties the list.
  if (StopRequested || !DistrustBitmapsOfFile(file, bitmaps)) return ERROR_SHUTDOWN_IN_PROGRESS;
  return ERROR_SUCCESS;
}

// Makes the file tracked. 0, or why not, which has been logged.
std::uint32_t Track(const FileToTrack& file, bool& is_new) {
  std::uint32_t error = DistrustWhatWasNotTracked({file.volume_guid, file.file_id});
  if (error == ERROR_SUCCESS &&
      !StartTrackingFile(file.path, file.volume_guid, file.file_id, is_new)) {
    error = ERROR_MEDIA_CHANGED;
  }
  if (error != ERROR_SUCCESS) {
    if (StopRequested) return ERROR_SHUTDOWN_IN_PROGRESS;
    LogMessage(kGeneralWarn, L"StartTracking: cannot track file %s\n", file.path.c_str());
  } else if (is_new) {
    (void)NotifyDriverOfTrackingChanges();
  }
  return error;
}

// Fills `info` from the new bitmap. False when it is gone or cannot be used.
bool Describe(const FileToTrack& file, BitmapId bitmap_id, wire::BitmapInfo& info) {
  const PinnedBitmap bitmap = GetBitmapById(bitmap_id);
  if (!bitmap) return false;
  wire::BitmapInfo found = {};
  if (DescribeBitmap(bitmap, found) != 0) return false;
  // The file system may have given the id of a file that is gone to the next one.
  if (FileKey{found.VolumeGuid, found.FileId} != FileKey{file.volume_guid, file.file_id}) {
    return false;
  }
  FlushOwedMark(*bitmap);  // whoever has the answer has the bitmap, whatever happens then
  info = found;
  return true;
}

// Deletes the new bitmap, if it is still there: nobody is told of it.
void GiveUpBitmap(const FileToTrack& file, BitmapId bitmap_id) {
  const auto bitmaps = BitmapIdsOfFile({file.volume_guid, file.file_id});
  if (std::ranges::find(bitmaps, bitmap_id) == bitmaps.end()) return;
  VolumeGuid volume_guid;
  FileId file_id;
  DeleteBitmapById(bitmap_id, volume_guid, file_id);
}

// No code when the number of blocks cannot be computed because a block has no bytes; done unless
// the bitmap went, or could not be used, before anybody had heard of it.
struct StartOutcome {
  std::optional<std::uint32_t> result;
  bool is_done = true;
};

// Makes a bitmap of the tracked file and shows a new one to the driver.
StartOutcome BeginBitmap(const FileToTrack& file, bool is_new, std::uint32_t block_size,
                         wire::BitmapInfo& info) {
  if (block_size == 0) return {std::nullopt};
  BitmapId bitmap_id = 0;
  if (!MakeBitmap(file, block_size, bitmap_id)) return {kGenericFailure};
  const std::uint32_t result = is_new ? VerifyOrGiveUp(file) : ERROR_SUCCESS;
  if (result != ERROR_SUCCESS || Describe(file, bitmap_id, info)) return {result};
  if (StopRequested) return {ERROR_SHUTDOWN_IN_PROGRESS};
  GiveUpBitmap(file, bitmap_id);
  return {kGenericFailure, false};
}

StartOutcome TryToStart(const FileToTrack& file, std::uint32_t block_size, wire::BitmapInfo& info) {
  const BitmapInTheMaking first_bitmap({file.volume_guid, file.file_id});
  bool is_new = false;
  if (const std::uint32_t error = Track(file, is_new)) return {error};
  const StartOutcome outcome = BeginBitmap(file, is_new, block_size, info);
  if (is_new && !EndTrackingStart(file.path)) return {ERROR_SHUTDOWN_IN_PROGRESS};
  return outcome;
}

// What both procedures do once they know the file. Somebody else's stop of tracking, or deletion of
// all bitmaps, may come in between: then it begins anew, so that 0 is only answered with a bitmap.
std::optional<std::uint32_t> Start(const FileToTrack& file, std::uint32_t block_size,
                                   wire::BitmapInfo& info) {
  constexpr int kTries = 3;
  if (file.size < kMinTrackedFileSize) {
    LogMessage(kGeneralWarn, L"StartTracking: cannot track file %s because size is %I64u\n",
               file.path.c_str(), file.size);
    return ERROR_INSUFFICIENT_BUFFER;
  }
  StartOutcome outcome;
  for (int tries = 0; tries < kTries; ++tries) {
    outcome = TryToStart(file, block_size, info);
    if (outcome.is_done) return outcome.result;
  }
  LogMessage(kGeneralError,
             L"StartTracking: no usable bitmap for Volume %s, FileId 0x%016I64x after %d tries\n",
             GuidToString(file.volume_guid).c_str(), file.file_id, kTries);
  return outcome.result;
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
