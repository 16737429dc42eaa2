#include "zelctl/copies/later_writes.h"

#include <algorithm>
#include <utility>

#include "zelctl/changed_ranges.h"
#include "zelctl/copies/own_bitmaps.h"
#include "zelctl/error_words.h"

namespace zel::ctl {

MaybeFailure LaterWrites::operator()(std::uint64_t at, std::optional<std::uint64_t>& go_on) {
  const auto end = [&] {
    return known_ ? EndOfChange(*known_, ~std::uint64_t{0}, at) : std::nullopt;
  };
  go_on = end();
  if (go_on || !bitmap_) return std::nullopt;
  if (auto failure = Fetch()) return failure;
  go_on = end();
  return std::nullopt;
}

MaybeFailure LaterWrites::Fetch() {
  known_.reset();
  TakenBitmap now;
  const FileTime moment = std::max(with_.machine.PastMoment(), bitmap_->begun);
  const MaybeFailure failure = TakeCurrentBitmap(with_, request_, bitmap_->id, moment, now);
  if (failure && failure->code != kNotFound) return failure;
  if (!failure && IsUsable(now.file)) known_ = std::move(now.file);
  return std::nullopt;
}

// Another bitmap may have got its id.
bool LaterWrites::IsUsable(const BitmapFile& bitmap) const {
  const BitmapFileHeader& header = bitmap.header;
  return header.Volume == of_.volume && header.FileId == of_.file_id &&
         header.NameCreationTime == bitmap_->begun && TrustOf(bitmap) == Trust::kTrusted;
}

std::optional<BegunBitmap> LastBegun(ZelServer& server, const FileIdentity& of, FileTime used,
                                     FileTime until) {
  std::vector<BitmapEntry> listed;
  if (!of.volume || !server.ListBitmaps({*of.volume, of.file_id}, listed).ok()) return std::nullopt;
  std::optional<BegunBitmap> last;
  for (const BegunBitmap& bitmap : BegunBitmaps(listed)) {
    const bool is_in_time = bitmap.begun > used && bitmap.begun <= until;
    if (is_in_time && (!last || bitmap.begun > last->begun)) last = bitmap;
  }
  return last;
}

}  // namespace zel::ctl
