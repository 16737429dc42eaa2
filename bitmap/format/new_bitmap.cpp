#include "bitmap/format/new_bitmap.h"

namespace zel {

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
