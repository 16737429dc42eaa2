// Bringing a copy of a file up to date with what changed, and comparing both. Pure.
//
// What an interrupted run leaves: the copy has the source's size or its own old one, and some of
// the changed ranges are the source's and some are the copy's old bytes. Nothing else was written.
// So a run with a bitmap that has those bits completes it: it writes every changed range again,
// whatever is there (copies/copy_rule.h says which bitmaps have them).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "zelctl/block_files.h"
#include "zelctl/changed_ranges.h"

namespace zel::ctl {

// What has gone wrong with which file.
struct CopyFault {
  enum class Step { kReadSource, kReadCopy, kWriteCopy, kResizeCopy, kFlushCopy };
  Step step;
  std::uint32_t code;  // of the system

  bool operator==(const CopyFault&) const = default;
};

// Hears how many bytes are done, after every piece.
using ByteCounter = std::function<void(std::uint64_t done)>;

// Gives `copy` the size of the source and the source's bytes in every changed range, and puts them
// on the device. Reads nothing else of the source. `source_size`: taken before the bitmap's ranges.
[[nodiscard]] std::optional<CopyFault> CopyChanges(const BitmapFile& bitmap,
                                                   std::uint64_t source_size, SourceFile& source,
                                                   TargetFile& copy, const ByteCounter& done);

// The same with everything, for a `copy` that is empty. Where the source has holes and the copy can
// have them, zeros are not written.
[[nodiscard]] std::optional<CopyFault> CopyWhole(std::uint64_t source_size, SourceFile& source,
                                                 TargetFile& copy, const ByteCounter& done);

// Whether the files are equal from the byte `begin` on: `difference` is the first byte in which
// they differ, the end of the shorter one included, or none.
[[nodiscard]] std::optional<CopyFault> CompareFrom(std::uint64_t begin, SourceFile& source,
                                                   SourceFile& copy,
                                                   std::optional<std::uint64_t>& difference,
                                                   const ByteCounter& done);

// Whether the copy has every byte that the bitmap takes for unchanged. One that is too short for
// that is no copy of this file as it was when the bitmap was created.
[[nodiscard]] bool HasAllUnchanged(const BitmapFile& bitmap, std::uint64_t source_size,
                                   std::uint64_t copy_size);

}  // namespace zel::ctl
