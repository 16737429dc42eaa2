#include "bitmap/record_changes.h"

#include "bitmap/bitmap_manager.h"
#include "files/file_identity.h"
#include "logging/log_message.h"
#include "win32/file_time.h"

namespace zel {

namespace {

using Owed = ChangeBitmap::Owed;

// Has `verb` record a change in the bitmap's view. False when that fails: the bitmap says so then.
template <class Verb>
bool Record(const PinnedBitmap& bitmap, Verb verb) {
  const std::uint32_t fault = TouchView(*bitmap, verb);
  if (fault != 0) [[unlikely]]
    FailBitmapInUse(bitmap, fault);
  return fault == 0;
}

// Stored although it may stand there: a flush that is clearing it must find this change's.
void NoteRecorded(const PinnedBitmap& bitmap, Owed owed) {
  bitmap->HasChanges.store(true, std::memory_order_release);
  if (owed == Owed::kHeaderToDevice) OweMark(bitmap.data());
}

}  // namespace

std::size_t UpdateBitmapsForFile(FileId file_id, const VolumeGuid& volume_guid,
                                 std::uint64_t offset, std::uint32_t length) {
  const PinnedBitmaps bitmaps = FindBitmapsToChange(volume_guid, file_id);
  for (const PinnedBitmap& bitmap : bitmaps) {
    const FileTime now = SystemTimeNow();
    ChangeBitmap::WriteRecorded recorded = {};
    if (!Record(bitmap, [&] { recorded = bitmap->Changes->RecordWrite(offset, length, now); })) {
      continue;
    }
    NoteRecorded(bitmap, recorded.owed);
    if (recorded.block_number_cut) {
      LogMessage(kDriverCommError,
                 L"UpdateBitmapsForFile: bitmap is larger than 4GB, not supported\n");
    }
  }
  LogMessage(kDriverCommDebug,
             L"FileId 0x%016I64x write at offset %I64u length %u; %u bitmaps updated\n", file_id,
             offset, length, static_cast<std::uint32_t>(bitmaps.size()));
  return bitmaps.size();
}

std::size_t ApplySizeChange(FileId file_id, const VolumeGuid& volume_guid, std::uint64_t new_size) {
  const PinnedBitmaps bitmaps = FindBitmapsToChange(volume_guid, file_id);
  for (const PinnedBitmap& bitmap : bitmaps) {
    const FileTime now = SystemTimeNow();
    auto owed = Owed::kNothing;
    if (Record(bitmap, [&] { owed = bitmap->Changes->RecordSize(new_size, now); })) {
      NoteRecorded(bitmap, owed);
    }
  }
  return bitmaps.size();
}

std::size_t MarkUnreportedChanges(FileId file_id, const VolumeGuid& volume_guid) {
  const PinnedBitmaps bitmaps = FindBitmapsToChange(volume_guid, file_id);
  for (const PinnedBitmap& bitmap : bitmaps) {
    const FileTime now = SystemTimeNow();
    auto owed = Owed::kNothing;
    if (!Record(bitmap, [&] { owed = bitmap->Changes->Distrust(now); })) continue;
    NoteRecorded(bitmap, owed);
    if (owed == Owed::kNothing) continue;
    LogMessage(kDriverCommInfo,
               L"Filter driver indicated unreported changes for Volume %s, FileId 0x%016I64x, "
               L"BitmapId 0x%016I64x\n",
               GuidToString(volume_guid).c_str(), file_id, bitmap->BitmapId);
  }
  return bitmaps.size();
}

}  // namespace zel
