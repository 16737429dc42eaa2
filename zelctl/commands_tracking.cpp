#include "zelctl/bitmap_source.h"
#include "zelctl/commands.h"
#include "zelctl/error_words.h"
#include "zelctl/id_text.h"
#include "zelctl/json_shapes.h"

namespace zel::ctl {

MaybeFailure RunTrack(Surroundings& with, const Request& request, Output& output) {
  const std::string& path = request.path;
  BitmapEntry bitmap;
  const Answer answer = with.server.StartTracking(path, request.block_size, bitmap);
  if (auto failure = CheckAnswer(
          with.machine, request, answer, "cannot track " + path,
          {{1, "the bitmap file for " + path + " could not be made; the service's log tells why"},
           {kFileNotFound, "there is no " + path},
           {kPathNotFound, "there is no " + path},
           {kInsufficientBuffer, path + " is smaller than 4096 bytes, too small to be tracked"},
           {kMediaChanged, path + " is tracked under another file id; untrack it first"},
           {kTimeout, "the driver did not confirm " + path + ", which is not tracked now"},
           {kShutdownInProgress, "the service is stopping"}})) {
    return failure;
  }
  output.json = BitmapJson(bitmap, path);
  output.text = FormatId(bitmap.id) + "\n";
  return std::nullopt;
}

MaybeFailure RunUntrack(Surroundings& with, const Request& request, Output& output) {
  const std::string& path = request.path;
  output.json = {{"path", path}};
  output.confirmation = path + " is not tracked any more; its bitmaps are deleted\n";
  return CheckAnswer(with.machine, request, with.server.StopTracking(path),
                     "cannot stop tracking " + path, {{kFileNotFound, path + " is not tracked"}});
}

MaybeFailure RunCopy(Surroundings& with, const Request& request, Output& output) {
  const BitmapId id = request.ids.front();
  BitmapFile bitmap;
  if (auto failure = FetchBitmap(with, request, id, bitmap)) return failure;
  // The service may be using its own; nobody uses this one.
  MarkClosed(bitmap);
  const std::uint32_t code = WriteWholeFile(with.machine, request.output, bitmap.bytes);
  output.json = {{"bitmap_id", FormatId(id)},
                 {"output", request.output},
                 {"bytes", bitmap.bytes.size()},
                 {"trust", TrustWord(TrustOf(bitmap))}};
  output.confirmation = std::to_string(bitmap.bytes.size()) + " bytes in " + request.output + "\n";
  return CheckSystem(with.machine, code, "cannot write " + request.output);
}

MaybeFailure RunDelete(Surroundings& with, const Request& request, Output& output) {
  output.json["deleted"] = Json::array();
  for (const BitmapId id : request.ids) {
    if (auto failure = CheckAnswer(with.machine, request, with.server.DeleteBitmap(id),
                                   "cannot delete bitmap " + FormatId(id))) {
      return failure;
    }
    output.json["deleted"].push_back(FormatId(id));
    output.confirmation += FormatId(id) + " is not there any more\n";
  }
  return std::nullopt;
}

}  // namespace zel::ctl
