#include "zelctl/bitmap_export.h"
#include "zelctl/bitmap_source.h"
#include "zelctl/commands.h"
#include "zelctl/error_words.h"
#include "zelctl/file_list.h"
#include "zelctl/id_text.h"
#include "zelctl/json_shapes.h"
#include "zelctl/time_text.h"

namespace zel::ctl {

namespace {

std::string BitmapsText(std::size_t count) {
  return std::to_string(count) + (count == 1 ? " bitmap" : " bitmaps");
}

// Bitmaps that nobody uses up pile up unseen. Not worth a failure of its own.
void NoteOthers(Surroundings& with, const Request& request, const FileKey& file, Output& output) {
  std::vector<BitmapEntry> bitmaps;
  if (!with.server.ListBitmaps(file, bitmaps).ok() || bitmaps.size() < 2) return;
  output.notes.push_back(request.path + " has " + BitmapsText(bitmaps.size()) + " now");
}

// What is deleted cannot be had back, so a person is asked; a script has said what it wants.
bool MayUntrack(Surroundings& with, const Request& request, std::size_t bitmaps) {
  if (bitmaps == 0 || request.yes || request.json) return true;
  return with.terminal
      .Ask("This deletes " + BitmapsText(bitmaps) + ", and each copy of " + request.path +
           " needs a full pass afterwards. Stop tracking it?")
      .value_or(true);
}

}  // namespace

MaybeFailure RunTrack(Surroundings& with, const Request& request, Output& output) {
  BitmapEntry bitmap;
  if (auto failure = BeginBitmap(with, request, request.path, bitmap)) return failure;
  output.json = BitmapJson(bitmap, request.path);
  output.text = FormatId(bitmap.id) + "\n";
  NoteOthers(with, request, bitmap.file, output);
  return std::nullopt;
}

MaybeFailure RunUntrack(Surroundings& with, const Request& request, Output& output) {
  const std::string& path = request.path;
  output.json = {{"path", path}};
  std::vector<FileEntry> files;
  if (auto failure = ListFiles(with, request, files)) return failure;
  const FileEntry* const file = FindFile(files, path);
  const std::size_t bitmaps = file == nullptr ? 0 : file->bitmaps.size();
  if (!MayUntrack(with, request, bitmaps)) {
    return Refuse(Reason::kNone, path + " is still tracked, with " + BitmapsText(bitmaps));
  }
  if (auto failure = CheckAnswer(with.machine, request, with.server.StopTracking(path),
                                 "cannot stop tracking " + path,
                                 {{kFileNotFound, path + " is not tracked"}})) {
    return failure;
  }
  output.json["deleted_bitmaps"] = bitmaps;
  output.confirmation =
      path + " is not tracked any more; deleted with it: " + BitmapsText(bitmaps) + "\n";
  return std::nullopt;
}

MaybeFailure RunExport(Surroundings& with, const Request& request, Output& output) {
  const BitmapId id = request.bitmap.id;
  std::optional<FileTime> known_until;
  if (!request.no_sync) {
    known_until = with.machine.PastMoment();
    if (auto failure = Synchronize(with, request, *known_until)) return failure;
  }
  BitmapExport exported(with, request, known_until);
  const Answer answer = with.server.CopyBitmap(
      id, [&](std::span<const std::byte> bytes) { return exported.Take(bytes); });
  if (exported.failure()) return exported.failure();
  if (auto failure = CheckSent(with, request, id, answer)) return failure;
  if (auto failure = exported.Finish()) return failure;
  output.json = {{"bitmap_id", FormatId(id)},
                 {"output", request.output},
                 {"bytes", exported.size()},
                 {"trust", TrustWord(exported.trust())}};
  if (known_until) output.json["known_until"] = FormatTime(*known_until);
  output.confirmation = std::to_string(exported.size()) + " bytes in " + request.output + "\n";
  return std::nullopt;
}

// The service says the same of an id that it has never known; who mistyped one should hear of it.
MaybeFailure RunDelete(Surroundings& with, const Request& request, Output& output) {
  output.json["deleted"] = Json::array();
  output.json["unknown"] = Json::array();
  std::vector<FileEntry> files;
  if (auto failure = ListFiles(with, request, files)) return failure;
  for (const BitmapId id : request.ids) {
    if (auto failure = CheckAnswer(with.machine, request, with.server.DeleteBitmap(id),
                                   "cannot delete bitmap " + FormatId(id))) {
      return failure;
    }
    output.json["deleted"].push_back(FormatId(id));
    if (HasBitmap(files, id)) {
      output.confirmation += FormatId(id) + " is not there any more\n";
      continue;
    }
    output.json["unknown"].push_back(FormatId(id));
    output.notes.push_back("there was no bitmap " + FormatId(id) + "; the service has " +
                           BitmapsText(CountBitmaps(files)) + " (zelctl bitmaps)");
  }
  return std::nullopt;
}

}  // namespace zel::ctl
