#include "rpc/start_tracking.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <vector>

#include "bitmap/bitmap_manager.h"
#include "bitmap/create_bitmap.h"
#include "bitmap/format/new_bitmap.h"
#include "driver/driver_port.h"
#include "driver/missing_bitmaps.h"
#include "driver/synchronize.h"
#include "files/file_identity.h"
#include "logging/log_message.h"
#include "tracking/tracked_file_table.h"
#include "win32/stop_requested.h"

namespace zel {

namespace {

constexpr std::uint64_t kMinTrackedFileSize = 4096;
constexpr std::uint32_t kGenericFailure = 1;

FileKey KeyOf(const FileToTrack& file) {
  return {file.volume_guid, file.file_id};
}

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

// How a file has become tracked.
struct Standing {
  bool is_new = false;
  // The driver may not know it yet: it is new, or somebody else's start of it has not ended.
  bool is_unproven = false;
};

// Makes the file tracked. 0, or why not, which has been logged.
std::uint32_t Track(const FileToTrack& file, Standing& standing) {
  static std::atomic<bool> notice_is_owed = false;  // the last one has failed
  std::uint32_t error = DistrustWhatWasNotTracked(KeyOf(file));
  if (error == ERROR_SUCCESS &&
      !StartTrackingFile(file.path, file.volume_guid, file.file_id, standing.is_new)) {
    error = ERROR_MEDIA_CHANGED;
  }
  if (error != ERROR_SUCCESS) {
    if (StopRequested) return ERROR_SHUTDOWN_IN_PROGRESS;
    LogMessage(kGeneralWarn, L"StartTracking: cannot track file %s\n", file.path.c_str());
    return error;
  }
  standing.is_unproven = standing.is_new || TrackingStartIsInHand(file.path);
  if (standing.is_unproven || notice_is_owed) {
    notice_is_owed = NotifyDriverOfTrackingChanges() != S_OK;
  }
  return ERROR_SUCCESS;
}

// Reads the new bitmap. False when it is gone or cannot be used.
bool ReadStarted(const FileToTrack& file, BitmapId bitmap_id, StartedBitmap& started) {
  const PinnedBitmap bitmap = GetBitmapById(bitmap_id);
  if (!bitmap) return false;
  StartedBitmap found = {.header = {}, .file_size = bitmap->FileSize};
  if (ReadBitmapHeader(bitmap, found.header) != ERROR_SUCCESS) return false;
  // The file system may have given the id of a file that is gone to the next one.
  if (FileKey{found.header.Volume, found.header.FileId} != KeyOf(file)) return false;
  FlushOwedMark(*bitmap);  // whoever has the answer has the bitmap, whatever happens then
  started = found;
  return true;
}

// Deletes the new bitmap, if it is still there: nobody is told of it.
void GiveUpBitmap(const FileToTrack& file, BitmapId bitmap_id) {
  const auto bitmaps = BitmapIdsOfFile(KeyOf(file));
  if (std::ranges::find(bitmaps, bitmap_id) == bitmaps.end()) return;
  VolumeGuid volume_guid;
  FileId file_id;
  DeleteBitmapById(bitmap_id, volume_guid, file_id);
}

// Has the driver show that it tracks the file. One that is new is given up again when it does not.
std::uint32_t Prove(const FileToTrack& file, const Standing& standing) {
  if (!standing.is_unproven) return ERROR_SUCCESS;
  const std::uint32_t result = VerifyFileIsTracked(file.path, file.volume_guid, file.file_id);
  // Unless somebody else's start has had it shown meanwhile.
  if (result != ERROR_SUCCESS && standing.is_new && TrackingStartIsInHand(file.path)) {
    (void)ForceTrackingStop(file.path, file.volume_guid, file.file_id);
  }
  return result;
}

// No code when the number of blocks cannot be computed because a block has no bytes; done unless
// the bitmap went, or could not be used, before anybody had heard of it.
struct StartOutcome {
  std::optional<std::uint32_t> result;
  bool is_done = true;
};

// Makes a bitmap of the tracked file and shows a new one to the driver.
StartOutcome BeginBitmap(const FileToTrack& file, const Standing& standing,
                         std::uint32_t block_size, StartedBitmap& started) {
  if (block_size == 0) return {std::nullopt};
  BitmapId bitmap_id = 0;
  if (!MakeBitmap(file, block_size, bitmap_id)) return {kGenericFailure};
  const std::uint32_t result = Prove(file, standing);
  if (result != ERROR_SUCCESS) {
    if (!StopRequested) GiveUpBitmap(file, bitmap_id);
    return {result};
  }
  // In this order: a stop of tracking that comes after the look at the list finds the bitmap.
  if (ReadStarted(file, bitmap_id, started) && IsTracked(KeyOf(file))) return {ERROR_SUCCESS};
  if (StopRequested) return {ERROR_SHUTDOWN_IN_PROGRESS};
  GiveUpBitmap(file, bitmap_id);
  return {kGenericFailure, false};
}

StartOutcome TryToStart(const FileToTrack& file, std::uint32_t block_size, StartedBitmap& started) {
  const BitmapInTheMaking first_bitmap(KeyOf(file));
  Standing standing;
  if (const std::uint32_t error = Track(file, standing)) return {error};
  const StartOutcome outcome = BeginBitmap(file, standing, block_size, started);
  const bool is_proven = standing.is_unproven && outcome.result == ERROR_SUCCESS;
  if ((standing.is_new || is_proven) && !EndTrackingStart(file.path)) {
    return {ERROR_SHUTDOWN_IN_PROGRESS};
  }
  return outcome;
}

}  // namespace

std::optional<std::uint32_t> StartTrackingWithBitmap(const FileToTrack& file,
                                                     std::uint32_t block_size,
                                                     StartedBitmap& bitmap) {
  constexpr int kTries = 3;
  if (file.size < kMinTrackedFileSize) {
    LogMessage(kGeneralWarn, L"StartTracking: cannot track file %s because size is %I64u\n",
               file.path.c_str(), file.size);
    return ERROR_INSUFFICIENT_BUFFER;
  }
  StartOutcome outcome;
  for (int tries = 0; tries < kTries; ++tries) {
    outcome = TryToStart(file, block_size, bitmap);
    if (outcome.is_done) return outcome.result;
  }
  LogMessage(kGeneralError,
             L"StartTracking: no usable bitmap for Volume %s, FileId 0x%016I64x after %d tries\n",
             GuidToString(file.volume_guid).c_str(), file.file_id, kTries);
  return outcome.result;
}

}  // namespace zel
