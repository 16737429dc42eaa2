#include "bitmap/format/header_checks.h"

namespace zel {

// Nothing is written that stands there already: a file that is refused again and again is not
// written to at every try.
InUseMark MarkInUse(BitmapFileHeader& header, FileTime now) {
  // Any other value was not written by a clean close.
  const bool was_clean = header.ClosedCleanly == 1;
  if (header.ClosedCleanly != 0) header.ClosedCleanly = 0;
  if (was_clean) {
    header.LastUpdateTime = now;
    return InUseMark::kWasClean;
  }
  if (header.Unreliable != 0) return InUseMark::kStillUnreliable;
  header.Unreliable = 1;
  return InUseMark::kNewlyUnreliable;
}

HeaderStep NextHeaderStep(const BitmapFileHeader& header, std::uint32_t name_block_size) {
  // A block size of 0 agrees with a malformed name, but nobody could divide by it.
  if (header.BlockSize != name_block_size || name_block_size == 0) {
    return HeaderStep::kRefuseBlockSize;
  }
  if (header.Magic != kBitmapMagic) return HeaderStep::kRefuseMagic;
  if (header.Version == kOldBitmapVersion) return HeaderStep::kUpgradeVersion;
  if (header.Version != kBitmapVersion) return HeaderStep::kRefuseVersion;
  if (header.HeaderSize == kOldBitmapHeaderSize) return HeaderStep::kRepairHeaderSize;
  if (header.HeaderSize != kBitmapHeaderSize) return HeaderStep::kRefuseHeaderSize;
  return HeaderStep::kAccept;
}

void UpgradeVersion(BitmapFileHeader& header, BitmapId bitmap_id, FileTime name_creation_time) {
  header.BitmapId = bitmap_id;
  header.NameCreationTime = name_creation_time;
  header.Version = kBitmapVersion;
}

void RepairHeaderSize(BitmapFileHeader& header) {
  header.HeaderSize = kBitmapHeaderSize;
}

}  // namespace zel
