// A copy that this run alone has, and what is known of it from one run to the next. Pure.
//
// Not here: how others are kept away (copies/copy_lock.h), where what is known lies
// (copies/copy_place.h), another file in the copy's place (copies/copy_replacement.h).
//
// Threads: one thread.
#pragma once

#include <string>

#include "zelctl/copies/copy_lock.h"
#include "zelctl/copies/copy_record.h"

namespace zel::ctl {

enum class Knowledge {
  kNone,     // there is no record
  kDamaged,  // there is one that cannot be read
  kChanged,  // somebody else has written the copy since, or it is another file
  kOldMark,  // the tool's first version has left the copy half way
  kGood,     // there is one, and it is this copy's
};

class KeptCopy {
 public:
  // `path` as it was told; messages use it.
  KeptCopy(Machine& machine, std::string path);
  KeptCopy(const KeptCopy&) = delete;
  KeptCopy& operator=(const KeptCopy&) = delete;

  // Takes the lock, opens the copy for writing and reads what is known. Until this object goes, no
  // other run has the copy. A copy that does not exist is no failure. Called once, first.
  [[nodiscard]] MaybeFailure Hold();

  [[nodiscard]] bool exists() const { return lock_.file() != nullptr; }
  [[nodiscard]] const std::string& path() const { return place_.told(); }
  [[nodiscard]] const CopyPlace& place() const { return place_; }
  // Of a copy that exists.
  [[nodiscard]] TargetFile& file() { return *lock_.file(); }
  [[nodiscard]] const FileIdentity& identity() const { return identity_; }
  [[nodiscard]] std::uint64_t size() const { return size_; }

  [[nodiscard]] Knowledge knowledge() const { return knowledge_; }
  // For kGood what is known; otherwise what was known of this very file before, or nothing.
  [[nodiscard]] const CopyRecord& record() const { return record_; }

  // Each puts the record on the device. The copy is written through LiveTarget after BeginWriting,
  // whose `record` says with which bitmap it is half way, and before SaveWhole.
  [[nodiscard]] MaybeFailure SaveAsItIs(CopyRecord record);
  [[nodiscard]] MaybeFailure BeginWriting(CopyRecord record);
  [[nodiscard]] MaybeFailure SaveWhole(CopyRecord record);

  // Says in the record that this run goes on writing, unless it was said just now. Answers a code
  // of the system.
  [[nodiscard]] std::uint32_t SayAlive();

  // Whether the volume can take so many more bytes.
  [[nodiscard]] MaybeFailure CheckRoom(std::uint64_t bytes) const;

  // The steps by which another file takes the copy's place: it is locked, the copy is closed, and
  // it is the file of that record, which is on the device.
  [[nodiscard]] MaybeFailure LockReplacement(const FileIdentity& file) {
    return lock_.LockReplacement(file);
  }
  void Close() { lock_.CloseFile(); }
  void BecomeReplaced(CopyRecord record);

 private:
  [[nodiscard]] MaybeFailure ReadRecord();
  [[nodiscard]] MaybeFailure CheckStamp();
  [[nodiscard]] MaybeFailure CheckOldMark();

  Machine& machine_;
  const CopyPlace place_;
  CopyLock lock_;
  FileIdentity identity_;
  std::uint64_t size_ = 0;
  Knowledge knowledge_ = Knowledge::kNone;
  CopyRecord record_;
};

}  // namespace zel::ctl
