#include "bitmap/format/new_bitmap.h"

#include <algorithm>
#include <limits>

namespace zel {

namespace {

constexpr std::uint32_t kMax32 = std::numeric_limits<std::uint32_t>::max();

// Without the sum that could overflow.
constexpr std::uint64_t DivideUp(std::uint64_t dividend, std::uint32_t divisor) {
  return dividend / divisor + (dividend % divisor != 0 ? 1 : 0);
}

}  // namespace

std::uint64_t CountBlocks(std::uint64_t file_size, std::uint32_t block_size) {
  return DivideUp(file_size, block_size);
}

std::optional<std::uint32_t> ComputeBitmapSize(std::uint64_t file_size, std::uint32_t block_size) {
  const std::uint64_t size = DivideUp(CountBlocks(file_size, block_size), 8);
  if (size > kMax32 - kBitmapHeaderSize) return std::nullopt;
  return static_cast<std::uint32_t>(size);
}

bool FitsBitmapFile(std::uint32_t bitmap_size, std::uint32_t file_size) {
  return std::uint64_t{kBitmapHeaderSize} + bitmap_size <= file_size;
}

std::uint32_t CountBits(std::uint32_t bitmap_size) {
  return static_cast<std::uint32_t>(
      std::min<std::uint64_t>(std::uint64_t{bitmap_size} * 8, kMax32));
}

NewBitmapBytes ComposeNewBitmapBytes(const NewBitmap& bitmap, BitmapId bitmap_id) {
  NewBitmapBytes bytes = {};
  BitmapFileHeader& header = bytes.header;
  header.Magic = kBitmapMagic;
  header.HeaderSize = kBitmapHeaderSize;
  header.Version = kBitmapVersion;
  header.Volume = bitmap.volume_guid;
  header.FileId = bitmap.file_id;
  header.CreationTime = bitmap.creation_time;
  header.InitialTime = bitmap.creation_time;
  header.LastUpdateTime = bitmap.creation_time;
  header.BlockSize = bitmap.block_size;
  header.ClosedCleanly = 1;
  header.BitmapSize = bitmap.bitmap_size;
  header.FileSize = bitmap.file_size;
  header.BitmapId = bitmap_id;
  header.NameCreationTime = bitmap.creation_time;
  return bytes;
}

}  // namespace zel
