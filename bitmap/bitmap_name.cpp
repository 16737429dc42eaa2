#include "bitmap/bitmap_name.h"

#include "common/hex_name.h"

namespace zel {

namespace {

constexpr std::size_t kTimeDigits = 16;

}  // namespace

std::wstring FormatBitmapName(FileTime creation_time, std::uint32_t block_size) {
  return FormatHexName(creation_time, kTimeDigits) +
         FormatHexName(block_size, kBitmapNameLength - kTimeDigits);
}

std::wstring_view LastPathComponent(std::wstring_view path) {
  return path.substr(path.rfind(L'\\') + 1);  // npos + 1 is the begin
}

std::optional<FileTime> ParseNameCreationTime(std::wstring_view name) {
  return ParseHexName<FileTime>(name.substr(0, kTimeDigits));
}

std::optional<std::uint32_t> ParseNameBlockSize(std::wstring_view name) {
  return ParseHexName<std::uint32_t>(name.substr(kTimeDigits));
}

}  // namespace zel
