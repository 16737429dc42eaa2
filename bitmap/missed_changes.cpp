#include "bitmap/missed_changes.h"

#include <utility>

#include "errors/error_info.h"
#include "files/layout.h"
#include "logging/log_message.h"
#include "win32/file_time.h"

namespace zel {

namespace {

// Has reports pass the bitmap by.
void NoteInMemory(BitmapRecord& record) {
  const LockGuard guard(bitmapCacheLock);
  record.ChangeMissed = true;
}

void LogUnreliable(const BitmapRecord& record) {
  LogRecord(kBitmapWarn,
            L"Marking BitmapId 0x%016I64x for Volume %s, FileId 0x%016I64x unreliable because a "
            L"change was reported while it could not be opened\n",
            record);
}

// A failure that comes again as before is not logged again.
void LeaveMarkAndLog(BitmapRecord& record) ZEL_REQUIRES(record.Lock) {
  const std::uint32_t error = LeaveMark(record);
  if (error != 0) {
    if (std::exchange(record.MarkFailure, error) == error || IsMissingFile(error)) return;
    LogMessage(kBitmapError, L"Failed to mark bitmap %s unreliable: %hs\n", record.FileName.c_str(),
               ErrorInfo(error).text());
  } else if (record.Mark == MissedMark::kInFile) {
    LogUnreliable(record);
  } else {
    LogMessage(kBitmapWarn, L"Left %s: the bitmap misses a change, its next load marks it\n",
               MissedMarkPath(record.FileName).c_str());
  }
}

// The mark in the file, which may have been made by a process that died before it was flushed.
void ReplaceMarkBeside(BitmapRecord& record, BitmapData& data) ZEL_REQUIRES(record.Lock) {
  data.OwesMark = true;
  if (!FlushOwedMark(data)) return;
  record.Mark = MissedMark::kInFile;
  if (const std::uint32_t error = SystemBitmapFiles().RemoveMissedMark(record.FileName)) {
    LogMessage(kBitmapWarn, L"Failed to remove %s: %hs\n", MissedMarkPath(record.FileName).c_str(),
               ErrorInfo(error).text());
  }
}

void Detach(BitmapRecord& record, const std::shared_ptr<BitmapData>& data) {
  const LockGuard guard(bitmapCacheLock);
  if (record.Data == data) record.Data = nullptr;
}

const wchar_t* TextOf(MissedMark mark) {
  switch (mark) {
    case MissedMark::kInFile:
      return L"it is marked unreliable";
    case MissedMark::kBeside:
      return L"its next load marks it unreliable";
    default:
      return L"nothing on the disk says so";
  }
}

}  // namespace

std::uint32_t LeaveMark(BitmapRecord& record) {
  if (record.Mark == MissedMark::kInFile) return 0;
  const std::uint32_t error = SystemBitmapFiles().Distrust(record.FileName);
  if (error == 0) record.Mark = MissedMark::kInFile;
  if (error == 0 || record.Mark == MissedMark::kBeside) return 0;
  if (IsMissingFile(error)) return error;
  const std::uint32_t error_beside = SystemBitmapFiles().LeaveMissedMark(record.FileName);
  if (error_beside == 0) record.Mark = MissedMark::kBeside;
  return error_beside;
}

// In this order: until the mark stands, other reports for the file wait for the record. A report
// that passes the bitmap by is forgotten at once, and a kill must find the mark then.
void NoteMissedChange(BitmapRecord& record) {
  if (IsDiscarded(record)) return;
  if (record.Mark == MissedMark::kNone) LeaveMarkAndLog(record);
  NoteInMemory(record);
}

bool HasMissedAChange(const BitmapRecord& record) {
  const SharedGuard guard(bitmapCacheLock);
  return record.ChangeMissed && !record.Discarded;
}

std::uint32_t SettleMissedChanges(BitmapRecord& record, BitmapData& data) {
  const bool is_marked_beside = SystemBitmapFiles().HasMissedMark(record.FileName);
  if (!is_marked_beside && !HasMissedAChange(record)) return 0;
  auto owed = ChangeBitmap::Owed::kNothing;
  const FileTime now = SystemTimeNow();
  if (const std::uint32_t fault = TouchView(data, [&] { owed = data.Changes->Distrust(now); })) {
    return fault;
  }
  data.HasChanges = true;
  if (owed == ChangeBitmap::Owed::kHeaderToDevice) {
    data.OwesMark = true;
    LogUnreliable(record);
  }
  if (is_marked_beside) ReplaceMarkBeside(record, data);
  return 0;
}

void FailBitmap(BitmapRecord& record, const std::shared_ptr<BitmapData>& data,
                std::uint32_t fault) {
  Detach(record, data);
  CloseIfUnpinned(*data);
  const LoadFailure failure = {LoadFault::kFault, fault};
  if (std::exchange(record.ReportedFailure, failure) != failure) {
    LogViewFault(record.FileName, fault);
  }
  NoteMissedChange(record);
}

void LogIfChangesAreMissed(const BitmapRecord& record) {
  if (!HasMissedAChange(record)) return;
  LogMessage(kBitmapError,
             L"Bitmap %s, BitmapId 0x%016I64x, misses changes and could not be loaded again: %s\n",
             record.FileName.c_str(), record.BitmapId, TextOf(record.Mark));
}

}  // namespace zel
