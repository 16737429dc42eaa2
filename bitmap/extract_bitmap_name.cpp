#include "bitmap/extract_bitmap_name.h"

#include <optional>

#include "bitmap/bitmap_name.h"
#include "logging/log_message.h"

namespace zel {

bool ExtractFromBitmapName(const std::wstring& path, std::uint32_t* block_size,
                           FileTime* creation_time) {
  const std::wstring_view name = LastPathComponent(path);
  if (name.size() != kBitmapNameLength) {
    LogMessage(kBitmapWarn,
               L"ExtractFromBitmapName(%s) failed: bitmap name is %u characters long\n",
               path.c_str(), static_cast<std::uint32_t>(name.size()));
    return false;
  }
  const std::optional<FileTime> time = ParseNameCreationTime(name);
  if (creation_time != nullptr && !time) {
    LogMessage(kBitmapWarn, L"ExtractFromBitmapName(%s) failed: could not extract creation time\n",
               path.c_str());
    return false;
  }
  const std::optional<std::uint32_t> size = ParseNameBlockSize(name);
  if (block_size != nullptr && !size) {
    LogMessage(kBitmapWarn, L"ExtractFromBitmapName(%s) failed: could not extract block size\n",
               path.c_str());
    return false;
  }
  if (creation_time != nullptr) *creation_time = *time;
  if (block_size != nullptr) *block_size = *size;
  return true;
}

}  // namespace zel
