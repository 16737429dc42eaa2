// The bytes of the registry value that holds the tracked files of one volume. Pure.
//
// Format: docs/operations.md, "Tracked files". The reader trusts the value: it checks neither the
// magic nor the records' lengths against their paths, only that it reads nothing outside the bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "common/types.h"
#include "tracking/volume_file_list.h"

namespace zel {

// The longest path that a record holds, in UTF-16 code units.
inline constexpr std::size_t kMaxTrackedPath = 32'767;

// The whole value, records in the order of files(). No path is longer than kMaxTrackedPath.
[[nodiscard]] std::vector<std::byte> EncodeTrackedFileListValue(const VolumeFileList& list);

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
