// The bitmaps that were begun for one copy: which one brings it up to date, which one goes on
// collecting, and which ones have done their work. Pure.
#pragma once

#include <optional>
#include <span>

#include "zelctl/copies/copy_record.h"
#include "zelctl/zel_server.h"

namespace zel::ctl {

// Forgets those that the service does not have any more. An id alone is not enough: another
// bitmap may have got it since.
void KeepOnlyListed(CopyRecord& record, std::span<const BitmapEntry> listed);

// The latest that began no later than the copy's time: it has the fewest changes.
[[nodiscard]] std::optional<OwnBitmap> CurrentBitmap(const CopyRecord& record);

// The latest of all, unless it is the current one.
[[nodiscard]] std::optional<OwnBitmap> NextBitmap(const CopyRecord& record);

// Those that began before the current one.
[[nodiscard]] std::vector<OwnBitmap> UsedUpBitmaps(const CopyRecord& record);

// Those of which a run that was broken off may have begun one without writing it down. Nothing
// tells it from one that somebody else has begun meanwhile.
[[nodiscard]] std::vector<BegunBitmap> LeftBitmaps(const CopyRecord& record,
                                                   std::span<const BitmapEntry> listed);

// Bitmaps of the service as records have them.
[[nodiscard]] std::vector<BegunBitmap> BegunBitmaps(std::span<const BitmapEntry> listed);

}  // namespace zel::ctl
