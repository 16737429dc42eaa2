#include "zelctl/copies/kept_copy.h"

#include <utility>

#include "zelctl/checksum.h"
#include "zelctl/error_words.h"
#include "zelctl/id_text.h"
#include "zelctl/path_text.h"
#include "zelctl/size_text.h"

namespace zel::ctl {

namespace {

constexpr char kFolder[] = ".zelctl";

std::size_t EndOfFolder(const std::string& path) {
  const std::size_t separator = path.find_last_of("\\/");
  return separator == std::string::npos ? 0 : separator + 1;
}

// File systems do not tell cases apart. Two spellings of one name that this takes for different
// ones meet at the file's own lock as soon as there is a file.
std::string NameKey(const std::string& resolved) {
  const std::string name = FoldCase(resolved.substr(EndOfFolder(resolved)));
  return "name-" + FormatId(Checksum(std::as_bytes(std::span(name))));
}

}  // namespace

KeptCopy::KeptCopy(Machine& machine, std::string path)
    : machine_(machine), path_(std::move(path)) {}

KeptCopy::~KeptCopy() = default;

MaybeFailure KeptCopy::Check(std::uint32_t code, const std::string& what) const {
  return CheckSystem(machine_, code, what);
}

Failure KeptCopy::Busy() const {
  Failure failure =
      *Check(kSharingViolation, "another run or another program is working on " + path_);
  failure.reason = Reason::kBusy;
  return failure;
}

std::string KeptCopy::Beside(const std::string& name) const {
  return folder_ + "\\" + name;
}

std::string KeptCopy::RecordPath(const FileIdentity& identity) const {
  return Beside(FormatId(identity.file_id) + ".copy");
}

MaybeFailure KeptCopy::Hold() {
  resolved_ = machine_.Resolve(path_);
  folder_ = resolved_.substr(0, EndOfFolder(resolved_)) + kFolder;
  name_key_ = NameKey(resolved_);
  if (auto failure = Check(machine_.MakeFolder(folder_), "cannot write beside " + path_)) {
    return failure;
  }
  // A full pass may put another file there in the moment between the look and the lock.
  constexpr int kTries = 3;
  bool is_settled = false;
  for (int i = 0; i < kTries && !is_settled; ++i) {
    if (auto failure = LockAndOpen(is_settled)) return failure;
  }
  if (!is_settled) return Busy();
  return ReadRecord();
}

MaybeFailure KeptCopy::LockAndOpen(bool& is_settled) {
  const std::uint32_t code = machine_.Identify(resolved_, identity_);
  if (code == kFileNotFound) return LockName(is_settled);
  if (auto failure = Check(code, "cannot open " + path_)) return failure;
  return LockFile(is_settled);
}

MaybeFailure KeptCopy::TakeLock(const std::string& key) {
  const std::uint32_t code = machine_.Lock(Beside(key + ".lock"), lock_);
  if (code == kSharingViolation) return Busy();
  return Check(code, "cannot write beside " + path_);
}

MaybeFailure KeptCopy::LockName(bool& is_settled) {
  if (auto failure = TakeLock(name_key_)) return failure;
  record_path_ = Beside(name_key_ + ".copy");
  is_settled = machine_.Identify(resolved_, identity_) == kFileNotFound;
  if (is_settled) identity_ = {};
  return std::nullopt;
}

MaybeFailure KeptCopy::LockFile(bool& is_settled) {
  if (identity_.file_id == 0) {
    return Refuse(Reason::kIdentity,
                  path_ + " is on a file system that tells no files apart by ids");
  }
  if (auto failure = TakeLock(FormatId(identity_.file_id))) return failure;
  std::uint32_t code = machine_.OpenTarget(resolved_, file_);
  if (code == kSharingViolation) return Busy();
  FileIdentity opened;
  if (code == 0) code = file_->Identify(opened);
  if (code == 0) code = file_->GetSize(size_);
  if (auto failure = Check(code, "cannot open " + path_ + " for writing")) return failure;
  record_path_ = RecordPath(identity_);
  is_settled = opened == identity_;
  if (!is_settled) file_.reset();
  return std::nullopt;
}

MaybeFailure KeptCopy::ReadRecord() {
  std::vector<std::byte> contents;
  const std::uint32_t code = ReadWholeFile(machine_, record_path_, contents);
  if (code == kFileNotFound) return std::nullopt;
  if (auto failure = Check(code, "cannot read " + record_path_)) return failure;
  const auto record =
      ParseRecord({reinterpret_cast<const char*>(contents.data()), contents.size()});
  knowledge_ = record ? Knowledge::kGood : Knowledge::kDamaged;
  if (!record) return std::nullopt;
  if (record->copy != identity_) {
    knowledge_ = Knowledge::kChanged;
    return std::nullopt;
  }
  record_ = *record;
  // What an interrupted run has left has no stamp yet.
  if (!exists() || record_.half_way) return std::nullopt;
  FileTime written = 0;
  if (auto failure = Check(file_->GetWriteTime(written), "cannot read " + path_)) return failure;
  if (size_ != record_.size || written != record_.written) knowledge_ = Knowledge::kChanged;
  return std::nullopt;
}

MaybeFailure KeptCopy::Write(const CopyRecord& record) const {
  const std::string text = FormatRecord(record);
  const std::string path = record.copy.file_id == 0 ? record_path_ : RecordPath(record.copy);
  const std::uint32_t code =
      WriteWholeFile(machine_, path, path + ".new", std::as_bytes(std::span(text)));
  return Check(code, "cannot write " + path);
}

MaybeFailure KeptCopy::SaveAsItIs(CopyRecord record) {
  record.copy = identity_;
  if (auto failure = Write(record)) return failure;
  record_ = std::move(record);
  knowledge_ = Knowledge::kGood;
  return std::nullopt;
}

MaybeFailure KeptCopy::SaveWhole(CopyRecord record) {
  std::uint32_t code = file_->GetSize(size_);
  if (code == 0) code = file_->Stamp(machine_.Now(), record.written);
  if (auto failure = Check(code, "cannot write " + path_)) return failure;
  record.size = size_;
  record.half_way.reset();
  return SaveAsItIs(std::move(record));
}

MaybeFailure KeptCopy::CheckRoom(std::uint64_t bytes) const {
  std::uint64_t free_bytes = 0;
  const std::uint32_t code = machine_.GetFreeBytes(folder_, free_bytes);
  if (auto failure = Check(code, "cannot tell the room beside " + path_)) return failure;
  if (bytes <= free_bytes) return std::nullopt;
  return Check(kDiskFull, FormatSize(bytes) + " more are needed beside " + path_ + ", and " +
                              FormatSize(free_bytes) + " are free");
}

MaybeFailure KeptCopy::BeginReplacement(std::uint64_t size,
                                        std::unique_ptr<ReplacementFile>& file) {
  const std::string beside = Beside(name_key_ + ".new");
  const std::uint32_t code = machine_.CreateReplacement(resolved_, beside, file);
  if (code == kSharingViolation) return Busy();
  if (auto failure = Check(code, "cannot write beside " + path_)) return failure;
  return CheckRoom(size);
}

MaybeFailure KeptCopy::Replace(ReplacementFile& file, CopyRecord record) {
  std::uint32_t code = file.GetSize(record.size);
  if (code == 0) code = file.Identify(record.copy);
  if (code == 0) code = file.Stamp(machine_.Now(), record.written);
  if (auto failure = Check(code, "cannot write beside " + path_)) return failure;
  if (auto failure = Write(record)) return failure;
  const std::string old_record = std::exchange(record_path_, RecordPath(record.copy));
  // A file that is open cannot be replaced; the lock goes on keeping other runs away.
  file_.reset();
  if (auto failure = Check(file.Commit(), "cannot replace " + path_)) return failure;
  record_ = std::move(record);
  knowledge_ = Knowledge::kGood;
  identity_ = record_.copy;
  // What was known of the file that is gone; where nothing was, there is nothing to remove.
  if (old_record != record_path_) (void)machine_.Remove(old_record);
  return std::nullopt;
}

}  // namespace zel::ctl
