#include "zelctl/bitmap_source.h"
#include "zelctl/commands.h"
#include "zelctl/error_words.h"
#include "zelctl/file_list.h"
#include "zelctl/id_text.h"
#include "zelctl/json_shapes.h"
#include "zelctl/outputs.h"
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
  TakenBitmap bitmap;
  if (auto failure = TakeBitmap(with, request, bitmap)) return failure;
  // The service may be using its own; nobody uses this one.
  MakeExport(bitmap.file, bitmap.file.known_until);
  output.json = {{"bitmap_id", FormatId(request.bitmap.id)},
                 {"output", request.output},
                 {"bytes", bitmap.file.bytes.size()},
                 {"trust", TrustWord(TrustOf(bitmap.file))}};
  if (const auto until = bitmap.file.known_until) output.json["known_until"] = FormatTime(*until);
  output.confirmation =
      std::to_string(bitmap.file.bytes.size()) + " bytes in " + request.output + "\n";
  return WriteOutput(with.machine, request, request.output, bitmap.file.bytes, BeginsLikeBitmap);
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
