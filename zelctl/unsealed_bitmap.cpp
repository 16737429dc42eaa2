#include "zelctl/unsealed_bitmap.h"

#include <algorithm>
#include <string_view>

#include "bitmap/format/new_bitmap.h"
#include "files/layout.h"
#include "zelctl/id_text.h"
#include "zelctl/path_text.h"

namespace zel::ctl {

namespace {

// The last component, in the form of a name that the service gives; empty where it is none.
std::wstring ServicesName(const std::string& path) {
  const std::string name = FoldCase(path.substr(path.find_last_of("\\/") + 1));
  constexpr std::string_view kDigits = "0123456789abcdef";
  if (name.size() != kBitmapNameLength || name.find_first_not_of(kDigits) != std::string::npos) {
    return {};
  }
  return {name.begin(), name.end()};
}

// Only what is written past the size that the file had sets such a bit, and that changes the size.
bool HasBitsOfNoBlock(const BitmapFile& bitmap) {
  const BitmapFileHeader& header = bitmap.header;
  const std::uint64_t spare = CountBlocks(header.FileSize, header.BlockSize) % 8;
  if (spare == 0 || header.SizeChanged != 0) return false;
  return (bitmap.bits().back() >> spare) != std::byte{0};
}

}  // namespace

std::optional<std::string> FaultOfUnsealed(const std::string& path, const BitmapFile& bitmap) {
  if (bitmap.has_checksum) return std::nullopt;
  const BitmapFileHeader& header = bitmap.header;
  const std::wstring name = ServicesName(path);
  if (!name.empty() && name != FormatBitmapName(header.NameCreationTime, header.BlockSize)) {
    return "its name is not that of a bitmap of " + std::to_string(header.BlockSize) +
           " bytes a block that was begun when it says";
  }
  if (bitmap.origin == BitmapOrigin::kFile && HasBitsOfNoBlock(bitmap)) {
    return "it has bits past its last block, and says that the size has not changed";
  }
  return std::nullopt;
}

MaybeFailure CheckUnsealedWithService(Surroundings& with, const BitmapFile& bitmap) {
  if (bitmap.has_checksum) return std::nullopt;
  const BitmapFileHeader& header = bitmap.header;
  std::vector<BitmapEntry> listed;
  if (!with.server.ListBitmaps({header.Volume, header.FileId}, listed).ok()) return std::nullopt;
  const auto same = std::ranges::find_if(listed, [&](const BitmapEntry& entry) {
    return entry.id == header.BitmapId && entry.creation_time == header.NameCreationTime;
  });
  if (same == listed.end() || same->block_size == header.BlockSize) return std::nullopt;
  return Refuse(Reason::kDamaged, "the file of bitmap " + FormatId(header.BitmapId) + " has " +
                                      std::to_string(header.BlockSize) +
                                      " bytes a block, and the service's own " +
                                      std::to_string(same->block_size) + ": take it by its id");
}

}  // namespace zel::ctl
