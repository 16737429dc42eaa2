#include "files/layout.h"

#include <cwchar>
#include <limits>

namespace zel {

namespace {

constexpr std::size_t kFileIdDigits = 16;
constexpr std::size_t kTimeDigits = 16;
constexpr std::size_t kBlockSizeDigits = kBitmapNameLength - kTimeDigits;
constexpr std::size_t kMaxDigits = 16;  // of one number

// What does not fit is left out in front.
std::wstring FormatHexName(std::uint64_t value, std::size_t digits) {
  constexpr wchar_t kDigits[] = L"0123456789abcdef";
  std::wstring text(digits, L'0');
  for (auto digit = text.rbegin(); digit != text.rend(); ++digit, value >>= 4) {
    *digit = kDigits[value & 0xF];
  }
  return text;
}

template <class Number>
std::optional<Number> ParseHexName(std::wstring_view name) {
  wchar_t terminated[kMaxDigits + 1] = {};
  name.copy(terminated, kMaxDigits);
  const auto value = static_cast<Number>(std::wcstoull(terminated, nullptr, 16));
  if (value == 0 || value == std::numeric_limits<Number>::max()) return std::nullopt;
  return value;
}

}  // namespace

std::wstring ComposeCbtDirectory(std::wstring_view install_directory) {
  if (install_directory.empty()) return LR"(\\?\C:\velmora)";
  std::wstring directory = LR"(\\?\)";
  return directory.append(install_directory).append(LR"(\cbt)");
}

std::wstring ComposeReceivedMessagesPath(std::wstring_view cbt_directory) {
  std::wstring path(cbt_directory);
  return path.append(1, L'\\').append(kReceivedMessagesName);
}

std::wstring_view GuidTextInVolumeName(std::wstring_view volume_name) {
  constexpr std::wstring_view kPrefix = LR"(\\?\Volume{)";
  constexpr std::size_t kGuidChars = 36;
  if (volume_name.size() < kPrefix.size()) return {};
  return volume_name.substr(kPrefix.size(), kGuidChars);
}

std::wstring FormatFileIdDirectory(FileId file_id) {
  return FormatHexName(file_id, kFileIdDigits);
}

std::optional<FileId> ParseFileIdDirectory(std::wstring_view name) {
  if (name.size() != kFileIdDigits) return std::nullopt;
  return ParseHexName<FileId>(name);
}

std::wstring FormatBitmapName(FileTime creation_time, std::uint32_t block_size) {
  return FormatHexName(creation_time, kTimeDigits) + FormatHexName(block_size, kBlockSizeDigits);
}

std::optional<FileTime> ParseNameCreationTime(std::wstring_view name) {
  return ParseHexName<FileTime>(name.substr(0, kTimeDigits));
}

std::optional<std::uint32_t> ParseNameBlockSize(std::wstring_view name) {
  return ParseHexName<std::uint32_t>(name.substr(kTimeDigits));
}

std::wstring MissedMarkPath(std::wstring_view bitmap_path) {
  return std::wstring(bitmap_path) + L".missed";
}

std::wstring_view LastPathComponent(std::wstring_view path) {
  return path.substr(path.rfind(L'\\') + 1);  // npos + 1 is 0
}

NewBitmapPaths ComposeNewBitmapPaths(std::wstring_view cbt_directory, std::wstring_view volume_text,
                                     FileId file_id, FileTime creation_time,
                                     std::uint32_t block_size) {
  NewBitmapPaths paths;
  auto& [cbt, volume, file] = paths.directories;
  cbt = cbt_directory;
  volume = (cbt + L'\\').append(volume_text);
  file = volume + L'\\' + FormatFileIdDirectory(file_id);
  paths.file = file + L'\\' + FormatBitmapName(creation_time, block_size);
  return paths;
}

}  // namespace zel
