#include "zelctl/json_shapes.h"

#include "zelctl/id_text.h"
#include "zelctl/time_text.h"

namespace zel::ctl {

Json BitmapJson(const BitmapEntry& bitmap, const std::string& path) {
  Json json = {{"bitmap_id", FormatId(bitmap.id)},
               {"path", path},
               {"volume", FormatGuid(bitmap.file.volume)},
               {"file_id", FormatId(bitmap.file.file_id)},
               {"block_size", bitmap.block_size},
               {"creation_time", FormatTime(bitmap.creation_time)},
               {"bitmap_file_size", bitmap.file_size}};
  if (!bitmap.file_name.empty()) json["bitmap_file"] = bitmap.file_name;
  return json;
}

Json HeaderJson(const BitmapFile& bitmap) {
  const BitmapFileHeader& header = bitmap.header;
  return {{"bitmap_id", FormatId(header.BitmapId)},
          {"volume", FormatGuid(header.Volume)},
          {"file_id", FormatId(header.FileId)},
          {"creation_time", FormatTime(header.NameCreationTime)},
          {"last_update_time", FormatTime(header.LastUpdateTime)},
          {"block_size", header.BlockSize},
          {"file_size", header.FileSize},
          {"bitmap_size", header.BitmapSize},
          {"size_changed", header.SizeChanged != 0},
          {"version", header.Version},
          {"trust", TrustWord(TrustOf(bitmap))}};
}

Json TotalsJson(const ChangeTotals& totals) {
  return {{"bytes", totals.changed_bytes},
          {"blocks", totals.changed_blocks},
          {"ranges", totals.ranges},
          {"of_bytes", totals.file_size},
          {"of_blocks", totals.blocks}};
}

Json ErrorJson(const Failure& failure) {
  return {{"exit_code", static_cast<int>(failure.exit_code)},
          {"code", failure.code},
          {"name", failure.name},
          {"reason", ReasonWord(failure.reason)},
          {"message", failure.message}};
}

std::string TrustWord(Trust trust) {
  switch (trust) {
    case Trust::kTrusted:
      return "trusted";
    case Trust::kUnreliable:
      return "unreliable";
    case Trust::kInUse:
      break;
  }
  return "in_use";
}

}  // namespace zel::ctl
