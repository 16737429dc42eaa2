#include "zelctl/copies/round_bitmaps.h"

#include <algorithm>

#include "zelctl/copies/copy_checks.h"
#include "zelctl/error_words.h"
#include "zelctl/id_text.h"
#include "zelctl/time_text.h"

namespace zel::ctl {

MaybeFailure RoundBitmaps::Find() {
  if (auto failure = List(listed_)) return failure;
  KeepOnlyListed(record_, listed_);
  TellWhatWasLeft();
  return std::nullopt;
}

// A run may not have lived to write down the bitmap that it had begun. What looks like it may be
// somebody else's, so it is not touched; the record keeps it until a run that told it came through.
void RoundBitmaps::TellWhatWasLeft() {
  const std::vector<BegunBitmap> left = LeftBitmaps(record_, listed_);
  if (left.empty()) return record_.beginning.reset();
  std::string lines;
  for (const BegunBitmap& bitmap : left) {
    lines += std::string(lines.empty() ? "" : ", or ") + "zelctl delete " + FormatId(bitmap.id) +
             " (begun " + FormatTime(bitmap.begun) + ")";
  }
  output_.notes.push_back("a run that was broken off at " + FormatTime(record_.beginning->at) +
                          " may have begun a bitmap without writing it down; if it is nobody "
                          "else's, delete it: " +
                          lines);
}

MaybeFailure RoundBitmaps::List(std::vector<BitmapEntry>& listed) {
  return CheckAnswer(with_.machine, request_,
                     with_.server.ListBitmaps({*record_.of.volume, record_.of.file_id}, listed),
                     "cannot list the bitmaps of " + request_.from);
}

// Another machine's clock is known by when it began the bitmap.
FileTime RoundBitmaps::MomentAfter(const OwnBitmap& begun) {
  if (!request_.server.empty()) return begun.begun;
  return std::max(with_.machine.PastMoment(), begun.begun);
}

MaybeFailure RoundBitmaps::EnsureNext() {
  const std::optional<OwnBitmap> next = NextBitmap(record_);
  if (!next) return BeginNext();
  next_ = *next;
  moment_ = MomentAfter(next_);
  return std::nullopt;
}

// The one that is begun before anything is read has every write that comes later.
MaybeFailure RoundBitmaps::BeginNext() {
  const bool is_told = record_.beginning.has_value();
  if (!is_told) {
    record_.beginning = {.at = with_.machine.Now(), .before = BegunBitmaps(listed_)};
    if (auto failure = copy_.SaveAsItIs(record_)) return failure;
  }
  BitmapEntry begun;
  if (auto failure = BeginBitmap(with_, request_, request_.from, begun)) return failure;
  if (begun.file != FileKey{*record_.of.volume, record_.of.file_id}) {
    return Refuse(Reason::kIdentity, request_.from + " was replaced meanwhile; run it again");
  }
  next_ = {.id = begun.id, .begun = begun.creation_time};
  next_is_new_ = true;
  moment_ = MomentAfter(next_);
  record_.bitmaps.push_back(next_);
  if (!is_told) record_.beginning.reset();
  return copy_.SaveAsItIs(record_);
}

// One that an interrupted round has begun may have become unreliable meanwhile.
MaybeFailure RoundBitmaps::EnsureTrustedNext() {
  if (next_is_new_) return std::nullopt;
  TakenBitmap bitmap;
  const MaybeFailure failure = Take(next_, bitmap);
  if (!failure) return std::nullopt;
  return FullHelps(*failure) ? BeginNext() : failure;
}

MaybeFailure RoundBitmaps::Take(const OwnBitmap& own, TakenBitmap& bitmap) {
  if (auto failure = TakeCurrentBitmap(with_, request_, own.id, moment_, bitmap)) {
    return failure;
  }
  const BitmapFileHeader& header = bitmap.file.header;
  if (header.NameCreationTime != own.begun) {
    return NeedFull(Reason::kIdentity, "bitmap " + FormatId(own.id) + " is another one now");
  }
  return CheckTrust(bitmap.file);
}

MaybeFailure RoundBitmaps::DeleteUsedUp() {
  output_.json["deleted"] = Json::array();
  CopyRecord record = copy_.record();
  record.beginning.reset();
  std::vector<BitmapEntry> listed;
  if (auto failure = List(listed)) return failure;
  KeepOnlyListed(record, listed);
  for (const OwnBitmap& used_up : UsedUpBitmaps(record)) {
    if (auto failure = CheckAnswer(with_.machine, request_, with_.server.DeleteBitmap(used_up.id),
                                   "cannot delete bitmap " + FormatId(used_up.id))) {
      return failure;
    }
    std::erase(record.bitmaps, used_up);
    output_.json["deleted"].push_back(FormatId(used_up.id));
  }
  if (record == copy_.record()) return std::nullopt;
  return copy_.SaveAsItIs(record);
}

}  // namespace zel::ctl
