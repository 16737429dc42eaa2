#include "zelctl/bitmap_source.h"

#include "zelctl/checksum.h"
#include "zelctl/error_words.h"
#include "zelctl/id_text.h"
#include "zelctl/progress_line.h"
#include "zelctl/unsealed_bitmap.h"

namespace zel::ctl {

namespace {

// What is no bitmap is not read whole.
constexpr std::size_t kHeaderBytes = kBitmapHeaderSize;

MaybeFailure CheckFault(const std::optional<std::string>& fault, const std::string& name) {
  if (fault) return Refuse(Reason::kDamaged, name + " cannot be used: " + *fault);
  return std::nullopt;
}

// Of an id without its 0x.
std::string HintFor(const std::string& file) {
  return ParseId(file) ? " (an id begins with 0x)" : "";
}

MaybeFailure FetchBitmap(Surroundings& with, const Request& request, BitmapId id,
                         TakenBitmap& bitmap) {
  std::vector<std::byte> bytes;
  const Answer answer = CopyBitmapTo(with.server, id, bytes);
  if (auto failure = CheckSent(with, request, id, answer)) return failure;
  bitmap.taken = with.machine.Now();
  return CheckFault(ReadBitmap(std::move(bytes), BitmapOrigin::kService, bitmap.file),
                    "bitmap " + FormatId(id));
}

MaybeFailure ReadBitmapFile(Surroundings& with, const Request& request, TakenBitmap& bitmap) {
  const std::string& file = request.bitmap.file;
  std::vector<std::byte> bytes;
  std::uint32_t code = ReadBeginning(with.machine, file, kHeaderBytes, bytes);
  if (auto failure = CheckSystem(with.machine, code, "cannot read " + file + HintFor(file))) {
    return failure;
  }
  if (BeginsLikeBitmap(bytes)) code = ReadWholeFile(with.machine, file, bytes);
  if (auto failure = CheckSystem(with.machine, code, "cannot read " + file)) return failure;
  bitmap.taken = with.machine.Now();
  const BitmapOrigin origin = request.service_copy ? BitmapOrigin::kService : BitmapOrigin::kFile;
  auto fault = ReadBitmap(std::move(bytes), origin, bitmap.file);
  if (!fault) fault = FaultOfUnsealed(file, bitmap.file);
  return CheckFault(fault, file);
}

}  // namespace

OfferedBitmap TakenBitmap::offered() const {
  return {.of = {.volume = file.header.Volume, .file_id = file.header.FileId},
          .id = file.header.BitmapId,
          .begun = file.header.NameCreationTime,
          .known_until = file.known_until,
          .taken = taken,
          .is_current = is_current,
          .digest = Checksum(file.bytes)};
}

MaybeFailure CheckSent(Surroundings& with, const Request& request, BitmapId id,
                       const Answer& answer) {
  const std::string name = "bitmap " + FormatId(id);
  return CheckAnswer(with.machine, request, answer, "cannot copy " + name,
                     {{kNotFound, "there is no " + name}});
}

MaybeFailure TakeCurrentBitmap(Surroundings& with, const Request& request, BitmapId id,
                               FileTime moment, TakenBitmap& bitmap) {
  if (auto failure = Synchronize(with, request, moment)) return failure;
  if (auto failure = FetchBitmap(with, request, id, bitmap)) return failure;
  bitmap.file.known_until = moment;
  bitmap.is_current = true;
  return std::nullopt;
}

MaybeFailure TakeBitmap(Surroundings& with, const Request& request, TakenBitmap& bitmap) {
  if (!request.bitmap.file.empty()) return ReadBitmapFile(with, request, bitmap);
  if (request.no_sync) return FetchBitmap(with, request, request.bitmap.id, bitmap);
  return TakeCurrentBitmap(with, request, request.bitmap.id, with.machine.PastMoment(), bitmap);
}

MaybeFailure BeginBitmap(Surroundings& with, const Request& request, const std::string& path,
                         BitmapEntry& bitmap) {
  const WaitingLine waiting(with, "waiting for the driver to see the file");
  const Answer answer = with.server.StartTracking(path, request.block_size, bitmap);
  if (auto failure = CheckAnswer(
          with.machine, request, answer, "cannot track " + path,
          {{kInvalidFunction, "the bitmap file for " + path +
                                  " could not be made, or no driver sees it; the service's log "
                                  "tells which. For the driver, " +
                                  kDriverAdvice},
           {kNotSupported,
            "no driver sees " + path + ", which is not tracked now; " + kDriverAdvice},
           {kFileNotFound, "there is no " + path},
           {kPathNotFound, "there is no " + path},
           {kInsufficientBuffer, path + " is smaller than 4096 bytes, too small to be tracked"},
           {kMediaChanged, path + " is tracked under another file id; untrack it first"},
           {kTimeout, "the driver did not confirm " + path + ", which is not tracked now; " +
                          kDriverAdvice}})) {
    return failure;
  }
  // What the service answers where it could not load what it made.
  if (bitmap.id != 0) return std::nullopt;
  return Refuse(Reason::kNone, "the service made no bitmap that can be used; see its log");
}

MaybeFailure Synchronize(Surroundings& with, const Request& request, FileTime time) {
  const WaitingLine waiting(with, "waiting for the driver's reports");
  return CheckAnswer(
      with.machine, request, with.server.SynchronizeBitmaps(time), "cannot synchronize",
      {{kTimeout,
        "the driver's reports up to that time did not come; is it in the future, or the driver "
        "behind? The service's log tells more"}});
}

MaybeFailure CheckTrust(const BitmapFile& bitmap) {
  const std::string name = "bitmap " + FormatId(bitmap.header.BitmapId);
  switch (TrustOf(bitmap)) {
    case Trust::kTrusted:
      return std::nullopt;
    case Trust::kUnreliable:
      return NeedFull(Reason::kUnreliable, name +
                                               " is unreliable, changes may be missing from it: a "
                                               "full copy is needed (--full)");
    case Trust::kInUse:
      break;
  }
  return Refuse(Reason::kInUse,
                name +
                    " was not closed: the service is using this file or left it behind. Take it "
                    "by its id; say --service-copy if the service itself sent this file");
}

}  // namespace zel::ctl
