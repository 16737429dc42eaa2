#include <algorithm>

#include "zelctl/bitmap_source.h"
#include "zelctl/change_map.h"
#include "zelctl/changed_ranges.h"
#include "zelctl/commands.h"
#include "zelctl/id_text.h"
#include "zelctl/json_shapes.h"
#include "zelctl/map_picture.h"
#include "zelctl/map_text.h"
#include "zelctl/outputs.h"
#include "zelctl/size_text.h"
#include "zelctl/time_text.h"

namespace zel::ctl {

namespace {

std::string TrustSentence(Trust trust) {
  switch (trust) {
    case Trust::kTrusted:
      return "trusted";
    case Trust::kUnreliable:
      return "UNRELIABLE: changes may be missing, a full copy is needed";
    case Trust::kInUse:
      break;
  }
  return "IN USE by the service, or left behind by one that died";
}

std::string ExactSize(std::uint64_t bytes) {
  const std::string text = FormatSize(bytes);
  return bytes < 1024 ? text : text + " (" + std::to_string(bytes) + " bytes)";
}

std::string KnownUntilLine(const BitmapFile& bitmap) {
  return bitmap.known_until ? "has all until  " + FormatTime(*bitmap.known_until) + "\n" : "";
}

std::string HeaderText(const BitmapFile& bitmap) {
  const BitmapFileHeader& header = bitmap.header;
  return "bitmap         " + FormatId(header.BitmapId) + "\nvolume         " +
         FormatGuid(header.Volume) + "\nfile id        " + FormatId(header.FileId) +
         "\ncreated        " + FormatTime(header.NameCreationTime) + "\nlast update    " +
         FormatTime(header.LastUpdateTime) + "\nblock size     " + ExactSize(header.BlockSize) +
         "\nfile size then " + ExactSize(header.FileSize) + "\nsize changed   " +
         (header.SizeChanged != 0 ? "yes: what lies behind that size counts as changed, too"
                                  : "no") +
         "\n" + KnownUntilLine(bitmap) + "state          " + TrustSentence(TrustOf(bitmap)) + "\n";
}

void AddRanges(const BitmapFile& bitmap, Output& output) {
  Json list = Json::array();
  ChangedRanges ranges(bitmap, bitmap.header.FileSize);
  for (ByteRange range; ranges.Next(range);) {
    list.push_back({{"offset", range.offset}, {"length", range.length}});
    output.text += std::to_string(range.offset) + " " + std::to_string(range.length) + "\n";
  }
  output.json["ranges"] = std::move(list);
}

void AddMap(const BitmapFile& bitmap, const TextMapLayout& layout, Output& output) {
  const ChangeMap map = MakeChangeMap(bitmap, bitmap.header.FileSize, CellsThatFit(layout));
  Json cells = Json::array();
  for (std::size_t cell = 0; cell < map.shares.size(); ++cell) {
    cells.push_back({{"offset", map.CellBegin(cell)}, {"share", map.shares[cell]}});
  }
  output.json["map"] = std::move(cells);
  output.text += DrawMap(map, layout);
}

bool BeginsLikePng(std::span<const std::byte> bytes) {
  constexpr std::string_view kPngMagic = "\x89PNG\r\n\x1a\n";
  return std::ranges::equal(bytes.first(std::min(bytes.size(), kPngMagic.size())),
                            std::as_bytes(std::span(kPngMagic)));
}

MaybeFailure WritePicture(Machine& machine, const Request& request, const BitmapFile& bitmap,
                          Output& output) {
  const ChangeMap map = MakeChangeMap(bitmap, bitmap.header.FileSize, kMostPictureCells);
  const std::string png = EncodePng(PaintMap(map));
  output.json["png"] = request.png;
  return WriteOutput(machine, request, request.png, std::as_bytes(std::span(png)), BeginsLikePng);
}

}  // namespace

MaybeFailure RunShow(Surroundings& with, const Request& request, Output& output) {
  TakenBitmap taken;
  if (auto failure = TakeBitmap(with, request, taken)) return failure;
  const BitmapFile& bitmap = taken.file;
  const ChangeTotals totals = CountChanges(bitmap, bitmap.header.FileSize);
  output.json["bitmap"] = HeaderJson(bitmap);
  output.json["changed"] = TotalsJson(totals);
  if (bitmap.known_until) output.json["known_until"] = FormatTime(*bitmap.known_until);
  if (!request.ranges && !request.map) {
    output.text = HeaderText(bitmap) + "changed        " + ChangedSizeText(totals) +
                  "\n               " + ChangedBlocksText(totals, bitmap.header.BlockSize) + "\n";
  }
  if (request.ranges) AddRanges(bitmap, output);
  if (request.map) {
    TextMapLayout layout = with.terminal.map_layout();
    layout.ascii = layout.ascii || request.ascii;
    AddMap(bitmap, layout, output);
  }
  if (request.png.empty()) return std::nullopt;
  return WritePicture(with.machine, request, bitmap, output);
}

}  // namespace zel::ctl
