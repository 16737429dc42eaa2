#include "bitmap/bitmap_data.h"

#include "bitmap/bitmap_size.h"
#include "bitmap/ntdll_bitmap.h"
#include "common/error_info.h"
#include "common/system_time.h"
#include "logging/log_message.h"

namespace zel {

namespace {

// Logs an error of a step of the opening, whose formats take the path and the error's text.
OpenResult LogOpenError(LogFormat<const wchar_t*, const char*> format, const BitmapData& data) {
  LogMessage(kBitmapError, format, data.FileName.c_str(), ErrorInfo().text());
  return OpenResult::kSystemCallFailed;
}

OpenResult MapFile(BitmapData& data) {
  data.FileHandle.reset(::CreateFileW(data.FileName.c_str(), GENERIC_READ | GENERIC_WRITE,
                                      FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!data.FileHandle) return LogOpenError(L"Failed to open bitmap %s: %hs\n", data);
  LARGE_INTEGER size;
  if (!::GetFileSizeEx(data.FileHandle.get(), &size)) {
    return LogOpenError(L"GetFileSizeEx(%s) failed: %hs\n", data);
  }
  data.FileSize = size.LowPart;
  data.MappingHandle.reset(
      ::CreateFileMappingW(data.FileHandle.get(), nullptr, PAGE_READWRITE, 0, 0, nullptr));
  if (!data.MappingHandle) return LogOpenError(L"CreateFileMapping(%s) failed: %hs\n", data);
  data.Header.reset(static_cast<BitmapHeader*>(
      ::MapViewOfFile(data.MappingHandle.get(), FILE_MAP_WRITE, 0, 0, 0)));
  if (!data.Header) return LogOpenError(L"MapViewOfFile(%s) failed: %hs\n", data);
  return OpenResult::kMapped;
}

void DescribeBits(BitmapData& data) {
  ResolveNtdllBitmap();
  RtlInitializeBitMapFunction* const initialize = ntdllBitmap.RtlInitializeBitMap;
  if (initialize == nullptr) return;
  initialize(&data.BitmapHeader, reinterpret_cast<std::uint32_t*>(data.header() + 1),
             CountBits(data.header()->BitmapSize));
}

}  // namespace

OpenResult OpenAndMapBitmap(BitmapData& data) {
  if (const OpenResult result = MapFile(data); result != OpenResult::kMapped) return result;
  // A file shorter than a header is mapped as a whole page with zeros behind its end, so its
  // BitmapSize can be read and does not fit.
  const std::uint32_t bitmap_size = data.header()->BitmapSize;
  if (!FitsBitmapFile(bitmap_size, data.FileSize)) {
    LogMessage(kBitmapError,
               L"Bitmap %s is corrupted: header(%u) + bitmap size(%lu) > file size (%lu)\n",
               data.FileName.c_str(), std::uint32_t{kBitmapHeaderSize}, bitmap_size, data.FileSize);
    return OpenResult::kCorrupted;
  }
  if (bitmap_size != 0) DescribeBits(data);
  return OpenResult::kMapped;
}

void FlushBitmapHeader(const BitmapData& data) {
  if (!::FlushViewOfFile(data.header(), kBitmapHeaderSize)) {
    LogMessage(kBitmapError, L"Failed to flush bitmap header to disk: %hs\n", ErrorInfo().text());
  }
}

bool FlushBitmapFile(const BitmapData& data) {
  if (::FlushFileBuffers(data.FileHandle.get())) return true;
  LogMessage(kBitmapError, L"Failed to flush bitmap file %s to disk: %hs\n", data.FileName.c_str(),
             ErrorInfo().text());
  return false;
}

void FlushDistrustMark(const BitmapData& data) {
  FlushBitmapHeader(data);
  FlushBitmapFile(data);
}

bool MarkDistrusted(const BitmapData& data, std::uint8_t BitmapHeader::*mark) {
  const bool is_new = std::atomic_ref(data.header()->*mark).exchange(1) == 0;
  if (is_new) {
    FlushDistrustMark(data);
  } else {
    FlushBitmapHeader(data);
  }
  return is_new;
}

void StampLastUpdateTime(const BitmapData& data) {
  std::atomic_ref(data.header()->LastUpdateTime).exchange(SystemTimeNow());
}

}  // namespace zel
