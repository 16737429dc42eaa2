// The lock that keeps other runs away from a copy, and the copy as it was opened under it. Pure.
//
// Threads: one thread.
// Lifetime: borrows the machine and the place.
#pragma once

#include <memory>

#include "zelctl/copies/copy_place.h"
#include "zelctl/failure.h"

namespace zel::ctl {

class CopyLock {
 public:
  CopyLock(Machine& machine, const CopyPlace& place) : machine_(machine), place_(place) {}

  // Makes the folder, takes the lock and opens the copy for writing. A copy that does not exist is
  // no failure. Until this object goes, no other run has the copy. Called once, first.
  [[nodiscard]] MaybeFailure Take();

  // Null where there is no copy, or after CloseFile.
  [[nodiscard]] TargetFile* file() const { return file_.get(); }
  // Without a file id where there was no copy.
  [[nodiscard]] const FileIdentity& identity() const { return identity_; }

  // Locks the file that is to take the copy's place, too: who finds it there later finds it taken.
  // One without an id has the lock of the copy's name.
  [[nodiscard]] MaybeFailure LockReplacement(const FileIdentity& file);
  // A file that is open cannot be replaced; the lock goes on keeping other runs away.
  void CloseFile() { file_.reset(); }

 private:
  [[nodiscard]] MaybeFailure LockAndOpen(bool& is_settled);
  [[nodiscard]] MaybeFailure LockName(bool& is_settled);
  [[nodiscard]] MaybeFailure LockFile(bool& is_settled);
  [[nodiscard]] MaybeFailure TakeLock(const FileIdentity& copy, std::unique_ptr<HeldLock>& lock);

  Machine& machine_;
  const CopyPlace& place_;
  std::unique_ptr<HeldLock> lock_;
  std::unique_ptr<HeldLock> replacement_lock_;
  std::unique_ptr<TargetFile> file_;
  FileIdentity identity_;
};

// Another run, or another program, has the copy.
[[nodiscard]] Failure BusyFailure(Machine& machine, const CopyPlace& place);

}  // namespace zel::ctl
