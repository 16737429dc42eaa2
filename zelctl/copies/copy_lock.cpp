#include "zelctl/copies/copy_lock.h"

#include "zelctl/error_words.h"

namespace zel::ctl {

Failure BusyFailure(Machine& machine, const CopyPlace& place) {
  Failure failure = *CheckSystem(machine, kSharingViolation,
                                 "another run or another program is working on " + place.told());
  failure.reason = Reason::kBusy;
  return failure;
}

MaybeFailure CopyLock::Take() {
  if (auto failure = CheckSystem(machine_, machine_.MakeFolder(place_.folder()),
                                 "cannot write beside " + place_.told())) {
    return failure;
  }
  // A full pass may put another file there in the moment between the look and the lock.
  constexpr int kTries = 3;
  bool is_settled = false;
  for (int i = 0; i < kTries && !is_settled; ++i) {
    if (auto failure = LockAndOpen(is_settled)) return failure;
  }
  if (!is_settled) return BusyFailure(machine_, place_);
  return std::nullopt;
}

MaybeFailure CopyLock::LockAndOpen(bool& is_settled) {
  const std::uint32_t code = machine_.Identify(place_.path(), identity_);
  if (code == kFileNotFound) return LockName(is_settled);
  if (auto failure = CheckSystem(machine_, code, "cannot open " + place_.told())) return failure;
  return LockFile(is_settled);
}

MaybeFailure CopyLock::TakeLock(const FileIdentity& copy, std::unique_ptr<HeldLock>& lock) {
  lock.reset();  // it may be the same
  const std::uint32_t code = machine_.Lock(place_.lock(copy), lock);
  if (code == kSharingViolation) return BusyFailure(machine_, place_);
  return CheckSystem(machine_, code, "cannot write beside " + place_.told());
}

MaybeFailure CopyLock::LockReplacement(const FileIdentity& file) {
  return file.file_id == 0 ? std::nullopt : TakeLock(file, replacement_lock_);
}

MaybeFailure CopyLock::LockName(bool& is_settled) {
  identity_ = {};
  if (auto failure = TakeLock(identity_, lock_)) return failure;
  FileIdentity appeared;
  is_settled = machine_.Identify(place_.path(), appeared) == kFileNotFound;
  return std::nullopt;
}

MaybeFailure CopyLock::LockFile(bool& is_settled) {
  if (identity_.file_id == 0) {
    return Refuse(Reason::kIdentity,
                  place_.told() + " is on a file system that tells no files apart by ids");
  }
  if (auto failure = TakeLock(identity_, lock_)) return failure;
  std::uint32_t code = machine_.OpenTarget(place_.path(), file_);
  if (code == kSharingViolation) return BusyFailure(machine_, place_);
  FileIdentity opened;
  if (code == 0) code = file_->Identify(opened);
  if (auto failure = CheckSystem(machine_, code, "cannot open " + place_.told() + " for writing")) {
    return failure;
  }
  is_settled = opened == identity_;
  if (!is_settled) file_.reset();
  return std::nullopt;
}

}  // namespace zel::ctl
