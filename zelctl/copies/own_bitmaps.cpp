#include "zelctl/copies/own_bitmaps.h"

#include <algorithm>

namespace zel::ctl {

void KeepOnlyListed(CopyRecord& record, std::span<const BitmapEntry> listed) {
  std::erase_if(record.bitmaps, [&](const OwnBitmap& own) {
    return std::ranges::none_of(listed, [&](const BitmapEntry& entry) {
      return entry.id == own.id && entry.creation_time == own.begun;
    });
  });
}

std::optional<OwnBitmap> CurrentBitmap(const CopyRecord& record) {
  std::optional<OwnBitmap> current;
  for (const OwnBitmap& own : record.bitmaps) {
    if (own.begun <= record.as_of && (!current || own.begun >= current->begun)) current = own;
  }
  return current;
}

std::optional<OwnBitmap> NextBitmap(const CopyRecord& record) {
  if (record.bitmaps.empty()) return std::nullopt;
  const OwnBitmap latest = *std::ranges::max_element(record.bitmaps, {}, &OwnBitmap::begun);
  if (latest.begun <= record.as_of) return std::nullopt;
  return latest;
}

std::vector<OwnBitmap> UsedUpBitmaps(const CopyRecord& record) {
  std::vector<OwnBitmap> used_up;
  const std::optional<OwnBitmap> current = CurrentBitmap(record);
  for (const OwnBitmap& own : record.bitmaps) {
    if (current && own != *current && own.begun <= current->begun) used_up.push_back(own);
  }
  return used_up;
}

std::vector<BegunBitmap> LeftBitmaps(const CopyRecord& record,
                                     std::span<const BitmapEntry> listed) {
  if (!record.beginning) return {};
  std::vector<BegunBitmap> left = BegunBitmaps(listed);
  std::erase_if(left, [&](const BegunBitmap& bitmap) {
    return std::ranges::count(record.beginning->before, bitmap) > 0 ||
           std::ranges::count(record.bitmaps, bitmap) > 0;
  });
  return left;
}

std::vector<BegunBitmap> BegunBitmaps(std::span<const BitmapEntry> listed) {
  std::vector<BegunBitmap> bitmaps;
  for (const BitmapEntry& entry : listed) {
    bitmaps.push_back({.id = entry.id, .begun = entry.creation_time});
  }
  return bitmaps;
}

}  // namespace zel::ctl
