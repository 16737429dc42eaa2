// What is written to a live file while it is compared with its copy: it may differ, for a bitmap
// that goes on collecting has it, and a later run copies it. Pure.
#pragma once

#include <optional>

#include "zelctl/bitmap_source.h"
#include "zelctl/commands.h"
#include "zelctl/copies/copy_record.h"

namespace zel::ctl {

// Excuses differences as CopyPass asks (copies/copy_pass.h).
// Lifetime: borrows what it is made with.
class LaterWrites {
 public:
  // `bitmap`: of the file `of`, begun no later than the time as of which the copy will be. With
  // none, nothing is excused.
  LaterWrites(Surroundings& with, const Request& request, const FileIdentity& of,
              std::optional<BegunBitmap> bitmap)
      : with_(with), request_(request), of_(of), bitmap_(bitmap) {}

  // Where the bitmap has no bit for `at`, the service synchronizes and is asked for it anew. One
  // that is gone, or cannot be trusted, excuses nothing.
  [[nodiscard]] MaybeFailure operator()(std::uint64_t at, std::optional<std::uint64_t>& go_on);

 private:
  [[nodiscard]] MaybeFailure Fetch();
  [[nodiscard]] bool IsUsable(const BitmapFile& bitmap) const;

  Surroundings& with_;
  const Request& request_;
  FileIdentity of_;
  std::optional<BegunBitmap> bitmap_;
  std::optional<BitmapFile> known_;  // as it was when a difference was last looked at
};

// The last bitmap of that file that was begun after `used` and no later than `until`. None where
// there is none, and where the service does not tell.
[[nodiscard]] std::optional<BegunBitmap> LastBegun(ZelServer& server, const FileIdentity& of,
                                                   FileTime used, FileTime until);

}  // namespace zel::ctl
