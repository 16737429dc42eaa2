#include "zelctl/copies/copy_checks.h"

#include <algorithm>

#include "zelctl/copies/own_bitmaps.h"
#include "zelctl/error_words.h"
#include "zelctl/id_text.h"
#include "zelctl/time_text.h"

namespace zel::ctl {

namespace {

std::string BitmapText(BitmapId id, FileTime begun) {
  return "bitmap " + FormatId(id) + ", begun " + FormatTime(begun);
}

MaybeFailure CheckUntracked(Surroundings& with, const Request& request, const KeptCopy& copy,
                            const FileIdentity& of, const MaybeFailure& unknown) {
  std::vector<FileEntry> files;
  const Answer answer = with.server.GetTrackedFiles(files);
  const std::string or_replace = "; say --replace if it is to be overwritten";
  if (auto failure = CheckAnswer(with.machine, request, answer,
                                 "cannot tell whether " + request.to + " is tracked")) {
    if (unknown) return unknown;
    if (copy.knowledge() == Knowledge::kGood && copy.record().of == of) return std::nullopt;
    failure->message += "; it may be tracked itself" + or_replace;
    return failure;
  }
  const bool is_tracked = std::ranges::any_of(files, [&](const FileEntry& file) {
    return copy.identity() ==
           FileIdentity{.volume = file.file.volume, .file_id = file.file.file_id};
  });
  if (!is_tracked) return std::nullopt;
  return Refuse(Reason::kIdentity, request.to + " is tracked by the service itself" + or_replace);
}

Reason ReasonUnknown(const KeptCopy& copy) {
  return copy.knowledge() == Knowledge::kOldMark ? Reason::kHalfWay : Reason::kNotACopy;
}

std::string WhyUnknown(const KeptCopy& copy) {
  switch (copy.knowledge()) {
    case Knowledge::kNone:
    case Knowledge::kGood:
      break;
    case Knowledge::kDamaged:
      return "what was known of " + copy.path() + " is damaged";
    case Knowledge::kChanged:
      return copy.path() + " was changed by something else since " +
             (copy.record().half_way ? "a run left it half way" : "it was brought up to date");
    case Knowledge::kOldMark:
      return "an earlier version of zelctl left " + copy.path() +
             " half way; its mark COPY.zelctl-apply is there";
  }
  return "nothing is known of " + copy.path() +
         ", as of when it is a copy and of what (there is no " +
         copy.place().record(copy.identity()) + ")";
}

enum class Presence { kThere, kGone, kUnknown };

// Whether the service still has the bitmap of the run that left the copy half way.
Presence LookFor(ZelServer& server, const CopyRecord& record) {
  std::vector<BitmapEntry> listed;
  if (!record.of.volume ||
      !server.ListBitmaps({*record.of.volume, record.of.file_id}, listed).ok()) {
    return Presence::kUnknown;
  }
  const bool is_there =
      std::ranges::count(BegunBitmaps(listed),
                         BegunBitmap{record.half_way->bitmap, record.half_way->begun}) > 0;
  return is_there ? Presence::kThere : Presence::kGone;
}

// "an earlier run left it half way with bitmap 0x..., begun ..., which ...".
std::string HalfWayText(const CopyRecord& record, Presence presence) {
  const std::string text = "an earlier run left it half way with " +
                           BitmapText(record.half_way->bitmap, record.half_way->begun) + ", which ";
  switch (presence) {
    case Presence::kThere:
      return text + "the service still has: run that one again, or " + kNeedsFull;
    case Presence::kGone:
      return text + "is gone: " + kNeedsFull + ", unless you have exported it since";
    case Presence::kUnknown:
      break;
  }
  return text + "the service may still have (zelctl bitmaps): run that one again, or " + kNeedsFull;
}

MaybeFailure TooLate(Surroundings& with, const std::string& path, const CopyRecord& record,
                     const OfferedBitmap& bitmap) {
  const std::string text = path + " is as of " + FormatTime(record.as_of) + ", and " +
                           BitmapText(bitmap.id, bitmap.begun) +
                           ", lacks what was written between: ";
  return NeedFull(Reason::kTooLate,
                  text + (record.half_way ? HalfWayText(record, LookFor(with.server, record))
                                          : "take a bitmap that was begun before, or " +
                                                std::string(kNeedsFull)));
}

MaybeFailure LeftHalfWay(Surroundings& with, const std::string& path, const CopyRecord& record) {
  const Presence presence = LookFor(with.server, record);
  Failure failure = Refuse(Reason::kHalfWay, path + " cannot be completed by a bitmap that knows " +
                                                 "less: " + HalfWayText(record, presence));
  if (presence == Presence::kGone) failure.exit_code = ExitCode::kNeedsFull;
  return failure;
}

}  // namespace

bool FullHelps(const Failure& failure) {
  return failure.exit_code == ExitCode::kNeedsFull || failure.reason == Reason::kDamaged ||
         failure.reason == Reason::kHalfWay || failure.reason == Reason::kDiffers ||
         failure.code == kNotFound;
}

std::string IdentityText(const FileIdentity& identity) {
  return "file " + FormatId(identity.file_id) + " on " +
         (identity.volume ? "volume " + FormatGuid(*identity.volume)
                          : std::string("no known volume"));
}

std::optional<FileTime> SnapshotTime(Machine& machine, const Request& request) {
  if (request.snapshot_time.empty()) return std::nullopt;
  return ParseTime(request.snapshot_time, machine.Now());
}

MaybeFailure CheckSourceIdentity(const Request& request, const FileIdentity& source,
                                 const FileIdentity& of) {
  if (request.force_identity || source == of) return std::nullopt;
  return Refuse(Reason::kIdentity,
                "the bitmap is of " + IdentityText(of) + ", and " + request.from + " is " +
                    IdentityText(source) +
                    "; say --force-identity if it has the same contents, as a snapshot has");
}

MaybeFailure CheckPlace(Surroundings& with, const Request& request, const KeptCopy& copy,
                        const FileIdentity& source, const FileIdentity& of,
                        const MaybeFailure& unknown) {
  if (!copy.exists()) return unknown;
  // A copy that is the source itself would be "equal" whatever happens.
  if (copy.identity() == source) {
    return Refuse(Reason::kIdentity, request.to + " is the same file as " + request.from);
  }
  if (copy.identity() == of) {
    return Refuse(Reason::kIdentity, request.to + " is the tracked file itself, not a copy of it");
  }
  if (!request.replace) {
    if (auto failure = CheckUntracked(with, request, copy, of, unknown)) return failure;
  }
  return unknown;
}

MaybeFailure CheckMayReplace(const Request& request, const KeptCopy& copy, const FileIdentity& of) {
  if (!copy.exists() || request.replace) return std::nullopt;
  if (copy.knowledge() != Knowledge::kGood) {
    return Refuse(ReasonUnknown(copy),
                  WhyUnknown(copy) + "; say --replace if it is to be overwritten");
  }
  if (copy.record().of == of) return std::nullopt;
  return Refuse(Reason::kNotACopy, request.to + " is a copy of " + IdentityText(copy.record().of) +
                                       ", not of " + request.from +
                                       "; say --replace if it is to be overwritten");
}

MaybeFailure KnownRecord(Machine& machine, const Request& request, const KeptCopy& copy,
                         const FileIdentity& of, CopyRecord& record) {
  const bool is_known = copy.knowledge() == Knowledge::kGood;
  if (is_known && request.as_of.empty()) {
    record = copy.record();
    return std::nullopt;
  }
  if (is_known) {
    return Refuse(Reason::kNotACopy, request.to + " is known to be as of " +
                                         FormatTime(copy.record().as_of) +
                                         ": --as-of is not for it");
  }
  if (copy.knowledge() == Knowledge::kOldMark) {
    return NeedFull(ReasonUnknown(copy),
                    WhyUnknown(copy) + ": a full copy is needed (--full --replace)");
  }
  if (request.as_of.empty()) {
    return NeedFull(ReasonUnknown(copy),
                    WhyUnknown(copy) +
                        ": say --as-of TIME if you know that every write until then is in it, or " +
                        kNeedsFull);
  }
  record = {.of = of,
            .copy = copy.identity(),
            .as_of = ParseTime(request.as_of, machine.Now()).value_or(0),
            .read_until = machine.Now()};
  return std::nullopt;
}

MaybeFailure CheckRuleInWords(Surroundings& with, const std::string& path, const CopyRecord& record,
                              const OfferedBitmap& bitmap, std::optional<FileTime> snapshot) {
  const FileTime now = with.machine.Now();
  if (record.as_of > now || snapshot.value_or(0) > now) {
    return NeedFull(Reason::kTooLate,
                    "the time as of which " + path +
                        " or the snapshot is good lies in the future: was the clock set back? " +
                        kNeedsFull);
  }
  const std::optional<RuleFault> fault = CheckRule(record, bitmap, snapshot);
  if (!fault) return std::nullopt;
  switch (*fault) {
    case RuleFault::kOtherFile:
      return Refuse(Reason::kNotACopy, path + " is a copy of " + IdentityText(record.of) +
                                           ", and the bitmap is of " + IdentityText(bitmap.of));
    case RuleFault::kBegunTooLate:
      break;
    case RuleFault::kHalfWay:
      return LeftHalfWay(with, path, record);
    case RuleFault::kSnapshotTooOld:
      return Refuse(Reason::kTooLate, "the snapshot is older than " + path + ", which is as of " +
                                          FormatTime(record.as_of));
    case RuleFault::kSnapshotUnknown:
      return Refuse(Reason::kTooLate,
                    "the bitmap was exported before the snapshot was made, or before " + path +
                        " was last brought up to date: take the bitmap by its id");
  }
  return TooLate(with, path, record, bitmap);
}

}  // namespace zel::ctl
