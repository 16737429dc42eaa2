#include "zelctl/bitmap_source.h"
#include "zelctl/bitmap_state.h"
#include "zelctl/commands.h"
#include "zelctl/error_words.h"
#include "zelctl/file_list.h"
#include "zelctl/id_text.h"
#include "zelctl/json_shapes.h"
#include "zelctl/map_text.h"
#include "zelctl/size_text.h"
#include "zelctl/table_text.h"
#include "zelctl/time_text.h"

namespace zel::ctl {

namespace {

MaybeFailure KeepOnly(Surroundings& with, const std::string& path, std::vector<FileEntry>& files) {
  if (const FileEntry* const found = FindFile(files, path)) {
    files = std::vector{FileEntry(*found)};
    return std::nullopt;
  }
  return Failure{.exit_code = ExitCode::kRefused,
                 .code = kFileNotFound,
                 .name = with.machine.Describe(kFileNotFound).name,
                 .message = path + " is not tracked"};
}

constexpr Column kFileColumns[] = {{"VOLUME", 36}, {"FILE ID", 18}, {"BITMAPS", 7}, {"FILE", 0}};
constexpr Column kBitmapColumns[] = {{"BITMAP", 18}, {"CREATED", 28}, {"BLOCKS", 9}, {"FILE", 0}};
constexpr Column kStateColumns[] = {{"BITMAP", 18}, {"STATE", 10}, {"CHANGED", 34},
                                    {"AGE", 6},     {"BLOCKS", 9}, {"FILE", 0}};

TableFor Reader(const Surroundings& with) {
  return with.terminal.prints_to_person() ? TableFor::kPeople : TableFor::kScripts;
}

void AddBitmap(const BitmapEntry& bitmap, const std::string& path, TableText& table,
               Output& output) {
  output.json["bitmaps"].push_back(BitmapJson(bitmap, path));
  table.AddLine({FormatId(bitmap.id), FormatTime(bitmap.creation_time),
                 FormatExactSize(bitmap.block_size), path});
}

MaybeFailure AddBitmapWithState(Surroundings& with, const Request& request,
                                const BitmapEntry& bitmap, const std::string& path,
                                TableText& table, Output& output) {
  BitmapState state;
  if (auto failure = ReadState(with, request, bitmap.id, state)) return failure;
  Json json = BitmapJson(bitmap, path);
  json["trust"] = state.trust;
  json["changed"] = TotalsJson(state.changed);
  output.json["bitmaps"].push_back(std::move(json));
  table.AddLine({FormatId(bitmap.id), state.trust, ChangedSizeText(state.changed),
                 FormatAge(bitmap.creation_time, with.machine.Now()),
                 FormatExactSize(bitmap.block_size), path});
  return std::nullopt;
}

MaybeFailure AddBitmapsOf(Surroundings& with, const Request& request, const FileEntry& file,
                          TableText& table, Output& output) {
  std::vector<BitmapEntry> bitmaps;
  const Answer answer = with.server.ListBitmaps(file.file, bitmaps);
  if (auto failure =
          CheckAnswer(with.machine, request, answer, "cannot list the bitmaps of " + file.path)) {
    return failure;
  }
  for (const BitmapEntry& bitmap : bitmaps) {
    if (!request.state) {
      AddBitmap(bitmap, file.path, table, output);
    } else if (auto failure = AddBitmapWithState(with, request, bitmap, file.path, table, output)) {
      return failure;
    }
  }
  return std::nullopt;
}

// The interface does not tell the service's time.
void NoteWhoseClock(const Request& request, Output& output) {
  if (request.server.empty() || request.time != "now") return;
  output.notes.push_back("this is the time of this machine's clock: while the one of " +
                         request.server +
                         " is ahead of it, what was written last may be missing (--to TIME)");
}

MaybeFailure CheckBitmaps(Surroundings& with, const Request& request,
                          const std::vector<FileEntry>& files, std::size_t& untrusted) {
  for (const FileEntry& file : files) {
    for (const BitmapId id : file.bitmaps) {
      BitmapState state;
      if (auto failure = ReadState(with, request, id, state)) return failure;
      if (state.trust != TrustWord(Trust::kTrusted)) ++untrusted;
    }
  }
  return std::nullopt;
}

}  // namespace

MaybeFailure RunPing(Surroundings& with, const Request& request, Output& output) {
  output.confirmation = "the service answers\n";
  return CheckAnswer(with.machine, request, with.server.Ping(),
                     "the service answers with an error");
}

MaybeFailure RunStatus(Surroundings& with, const Request& request, Output& output) {
  std::vector<FileEntry> files;
  if (auto failure = ListFiles(with, request, files)) return failure;
  const std::size_t bitmaps = CountBitmaps(files);
  const Answer driver = with.server.GetDriverStatus();
  output.json = {{"tracked_files", files.size()}, {"bitmaps", bitmaps}, {"driver", driver.ok()}};
  output.text =
      "service        answers\ntracked files  " + std::to_string(files.size()) +
      "\nbitmaps        " + std::to_string(bitmaps) + "\ndriver         " +
      (driver.ok() ? "answers; its report is in the service's log\n" : "does not answer\n");
  if (auto failure = CheckAnswer(with.machine, request, driver,
                                 "the service cannot ask the driver for its status")) {
    return failure;
  }
  if (!request.check) return std::nullopt;
  std::size_t untrusted = 0;
  if (auto failure = CheckBitmaps(with, request, files, untrusted)) return failure;
  output.json["untrusted"] = untrusted;
  output.text += "untrusted      " + std::to_string(untrusted) + "\n";
  if (untrusted == 0) return std::nullopt;
  return NeedFull(Reason::kUnreliable, "bitmaps that cannot be trusted: " +
                                           std::to_string(untrusted) + "; see bitmaps --state");
}

MaybeFailure RunFiles(Surroundings& with, const Request& request, Output& output) {
  std::vector<FileEntry> files;
  if (auto failure = ListFiles(with, request, files)) return failure;
  output.json["files"] = Json::array();
  TableText table(kFileColumns, Reader(with));
  for (const FileEntry& file : files) {
    Json ids = Json::array();
    for (const BitmapId id : file.bitmaps) ids.push_back(FormatId(id));
    const std::string volume = FormatGuid(file.file.volume);
    const std::string file_id = FormatId(file.file.file_id);
    output.json["files"].push_back(
        {{"path", file.path}, {"volume", volume}, {"file_id", file_id}, {"bitmap_ids", ids}});
    table.AddLine({volume, file_id, std::to_string(file.bitmaps.size()), file.path});
  }
  output.text = table.text();
  return std::nullopt;
}

MaybeFailure RunBitmaps(Surroundings& with, const Request& request, Output& output) {
  std::vector<FileEntry> files;
  if (auto failure = ListFiles(with, request, files)) return failure;
  if (!request.path.empty()) {
    if (auto failure = KeepOnly(with, request.path, files)) return failure;
  }
  output.json["bitmaps"] = Json::array();
  TableText table = request.state ? TableText(kStateColumns, TableFor::kPeople)
                                  : TableText(kBitmapColumns, Reader(with));
  MaybeFailure failure;
  for (const FileEntry& file : files) {
    failure = AddBitmapsOf(with, request, file, table, output);
    if (failure) break;
  }
  output.text = table.text();
  return failure;
}

MaybeFailure RunSync(Surroundings& with, const Request& request, Output& output) {
  // The grammar has refused what is no time.
  const FileTime time = ParseTime(request.time, with.machine.Now()).value_or(0);
  output.json = {{"time", FormatTime(time)}, {"filetime", time}};
  output.confirmation = "synchronized to " + FormatTime(time) + "\n";
  if (auto failure = Synchronize(with, request, time)) return failure;
  NoteWhoseClock(request, output);
  return std::nullopt;
}

}  // namespace zel::ctl
