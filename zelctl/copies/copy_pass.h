// Bringing a held copy up to date, whole or by what changed. Not here: whether it may be
// (copies/copy_checks.h). Pure.
//
// An update is written down as half way before the first byte of the copy changes, and as whole
// when the last one is on the device. A full pass makes another file, which is whole when it
// appears.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "zelctl/bitmap_source.h"
#include "zelctl/block_copy.h"
#include "zelctl/commands.h"
#include "zelctl/copies/kept_copy.h"

namespace zel::ctl {

// Answers whether the byte at `at` may differ because it was written meanwhile: the byte from which
// to compare on, or none.
using Excuse = std::function<MaybeFailure(std::uint64_t at, std::optional<std::uint64_t>& go_on)>;

// Lifetime: borrows everything that it is given.
class CopyPass {
 public:
  CopyPass(Surroundings& with, const Request& request, Output& output, KeptCopy& copy);

  // The source as it is now: what comes later is the next bitmap's affair. Called once, first, and
  // after the bitmap was taken.
  [[nodiscard]] MaybeFailure OpenSource();
  [[nodiscard]] const FileIdentity& source_identity() const { return source_identity_; }
  [[nodiscard]] std::uint64_t source_size() const { return source_size_; }

  // Without one, every difference that --verify finds is a failure.
  void set_excuse(Excuse excuse) { excuse_ = std::move(excuse); }

  // `record`: what the copy is known to be; what it is afterwards is written down and reported.
  // Ends without touching the copy where only --dry-run was asked for.
  [[nodiscard]] MaybeFailure Update(const TakenBitmap& bitmap, const CopyRecord& record,
                                    std::optional<FileTime> snapshot);
  // `record`: what the copy will be.
  [[nodiscard]] MaybeFailure CopyAll(CopyRecord record);

  // Both files whole; the copy is not touched. `otherwise`: what a difference means unless the
  // source was written meanwhile.
  [[nodiscard]] MaybeFailure Compare(SourceFile& copy, const std::string& otherwise);

 private:
  [[nodiscard]] MaybeFailure CopyRanges(const TakenBitmap& bitmap, const ChangeTotals& totals);
  [[nodiscard]] MaybeFailure FinishWith(SourceFile& copy, const std::string& otherwise);
  [[nodiscard]] MaybeFailure Check(const std::optional<CopyFault>& fault) const;
  void Report(std::string_view mode, std::uint64_t read_bytes, std::uint64_t ranges,
              FileTime as_of);

  Surroundings& with_;
  const Request& request_;
  Output& output_;
  KeptCopy& copy_;
  Excuse excuse_;
  std::unique_ptr<SourceFile> source_;
  std::uint64_t source_size_ = 0;
  FileIdentity source_identity_;
};

}  // namespace zel::ctl
