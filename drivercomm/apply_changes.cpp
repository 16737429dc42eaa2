#include "drivercomm/apply_changes.h"

#include <optional>

#include "bitmap/bitmap_manager.h"
#include "common/identity.h"
#include "drivercomm/block_range.h"
#include "logging/log_message.h"

namespace zel {

namespace {

void SetBits(const BitmapData& bitmap, const std::optional<BitRange>& bits) {
  if (bits) ZelSetBits(&bitmap.BitmapHeader, bits->first, bits->count);
}

void ApplyWrite(const BitmapData& bitmap, std::uint64_t offset, std::uint32_t length) {
  StampLastUpdateTime(bitmap);
  const BlockRange blocks = BlocksOfWrite(offset, length, bitmap.header()->BlockSize);
  const BitsToSet to_set = BitsOfBlocks(blocks, bitmap.BitmapHeader.SizeOfBitMap);
  if (to_set.first_cut) {
    LogMessage(kDriverCommError,
               L"UpdateBitmapsForFile: bitmap is larger than 4GB, not supported\n");
  }
  if (to_set.passes_end) MarkDistrusted(bitmap, &BitmapHeader::SizeChanged);
  SetBits(bitmap, to_set.bits);
}

void ApplySize(const BitmapData& bitmap, std::uint64_t new_size) {
  const BitmapHeader& header = *bitmap.header();
  if (header.FileSize == new_size) return;
  StampLastUpdateTime(bitmap);
  MarkDistrusted(bitmap, &BitmapHeader::SizeChanged);
  SetBits(bitmap, BitsBehindNewEnd(new_size, header.FileSize, header.BlockSize,
                                   bitmap.BitmapHeader.SizeOfBitMap));
}

}  // namespace

void UpdateBitmapsForFile(FileId file_id, const VolumeGuid& volume_guid, std::uint64_t offset,
                          std::uint32_t length) {
  const PinnedBitmaps bitmaps = FindBitmapsForFile(volume_guid, file_id, FindFor::kChange);
  for (const PinnedBitmap& bitmap : bitmaps) ApplyWrite(*bitmap, offset, length);
  LogMessage(kDriverCommDebug,
             L"FileId 0x%016I64x write at offset %I64u length %u; %u bitmaps updated\n", file_id,
             offset, length, static_cast<std::uint32_t>(bitmaps.size()));
}

void ApplySizeChange(FileId file_id, const VolumeGuid& volume_guid, std::uint64_t new_size) {
  for (const PinnedBitmap& bitmap : FindBitmapsForFile(volume_guid, file_id, FindFor::kChange)) {
    ApplySize(*bitmap, new_size);
  }
}

void MarkUnreportedChanges(FileId file_id, const VolumeGuid& volume_guid) {
  for (const PinnedBitmap& bitmap : FindBitmapsForFile(volume_guid, file_id, FindFor::kChange)) {
    StampLastUpdateTime(*bitmap);
    if (!MarkDistrusted(*bitmap, &BitmapHeader::Unreliable)) continue;
    LogMessage(kDriverCommInfo,
               L"Filter driver indicated unreported changes for Volume %s, FileId 0x%016I64x, "
               L"BitmapId 0x%016I64x\n",
               GuidToString(volume_guid).c_str(), file_id, bitmap->BitmapId);
  }
}

}  // namespace zel
