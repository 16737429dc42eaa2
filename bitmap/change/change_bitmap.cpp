#include "bitmap/change/change_bitmap.h"

#include <atomic>

namespace zel {

ChangeBitmap::ChangeBitmap(BitmapFileHeader& header, std::uint32_t block_size,
                           const RtlBitmap& bits, BitSetter* set_bits)
    : header_(header),
      block_size_(block_size),
      bits_(bits),
      set_bits_(set_bits),
      file_size_(header.FileSize) {}

ChangeBitmap::WriteRecorded ChangeBitmap::RecordWrite(std::uint64_t offset, std::uint32_t length,
                                                      FileTime now) {
  Stamp(now);
  const BlockRange blocks = BlocksOfWrite(offset, length, block_size_);
  const BitsToSet to_set = BitsOfBlocks(blocks, bits_.SizeOfBitMap);
  const Owed owed = to_set.passes_end ? Mark(&BitmapFileHeader::SizeChanged) : Owed::kNothing;
  Set(to_set.bits);
  return {owed, to_set.first_cut};
}

ChangeBitmap::Owed ChangeBitmap::RecordSize(std::uint64_t new_size, FileTime now) {
  if (new_size == file_size_) return Owed::kNothing;
  Stamp(now);
  const Owed owed = Mark(&BitmapFileHeader::SizeChanged);
  Set(BitsFromNewEnd(new_size, file_size_, block_size_, bits_.SizeOfBitMap));
  return owed;
}

ChangeBitmap::Owed ChangeBitmap::Distrust(FileTime now) {
  Stamp(now);
  return Mark(&BitmapFileHeader::Unreliable);
}

void ChangeBitmap::Stamp(FileTime now) {
  std::atomic_ref(header_.LastUpdateTime).exchange(now, std::memory_order_relaxed);
}

// Read first: a mark that is set stays set, and its cache line stays with everybody.
ChangeBitmap::Owed ChangeBitmap::Mark(std::uint8_t BitmapFileHeader::*mark) {
  const std::atomic_ref byte(header_.*mark);
  if (byte.load(std::memory_order_relaxed) != 0) return Owed::kNothing;
  return byte.exchange(1, std::memory_order_relaxed) == 0 ? Owed::kHeaderToDevice : Owed::kNothing;
}

void ChangeBitmap::Set(const std::optional<BitRange>& bits) {
  if (bits) set_bits_(&bits_, bits->first, bits->count);
}

}  // namespace zel
