// Which bitmap may bring which copy up to date. Pure.
//
// The rule: one that began no later than the time as of which the copy is good. Each write since
// then is in the bitmap, or after what the bitmap knows and so in a later one.
#pragma once

#include <optional>

#include "zelctl/copies/copy_record.h"

namespace zel::ctl {

// A bitmap as a run got it.
struct OfferedBitmap {
  FileIdentity of = {};
  BitmapId id = 0;
  FileTime begun = 0;
  // Every write up to here is in it; none where nobody knows, as of a file that nobody exported.
  std::optional<FileTime> known_until = {};
  FileTime taken = 0;       // now: it knows of no write after that
  bool is_current = false;  // the service has synchronized and sent it in this very run
  std::uint64_t digest = 0;
};

enum class RuleFault {
  kOtherFile,        // the copy is one of another file
  kBegunTooLate,     // changes between the copy's time and the bitmap's are in neither
  kHalfWay,          // a run with a bitmap that knows more left the copy half way
  kSnapshotTooOld,   // the snapshot is older than the copy or than the bitmap
  kSnapshotUnknown,  // the bitmap may lack what the snapshot has, or what the copy has beyond it
};

// `snapshot`: when the source was taken, if it is one; none for the live file.
[[nodiscard]] std::optional<RuleFault> CheckRule(const CopyRecord& record,
                                                 const OfferedBitmap& bitmap,
                                                 std::optional<FileTime> snapshot);

// As of when the copy is good after a whole run that the rule allows.
[[nodiscard]] FileTime AsOfAfterwards(const CopyRecord& record, const OfferedBitmap& bitmap,
                                      std::optional<FileTime> snapshot);

}  // namespace zel::ctl
