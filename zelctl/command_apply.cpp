#include "zelctl/commands.h"
#include "zelctl/copies/copy_checks.h"
#include "zelctl/copies/copy_pass.h"
#include "zelctl/copies/later_writes.h"
#include "zelctl/error_words.h"
#include "zelctl/unsealed_bitmap.h"

namespace zel::ctl {

namespace {

FileIdentity FileOf(const BitmapFile& bitmap) {
  return {.volume = bitmap.header.Volume, .file_id = bitmap.header.FileId};
}

// What nobody has written down is checked as far as sizes tell.
MaybeFailure CheckSize(const BitmapFile& bitmap, std::uint64_t source_size, KeptCopy& copy) {
  if (copy.knowledge() == Knowledge::kGood) return std::nullopt;
  const BitmapFileHeader& header = bitmap.header;
  if (HasAllUnchanged(bitmap, source_size, copy.size()) &&
      (header.SizeChanged != 0 || copy.size() == header.FileSize)) {
    return std::nullopt;
  }
  return NeedFull(Reason::kNotACopy,
                  copy.path() +
                      " has not the size that the file had when the bitmap was begun, so it is no "
                      "copy of it: " +
                      kNeedsFull);
}

// A snapshot is not written any more, so each difference counts. `used`: when the bitmap was begun
// that the copy is brought up to date with. `until`: as of when the copy will be.
void ExcuseLaterWrites(Surroundings& with, const Request& request, const FileIdentity& of,
                       FileTime used, FileTime until, CopyPass& pass) {
  if (!request.verify || !request.snapshot_time.empty()) return;
  pass.set_excuse(LaterWrites(with, request, of, LastBegun(with.server, of, used, until)));
}

// Nobody but this run changes the copy from before the bitmap is taken until the end.
MaybeFailure ApplyBitmap(Surroundings& with, const Request& request, Output& output,
                         KeptCopy& copy) {
  if (!copy.exists()) {
    return NeedFull(Reason::kNotACopy, "there is no " + request.to + " yet: " + kNeedsFull);
  }
  TakenBitmap bitmap;
  if (auto failure = TakeBitmap(with, request, bitmap)) return failure;
  if (auto failure = CheckTrust(bitmap.file)) return failure;
  if (!request.bitmap.file.empty()) {
    if (auto failure = CheckUnsealedWithService(with, bitmap.file)) return failure;
  }
  const FileIdentity of = FileOf(bitmap.file);
  CopyPass pass(with, request, output, copy);
  if (auto failure = pass.OpenSource()) return failure;
  if (auto failure = CheckSourceIdentity(request, pass.source_identity(), of)) return failure;
  CopyRecord record;
  const MaybeFailure unknown = KnownRecord(with.machine, request, copy, of, record);
  if (auto failure = CheckPlace(with, request, copy, pass.source_identity(), of, unknown)) {
    return failure;
  }
  if (auto failure = CheckSize(bitmap.file, pass.source_size(), copy)) return failure;
  const auto snapshot = SnapshotTime(with.machine, request);
  const OfferedBitmap offered = bitmap.offered();
  if (auto failure = CheckRuleInWords(with, request.to, record, offered, snapshot)) return failure;
  ExcuseLaterWrites(with, request, of, offered.begun, AsOfAfterwards(record, offered, snapshot),
                    pass);
  return pass.Update(bitmap, record, snapshot);
}

// As of when what is read from now on is good. Another machine's clock is known by what its
// service answers; this machine's service has the same clock.
MaybeFailure MomentOfReading(Surroundings& with, const Request& request, FileTime& moment) {
  if (const auto snapshot = SnapshotTime(with.machine, request)) {
    moment = *snapshot;
    if (moment <= with.machine.Now()) return std::nullopt;
    return Refuse(Reason::kTooLate, "the time of the snapshot lies in the future");
  }
  moment = with.machine.PastMoment();
  return request.server.empty() ? std::nullopt : Synchronize(with, request, moment);
}

MaybeFailure ApplyFull(Surroundings& with, const Request& request, Output& output, KeptCopy& copy) {
  TakenBitmap bitmap;
  if (request.has_bitmap) {
    if (auto failure = TakeBitmap(with, request, bitmap)) return failure;
  }
  FileTime moment = 0;
  if (auto failure = MomentOfReading(with, request, moment)) return failure;
  CopyPass pass(with, request, output, copy);
  if (auto failure = pass.OpenSource()) return failure;
  const FileIdentity& source = pass.source_identity();
  const FileIdentity of = request.has_bitmap ? FileOf(bitmap.file) : source;
  if (auto failure = CheckSourceIdentity(request, source, of)) return failure;
  const MaybeFailure unknown = CheckMayReplace(request, copy, of);
  if (auto failure = CheckPlace(with, request, copy, source, of, unknown)) return failure;
  ExcuseLaterWrites(with, request, of, 0, moment, pass);
  return pass.CopyAll({.of = of,
                       .as_of = moment,
                       .bitmaps = copy.record().bitmaps,
                       .beginning = copy.record().beginning});
}

}  // namespace

MaybeFailure RunApply(Surroundings& with, const Request& request, Output& output) {
  KeptCopy copy(with.machine, request.to);
  if (auto failure = copy.Hold()) return failure;
  return request.full ? ApplyFull(with, request, output, copy)
                      : ApplyBitmap(with, request, output, copy);
}

}  // namespace zel::ctl
