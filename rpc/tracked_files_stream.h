// Writing a TrackedFilesStream: every tracked file and its bitmaps. Pure.
//
// Format: docs/rpc-interface.md. Little-endian, without padding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string_view>

#include "files/types.h"

namespace zel {

// Hands each value to the sink as a piece of its own. The caller puts the number of files, and for
// each file its start and then as many bitmaps as it said.
class TrackedFilesWriter {
 public:
  using Sink = std::function<void(std::span<const std::byte> piece)>;

  explicit TrackedFilesWriter(Sink sink) : sink_(std::move(sink)) {}

  void PutFileCount(std::uint32_t files);
  void PutFile(const VolumeGuid& volume_guid, FileId file_id, std::wstring_view path,
               std::uint32_t bitmaps);
  void PutBitmap(std::uint32_t file_size, FileTime creation_time, BitmapId bitmap_id);

 private:
  template <class T>
  void Put(const T& value);

  Sink sink_;
};

}  // namespace zel
