// The mark beside a copy that is being brought up to date. Pure.
//
// It is there from before the first byte of the copy is changed until the copy is whole again, and
// says with which bitmap: a copy that was left half way is not taken for a whole one later.
//
// Format: one line of text, "zelctl apply 1 VOLUME FILE-ID CREATION-TIME".
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "files/types.h"
#include "zelctl/bitmap_file.h"

namespace zel::ctl {

struct ApplyMark {
  std::string volume;  // GUID in words
  FileId file_id = 0;
  FileTime creation_time = 0;  // of the bitmap

  bool operator==(const ApplyMark&) const = default;
};

[[nodiscard]] ApplyMark MarkFor(const BitmapFileHeader& header);
[[nodiscard]] std::string FormatMark(const ApplyMark& mark);
// None for what FormatMark does not write.
[[nodiscard]] std::optional<ApplyMark> ParseMark(std::string_view text);

// Whether a run with the bitmap of `mark` completes a run that left `found`. A bitmap that was
// created earlier, of the same file, has every bit of the later one.
[[nodiscard]] bool Completes(const ApplyMark& mark, const ApplyMark& found);

}  // namespace zel::ctl
