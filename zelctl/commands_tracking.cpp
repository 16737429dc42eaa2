#include "zelctl/bitmap_source.h"
#include "zelctl/commands.h"
#include "zelctl/error_words.h"
#include "zelctl/id_text.h"
#include "zelctl/json_shapes.h"
#include "zelctl/outputs.h"
#include "zelctl/time_text.h"

namespace zel::ctl {

MaybeFailure RunTrack(Surroundings& with, const Request& request, Output& output) {
  BitmapEntry bitmap;
  if (auto failure = BeginBitmap(with, request, request.path, bitmap)) return failure;
  output.json = BitmapJson(bitmap, request.path);
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
