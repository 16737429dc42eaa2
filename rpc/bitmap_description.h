// A loaded bitmap as the interface tells of it.
#pragma once

#include <span>

#include "bitmap/bitmap_manager.h"
#include "rpc/zel_interface.h"

namespace zel {

// Everything is the header's, except for the length of the bitmap file. 0, or the Win32 code with
// which the bitmap could not be read; `info` is unchanged then.
[[nodiscard]] inline std::uint32_t DescribeBitmap(const PinnedBitmap& bitmap,
                                                  wire::BitmapInfo& info) {
  BitmapFileHeader header = {};
  const std::uint32_t error = ReadBitmap(bitmap, 0, std::as_writable_bytes(std::span(&header, 1)));
  if (error != 0) return error;
  info = {.FileSize = bitmap->FileSize,
          .padding_04 = 0,
          .CreationTime = header.NameCreationTime,
          .BlockSize = header.BlockSize,
          .padding_14 = 0,
          .BitmapId = header.BitmapId,
          .VolumeGuid = header.Volume,
          .FileId = header.FileId};
  return 0;
}

}  // namespace zel
