#include "bitmap/bitmap_data.h"

#include "bitmap/format/new_bitmap.h"
#include "bitmap/zel_set_bits.h"
#include "errors/error_info.h"
#include "logging/log_message.h"
#include "win32/file_time.h"

namespace zel {

namespace {

LoadFault FaultOf(OpenStep step) {
  switch (step) {
    case OpenStep::kOpen:
      return LoadFault::kOpen;
    case OpenStep::kSize:
      return LoadFault::kSize;
    case OpenStep::kMapping:
      return LoadFault::kMapping;
    case OpenStep::kView:
      return LoadFault::kView;
  }
  return LoadFault::kOpen;
}

FlushResult Outcome(FlushResult::Step step, std::uint32_t code) {
  return code == 0 ? FlushResult{} : FlushResult{step, code};
}

FlushResult FlushViewToDevice(BitmapFile& file) {
  const FlushResult view = Outcome(FlushResult::Step::kView, file.FlushView());
  return view.ok() ? Outcome(FlushResult::Step::kFile, file.FlushToDevice()) : view;
}

void Close(BitmapData& data) {
  data.View = nullptr;
  data.File.reset();
}

}  // namespace

LoadFailure OpenAndMapBitmap(BitmapData& data) {
  OpenError error;
  data.File = SystemBitmapFiles().Open(data.FileName, error);
  if (!data.File) return {FaultOf(error.step), error.code};
  data.View = data.File->header();
  data.FileSize = data.File->size();
  // Read once: another program that has the file mapped could change it. A file shorter than a
  // header reads as zeros from its end on, so that its BitmapSize does not fit either.
  std::uint32_t bitmap_size = 0;
  if (const std::uint32_t fault =
          TouchView(data, [&] { bitmap_size = data.header()->BitmapSize; })) {
    Close(data);
    return {LoadFault::kFault, fault};
  }
  data.BitmapSize = bitmap_size;
  if (!FitsBitmapFile(data.BitmapSize, data.FileSize)) {
    Close(data);
    return {LoadFault::kCorrupted, data.BitmapSize};
  }
  if (data.BitmapSize != 0) {
    DescribeBits(data.BitmapHeader, reinterpret_cast<std::uint32_t*>(data.header() + 1),
                 CountBits(data.BitmapSize));
  }
  return {};
}

// Cleared first: what is recorded from then on is owed anew. The acquire sees what was recorded
// before whichever store it reads.
FlushResult FlushChanges(BitmapData& data) {
  const LockGuard guard(data.FlushLock);
  if (!data.File || !data.HasChanges.exchange(false, std::memory_order_acq_rel)) return {};
  const bool owed_mark = data.OwesMark.exchange(false, std::memory_order_acq_rel);
  const FlushResult result = FlushViewToDevice(*data.File);
  if (result.ok()) return result;
  data.HasChanges.store(true);
  if (owed_mark) data.OwesMark.store(true);  // for the flush that is waiting its turn
  return result;
}

bool FlushOwedMark(BitmapData& data) {
  const LockGuard guard(data.FlushLock);
  if (!data.OwesMark.exchange(false, std::memory_order_acq_rel) || !data.File) return true;
  // Each is tried, whatever comes of the other.
  const FlushResult header = Outcome(FlushResult::Step::kHeader, data.File->FlushBitmapHeader());
  LogFlushFailure(data, header);
  const FlushResult file = Outcome(FlushResult::Step::kFile, data.File->FlushToDevice());
  LogFlushFailure(data, file);
  return header.ok() && file.ok();
}

FlushResult MarkClosedCleanly(BitmapData& data) {
  const LockGuard guard(data.FlushLock);
  if (const std::uint32_t fault = TouchView(data, [&] { data.header()->ClosedCleanly = 1; })) {
    return {FlushResult::Step::kTouch, fault};
  }
  return Outcome(FlushResult::Step::kView, data.File->FlushView());
}

void CloseIfUnpinned(BitmapData& data) {
  const LockGuard guard(data.FlushLock);
  if (data.InUseCount.load(std::memory_order_acquire) == 0) Close(data);
}

void LogFlushFailure(const BitmapData& data, const FlushResult& result) {
  if (result.ok()) return;
  const ErrorInfo error(result.code);
  switch (result.failed) {
    case FlushResult::Step::kNone:
    case FlushResult::Step::kTouch:  // the bitmap has failed, which has been logged
      return;
    case FlushResult::Step::kHeader:
      LogMessage(kBitmapError, L"Failed to flush bitmap header to disk: %hs\n", error.text());
      return;
    case FlushResult::Step::kView:
      LogMessage(kBitmapError, L"Failed to flush entire bitmap to disk: %hs\n", error.text());
      return;
    case FlushResult::Step::kFile:
      LogMessage(kBitmapError, L"Failed to flush bitmap file %s to disk: %hs\n",
                 data.FileName.c_str(), error.text());
  }
}

void LogViewFault(const std::wstring& file_name, std::uint32_t fault) {
  LogMessage(kBitmapError, L"Reading or writing bitmap %s failed: %hs\n", file_name.c_str(),
             ErrorInfo(fault).text());
}

}  // namespace zel
