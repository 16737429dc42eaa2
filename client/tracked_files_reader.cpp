#include "client/tracked_files_reader.h"

#include <utility>

#include "client/byte_reader.h"

namespace zel {

namespace {

bool ReadPath(ByteReader& reader, std::wstring& path) {
  for (char16_t unit; reader.Read(unit);) {
    if (unit == 0) return true;
    path += static_cast<wchar_t>(unit);
  }
  return false;
}

const char* ReadFile(ByteReader& reader, TrackedFile& file) {
  if (!reader.Read(file.key.volume) || !reader.Read(file.key.file_id)) {
    return "the stream ends in a file's identity";
  }
  if (!ReadPath(reader, file.path)) return "the stream ends in a path";
  std::uint32_t count = 0;
  if (!reader.Read(count)) return "the stream ends before a file's number of bitmaps";
  for (; count > 0; --count) {
    TrackedFile::Bitmap bitmap = {};
    if (!reader.Read(bitmap.file_size) || !reader.Read(bitmap.creation_time) ||
        !reader.Read(bitmap.bitmap_id)) {
      return "the stream ends in a bitmap";
    }
    file.bitmaps.push_back(bitmap);
  }
  return nullptr;
}

}  // namespace

const char* ReadTrackedFiles(std::span<const std::byte> stream, std::vector<TrackedFile>& files) {
  files.clear();
  ByteReader reader(stream);
  std::uint32_t count = 0;
  if (!reader.Read(count)) return "the stream ends before its number of files";
  for (; count > 0; --count) {
    TrackedFile file = {};
    if (const char* const fault = ReadFile(reader, file)) return fault;
    files.push_back(std::move(file));
  }
  return reader.at_end() ? nullptr : "there is more behind the last file";
}

}  // namespace zel
