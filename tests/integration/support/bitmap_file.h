// Bitmap files of a test's own making, and the records that name them.
#pragma once

#include <cstring>
#include <filesystem>
#include <string>

#include "bitmap/bitmap_record.h"
#include "bitmap/flusher.h"
#include "bitmap/format/new_bitmap.h"
#include "files/layout.h"
#include "tests/integration/support/temp_directory.h"

namespace zel::test {

inline constexpr VolumeGuid kVolume = {
    0x12345678, 0x9ABC, 0xDEF0, {0x0F, 0x1E, 0x2D, 0x3C, 0x4B, 0x5A, 0x69, 0x78}};
inline constexpr wchar_t kVolumeText[] = L"12345678-9abc-def0-0f1e-2d3c4b5a6978";
inline constexpr FileId kFileId = 0x0001000000000123;
inline constexpr BitmapId kBitmapId = 0x0002000000000456;
inline constexpr FileTime kCreated = 0x01dc000000000000;
inline constexpr std::uint32_t kBlockSize = 65'536;

// The header of a bitmap of `bitmap_size` bytes that was closed cleanly.
inline BitmapFileHeader MakeHeader(std::uint32_t bitmap_size) {
  const NewBitmap bitmap = {.volume_guid = kVolume,
                            .file_id = kFileId,
                            .creation_time = kCreated,
                            .bitmap_size = bitmap_size,
                            .block_size = kBlockSize,
                            .file_size = std::uint64_t{bitmap_size} * 8 * kBlockSize};
  return ComposeNewBitmapBytes(bitmap, kBitmapId).header;
}

// Writes header and zeros, `length` bytes in all.
inline void WriteBitmapFile(const std::filesystem::path& path, const BitmapFileHeader& header,
                            std::size_t length) {
  std::string bytes(reinterpret_cast<const char*>(&header), sizeof header);
  bytes.resize(length);
  WriteFileBytes(path, bytes);
}

// The header on disk; zeros where the file ends.
inline BitmapFileHeader ReadHeader(const std::filesystem::path& path) {
  BitmapFileHeader header = {};
  const std::string bytes = ReadFileBytes(path);
  std::memcpy(&header, bytes.data(), std::min(bytes.size(), sizeof header));
  return header;
}

inline std::wstring BitmapFileName() {
  return FormatBitmapName(kCreated, kBlockSize);
}

// Makes `record` that of the bitmap file at `path`, as the manager would.
inline void DescribeRecord(BitmapRecord& record, const std::filesystem::path& path) {
  record.VolumeGuid = kVolume;
  record.FileId = kFileId;
  record.BitmapId = kBitmapId;
  record.FileName = path.wstring();
  const std::wstring name = path.filename().wstring();
  if (name.size() != kBitmapNameLength || !ParseNameCreationTime(name)) return;
  record.BlockSize = ParseNameBlockSize(name).value_or(0);
  record.CreationTime = *ParseNameCreationTime(name);
}

// What is done with a record's file, and what is logged of it.
inline bool Load(BitmapRecord& record) {
  const LockGuard guard(record.Lock);
  return LoadBitmap(record);
}
inline void Unload(BitmapRecord& record) {
  const LockGuard guard(record.Lock);
  LogUnload(record, UnloadBitmap(record, UnloadIf::kAlways));
}
inline void Delete(BitmapRecord& record) {
  const LockGuard guard(record.Lock);
  LogDelete(record, DeleteBitmapFile(record));
}

// Notes a change that was recorded, as a report does. True when it left a new mark.
inline bool Note(const std::shared_ptr<BitmapData>& data, ChangeBitmap::Owed owed) {
  data->HasChanges = true;
  if (owed == ChangeBitmap::Owed::kHeaderToDevice) OweMark(data);
  return owed == ChangeBitmap::Owed::kHeaderToDevice;
}

}  // namespace zel::test
