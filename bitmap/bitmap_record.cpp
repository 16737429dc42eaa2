#include "bitmap/bitmap_record.h"

#include <atomic>
#include <utility>

#include "bitmap/missed_changes.h"
#include "errors/error_info.h"
#include "files/file_identity.h"
#include "logging/log_message.h"

namespace zel {

SharedLock bitmapCacheLock;

namespace {

// Win32 codes, in words of this file's own: it is built where there is no <windows.h>, too.
constexpr std::uint32_t kFileNotFound = 2;
constexpr std::uint32_t kPathNotFound = 3;

// Lets go of the loaded bitmap: no new pin comes.
void Detach(BitmapRecord& record) {
  const LockGuard guard(bitmapCacheLock);
  record.Data = nullptr;
}

// The same for one that is idle, unless somebody has come for it, or has changed it since its bits
// were flushed. Bits that cannot be flushed are no reason to keep it.
bool DetachIdle(BitmapRecord& record, const UnloadOutcome& outcome) {
  const LockGuard guard(bitmapCacheLock);
  const BitmapData& data = *outcome.data;
  if (data.InUseCount.load(std::memory_order_acquire) != 0) return false;
  if (outcome.bits.ok() && data.HasChanges) return false;
  record.Data = nullptr;
  return true;
}

// The code of a fault in the view, or 0.
std::uint32_t SeeIfIdle(BitmapData& data, FileTime cutoff, bool& is_idle) {
  is_idle = false;
  if (data.InUseCount.load(std::memory_order_acquire) != 0) return 0;
  return TouchView(
      data, [&] { is_idle = std::atomic_ref(data.header()->LastUpdateTime).load() <= cutoff; });
}

// No change reaches a discarded bitmap any more; should its file outlive this, it says so. The code
// of a fault in the view, or 0.
std::uint32_t DistrustDiscarded(const BitmapRecord& record, BitmapData& data) {
  if (!IsDiscarded(record)) return 0;
  data.HasChanges = true;
  return TouchView(data, [&] { std::atomic_ref(data.header()->Unreliable).store(1); });
}

FlushResult FlushBits(const BitmapRecord& record, BitmapData& data) {
  if (const std::uint32_t fault = DistrustDiscarded(record, data)) {
    return {FlushResult::Step::kTouch, fault};
  }
  return FlushChanges(data);
}

// What follows the flush of the bits: the mark that vouches for them. Without them it stays away,
// and the next load takes the bitmap for unreliable; a mark that waits its turn goes now, as well
// as it can.
void MarkAndClose(BitmapRecord& record, UnloadOutcome& outcome) ZEL_REQUIRES(record.Lock) {
  if (outcome.bits.ok()) {
    outcome.mark = MarkClosedCleanly(*outcome.data);
  } else {
    FlushOwedMark(*outcome.data);
  }
  CloseIfUnpinned(*outcome.data);
  if (const std::uint32_t fault = outcome.Fault()) FailBitmap(record, outcome.data, fault);
}

UnloadOutcome UnloadIdle(BitmapRecord& record, UnloadOutcome outcome, FileTime cutoff)
    ZEL_REQUIRES(record.Lock) {
  bool is_idle = false;
  if (const std::uint32_t fault = SeeIfIdle(*outcome.data, cutoff, is_idle)) {
    FailBitmap(record, outcome.data, fault);
    return {};
  }
  if (!is_idle) return {};
  outcome.bits = FlushBits(record, *outcome.data);
  if (!DetachIdle(record, outcome)) return {};
  MarkAndClose(record, outcome);
  return outcome;
}

}  // namespace

void LogRecord(int selector, LogFormat<std::uint64_t, const wchar_t*, std::uint64_t> format,
               const BitmapRecord& record) {
  if (!LogSelectorEnabled(selector)) return;
  LogMessage(selector, format, record.BitmapId, GuidToString(record.VolumeGuid).c_str(),
             record.FileId);
}

bool IsMissingFile(std::uint32_t error) {
  return error == kFileNotFound || error == kPathNotFound;
}

std::shared_ptr<BitmapData> LoadedData(const BitmapRecord& record) {
  const SharedGuard guard(bitmapCacheLock);
  return record.Data;
}

bool IsDiscarded(const BitmapRecord& record) {
  const SharedGuard guard(bitmapCacheLock);
  return record.Discarded;
}

UnloadOutcome UnloadBitmap(BitmapRecord& record, UnloadIf condition, FileTime cutoff) {
  UnloadOutcome outcome = {.data = LoadedData(record), .bits = {}, .mark = {}};
  if (outcome.data == nullptr) return {};
  if (condition == UnloadIf::kIdle) return UnloadIdle(record, std::move(outcome), cutoff);
  Detach(record);  // first: only those who have a pin already can change it from now on
  outcome.bits = FlushBits(record, *outcome.data);
  MarkAndClose(record, outcome);
  return outcome;
}

void LogUnload(const BitmapRecord& record, const UnloadOutcome& outcome) {
  if (outcome.data == nullptr) return;
  LogFlushFailure(*outcome.data, outcome.bits);
  LogFlushFailure(*outcome.data, outcome.mark);
  if (outcome.bits.ok() && outcome.Fault() == 0) {
    LogRecord(kBitmapDebug,
              L"Cleanly unloaded BitmapId 0x%016I64x for Volume %s, FileId 0x%016I64x\n", record);
  } else {
    LogRecord(
        kBitmapWarn,
        L"Unloaded BitmapId 0x%016I64x for Volume %s, FileId 0x%016I64x without the mark of a "
        L"clean close: it will be unreliable\n",
        record);
  }
}

bool DeleteOutcome::IsFinal() const {
  return error == 0 || IsMissingFile(error) || is_marked;
}

DeleteOutcome DeleteBitmapFile(BitmapRecord& record) {
  DeleteOutcome outcome = {.unload = UnloadBitmap(record, UnloadIf::kAlways)};
  outcome.mark_error = LeaveMark(record);
  outcome.is_marked = record.Mark == MissedMark::kInFile;
  outcome.error = SystemBitmapFiles().Delete(record.FileName);
  const bool is_gone = outcome.error == 0 || IsMissingFile(outcome.error);
  // Perhaps an earlier process left it. Without its file it tells nobody anything.
  if (is_gone) (void)SystemBitmapFiles().RemoveMissedMark(record.FileName);
  return outcome;
}

void LogDelete(const BitmapRecord& record, const DeleteOutcome& outcome) {
  LogUnload(record, outcome.unload);
  const wchar_t* const name = record.FileName.c_str();
  if (outcome.error == 0) {
    LogMessage(kBitmapDebug, L"Deleted bitmap %s\n", name);
    return;
  }
  if (IsMissingFile(outcome.error)) return;
  LogMessage(kBitmapError, L"Failed to delete bitmap %s: %hs\n", name,
             ErrorInfo(outcome.error).text());
  if (outcome.mark_error == 0) return;
  LogMessage(kBitmapError, L"Failed to mark bitmap %s unreliable: %hs\n", name,
             ErrorInfo(outcome.mark_error).text());
}

}  // namespace zel
