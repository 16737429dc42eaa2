#include "bitmap/bitmap_record.h"

#include "bitmap/extract_bitmap_name.h"
#include "bitmap/header_checks.h"
#include "common/error_info.h"
#include "common/identity.h"
#include "common/system_time.h"
#include "logging/log_message.h"

namespace zel {

CriticalSection bitmapCacheLock;

namespace {

// Logs a message that names the record's bitmap and its file.
void LogRecord(int selector, LogFormat<std::uint64_t, const wchar_t*, std::uint64_t> format,
               const BitmapRecord& record) {
  if (!LogSelectorEnabled(selector)) return;
  LogMessage(selector, format, record.BitmapId, GuidToString(record.VolumeGuid).c_str(),
             record.FileId);
}

void MarkLoaded(const BitmapRecord& record, const BitmapData& data) {
  const InUseMark mark = MarkInUse(*data.header(), SystemTimeNow());
  // Whoever trusted the file until now must not trust it after a power cut.
  if (mark == InUseMark::kStillUnreliable) {
    FlushBitmapHeader(data);
  } else {
    FlushDistrustMark(data);
  }
  if (mark == InUseMark::kWasClean) return;
  LogRecord(kBitmapInfo,
            L"Marking BitmapId 0x%016I64x for Volume %s, FileId 0x%016I64x unreliable because it "
            L"was not closed cleanly\n",
            record);
}

// Takes one step. True when the header is to be asked for the next.
bool TakeHeaderStep(HeaderStep step, const BitmapRecord& record, const BitmapData& data,
                    FileTime name_creation_time) {
  BitmapHeader& header = *data.header();
  const wchar_t* const name = record.FileName.c_str();
  switch (step) {
    case HeaderStep::kAccept:
      return false;
    case HeaderStep::kUpgradeVersion:
      UpgradeVersion(header, record.BitmapId, name_creation_time);
      FlushBitmapHeader(data);
      LogMessage(kBitmapDebug, L"Upgraded bitmap %s\n", name);
      return true;
    case HeaderStep::kRepairHeaderSize:
      RepairHeaderSize(header);
      FlushBitmapHeader(data);
      return true;
    case HeaderStep::kRefuseBlockSize:
      LogMessage(kBitmapError, L"Bitmap %s is invalid, block size doesn't match\n", name);
      return false;
    case HeaderStep::kRefuseMagic:
      LogMessage(kBitmapError,
                 L"Bitmap %s has the wrong magic number: expected 0x%04x, found 0x%04x\n", name,
                 kBitmapMagic, header.Magic);
      return false;
    case HeaderStep::kRefuseVersion:
      LogMessage(kBitmapError, L"Bitmap %s has the wrong version: expected 0x%04x, found 0x%04x\n",
                 name, std::uint32_t{kBitmapVersion}, std::uint32_t{header.Version});
      return false;
    case HeaderStep::kRefuseHeaderSize:
      LogMessage(kBitmapError, L"Bitmap %s has the wrong header size: expected %hu, found %hu\n",
                 name, kBitmapHeaderSize, header.HeaderSize);
      return false;
  }
  return false;
}

bool AcceptHeader(const BitmapRecord& record, const BitmapData& data) {
  std::uint32_t name_block_size = 0;
  FileTime name_creation_time = 0;
  ExtractFromBitmapName(record.FileName, &name_block_size, &name_creation_time);
  HeaderStep step;
  do {
    step = NextHeaderStep(*data.header(), name_block_size);
  } while (TakeHeaderStep(step, record, data, name_creation_time));
  return step == HeaderStep::kAccept;
}

// Whoever has just given the last pin back may share the ownership for a moment yet: what the
// bitmap holds is let go of here all the same, under the lock, so that the file can be opened or
// deleted.
void CloseIfUnpinned(BitmapData& data) {
  if (data.InUseCount.load(std::memory_order_acquire) != 0) return;
  data.Header.reset();
  data.MappingHandle.reset();
  data.FileHandle.reset();
}

// The changes reported while the bitmap could not be opened are in no bit of it.
void DistrustAfterMissedChange(BitmapRecord& record, const BitmapData& data)
    ZEL_REQUIRES(bitmapCacheLock) {
  record.ChangeMissed = false;
  if (!MarkDistrusted(data, &BitmapHeader::Unreliable)) return;
  LogRecord(kBitmapWarn,
            L"Marking BitmapId 0x%016I64x for Volume %s, FileId 0x%016I64x unreliable because a "
            L"change was reported while it could not be opened\n",
            record);
}

// Marks a file that could not be deleted, as well as that can be done: it is known to nobody any
// more and misses the changes from now on, and a later start would find it.
void DistrustFile(const std::wstring& path) {
  const UniqueFile file(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  LARGE_INTEGER length = {};
  if (!file || !::GetFileSizeEx(file.get(), &length) || length.QuadPart < kBitmapHeaderSize) return;
  OVERLAPPED place = {};
  place.Offset = offsetof(BitmapHeader, Unreliable);
  const std::uint8_t mark = 1;
  DWORD written = 0;
  ::WriteFile(file.get(), &mark, sizeof mark, &written, &place);
  ::FlushFileBuffers(file.get());
}

bool FlushBits(const BitmapData& data) {
  if (::FlushViewOfFile(data.header(), 0)) return true;
  LogMessage(kBitmapError, L"Failed to flush entire bitmap to disk: %hs\n", ErrorInfo().text());
  return false;
}

}  // namespace

bool LoadBitmap(BitmapRecord& record) {
  if (record.Data != nullptr) return true;
  const auto data = std::make_shared<BitmapData>();
  data->BitmapId = record.BitmapId;
  data->FileName = record.FileName;
  const OpenResult result = OpenAndMapBitmap(*data);
  if (result == OpenResult::kCorrupted) record.Discarded = true;
  record.OpenFailed = result == OpenResult::kSystemCallFailed;
  if (result != OpenResult::kMapped) return false;
  MarkLoaded(record, *data);
  if (!AcceptHeader(record, *data)) return false;
  LogRecord(kBitmapDebug, L"Loaded BitmapId 0x%016I64x for Volume %s, FileId 0x%016I64x\n", record);
  if (record.ChangeMissed) DistrustAfterMissedChange(record, *data);
  record.Data = data;
  return true;
}

void UnloadBitmap(BitmapRecord& record) {
  if (record.Data == nullptr) return;
  BitmapData& data = *record.Data;
  // No change reaches a discarded bitmap any more; should its file outlive this, it says so.
  if (record.Discarded) std::atomic_ref(data.header()->Unreliable).store(1);
  // First the bits reach the device, then the mark that vouches for them; without them it stays
  // away, and the next load takes the bitmap for unreliable.
  const bool is_safe = FlushBits(data) && FlushBitmapFile(data);
  if (is_safe) {
    data.header()->ClosedCleanly = 1;
    FlushBits(data);
  }
  CloseIfUnpinned(data);
  record.Data.reset();
  if (is_safe) {
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

void DeleteBitmapFile(BitmapRecord& record) {
  UnloadBitmap(record);
  if (::DeleteFileW(record.FileName.c_str())) {
    LogMessage(kBitmapDebug, L"Deleted bitmap %s\n", record.FileName.c_str());
    return;
  }
  const ErrorInfo error;
  if (error.code() == ERROR_FILE_NOT_FOUND || error.code() == ERROR_PATH_NOT_FOUND) return;
  LogMessage(kBitmapError, L"Failed to delete bitmap %s: %hs\n", record.FileName.c_str(),
             error.text());
  DistrustFile(record.FileName);
}

}  // namespace zel
