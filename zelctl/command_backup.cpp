#include "zelctl/commands.h"
#include "zelctl/copies/copy_checks.h"
#include "zelctl/copies/copy_pass.h"
#include "zelctl/copies/later_writes.h"
#include "zelctl/copies/own_bitmaps.h"
#include "zelctl/copies/round_bitmaps.h"
#include "zelctl/error_words.h"
#include "zelctl/id_text.h"

namespace zel::ctl {

namespace {

// One round: from whatever an earlier one has left to a copy that is up to date.
class Backup {
 public:
  Backup(Surroundings& with, const Request& request, Output& output)
      : with_(with),
        request_(request),
        output_(output),
        copy_(with.machine, request.to),
        bitmaps_(with, request, output, copy_, record_) {}

  [[nodiscard]] MaybeFailure Run();

 private:
  [[nodiscard]] MaybeFailure FindFile();
  [[nodiscard]] MaybeFailure FindRecord();
  [[nodiscard]] MaybeFailure BringUpToDate(const OwnBitmap& current);
  [[nodiscard]] MaybeFailure CopyAll(const Failure& why);
  void Report(const std::string& why);

  Surroundings& with_;
  const Request& request_;
  Output& output_;
  KeptCopy copy_;
  FileIdentity of_;
  CopyRecord record_;
  RoundBitmaps bitmaps_;
};

MaybeFailure Backup::Run() {
  if (auto failure = copy_.Hold()) return failure;
  if (auto failure = FindFile()) return failure;
  if (auto failure = FindRecord()) return failure;
  const std::optional<OwnBitmap> current = copy_.exists() ? CurrentBitmap(record_) : std::nullopt;
  if (auto failure = bitmaps_.EnsureNext()) return failure;
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
  if (auto failure = bitmaps_.DeleteUsedUp()) {
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
  return bitmaps_.Find();
}

MaybeFailure Backup::BringUpToDate(const OwnBitmap& current) {
  TakenBitmap bitmap;
  if (auto failure = bitmaps_.Take(current, bitmap)) return failure;
  const OfferedBitmap offered = bitmap.offered();
  if (auto failure = CheckRuleInWords(with_, request_.to, record_, offered, std::nullopt)) {
    return failure;
  }
  CopyPass pass(with_, request_, output_, copy_);
  if (auto failure = pass.OpenSource()) return failure;
  if (auto failure = CheckSourceIdentity(request_, pass.source_identity(), of_)) return failure;
  pass.set_excuse(LaterWrites(with_, request_, of_, bitmaps_.next()));
  if (auto failure = pass.Update(bitmap, record_, std::nullopt)) return failure;
  output_.json["bitmap_id"] = FormatId(current.id);
  return std::nullopt;
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
  if (auto failure = bitmaps_.EnsureTrustedNext()) return failure;
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
  pass.set_excuse(LaterWrites(with_, request_, of_, bitmaps_.next()));
  return pass.CopyAll({.of = of_,
                       .as_of = bitmaps_.moment(),
                       .bitmaps = record_.bitmaps,
                       .beginning = record_.beginning});
}

void Backup::Report(const std::string& why) {
  output_.json["next_bitmap_id"] = FormatId(bitmaps_.next().id);
  if (why.empty()) return;
  output_.json["why"] = why;
  output_.text.insert(output_.text.size() - 1, "; full because " + why);
}

}  // namespace

MaybeFailure RunBackup(Surroundings& with, const Request& request, Output& output) {
  return Backup(with, request, output).Run();
}

}  // namespace zel::ctl
