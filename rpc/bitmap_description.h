// A bitmap as the interface tells of it.
#pragma once

#include <cstdint>

#include "bitmap/format/bitmap_header.h"
#include "rpc/zel_interface.h"

namespace zel {

// A bitmap whose file has `file_size` bytes, header included.
[[nodiscard]] inline wire::BitmapInfo DescribeBitmap(const BitmapFileHeader& header,
                                                     std::uint32_t file_size) {
  return {.FileSize = file_size,
          .padding_04 = 0,
          .CreationTime = header.NameCreationTime,
          .BlockSize = header.BlockSize,
          .padding_14 = 0,
          .BitmapId = header.BitmapId,
          .VolumeGuid = header.Volume,
          .FileId = header.FileId};
}

}  // namespace zel
