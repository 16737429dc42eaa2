#include "zelctl/apply_mark.h"

#include <sstream>

#include "zelctl/id_text.h"

namespace zel::ctl {

namespace {

constexpr char kOpening[] = "zelctl apply 1 ";

}  // namespace

ApplyMark MarkFor(const BitmapFileHeader& header) {
  return {.volume = FormatGuid(header.Volume),
          .file_id = header.FileId,
          .creation_time = header.NameCreationTime};
}

std::string FormatMark(const ApplyMark& mark) {
  return kOpening + mark.volume + " " + FormatId(mark.file_id) + " " +
         FormatId(mark.creation_time) + "\n";
}

std::optional<ApplyMark> ParseMark(std::string_view text) {
  std::istringstream fields{std::string(text)};
  std::string words[3];
  ApplyMark mark;
  std::string file_id;
  std::string creation_time;
  fields >> words[0] >> words[1] >> words[2] >> mark.volume >> file_id >> creation_time;
  mark.file_id = ParseId(file_id).value_or(0);
  mark.creation_time = ParseId(creation_time).value_or(0);
  // Whatever is not written that way would come out differently.
  if (FormatMark(mark) != text) return std::nullopt;
  return mark;
}

bool Completes(const ApplyMark& mark, const ApplyMark& found) {
  return mark.volume == found.volume && mark.file_id == found.file_id &&
         mark.creation_time <= found.creation_time;
}

}  // namespace zel::ctl
