// What the driver reports of a file, recorded in one bitmap: here bytes become blocks, and blocks
// bits. A change that was recorded is in the bits, or a mark in the header says that they cannot be
// trusted. Pure.
//
// Units: bytes of the tracked file at the interface; blocks and bits only inside.
// Threads: any number on one bitmap, without a lock; nothing that anyone records is lost.
// Lifetime: header and bits belong to the caller and outlive this object; they may lie in a mapped
// file that other programs write to, so what the computation depends on is read once, here.
// Cost: of a write that lies inside the bitmap a time, a division and the bits.
#pragma once

#include <cstdint>
#include <optional>

#include "bitmap/change/block_range.h"
#include "bitmap/change/set_bits.h"
#include "bitmap/format/bitmap_header.h"

namespace zel {

class ChangeBitmap {
 public:
  // Sets a range of bits that lies inside the bitmap: SetBitsInRange, and whatever else its caller
  // wants to be done.
  using BitSetter = void(const RtlBitmap* bitmap, std::uint32_t first, std::uint32_t count);

  // `block_size` is the checked one of the header, above 0.
  ChangeBitmap(BitmapFileHeader& header, std::uint32_t block_size, const RtlBitmap& bits,
               BitSetter* set_bits);

  // What the bitmap's file owes the device after a change. A mark that the device has is not
  // flushed again, however often a file that goes on growing sets it.
  enum class Owed { kNothing, kHeaderToDevice };

  struct WriteRecorded {
    Owed owed;
    bool block_number_cut;  // the first block's number has more than 32 bits
  };

  // A write of `length` bytes at `offset`. What has no bit marks the bitmap SizeChanged.
  WriteRecorded RecordWrite(std::uint64_t offset, std::uint32_t length, FileTime now);

  // The file's size is now `new_size`. Another one than when the bitmap was made marks it
  // SizeChanged; a smaller one counts as a change of all from the new end on.
  Owed RecordSize(std::uint64_t new_size, FileTime now);

  // Changes may be missing: marks the bitmap Unreliable. The header is owed to the device by the
  // one caller whose mark is new.
  Owed Distrust(FileTime now);

 private:
  void Stamp(FileTime now);
  Owed Mark(std::uint8_t BitmapFileHeader::*mark);
  void Set(const std::optional<BitRange>& bits);

  // A write needs all but the last.
  BitmapFileHeader& header_;
  const std::uint32_t block_size_;
  const RtlBitmap bits_;
  BitSetter* const set_bits_;
  const std::uint64_t file_size_;  // of the tracked file when the bitmap was made
};

}  // namespace zel
