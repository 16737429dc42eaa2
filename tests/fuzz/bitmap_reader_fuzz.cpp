// Any bytes as a bitmap that the tool reads: refused, or its ranges, totals and maps agree. The
// first byte chooses the size that the tracked file has now.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "zelctl/block_copy.h"
#include "zelctl/map_picture.h"
#include "zelctl/map_text.h"

namespace {

void Require(bool condition) {
  if (!condition) std::abort();
}

std::uint64_t SizeNow(const zel::BitmapFileHeader& header, unsigned char choice) {
  switch (choice % 4) {
    case 0:
      return header.FileSize / 2;
    case 1:
      return header.FileSize;
    case 2:
      return header.FileSize + choice;
    default:
      return choice;
  }
}

void CheckRanges(const zel::ctl::BitmapFile& bitmap, std::uint64_t size) {
  const zel::ctl::ChangeTotals totals = zel::ctl::CountChanges(bitmap, size);
  std::uint64_t bytes = 0;
  std::uint64_t behind = 0;
  std::uint64_t count = 0;
  zel::ctl::ChangedRanges ranges(bitmap, size);
  for (zel::ctl::ByteRange range; ranges.Next(range); ++count) {
    Require(range.length > 0 && range.length <= size && range.offset <= size - range.length);
    Require(count == 0 || range.offset > behind);
    behind = range.end();
    bytes += range.length;
  }
  Require(count == totals.ranges && bytes == totals.changed_bytes);
  Require(totals.changed_blocks <= totals.blocks);
  Require(zel::ctl::HasAllUnchanged(bitmap, size, size));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  if (size == 0) return 0;
  const auto* const begin = reinterpret_cast<const std::byte*>(data) + 1;
  zel::ctl::BitmapFile bitmap;
  if (zel::ctl::ReadBitmap({begin, begin + size - 1}, zel::ctl::BitmapOrigin::kFile, bitmap)) {
    return 0;
  }
  const std::uint64_t size_now = SizeNow(bitmap.header, data[0]);
  CheckRanges(bitmap, size_now);
  const zel::ctl::TextMapLayout layout = {.columns = 80, .lines = 24, .ascii = true};
  const std::size_t cells = zel::ctl::CellsThatFit(layout);
  const zel::ctl::ChangeMap map = zel::ctl::MakeChangeMap(bitmap, size_now, cells);
  Require(map.shares.size() <= cells);
  for (const double share : map.shares) Require(share >= 0 && share <= 1.000001);
  Require(!zel::ctl::DrawMap(map, layout).empty());
  if (data[0] < 0xF8) return 0;  // a picture takes as long as all of the rest
  const zel::ctl::Picture picture = zel::ctl::PaintMap(map);
  Require(picture.pixels.size() == std::size_t{picture.width} * picture.height);
  return 0;
}
