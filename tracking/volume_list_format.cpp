#include "tracking/volume_list_format.h"

#include <cstring>

namespace zel {

namespace {

// Copies a T out of the beginning of `bytes`; false when they are too few.
template <class T>
bool Extract(std::span<const std::byte> bytes, T& value) {
  if (bytes.size() < sizeof value) return false;
  std::memcpy(&value, bytes.data(), sizeof value);
  return true;
}

std::wstring ExtractPath(std::span<const std::byte> bytes) {
  std::u16string path(bytes.size() / sizeof(char16_t), u'\0');
  std::memcpy(path.data(), bytes.data(), path.size() * sizeof(char16_t));
  return {path.begin(), path.end()};
}

}  // namespace

TrackedFileListReader::TrackedFileListReader(std::span<const std::byte> value) {
  TrackedFileListHeader header;
  if (!Extract(value, header)) return;
  const VolumeGuid volume = header.volume;  // a copy, for the field is not aligned
  volume_guid_ = volume;
  remaining_ = header.count;
  rest_ = value.subspan(sizeof header);
}

std::optional<TrackedFileListReader::Record> TrackedFileListReader::Next() {
  TrackedFileHeader header;
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
