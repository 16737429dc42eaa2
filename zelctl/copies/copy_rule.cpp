#include "zelctl/copies/copy_rule.h"

#include <algorithm>

namespace zel::ctl {

namespace {

// What the interrupted run wrote is in blocks of its bitmap. One that knows as much writes each
// of them again, or finds the copy right there; the very same one does whatever it knows.
bool Completes(const HalfWay& half, const OfferedBitmap& bitmap) {
  if (half.digest == bitmap.digest) return true;
  return bitmap.known_until && *bitmap.known_until >= half.taken;
}

// A copy of a live file may have writes from after its time; a snapshot lacks them, so each must
// have its bit. A bitmap that was synchronized just now has them all.
bool KnowsWhatIsBeyond(const CopyRecord& record, const OfferedBitmap& bitmap, FileTime snapshot) {
  if (bitmap.is_current) return true;
  if (!bitmap.known_until || *bitmap.known_until < std::max(snapshot, record.read_until)) {
    return false;
  }
  return !record.half_way || record.half_way->digest == bitmap.digest;
}

}  // namespace

std::optional<RuleFault> CheckRule(const CopyRecord& record, const OfferedBitmap& bitmap,
                                   std::optional<FileTime> snapshot) {
  if (record.of != bitmap.of) return RuleFault::kOtherFile;
  if (bitmap.begun > record.as_of) return RuleFault::kBegunTooLate;
  if (record.half_way && !Completes(*record.half_way, bitmap)) return RuleFault::kHalfWay;
  if (!snapshot) return std::nullopt;
  // Its begin is no later than the copy's time.
  if (*snapshot < record.as_of) return RuleFault::kSnapshotTooOld;
  if (!KnowsWhatIsBeyond(record, bitmap, *snapshot)) return RuleFault::kSnapshotUnknown;
  return std::nullopt;
}

FileTime AsOfAfterwards(const CopyRecord& record, const OfferedBitmap& bitmap,
                        std::optional<FileTime> snapshot) {
  return snapshot ? *snapshot : std::max(record.as_of, bitmap.known_until.value_or(0));
}

}  // namespace zel::ctl
