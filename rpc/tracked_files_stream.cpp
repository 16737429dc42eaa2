#include "rpc/tracked_files_stream.h"

#include <bit>
#include <string>

namespace zel {

static_assert(std::endian::native == std::endian::little, "values are written as they are");

template <class T>
void TrackedFilesWriter::Put(const T& value) {
  sink_(std::as_bytes(std::span(&value, 1)));
}

void TrackedFilesWriter::PutFileCount(std::uint32_t files) {
  Put(files);
}

void TrackedFilesWriter::PutFile(const VolumeGuid& volume_guid, FileId file_id,
                                 std::wstring_view path, std::uint32_t bitmaps) {
  Put(volume_guid);
  Put(file_id);
  // Code units of 16 bits, whatever a wchar_t has here, and the terminator.
  std::u16string units(path.begin(), path.end());
  units += u'\0';
  sink_(std::as_bytes(std::span(units)));
  Put(bitmaps);
}

void TrackedFilesWriter::PutBitmap(std::uint32_t file_size, FileTime creation_time,
                                   BitmapId bitmap_id) {
  Put(file_size);
  Put(creation_time);
  Put(bitmap_id);
}

}  // namespace zel
