#include "bitmap/header_checks.h"

#include <utility>

namespace zel {

InUseMark MarkInUse(BitmapHeader& header, FileTime now) {
  // Any other value was not written by a clean close.
  if (std::exchange(header.ClosedCleanly, std::uint8_t{0}) == 1) {
    header.LastUpdateTime = now;
    return InUseMark::kWasClean;
  }
  return std::exchange(header.Unreliable, std::uint8_t{1}) == 0 ? InUseMark::kNewlyUnreliable
                                                                : InUseMark::kStillUnreliable;
}

HeaderStep NextHeaderStep(const BitmapHeader& header, std::uint32_t name_block_size) {
  // A block size of 0 agrees with a malformed name, but nobody could divide by it.
  if (header.BlockSize != name_block_size || header.BlockSize == 0) {
    return HeaderStep::kRefuseBlockSize;
  }
  if (header.Magic != kBitmapMagic) return HeaderStep::kRefuseMagic;
  if (header.Version == kOldBitmapVersion) return HeaderStep::kUpgradeVersion;
  if (header.Version != kBitmapVersion) return HeaderStep::kRefuseVersion;
  if (header.HeaderSize == kOldBitmapHeaderSize) return HeaderStep::kRepairHeaderSize;
  if (header.HeaderSize != kBitmapHeaderSize) return HeaderStep::kRefuseHeaderSize;
  return HeaderStep::kAccept;
}

void UpgradeVersion(BitmapHeader& header, BitmapId bitmap_id, FileTime name_creation_time) {
  header.BitmapId = bitmap_id;
  header.NameCreationTime = name_creation_time;
  header.Version = kBitmapVersion;
}

void RepairHeaderSize(BitmapHeader& header) {
  header.HeaderSize = kBitmapHeaderSize;
}

}  // namespace zel
