// The names by which the system knows volumes, files, bitmaps and points in time. Pure.
#pragma once

#include <compare>
#include <cstdint>
#include <cstring>

#include "win32/file_time.h"

namespace zel {

// A file's index on its volume: nFileIndexHigh and nFileIndexLow, joined.
using FileId = std::uint64_t;

// One bitmap: the file index of the bitmap file itself.
using BitmapId = std::uint64_t;

// A volume's GUID in the layout of a Windows GUID. Compared as its 16 raw bytes, so the order is
// not that of the text form.
struct VolumeGuid {
  std::uint32_t Data1;
  std::uint16_t Data2;
  std::uint16_t Data3;
  std::uint8_t Data4[8];

  friend bool operator==(const VolumeGuid& a, const VolumeGuid& b) noexcept {
    return std::memcmp(&a, &b, sizeof a) == 0;
  }
  friend std::strong_ordering operator<=>(const VolumeGuid& a, const VolumeGuid& b) noexcept {
    return std::memcmp(&a, &b, sizeof a) <=> 0;
  }
};
static_assert(sizeof(VolumeGuid) == 16);

// The pair that names a tracked file everywhere. Ordered by the GUID's bytes, then by the id.
struct FileKey {
  VolumeGuid volume;
  FileId file_id;

  friend auto operator<=>(const FileKey&, const FileKey&) noexcept = default;
};

}  // namespace zel
