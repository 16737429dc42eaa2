#include "zelctl/copies/copy_replacement.h"

#include <utility>

#include "zelctl/copies/old_mark.h"
#include "zelctl/copies/record_file.h"
#include "zelctl/error_words.h"

namespace zel::ctl {

MaybeFailure CopyReplacement::Begin(std::uint64_t size) {
  const CopyPlace& place = copy_.place();
  const std::uint32_t code = machine_.CreateReplacement(place.path(), place.replacement(), file_);
  if (code == kSharingViolation) return BusyFailure(machine_, place);
  if (auto failure = CheckSystem(machine_, code, "cannot write beside " + place.told())) {
    return failure;
  }
  return copy_.CheckRoom(size);
}

MaybeFailure CopyReplacement::TakePlace(CopyRecord record) {
  const CopyPlace& place = copy_.place();
  std::uint32_t code = file_->GetSize(record.size);
  if (code == 0) code = file_->Identify(record.copy);
  if (code == 0) code = file_->Stamp(machine_.Now(), record.written);
  if (auto failure = CheckSystem(machine_, code, "cannot write beside " + place.told())) {
    return failure;
  }
  if (auto failure = copy_.LockReplacement(record.copy)) return failure;
  const std::string old_record = place.record(copy_.identity());
  const std::string new_record = place.record(record.copy);
  if (auto failure = WriteRecordFile(machine_, new_record, record)) return failure;
  copy_.Close();
  code = file_->Commit();
  if (auto failure = CheckSystem(machine_, code, "cannot replace " + place.told())) return failure;
  copy_.BecomeReplaced(std::move(record));
  // What was known of the file that is gone; where nothing was, there is nothing to remove.
  if (old_record != new_record) (void)machine_.Remove(old_record);
  return RemoveOldMark(machine_, place);
}

}  // namespace zel::ctl
