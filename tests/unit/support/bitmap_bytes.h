// Bitmap files put together for tests, bit by bit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "bitmap/format/new_bitmap.h"
#include "zelctl/bitmap_file.h"

namespace zel::test {

inline constexpr VolumeGuid kVolume = {
    0x8a3f10c2, 0x4d5e, 0x4b7a, {0x9e, 0x21, 0xd0, 0x4f, 0x7c, 0x6b, 0x5a, 0x3e}};
inline constexpr FileId kFile = 0x000300000001a2b4;
inline constexpr BitmapId kBitmap = 0x000500000001a9f0;
inline constexpr FileTime kCreated = 0x01dc92bf4c8a6d00;

// A clean bitmap of kFile as the service makes it, without a changed block.
inline std::vector<std::byte> MakeBitmapBytes(std::uint64_t file_size, std::uint32_t block_size,
                                              FileTime created = kCreated) {
  const std::uint32_t size = ComputeBitmapSize(file_size, block_size).value();
  const NewBitmapBytes first = ComposeNewBitmapBytes({.volume_guid = kVolume,
                                                      .file_id = kFile,
                                                      .creation_time = created,
                                                      .bitmap_size = size,
                                                      .block_size = block_size,
                                                      .file_size = file_size},
                                                     kBitmap);
  std::vector<std::byte> bytes(NewBitmapLength(size));
  std::memcpy(bytes.data(), &first.header, sizeof first.header);
  return bytes;
}

// Changes the header of a bitmap file's bytes.
template <class Change>
void ChangeHeader(std::vector<std::byte>& bytes, Change change) {
  BitmapFileHeader header;
  std::memcpy(&header, bytes.data(), sizeof header);
  change(header);
  std::memcpy(bytes.data(), &header, sizeof header);
}

inline void SetBit(std::vector<std::byte>& bytes, std::uint64_t block) {
  bytes.at(kBitmapHeaderSize + block / 8) |= std::byte{1} << block % 8;
}

inline ctl::BitmapFile ToBitmap(std::vector<std::byte> bytes) {
  ctl::BitmapFile bitmap;
  if (ctl::ReadBitmap(std::move(bytes), ctl::BitmapOrigin::kFile, bitmap)) std::abort();
  return bitmap;
}

// A bitmap with these blocks changed.
inline ctl::BitmapFile MakeBitmap(std::uint64_t file_size, std::uint32_t block_size,
                                  const std::vector<std::uint64_t>& changed) {
  std::vector<std::byte> bytes = MakeBitmapBytes(file_size, block_size);
  for (const std::uint64_t block : changed) SetBit(bytes, block);
  return ToBitmap(std::move(bytes));
}

}  // namespace zel::test
