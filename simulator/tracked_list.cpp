#include "simulator/tracked_list.h"

namespace zel::sim {

namespace {

constexpr std::uint16_t kListMagic = 0x7C18;
constexpr std::size_t kRecordBytes = 14;  // in front of the path

// Takes a value off the front of `bytes`.
template <class Value>
bool Take(std::span<const std::byte>& bytes, Value& value) {
  if (bytes.size() < sizeof value) return false;
  std::memcpy(&value, bytes.data(), sizeof value);
  bytes = bytes.subspan(sizeof value);
  return true;
}

// Takes one record; the last one says 0 for its length.
bool TakeRecord(std::span<const std::byte>& bytes, bool last, FileId& file_id) {
  std::uint32_t record_bytes;
  std::uint16_t path_bytes;
  if (!Take(bytes, record_bytes) || !Take(bytes, file_id) || !Take(bytes, path_bytes)) return false;
  if (path_bytes == 0 || path_bytes % 2 != 0 || path_bytes > bytes.size()) return false;
  bytes = bytes.subspan(path_bytes);
  return record_bytes == (last ? 0 : kRecordBytes + path_bytes);
}

}  // namespace

bool ReadTrackedList(std::span<const std::byte> value, const VolumeGuid& name,
                     TrackedFiles& files) {
  std::uint16_t magic;
  VolumeGuid volume;
  std::uint32_t count;
  if (!Take(value, magic) || !Take(value, volume) || !Take(value, count)) return false;
  if (magic != kListMagic || volume != name || count == 0) return false;
  for (; count != 0; --count) {
    FileId file_id;
    if (!TakeRecord(value, count == 1, file_id)) return false;
    files.insert({volume, file_id});
  }
  return value.empty();
}

}  // namespace zel::sim
