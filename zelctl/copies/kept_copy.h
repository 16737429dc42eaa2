// A copy, what is known of it, and the lock that keeps other runs away from it. Pure.
//
// What is known lies in the folder ".zelctl" beside the copy, under the copy's file id: it is found
// however the copy is called there. A full pass makes a new file with a record of its own.
//
// Threads: one thread.
#pragma once

#include <memory>
#include <string>

#include "zelctl/copies/copy_record.h"
#include "zelctl/failure.h"
#include "zelctl/machine.h"

namespace zel::ctl {

enum class Knowledge {
  kNone,     // there is no record
  kDamaged,  // there is one that cannot be read
  kChanged,  // somebody else has written the copy since, or it is another file
  kGood,     // there is one, and it is this copy's
};

class KeptCopy {
 public:
  // `path` as it was told; messages use it.
  KeptCopy(Machine& machine, std::string path);
  ~KeptCopy();
  KeptCopy(const KeptCopy&) = delete;
  KeptCopy& operator=(const KeptCopy&) = delete;

  // Takes the lock, opens the copy for writing and reads what is known. Until this object goes, no
  // other run has the copy. A copy that does not exist is no failure. Called once, first.
  [[nodiscard]] MaybeFailure Hold();

  [[nodiscard]] bool exists() const { return file_ != nullptr; }
  [[nodiscard]] const std::string& path() const { return path_; }
  // Of a copy that exists.
  [[nodiscard]] TargetFile& file() { return *file_; }
  [[nodiscard]] const FileIdentity& identity() const { return identity_; }
  [[nodiscard]] std::uint64_t size() const { return size_; }

  [[nodiscard]] Knowledge knowledge() const { return knowledge_; }
  // Counts for kGood; otherwise as good as empty.
  [[nodiscard]] const CopyRecord& record() const { return record_; }

  // Each puts the record on the device. A record of a whole copy gets the copy's stamp: nothing is
  // written to the copy after that.
  [[nodiscard]] MaybeFailure SaveWhole(CopyRecord record);
  [[nodiscard]] MaybeFailure SaveAsItIs(CopyRecord record);

  // Another file in the copy's place, where it must have room for `size` bytes.
  [[nodiscard]] MaybeFailure BeginReplacement(std::uint64_t size,
                                              std::unique_ptr<ReplacementFile>& file);
  // Its record is on the device before the file takes its place. The copy is the new file then.
  [[nodiscard]] MaybeFailure Replace(ReplacementFile& file, CopyRecord record);

  // Whether the volume can take so many more bytes.
  [[nodiscard]] MaybeFailure CheckRoom(std::uint64_t bytes) const;

 private:
  [[nodiscard]] MaybeFailure LockAndOpen(bool& is_settled);
  [[nodiscard]] MaybeFailure LockName(bool& is_settled);
  [[nodiscard]] MaybeFailure LockFile(bool& is_settled);
  [[nodiscard]] MaybeFailure TakeLock(const std::string& key);
  [[nodiscard]] MaybeFailure ReadRecord();
  [[nodiscard]] MaybeFailure Write(const CopyRecord& record) const;
  [[nodiscard]] std::string RecordPath(const FileIdentity& identity) const;
  [[nodiscard]] std::string Beside(const std::string& name) const;
  [[nodiscard]] MaybeFailure Check(std::uint32_t code, const std::string& what) const;
  [[nodiscard]] Failure Busy() const;

  Machine& machine_;
  const std::string path_;
  std::string resolved_;
  std::string folder_;    // where the records are
  std::string name_key_;  // what stands for the copy's name there
  std::string record_path_;
  std::unique_ptr<HeldLock> lock_;
  std::unique_ptr<TargetFile> file_;
  FileIdentity identity_;
  std::uint64_t size_ = 0;
  Knowledge knowledge_ = Knowledge::kNone;
  CopyRecord record_;
};

}  // namespace zel::ctl
