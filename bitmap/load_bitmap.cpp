// Loading a bitmap: what bitmap/bitmap_record.h says of it.
#include "bitmap/bitmap_record.h"

#include <optional>
#include <utility>

#include "bitmap/flusher.h"
#include "bitmap/format/header_checks.h"
#include "bitmap/missed_changes.h"
#include "bitmap/zel_set_bits.h"
#include "errors/error_info.h"
#include "files/layout.h"
#include "logging/log_message.h"
#include "win32/file_time.h"

namespace zel {

namespace {

// Win32 codes, in words of this file's own: it is built where there is no <windows.h>, too.
constexpr std::uint32_t kFileNotFound = 2;
constexpr std::uint32_t kFileInvalid = 1006;  // of the mapping of an empty file

void LogOpenFailure(LogFormat<const wchar_t*, const char*> format, const BitmapRecord& record,
                    std::uint32_t code) {
  LogMessage(kBitmapError, format, record.FileName.c_str(), ErrorInfo(code).text());
}

// Says what is wrong with the name, if that is why its block size does not match.
void LogMalformedName(const std::wstring& path) {
  std::uint32_t block_size;
  FileTime creation_time;
  ExtractFromBitmapName(path, &block_size, &creation_time);
}

void LogLoadFailure(const BitmapRecord& record, const LoadFailure& failure,
                    std::uint32_t file_size) {
  const wchar_t* const name = record.FileName.c_str();
  switch (failure.fault) {
    case LoadFault::kNone:
      return;
    case LoadFault::kOpen:
      return LogOpenFailure(L"Failed to open bitmap %s: %hs\n", record, failure.detail);
    case LoadFault::kSize:
      return LogOpenFailure(L"GetFileSizeEx(%s) failed: %hs\n", record, failure.detail);
    case LoadFault::kMapping:
      return LogOpenFailure(L"CreateFileMapping(%s) failed: %hs\n", record, failure.detail);
    case LoadFault::kView:
      return LogOpenFailure(L"MapViewOfFile(%s) failed: %hs\n", record, failure.detail);
    case LoadFault::kFault:
      return LogViewFault(record.FileName, failure.detail);
    case LoadFault::kCorrupted:
      LogMessage(kBitmapError,
                 L"Bitmap %s is corrupted: header(%u) + bitmap size(%lu) > file size (%lu)\n", name,
                 std::uint32_t{kBitmapHeaderSize}, failure.detail, file_size);
      return;
    case LoadFault::kBlockSize:
      LogMalformedName(record.FileName);
      LogMessage(kBitmapError, L"Bitmap %s is invalid, block size doesn't match\n", name);
      return;
    case LoadFault::kMagic:
      LogMessage(kBitmapError,
                 L"Bitmap %s has the wrong magic number: expected 0x%04x, found 0x%04x\n", name,
                 kBitmapMagic, failure.detail);
      return;
    case LoadFault::kVersion:
      LogMessage(kBitmapError, L"Bitmap %s has the wrong version: expected 0x%04x, found 0x%04x\n",
                 name, std::uint32_t{kBitmapVersion}, failure.detail);
      return;
    case LoadFault::kHeaderSize:
      LogMessage(kBitmapError, L"Bitmap %s has the wrong header size: expected %hu, found %hu\n",
                 name, kBitmapHeaderSize, static_cast<std::uint16_t>(failure.detail));
  }
}

// Whoever trusted the file until now must not trust it after a power cut. The code of a fault in
// the view, or 0.
std::uint32_t MarkLoaded(const BitmapRecord& record, BitmapData& data) {
  auto mark = InUseMark::kStillUnreliable;
  const FileTime now = SystemTimeNow();
  if (const std::uint32_t fault = TouchView(data, [&] { mark = MarkInUse(*data.header(), now); })) {
    return fault;
  }
  if (mark != InUseMark::kStillUnreliable) data.OwesMark = true;
  // A clean close must not be marked before the device has this: it may still have the old header.
  if (mark == InUseMark::kNewlyUnreliable) data.HasChanges = true;
  if (mark == InUseMark::kWasClean) return 0;
  LogRecord(kBitmapInfo,
            L"Marking BitmapId 0x%016I64x for Volume %s, FileId 0x%016I64x unreliable because it "
            L"was not closed cleanly\n",
            record);
  return 0;
}

LoadFailure Refusal(HeaderStep step, const BitmapFileHeader& header) {
  switch (step) {
    case HeaderStep::kRefuseMagic:
      return {LoadFault::kMagic, header.Magic};
    case HeaderStep::kRefuseVersion:
      return {LoadFault::kVersion, header.Version};
    case HeaderStep::kRefuseHeaderSize:
      return {LoadFault::kHeaderSize, header.HeaderSize};
    default:
      return {LoadFault::kBlockSize, header.BlockSize};
  }
}

struct StepTaken {
  HeaderStep step;
  LoadFailure refusal;  // for a step that refuses
};

StepTaken TakeHeaderStep(const BitmapRecord& record, BitmapFileHeader& header) {
  const HeaderStep step = NextHeaderStep(header, record.BlockSize);
  if (step == HeaderStep::kUpgradeVersion) {
    UpgradeVersion(header, record.BitmapId, record.CreationTime);
  } else if (step == HeaderStep::kRepairHeaderSize) {
    RepairHeaderSize(header);
  }
  return {step, Refusal(step, header)};
}

// Checks the header and mends what older versions left in it.
LoadFailure AcceptHeader(const BitmapRecord& record, BitmapData& data) {
  for (;;) {
    StepTaken taken = {};
    if (const std::uint32_t fault =
            TouchView(data, [&] { taken = TakeHeaderStep(record, *data.header()); })) {
      return {LoadFault::kFault, fault};
    }
    switch (taken.step) {
      case HeaderStep::kAccept:
        return {};
      case HeaderStep::kUpgradeVersion:
        LogMessage(kBitmapDebug, L"Upgraded bitmap %s\n", record.FileName.c_str());
        break;
      case HeaderStep::kRepairHeaderSize:
        break;
      default:
        return taken.refusal;
    }
    data.OwesMark = true;
  }
}

LoadFailure Accept(const BitmapRecord& record, BitmapData& data) {
  const std::uint32_t fault = TouchView(data, [&] {
    data.Changes.emplace(*data.header(), record.BlockSize, data.BitmapHeader, ZelSetBits);
  });
  return fault == 0 ? LoadFailure{} : LoadFailure{LoadFault::kFault, fault};
}

LoadFailure OpenAndCheck(const BitmapRecord& record, BitmapData& data) {
  if (const LoadFailure failure = OpenAndMapBitmap(data); failure != LoadFailure{}) return failure;
  if (const std::uint32_t fault = MarkLoaded(record, data)) return {LoadFault::kFault, fault};
  const LoadFailure refusal = AcceptHeader(record, data);
  if (refusal == LoadFailure{}) return Accept(record, data);
  FlushOwedMark(data);  // now: nobody looks after the file of a bitmap that is refused
  return refusal;
}

// Hands the load's marks over and makes the record a loaded one, in this order: whoever finds it
// loaded, and waits for the marks that are owed, waits for these too.
void Publish(BitmapRecord& record, const std::shared_ptr<BitmapData>& data) {
  if (data->OwesMark.exchange(false)) OweMark(data);
  const LockGuard guard(bitmapCacheLock);
  record.Data = data;
  record.ChangeMissed = false;
}

bool FailLoad(BitmapRecord& record, const LoadFailure& failure, std::uint32_t file_size,
              LoadLog log) ZEL_REQUIRES(record.Lock) {
  if (failure.fault == LoadFault::kCorrupted) {
    const LockGuard guard(bitmapCacheLock);
    record.Discarded = true;
  }
  const bool is_known =
      log == LoadLog::kFirstOfRun && std::exchange(record.ReportedFailure, failure) == failure;
  if (!is_known) LogLoadFailure(record, failure, file_size);
  return false;
}

}  // namespace

bool ExtractFromBitmapName(const std::wstring& path, std::uint32_t* block_size,
                           FileTime* creation_time) {
  const std::wstring_view name = LastPathComponent(path);
  if (name.size() != kBitmapNameLength) {
    LogMessage(kBitmapWarn,
               L"ExtractFromBitmapName(%s) failed: bitmap name is %u characters long\n",
               path.c_str(), static_cast<std::uint32_t>(name.size()));
    return false;
  }
  const std::optional<FileTime> time = ParseNameCreationTime(name);
  if (creation_time != nullptr && !time) {
    LogMessage(kBitmapWarn, L"ExtractFromBitmapName(%s) failed: could not extract creation time\n",
               path.c_str());
    return false;
  }
  const std::optional<std::uint32_t> size = ParseNameBlockSize(name);
  if (block_size != nullptr && !size) {
    LogMessage(kBitmapWarn, L"ExtractFromBitmapName(%s) failed: could not extract block size\n",
               path.c_str());
    return false;
  }
  if (creation_time != nullptr) *creation_time = *time;
  if (block_size != nullptr) *block_size = *size;
  return true;
}

bool LoadBitmap(BitmapRecord& record, LoadLog log) {
  if (LoadedData(record) != nullptr) return true;
  const auto data = std::make_shared<BitmapData>();
  data->BitmapId = record.BitmapId;
  data->FileName = record.FileName;
  if (const LoadFailure failure = OpenAndCheck(record, *data); failure != LoadFailure{}) {
    return FailLoad(record, failure, data->FileSize, log);
  }
  record.ReportedFailure = {};
  LogRecord(kBitmapDebug, L"Loaded BitmapId 0x%016I64x for Volume %s, FileId 0x%016I64x\n", record);
  if (const std::uint32_t fault = SettleMissedChanges(record, *data)) {
    return FailLoad(record, {LoadFault::kFault, fault}, data->FileSize, log);
  }
  Publish(record, data);
  return true;
}

bool CannotBeLoadedForNow(const BitmapRecord& record) {
  switch (record.ReportedFailure.fault) {
    case LoadFault::kNone:
    case LoadFault::kSize:
    case LoadFault::kView:
      return false;
    case LoadFault::kOpen:
      return record.ReportedFailure.detail == kFileNotFound;
    case LoadFault::kMapping:
      return record.ReportedFailure.detail == kFileInvalid;
    default:
      return true;
  }
}

}  // namespace zel
