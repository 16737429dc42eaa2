#include <algorithm>

#include "zelctl/commands.h"
#include "zelctl/copies/copy_checks.h"
#include "zelctl/copies/copy_pass.h"
#include "zelctl/copies/later_writes.h"
#include "zelctl/copies/own_bitmaps.h"
#include "zelctl/error_words.h"
#include "zelctl/id_text.h"
#include "zelctl/time_text.h"

namespace zel::ctl {

namespace {

// One round: from whatever an earlier one has left to a copy that is up to date. What is known of
// the copy names the bitmaps that were begun for it, before and after each step, so that a round
// that was broken off anywhere is taken up by the next.
class Backup {
 public:
  Backup(Surroundings& with, const Request& request, Output& output)
      : with_(with), request_(request), output_(output), copy_(with.machine, request.to) {}

  [[nodiscard]] MaybeFailure Run();

 private:
  [[nodiscard]] MaybeFailure FindFile();
  [[nodiscard]] MaybeFailure FindRecord();
  [[nodiscard]] MaybeFailure ListBitmaps(std::vector<BitmapEntry>& listed);
  void TellWhatWasLeft();
  [[nodiscard]] MaybeFailure BeginNext();
  [[nodiscard]] MaybeFailure EnsureNext();
  [[nodiscard]] MaybeFailure EnsureTrustedNext();
  [[nodiscard]] MaybeFailure TakeCurrent(const OwnBitmap& current, TakenBitmap& bitmap);
  [[nodiscard]] MaybeFailure BringUpToDate(const OwnBitmap& current);
  [[nodiscard]] MaybeFailure CopyAll(const Failure& why);
  [[nodiscard]] MaybeFailure DeleteUsedUp();
  void Report(const std::string& why);

  // As of when the copy will be good. Another machine's clock is known by when it began the bitmap.
  [[nodiscard]] FileTime Moment() {
    if (!request_.server.empty()) return next_.begun;
    return std::max(with_.machine.PastMoment(), next_.begun);
  }

  Surroundings& with_;
  const Request& request_;
  Output& output_;
  KeptCopy copy_;
  FileIdentity of_;
  CopyRecord record_;
  std::vector<BitmapEntry> listed_;  // the file's bitmaps when this run began
  OwnBitmap next_;
  bool next_is_new_ = false;
  FileTime moment_ = 0;
};

// Whether a full copy helps where this failure came up.
bool FullHelps(const Failure& failure) {
  return failure.exit_code == ExitCode::kNeedsFull || failure.reason == Reason::kDamaged ||
         failure.reason == Reason::kHalfWay || failure.reason == Reason::kDiffers ||
         failure.code == kNotFound;
}

MaybeFailure Backup::Run() {
  if (auto failure = copy_.Hold()) return failure;
  if (auto failure = FindFile()) return failure;
  if (auto failure = FindRecord()) return failure;
  const std::optional<OwnBitmap> current = copy_.exists() ? CurrentBitmap(record_) : std::nullopt;
  if (auto failure = EnsureNext()) return failure;
  MaybeFailure why;
  if (!copy_.exists()) {
    why = NeedFull(Reason::kNotACopy, "there is no " + request_.to + " yet");
  } else if (!current) {
    why = NeedFull(Reason::kTooLate, "there is no bitmap that has all changes since " +
                                         request_.to + " was brought up to date");
  } else {
    why = BringUpToDate(*current);
    if (why && !FullHelps(*why)) return why;
  }
  if (why) {
    if (auto failure = CopyAll(*why)) return failure;
  }
  Report(why ? why->message : "");
  if (auto failure = DeleteUsedUp()) {
    output_.notes.push_back(
        "a bitmap that is not needed any more could not be deleted; the next "
        "run tries again: " +
        FailureText(*failure));
  }
  return std::nullopt;
}

MaybeFailure Backup::FindFile() {
  const std::uint32_t code = with_.machine.Identify(request_.from, of_);
  if (auto failure = CheckSystem(with_.machine, code, "cannot open " + request_.from)) {
    return failure;
  }
  if (!of_.volume) {
    return Refuse(Reason::kIdentity, request_.from + " is on no volume that can be tracked");
  }
  return CheckPlace(with_, request_, copy_, of_, of_, CheckMayReplace(request_, copy_, of_));
}

MaybeFailure Backup::FindRecord() {
  if (copy_.knowledge() == Knowledge::kGood && copy_.record().of == of_) {
    record_ = copy_.record();
  } else if (copy_.exists()) {
    // It may be replaced: what is written down from here on is that, as of no time at all, and the
    // bitmaps that were begun for it.
    if (copy_.record().of == of_) {
      record_.bitmaps = copy_.record().bitmaps;
      record_.beginning = copy_.record().beginning;
    }
    record_.size = copy_.size();
    const std::uint32_t code = copy_.file().GetWriteTime(record_.written);
    if (auto failure = CheckSystem(with_.machine, code, "cannot read " + request_.to)) {
      return failure;
    }
  }
  record_.of = of_;
  if (auto failure = ListBitmaps(listed_)) return failure;
  KeepOnlyListed(record_, listed_);
  TellWhatWasLeft();
  return std::nullopt;
}

// A run may not have lived to write down the bitmap that it had begun. What looks like it may be
// somebody else's, so it is not touched; the record keeps it until a run that told it came through.
void Backup::TellWhatWasLeft() {
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

MaybeFailure Backup::ListBitmaps(std::vector<BitmapEntry>& listed) {
  return CheckAnswer(with_.machine, request_,
                     with_.server.ListBitmaps({*of_.volume, of_.file_id}, listed),
                     "cannot list the bitmaps of " + request_.from);
}

MaybeFailure Backup::EnsureNext() {
  const std::optional<OwnBitmap> next = NextBitmap(record_);
  if (!next) return BeginNext();
  next_ = *next;
  moment_ = Moment();
  return std::nullopt;
}

// The one that is begun before anything is read has every write that comes later.
MaybeFailure Backup::BeginNext() {
  const bool is_told = record_.beginning.has_value();
  if (!is_told) {
    record_.beginning = {.at = with_.machine.Now(), .before = BegunBitmaps(listed_)};
    if (auto failure = copy_.SaveAsItIs(record_)) return failure;
  }
  BitmapEntry begun;
  if (auto failure = BeginBitmap(with_, request_, request_.from, begun)) return failure;
  if (begun.file != FileKey{*of_.volume, of_.file_id}) {
    return Refuse(Reason::kIdentity, request_.from + " was replaced meanwhile; run it again");
  }
  next_ = {.id = begun.id, .begun = begun.creation_time};
  next_is_new_ = true;
  moment_ = Moment();
  record_.bitmaps.push_back(next_);
  if (!is_told) record_.beginning.reset();
  return copy_.SaveAsItIs(record_);
}

MaybeFailure Backup::TakeCurrent(const OwnBitmap& current, TakenBitmap& bitmap) {
  if (auto failure = TakeCurrentBitmap(with_, request_, current.id, moment_, bitmap)) {
    return failure;
  }
  const BitmapFileHeader& header = bitmap.file.header;
  if (header.NameCreationTime != current.begun) {
    return NeedFull(Reason::kIdentity, "bitmap " + FormatId(current.id) + " is another one now");
  }
  return CheckTrust(bitmap.file);
}

MaybeFailure Backup::BringUpToDate(const OwnBitmap& current) {
  TakenBitmap bitmap;
  if (auto failure = TakeCurrent(current, bitmap)) return failure;
  const OfferedBitmap offered = bitmap.offered();
  if (auto failure = CheckRuleInWords(with_, request_.to, record_, offered, std::nullopt)) {
    return failure;
  }
  CopyPass pass(with_, request_, output_, copy_);
  if (auto failure = pass.OpenSource()) return failure;
  if (auto failure = CheckSourceIdentity(request_, pass.source_identity(), of_)) return failure;
  pass.set_excuse(LaterWrites(with_, request_, of_, next_));
  if (auto failure = pass.Update(bitmap, record_, std::nullopt)) return failure;
  output_.json["bitmap_id"] = FormatId(current.id);
  return std::nullopt;
}

// One that an interrupted round has begun may have become unreliable meanwhile.
MaybeFailure Backup::EnsureTrustedNext() {
  if (next_is_new_) return std::nullopt;
  TakenBitmap bitmap;
  const MaybeFailure failure = TakeCurrent(next_, bitmap);
  if (!failure) return std::nullopt;
  return FullHelps(*failure) ? BeginNext() : failure;
}

MaybeFailure Backup::CopyAll(const Failure& why) {
  if (copy_.exists() && !request_.full_if_needed) {
    Failure failure = why;
    failure.exit_code = ExitCode::kNeedsFull;
    failure.message += "; --full-if-needed makes a full copy then";
    return failure;
  }
  // What a run with the last bitmap may have left.
  record_.half_way = copy_.record().half_way;
  if (auto failure = EnsureTrustedNext()) return failure;
  const std::string announcement = "a full pass begins: " + why.message;
  if (request_.json) {
    output_.notes.push_back(announcement);
  } else {
    with_.terminal.Note("zelctl: note: " + announcement);
  }
  output_.json = Json::object();
  CopyPass pass(with_, request_, output_, copy_);
  if (auto failure = pass.OpenSource()) return failure;
  if (auto failure = CheckSourceIdentity(request_, pass.source_identity(), of_)) return failure;
  pass.set_excuse(LaterWrites(with_, request_, of_, next_));
  return pass.CopyAll(
      {.of = of_, .as_of = moment_, .bitmaps = record_.bitmaps, .beginning = record_.beginning});
}

MaybeFailure Backup::DeleteUsedUp() {
  output_.json["deleted"] = Json::array();
  CopyRecord record = copy_.record();
  record.beginning.reset();
  std::vector<BitmapEntry> listed;
  if (auto failure = ListBitmaps(listed)) return failure;
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

void Backup::Report(const std::string& why) {
  output_.json["next_bitmap_id"] = FormatId(next_.id);
  if (why.empty()) return;
  output_.json["why"] = why;
  output_.text.insert(output_.text.size() - 1, "; full because " + why);
}

}  // namespace

MaybeFailure RunBackup(Surroundings& with, const Request& request, Output& output) {
  return Backup(with, request, output).Run();
}

}  // namespace zel::ctl
