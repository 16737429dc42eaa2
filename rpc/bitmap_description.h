// A loaded bitmap as the interface tells of it.
#pragma once

#include "bitmap/bitmap_data.h"
#include "rpc/zel_interface.h"

namespace zel {

// Everything is the header's, except for the length of the bitmap file.
[[nodiscard]] inline wire::BitmapInfo DescribeBitmap(const BitmapData& bitmap) {
  const BitmapFileHeader& header = *bitmap.header();
  return {.FileSize = bitmap.FileSize,
          .padding_04 = 0,
          .CreationTime = header.NameCreationTime,
          .BlockSize = header.BlockSize,
          .padding_14 = 0,
          .BitmapId = header.BitmapId,
          .VolumeGuid = header.Volume,
          .FileId = header.FileId};
}

}  // namespace zel
