// The registry value that holds the tracked files of one volume: its layout, and reading it. Not
// here: writing it (tracking/volume_list.h). Pure.
//
// Format: docs/operations.md, "Tracked files". The reader trusts the value: it checks neither the
// magic nor the records' lengths against their paths, only that it reads nothing outside the bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "files/types.h"

namespace zel {

inline constexpr std::uint16_t kTrackedFileListMagic = 0x7C18;

// The longest path that a record holds, in UTF-16 code units.
inline constexpr std::size_t kMaxTrackedPath = 32'767;

#pragma pack(push, 1)
struct TrackedFileListHeader {  // offset  little-endian
  std::uint16_t magic;          //  0
  VolumeGuid volume;            //  2
  std::uint32_t count;          // 18      of the records that follow
};
struct TrackedFileHeader {   // offset
  std::uint32_t length;      //  0      of the record, in bytes; 0 in the last one
  FileId file_id;            //  4
  std::uint16_t path_bytes;  // 12      of the path that follows
};
#pragma pack(pop)
static_assert(sizeof(TrackedFileListHeader) == 22 && offsetof(TrackedFileListHeader, volume) == 2 &&
              offsetof(TrackedFileListHeader, count) == 18);
static_assert(sizeof(TrackedFileHeader) == 14 && offsetof(TrackedFileHeader, file_id) == 4 &&
              offsetof(TrackedFileHeader, path_bytes) == 12);
static_assert(kMaxTrackedPath == UINT16_MAX / sizeof(char16_t));

// Walks a value's records.
//
// Lifetime: the bytes outlive the reader.
class TrackedFileListReader {
 public:
  struct Record {
    zel::FileId FileId;
    std::wstring Path;
  };

  explicit TrackedFileListReader(std::span<const std::byte> value);

  // None when the value is too short to name its volume; it then has no records.
  [[nodiscard]] const std::optional<VolumeGuid>& volume_guid() const { return volume_guid_; }

  // The next record. None behind the last, and where the value is damaged.
  [[nodiscard]] std::optional<Record> Next();

  // Whether the bytes end, or a record that leads nowhere stops the walk, before the last record
  // that the value counts. Known when Next() has returned none.
  [[nodiscard]] bool IsDamaged() const { return remaining_ != 0 || !volume_guid_; }

 private:
  std::optional<VolumeGuid> volume_guid_;
  std::span<const std::byte> rest_;  // from the next record on
  std::uint32_t remaining_ = 0;      // records not read yet
};

}  // namespace zel
