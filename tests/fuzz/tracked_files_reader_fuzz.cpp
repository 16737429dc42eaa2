// Any bytes as a TrackedFilesStream: refused, or exactly what the service writes of what was read.
#include <cstdlib>
#include <vector>

#include "client/tracked_files_reader.h"
#include "rpc/tracked_files_stream.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const std::span stream(reinterpret_cast<const std::byte*>(data), size);
  std::vector<zel::TrackedFile> files;
  if (zel::ReadTrackedFiles(stream, files) != nullptr) return 0;

  std::size_t at = 0;
  zel::TrackedFilesWriter writer([&](std::span<const std::byte> piece) {
    if (piece.size() > size - at) std::abort();
    if (!std::equal(piece.begin(), piece.end(), stream.begin() + static_cast<long>(at))) {
      std::abort();
    }
    at += piece.size();
  });
  writer.PutFileCount(static_cast<std::uint32_t>(files.size()));
  for (const zel::TrackedFile& file : files) {
    writer.PutFile(file.key.volume, file.key.file_id, file.path,
                   static_cast<std::uint32_t>(file.bitmaps.size()));
    for (const auto& bitmap : file.bitmaps) {
      writer.PutBitmap(bitmap.file_size, bitmap.creation_time, bitmap.bitmap_id);
    }
  }
  if (at != size) std::abort();
  return 0;
}
