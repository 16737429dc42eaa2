#include "zelctl/bitmap_source.h"
#include "zelctl/commands.h"
#include "zelctl/error_words.h"
#include "zelctl/id_text.h"
#include "zelctl/json_shapes.h"
#include "zelctl/size_text.h"
#include "zelctl/time_text.h"

namespace zel::ctl {

namespace {

MaybeFailure GetFiles(Surroundings& with, const Request& request, std::vector<FileEntry>& files) {
  return CheckAnswer(with.machine, request, with.server.GetTrackedFiles(files),
                     "cannot list the tracked files");
}

// The service takes paths for the same that differ in the case of these letters alone.
std::string FoldCase(std::string path) {
  for (char& c : path) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return path;
}

MaybeFailure KeepOnly(Surroundings& with, const std::string& path, std::vector<FileEntry>& files) {
  std::erase_if(files, [folded = FoldCase(path)](const FileEntry& file) {
    return FoldCase(file.path) != folded;
  });
  if (!files.empty()) return std::nullopt;
  return Failure{.exit_code = ExitCode::kRefused,
                 .code = kFileNotFound,
                 .name = with.machine.Describe(kFileNotFound).name,
                 .message = path + " is not tracked"};
}

void AddBitmap(const BitmapEntry& bitmap, const std::string& path, Output& output) {
  output.json["bitmaps"].push_back(BitmapJson(bitmap, path));
  output.text += FormatId(bitmap.id) + "  " + FormatTime(bitmap.creation_time) + "  " +
                 FormatSize(bitmap.block_size) + "  " + path + "\n";
}

}  // namespace

MaybeFailure RunPing(Surroundings& with, const Request& request, Output& output) {
  output.confirmation = "the service answers\n";
  return CheckAnswer(with.machine, request, with.server.Ping(),
                     "the service answers with an error");
}

MaybeFailure RunStatus(Surroundings& with, const Request& request, Output& output) {
  std::vector<FileEntry> files;
  if (auto failure = GetFiles(with, request, files)) return failure;
  std::size_t bitmaps = 0;
  for (const FileEntry& file : files) bitmaps += file.bitmaps.size();
  const Answer driver = with.server.GetDriverStatus();
  output.json = {{"tracked_files", files.size()}, {"bitmaps", bitmaps}, {"driver", driver.ok()}};
  output.text =
      "service        answers\ntracked files  " + std::to_string(files.size()) +
      "\nbitmaps        " + std::to_string(bitmaps) + "\ndriver         " +
      (driver.ok() ? "answers; its report is in the service's log\n" : "does not answer\n");
  return CheckAnswer(with.machine, request, driver,
                     "the service cannot ask the driver for its status");
}

MaybeFailure RunFiles(Surroundings& with, const Request& request, Output& output) {
  std::vector<FileEntry> files;
  if (auto failure = GetFiles(with, request, files)) return failure;
  output.json["files"] = Json::array();
  for (const FileEntry& file : files) {
    Json ids = Json::array();
    for (const BitmapId id : file.bitmaps) ids.push_back(FormatId(id));
    output.json["files"].push_back({{"path", file.path},
                                    {"volume", FormatGuid(file.file.volume)},
                                    {"file_id", FormatId(file.file.file_id)},
                                    {"bitmap_ids", ids}});
    output.text += FormatGuid(file.file.volume) + "  " + FormatId(file.file.file_id) + "  " +
                   std::to_string(file.bitmaps.size()) + "  " + file.path + "\n";
  }
  return std::nullopt;
}

MaybeFailure RunBitmaps(Surroundings& with, const Request& request, Output& output) {
  std::vector<FileEntry> files;
  if (auto failure = GetFiles(with, request, files)) return failure;
  if (!request.path.empty()) {
    if (auto failure = KeepOnly(with, request.path, files)) return failure;
  }
  output.json["bitmaps"] = Json::array();
  for (const FileEntry& file : files) {
    std::vector<BitmapEntry> bitmaps;
    const Answer answer = with.server.ListBitmaps(file.file, bitmaps);
    if (auto failure =
            CheckAnswer(with.machine, request, answer, "cannot list the bitmaps of " + file.path)) {
      return failure;
    }
    for (const BitmapEntry& bitmap : bitmaps) AddBitmap(bitmap, file.path, output);
  }
  return std::nullopt;
}

MaybeFailure RunSync(Surroundings& with, const Request& request, Output& output) {
  // The grammar has refused what is no time.
  const FileTime time = ParseTime(request.time, with.machine.Now()).value_or(0);
  output.json = {{"time", FormatTime(time)}, {"filetime", time}};
  output.confirmation = "synchronized to " + FormatTime(time) + "\n";
  return Synchronize(with, request, time);
}

}  // namespace zel::ctl
