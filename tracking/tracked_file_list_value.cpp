#include "tracking/tracked_file_list_value.h"

#include <cstring>

namespace zel {

namespace {

constexpr std::uint16_t kMagic = 0x7C18;

#pragma pack(push, 1)
struct ValueHeader {    // offset  little-endian
  std::uint16_t magic;  //  0
  VolumeGuid volume;    //  2
  std::uint32_t count;  // 18      of the records that follow
};
struct RecordHeader {        // offset
  std::uint32_t length;      //  0      of the record, in bytes; 0 in the last one
  FileId file_id;            //  4
  std::uint16_t path_bytes;  // 12      of the path that follows
};
#pragma pack(pop)
static_assert(sizeof(ValueHeader) == 22 && offsetof(ValueHeader, volume) == 2 &&
              offsetof(ValueHeader, count) == 18);
static_assert(sizeof(RecordHeader) == 14 && offsetof(RecordHeader, file_id) == 4 &&
              offsetof(RecordHeader, path_bytes) == 12);
static_assert(kMaxTrackedPath == UINT16_MAX / sizeof(char16_t));

std::size_t RecordLength(std::wstring_view path) {
  return sizeof(RecordHeader) + path.size() * sizeof(char16_t);
}

std::size_t ValueSize(const VolumeFileList& list) {
  std::size_t size = sizeof(ValueHeader);
  for (const auto& [path, file_id] : list.files()) size += RecordLength(path);
  return size;
}

template <class T>
std::byte* Append(std::byte* at, const T& value) {
  std::memcpy(at, &value, sizeof value);
  return at + sizeof value;
}

std::byte* AppendPath(std::byte* at, std::wstring_view path) {
  for (const wchar_t unit : path) at = Append(at, static_cast<char16_t>(unit));
  return at;
}

// Copies a T out of the beginning of `bytes`; false when they are too few.
template <class T>
bool Extract(std::span<const std::byte> bytes, T& value) {
  if (bytes.size() < sizeof value) return false;
  std::memcpy(&value, bytes.data(), sizeof value);
  return true;
}

std::wstring ExtractPath(std::span<const std::byte> bytes) {
  std::wstring path(bytes.size() / sizeof(char16_t), L'\0');
  for (std::size_t i = 0; i < path.size(); ++i) {
    char16_t unit = 0;
    std::memcpy(&unit, bytes.data() + i * sizeof unit, sizeof unit);
    path[i] = static_cast<wchar_t>(unit);
  }
  return path;
}

}  // namespace

std::vector<std::byte> EncodeTrackedFileListValue(const VolumeFileList& list) {
  std::vector<std::byte> value(ValueSize(list));
  const auto count = static_cast<std::uint32_t>(list.files().size());
  std::byte* at = Append(value.data(), ValueHeader{kMagic, list.volume_guid(), count});
  std::uint32_t left = count;
  for (const auto& [path, file_id] : list.files()) {
    const bool is_last = --left == 0;
    const auto length = static_cast<std::uint32_t>(RecordLength(path));
    const auto path_bytes = static_cast<std::uint16_t>(path.size() * sizeof(char16_t));
    at = Append(at, RecordHeader{is_last ? 0 : length, file_id, path_bytes});
    at = AppendPath(at, path);
  }
  return value;
}

TrackedFileListReader::TrackedFileListReader(std::span<const std::byte> value) {
  ValueHeader header;
  if (!Extract(value, header)) return;
  const VolumeGuid volume = header.volume;  // a copy, for the field is not aligned
  volume_guid_ = volume;
  remaining_ = header.count;
  rest_ = value.subspan(sizeof header);
}

std::optional<TrackedFileListReader::Record> TrackedFileListReader::Next() {
  RecordHeader header;
  if (remaining_ == 0 || !Extract(rest_, header)) return std::nullopt;
  const std::size_t path_bytes = header.path_bytes;
  if (rest_.size() - sizeof header < path_bytes) return std::nullopt;
  Record record{header.file_id, ExtractPath(rest_.subspan(sizeof header, path_bytes))};

  // Only the last record's length leads nowhere: the count, not a length of 0, ends the walk.
  const bool leads_on = header.length != 0 && header.length <= rest_.size();
  if (--remaining_ != 0) rest_ = leads_on ? rest_.subspan(header.length) : rest_.first(0);
  return record;
}

}  // namespace zel
