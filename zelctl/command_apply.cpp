#include <string_view>
#include <utility>

#include "zelctl/apply_mark.h"
#include "zelctl/bitmap_source.h"
#include "zelctl/block_copy.h"
#include "zelctl/commands.h"
#include "zelctl/error_words.h"
#include "zelctl/id_text.h"
#include "zelctl/map_text.h"
#include "zelctl/progress.h"
#include "zelctl/size_text.h"

namespace zel::ctl {

namespace {

constexpr char kNeedsFull[] = "a full copy is needed (--full)";

// Draws how far a piece of work has come, where a person looks at it, and clears the line.
class ProgressLine {
 public:
  ProgressLine(Surroundings& with, std::string_view what, std::uint64_t total_bytes)
      : with_(with), progress_(what, total_bytes, with.machine.Milliseconds()) {}
  ~ProgressLine() {
    if (with_.terminal.notes_to_person()) with_.terminal.DrawProgress({});
  }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  [[nodiscard]] ByteCounter counter() {
    return [this](std::uint64_t done) {
      if (!with_.terminal.notes_to_person()) return;
      const auto line = progress_.LineAt(done, with_.machine.Milliseconds());
      if (line) with_.terminal.DrawProgress(*line);
    };
  }

 private:
  Surroundings& with_;
  Progress progress_;
};

// One run, from what was asked for to the copy that is up to date.
class Apply {
 public:
  Apply(Surroundings& with, const Request& request, Output& output)
      : with_(with), request_(request), output_(output), mark_path_(request.to + ".zelctl-apply") {}

  [[nodiscard]] MaybeFailure Run();

 private:
  [[nodiscard]] MaybeFailure OpenSource();
  [[nodiscard]] MaybeFailure IdentifyFiles();
  [[nodiscard]] MaybeFailure MakeFullCopy();
  [[nodiscard]] MaybeFailure BringUpToDate();
  [[nodiscard]] MaybeFailure GetBitmap(BitmapFile& bitmap);
  [[nodiscard]] MaybeFailure CheckIdentity(const BitmapFileHeader& header) const;
  [[nodiscard]] MaybeFailure CheckTrust(const BitmapFile& bitmap) const;
  [[nodiscard]] MaybeFailure CheckMark(const ApplyMark& mark) const;
  [[nodiscard]] MaybeFailure OpenCopy(const BitmapFile& bitmap, std::unique_ptr<TargetFile>& copy);
  [[nodiscard]] MaybeFailure Verify(SourceFile& copy);
  [[nodiscard]] MaybeFailure RemoveMark();
  void Report(std::string_view mode, std::uint64_t copied_bytes, std::uint64_t ranges);

  [[nodiscard]] MaybeFailure CheckSystem(std::uint32_t code, const std::string& what) const {
    return ctl::CheckSystem(with_.machine, code, what);
  }
  [[nodiscard]] MaybeFailure Check(const std::optional<CopyFault>& fault) const;

  Surroundings& with_;
  const Request& request_;
  Output& output_;
  const std::string mark_path_;
  std::unique_ptr<SourceFile> source_;
  std::uint64_t source_size_ = 0;
  FileIdentity source_identity_;
};

MaybeFailure Apply::Run() {
  return request_.full ? MakeFullCopy() : BringUpToDate();
}

MaybeFailure Apply::Check(const std::optional<CopyFault>& fault) const {
  if (!fault) return std::nullopt;
  switch (fault->step) {
    case CopyFault::Step::kReadSource:
      if (fault->code == kEndOfFile) {
        return CheckSystem(fault->code, request_.from + " became shorter meanwhile; run it again");
      }
      return CheckSystem(fault->code, "cannot read " + request_.from);
    case CopyFault::Step::kReadCopy:
      return CheckSystem(fault->code, "cannot read " + request_.to);
    case CopyFault::Step::kResizeCopy:
      return CheckSystem(fault->code,
                         "cannot give " + request_.to + " the size of " + FormatSize(source_size_));
    case CopyFault::Step::kWriteCopy:
    case CopyFault::Step::kFlushCopy:
      break;
  }
  return CheckSystem(fault->code, "cannot write " + request_.to);
}

MaybeFailure Apply::OpenSource() {
  std::uint32_t code = with_.machine.OpenSource(request_.from, source_);
  if (code == 0) code = source_->GetSize(source_size_);
  if (auto failure = CheckSystem(code, "cannot open " + request_.from)) return failure;
  return IdentifyFiles();
}

// A copy that is the source itself would be "equal" whatever happens.
MaybeFailure Apply::IdentifyFiles() {
  const std::uint32_t code = with_.machine.Identify(request_.from, source_identity_);
  if (auto failure = CheckSystem(code, "cannot identify " + request_.from)) return failure;
  FileIdentity copy;
  const bool copy_exists = with_.machine.Identify(request_.to, copy) == 0;
  if (copy_exists && copy.volume == source_identity_.volume &&
      copy.file_id == source_identity_.file_id) {
    return Refuse(request_.to + " is the same file as " + request_.from);
  }
  return std::nullopt;
}

MaybeFailure Apply::MakeFullCopy() {
  if (auto failure = OpenSource()) return failure;
  std::unique_ptr<ReplacementFile> copy;
  const std::uint32_t code = with_.machine.CreateReplacement(request_.to, copy);
  if (auto failure = CheckSystem(code, "cannot write beside " + request_.to)) return failure;
  {
    ProgressLine progress(with_, "copying", source_size_);
    const auto fault = CopyWhole(source_size_, *source_, *copy, progress.counter());
    if (auto failure = Check(fault)) return failure;
  }
  if (auto failure = Verify(*copy)) return failure;
  if (auto failure = CheckSystem(copy->Commit(), "cannot replace " + request_.to)) return failure;
  Report("full", source_size_, source_size_ > 0 ? 1 : 0);
  output_.confirmation = "copied all " + FormatSize(source_size_) + "\n" + output_.confirmation;
  return RemoveMark();
}

// The order matters: what is written to the source after the bitmap was taken is the next bitmap's
// or the next run's affair, what is written before it is in the bitmap.
MaybeFailure Apply::BringUpToDate() {
  BitmapFile bitmap;
  if (auto failure = GetBitmap(bitmap)) return failure;
  if (auto failure = OpenSource()) return failure;
  if (auto failure = CheckIdentity(bitmap.header)) return failure;
  // Nobody else changes the copy or its mark from here on.
  std::unique_ptr<TargetFile> copy;
  if (auto failure = OpenCopy(bitmap, copy)) return failure;
  const ApplyMark mark = MarkFor(bitmap.header);
  if (auto failure = CheckMark(mark)) return failure;

  const std::string mark_text = FormatMark(mark);
  const std::uint32_t code =
      WriteWholeFile(with_.machine, mark_path_, std::as_bytes(std::span(mark_text)));
  if (auto failure = CheckSystem(code, "cannot write " + mark_path_)) return failure;
  const ChangeTotals totals = CountChanges(bitmap, source_size_);
  {
    ProgressLine progress(with_, "copying", totals.changed_bytes);
    const auto fault = CopyChanges(bitmap, source_size_, *source_, *copy, progress.counter());
    if (auto failure = Check(fault)) return failure;
  }
  if (auto failure = Verify(*copy)) return failure;
  Report("incremental", totals.changed_bytes, totals.ranges);
  output_.confirmation = "copied " + ChangedSizeText(totals) + ": " +
                         ChangedBlocksText(totals, bitmap.header.BlockSize) + "\n" +
                         output_.confirmation;
  if (bitmap.header.SizeChanged == 0 && source_size_ != bitmap.header.FileSize) {
    output_.notes.push_back("the size of " + request_.from +
                            " is not what the bitmap knows: it was written since then, and a "
                            "later bitmap will have the rest");
  }
  return RemoveMark();
}

MaybeFailure Apply::GetBitmap(BitmapFile& bitmap) {
  if (request_.bitmap.file.empty() && !request_.no_sync) {
    if (auto failure = Synchronize(with_, request_, with_.machine.Now())) return failure;
  }
  if (auto failure = LoadBitmap(with_, request_, bitmap)) return failure;
  return CheckTrust(bitmap);
}

MaybeFailure Apply::CheckTrust(const BitmapFile& bitmap) const {
  const std::string name = "bitmap " + FormatId(bitmap.header.BitmapId);
  switch (TrustOf(bitmap)) {
    case Trust::kTrusted:
      return std::nullopt;
    case Trust::kUnreliable:
      return Refuse(name + " is unreliable, changes may be missing from it: " + kNeedsFull);
    case Trust::kInUse:
      break;
  }
  return Refuse(name +
                " was not closed: the service is using this file or left it behind. Take it "
                "by its id; say --service-copy if the service itself sent this file");
}

MaybeFailure Apply::CheckIdentity(const BitmapFileHeader& header) const {
  if (request_.force_identity ||
      (source_identity_.volume == header.Volume && source_identity_.file_id == header.FileId)) {
    return std::nullopt;
  }
  return Refuse("the bitmap is of file " + FormatId(header.FileId) + " on volume " +
                FormatGuid(header.Volume) + ", and " + request_.from + " is file " +
                FormatId(source_identity_.file_id) + " on " +
                (source_identity_.volume ? "volume " + FormatGuid(*source_identity_.volume)
                                         : std::string("no known volume")) +
                "; say --force-identity if it has the same contents, as a snapshot has");
}

MaybeFailure Apply::CheckMark(const ApplyMark& mark) const {
  std::vector<std::byte> contents;
  const std::uint32_t code = ReadWholeFile(with_.machine, mark_path_, contents);
  if (code == kFileNotFound) return std::nullopt;
  if (auto failure = CheckSystem(code, "cannot read " + mark_path_)) return failure;
  const auto found = ParseMark({reinterpret_cast<const char*>(contents.data()), contents.size()});
  if (found && Completes(mark, *found)) return std::nullopt;
  return Refuse("an earlier run with another bitmap left " + request_.to +
                " half way; run that one again, or " + kNeedsFull);
}

MaybeFailure Apply::OpenCopy(const BitmapFile& bitmap, std::unique_ptr<TargetFile>& copy) {
  std::uint64_t copy_size = 0;
  std::uint32_t code = with_.machine.OpenTarget(request_.to, copy);
  if (code == kFileNotFound) return Refuse("there is no " + request_.to + " yet: " + kNeedsFull);
  if (code == 0) code = copy->GetSize(copy_size);
  if (auto failure = CheckSystem(code, "cannot open " + request_.to)) return failure;
  if (HasAllUnchanged(bitmap, source_size_, copy_size)) return std::nullopt;
  return Refuse(request_.to +
                " is shorter than the file was when the bitmap was created, so it is "
                "no copy of it: " +
                kNeedsFull);
}

MaybeFailure Apply::Verify(SourceFile& copy) {
  if (!request_.verify) return std::nullopt;
  std::optional<std::uint64_t> difference;
  {
    ProgressLine progress(with_, "comparing", source_size_);
    const auto fault = CompareWhole(*source_, copy, difference, progress.counter());
    if (auto failure = Check(fault)) return failure;
  }
  if (!difference) return std::nullopt;
  output_.json["difference_at"] = *difference;
  return Refuse("the files differ at byte " + std::to_string(*difference) + ": " + request_.from +
                " was written meanwhile, or " + request_.to + " was no copy of it to begin with");
}

MaybeFailure Apply::RemoveMark() {
  const std::uint32_t code = with_.machine.Remove(mark_path_);
  return code == kFileNotFound ? std::nullopt : CheckSystem(code, "cannot remove " + mark_path_);
}

void Apply::Report(std::string_view mode, std::uint64_t copied_bytes, std::uint64_t ranges) {
  output_.json = {{"mode", mode},
                  {"source", request_.from},
                  {"copy", request_.to},
                  {"source_size", source_size_},
                  {"copied_bytes", copied_bytes},
                  {"copied_ranges", ranges},
                  {"verified", request_.verify}};
  if (request_.verify) output_.confirmation = "compared: both files are equal\n";
}

}  // namespace

MaybeFailure RunApply(Surroundings& with, const Request& request, Output& output) {
  return Apply(with, request, output).Run();
}

}  // namespace zel::ctl
