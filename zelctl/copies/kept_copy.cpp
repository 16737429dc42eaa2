#include "zelctl/copies/kept_copy.h"

#include <utility>

#include "zelctl/copies/copy_stamp.h"
#include "zelctl/copies/old_mark.h"
#include "zelctl/copies/record_file.h"
#include "zelctl/error_words.h"
#include "zelctl/size_text.h"

namespace zel::ctl {

KeptCopy::KeptCopy(Machine& machine, std::string path)
    : machine_(machine), place_(machine, std::move(path)), lock_(machine, place_) {}

MaybeFailure KeptCopy::Hold() {
  if (auto failure = lock_.Take()) return failure;
  identity_ = lock_.identity();
  if (exists()) {
    const std::uint32_t code = file().GetSize(size_);
    if (auto failure = CheckSystem(machine_, code, "cannot read " + path())) return failure;
  }
  if (auto failure = ReadRecord()) return failure;
  return exists() ? CheckOldMark() : std::nullopt;
}

MaybeFailure KeptCopy::CheckOldMark() {
  std::string mark;
  if (auto failure = FindOldMark(machine_, place_, mark)) return failure;
  if (!mark.empty()) knowledge_ = Knowledge::kOldMark;
  return std::nullopt;
}

MaybeFailure KeptCopy::ReadRecord() {
  StoredRecord stored;
  if (auto failure = ReadRecordFile(machine_, place_.record(identity_), stored)) return failure;
  if (!stored.exists) return std::nullopt;
  knowledge_ = Knowledge::kDamaged;
  if (!stored.record) return std::nullopt;
  knowledge_ = Knowledge::kChanged;
  if (stored.record->copy != identity_) return std::nullopt;
  record_ = *stored.record;
  knowledge_ = Knowledge::kGood;
  return exists() ? CheckStamp() : std::nullopt;
}

MaybeFailure KeptCopy::CheckStamp() {
  FileTime written = 0;
  const std::uint32_t code = file().GetWriteTime(written);
  if (auto failure = CheckSystem(machine_, code, "cannot read " + path())) return failure;
  if (!IsAsLeft(record_, {.size = size_, .written = written})) knowledge_ = Knowledge::kChanged;
  return std::nullopt;
}

MaybeFailure KeptCopy::SaveAsItIs(CopyRecord record) {
  record.copy = identity_;
  if (auto failure = WriteRecordFile(machine_, place_.record(identity_), record)) return failure;
  record_ = std::move(record);
  knowledge_ = Knowledge::kGood;
  return std::nullopt;
}

// File systems that do not move a time which was set, as long as the file is open, leave no doubt
// of who wrote it.
MaybeFailure KeptCopy::BeginWriting(CopyRecord record) {
  const FileTime now = machine_.Now();
  record.size = size_;
  record.half_way->from = now;
  record.half_way->until = now + kSignOfLife;
  std::uint32_t code = file().GetWriteTime(record.written);
  if (auto failure = CheckSystem(machine_, code, "cannot read " + path())) return failure;
  if (auto failure = SaveAsItIs(std::move(record))) return failure;
  FileTime stamped = 0;
  code = file().Stamp(now, stamped);
  return CheckSystem(machine_, code, "cannot write " + path());
}

std::uint32_t KeptCopy::SayAlive() {
  const FileTime now = machine_.Now();
  if (now + kSignOfLife / 2 < record_.half_way->until) return 0;
  CopyRecord record = record_;
  record.half_way->until = now + kSignOfLife;
  const MaybeFailure failure = SaveAsItIs(std::move(record));
  return failure ? failure->code : 0;
}

MaybeFailure KeptCopy::SaveWhole(CopyRecord record) {
  std::uint32_t code = file().GetSize(size_);
  if (code == 0) code = file().Stamp(machine_.Now(), record.written);
  if (auto failure = CheckSystem(machine_, code, "cannot write " + path())) return failure;
  record.size = size_;
  record.half_way.reset();
  return SaveAsItIs(std::move(record));
}

MaybeFailure KeptCopy::CheckRoom(std::uint64_t bytes) const {
  std::uint64_t free_bytes = 0;
  const std::uint32_t code = machine_.GetFreeBytes(place_.folder(), free_bytes);
  if (auto failure = CheckSystem(machine_, code, "cannot tell the room beside " + path())) {
    return failure;
  }
  if (bytes <= free_bytes) return std::nullopt;
  return CheckSystem(machine_, kDiskFull,
                     FormatSize(bytes) + " more are needed beside " + path() + ", and " +
                         FormatSize(free_bytes) + " are free");
}

void KeptCopy::BecomeReplaced(CopyRecord record) {
  identity_ = record.copy;
  record_ = std::move(record);
  knowledge_ = Knowledge::kGood;
}

}  // namespace zel::ctl
