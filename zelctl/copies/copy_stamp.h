// Whether somebody else has written a copy, as far as its size and its time of writing tell. Pure.
//
// A whole copy has the stamp that it was given. What a run has left half way has none: the size is
// the one that the run found or the one that it makes, and the time of writing is one at which the
// run lived, which its record says in advance, a little at a time.
#pragma once

#include "zelctl/copies/copy_record.h"

namespace zel::ctl {

struct CopyStamp {
  std::uint64_t size = 0;
  FileTime written = 0;
};

// For so long a run may write the copy without saying again that it lives. What somebody else
// writes so shortly after a run was killed cannot be told from what the run wrote.
inline constexpr FileTime kSignOfLife = 100'000'000;  // 10 s

// Whether the copy is as the record's run, or the one before, has left it.
[[nodiscard]] bool IsAsLeft(const CopyRecord& record, const CopyStamp& stamp);

}  // namespace zel::ctl
