#include "zelctl/copies/copy_pass.h"

#include <utility>

#include "bitmap/format/new_bitmap.h"
#include "zelctl/copies/copy_replacement.h"
#include "zelctl/copies/live_target.h"
#include "zelctl/error_words.h"
#include "zelctl/map_text.h"
#include "zelctl/progress_line.h"
#include "zelctl/size_text.h"
#include "zelctl/time_text.h"

namespace zel::ctl {

CopyPass::CopyPass(Surroundings& with, const Request& request, Output& output, KeptCopy& copy)
    : with_(with), request_(request), output_(output), copy_(copy) {}

MaybeFailure CopyPass::OpenSource() {
  std::uint32_t code = with_.machine.OpenSource(request_.from, source_);
  if (code == 0) code = source_->GetSize(source_size_);
  if (auto failure = CheckSystem(with_.machine, code, "cannot open " + request_.from)) {
    return failure;
  }
  code = source_->Identify(source_identity_);
  return CheckSystem(with_.machine, code, "cannot identify " + request_.from);
}

MaybeFailure CopyPass::Check(const std::optional<CopyFault>& fault) const {
  if (!fault) return std::nullopt;
  const auto failed = [&](const std::string& what) {
    return CheckSystem(with_.machine, fault->code, what);
  };
  switch (fault->step) {
    case CopyFault::Step::kReadSource:
      if (fault->code == kEndOfFile) {
        return failed(request_.from + " became shorter meanwhile; run it again");
      }
      return failed("cannot read " + request_.from);
    case CopyFault::Step::kReadCopy:
      return failed("cannot read " + request_.to);
    case CopyFault::Step::kResizeCopy:
      return failed("cannot give " + request_.to + " the size of " + FormatSize(source_size_));
    case CopyFault::Step::kWriteCopy:
    case CopyFault::Step::kFlushCopy:
      break;
  }
  return failed("cannot write " + request_.to);
}

MaybeFailure CopyPass::Update(const TakenBitmap& bitmap, const CopyRecord& record,
                              std::optional<FileTime> snapshot) {
  const OfferedBitmap offered = bitmap.offered();
  const ChangeTotals totals = CountChanges(bitmap.file, source_size_);
  const std::uint64_t growth = source_size_ > copy_.size() ? source_size_ - copy_.size() : 0;
  if (auto failure = copy_.CheckRoom(growth)) return failure;
  CopyRecord after = record;
  after.as_of = AsOfAfterwards(record, offered, snapshot);
  if (request_.dry_run) {
    Report("incremental", totals.changed_bytes, totals.ranges, after.as_of);
    return std::nullopt;
  }
  CopyRecord meanwhile = record;
  meanwhile.half_way = {.bitmap = offered.id,
                        .begun = offered.begun,
                        .taken = offered.taken,
                        .digest = offered.digest,
                        .size = source_size_};
  if (auto failure = copy_.BeginWriting(meanwhile)) return failure;
  if (auto failure = CopyRanges(bitmap, totals)) return failure;
  if (auto failure = FinishWith(copy_.file(), request_.to + " was no copy of it")) return failure;
  after.read_until = with_.machine.Now();
  if (auto failure = copy_.SaveWhole(after)) return failure;
  Report("incremental", totals.changed_bytes, totals.ranges, after.as_of);
  output_.confirmation =
      ChangedBlocksText(totals, bitmap.file.header.BlockSize) + "\n" + output_.confirmation;
  return std::nullopt;
}

MaybeFailure CopyPass::CopyRanges(const TakenBitmap& bitmap, const ChangeTotals& totals) {
  const BitmapFileHeader& header = bitmap.file.header;
  if (header.SizeChanged == 0 && CountBlocks(source_size_, header.BlockSize) >
                                     CountBlocks(header.FileSize, header.BlockSize)) {
    output_.notes.push_back(request_.from +
                            " has grown since the bitmap was taken: it is being written");
  }
  ProgressLine progress(with_, request_, "copying", totals.changed_bytes);
  LiveTarget copy(copy_);
  return Check(CopyChanges(bitmap.file, source_size_, *source_, copy, progress.counter()));
}

MaybeFailure CopyPass::CopyAll(CopyRecord record) {
  if (request_.dry_run) {
    if (auto failure = copy_.CheckRoom(source_size_)) return failure;
    Report("full", source_size_, source_size_ > 0 ? 1 : 0, record.as_of);
    return std::nullopt;
  }
  CopyReplacement replacement(with_.machine, copy_);
  if (auto failure = replacement.Begin(source_size_)) return failure;
  {
    ProgressLine progress(with_, request_, "copying", source_size_);
    const auto fault = CopyWhole(source_size_, *source_, replacement.file(), progress.counter());
    if (auto failure = Check(fault)) return failure;
  }
  if (auto failure = FinishWith(replacement.file(), "it was not read or written right")) {
    failure->message += "; the new copy is thrown away, and " + request_.to + " is as it was";
    return failure;
  }
  record.read_until = with_.machine.Now();
  if (auto failure = replacement.TakePlace(record)) return failure;
  Report("full", source_size_, source_size_ > 0 ? 1 : 0, record.as_of);
  return std::nullopt;
}

MaybeFailure CopyPass::FinishWith(SourceFile& copy, const std::string& otherwise) {
  if (!request_.verify) return std::nullopt;
  if (auto failure = Compare(copy, otherwise)) return failure;
  output_.confirmation = "compared: both files are equal\n";
  return std::nullopt;
}

MaybeFailure CopyPass::Compare(SourceFile& copy, const std::string& otherwise) {
  ProgressLine progress(with_, request_, "comparing", source_size_);
  std::optional<std::uint64_t> from = 0;
  while (from) {
    std::optional<std::uint64_t> difference;
    const auto fault = CompareFrom(*from, *source_, copy, difference, progress.counter());
    if (auto failure = Check(fault)) return failure;
    if (!difference) return std::nullopt;
    from.reset();
    if (excuse_) {
      if (auto failure = excuse_(*difference, from)) return failure;
    }
    if (from) continue;
    output_.json["difference_at"] = *difference;
    return Refuse(Reason::kDiffers, "the files differ at byte " + std::to_string(*difference) +
                                        ": " + request_.from + " was written meanwhile, or " +
                                        otherwise);
  }
  return std::nullopt;
}

void CopyPass::Report(std::string_view mode, std::uint64_t read_bytes, std::uint64_t ranges,
                      FileTime as_of) {
  output_.json = {{"mode", mode},
                  {"source", request_.from},
                  {"copy", request_.to},
                  {"source_size", source_size_},
                  {"copied_bytes", read_bytes},
                  {"copied_ranges", ranges},
                  {"verified", request_.verify && !request_.dry_run},
                  {"as_of", FormatTime(as_of)}};
  if (request_.dry_run) output_.json["dry_run"] = true;
  const ChangeTotals read = {.file_size = source_size_,
                             .blocks = 0,
                             .changed_bytes = read_bytes,
                             .changed_blocks = 0,
                             .ranges = ranges};
  output_.text = std::string(mode) + ": " + (request_.dry_run ? "would read " : "read ") +
                 ChangedSizeText(read) + "; the copy is as of " + FormatTime(as_of) + "\n";
}

}  // namespace zel::ctl
