#include "bitmap/bitmap_name.h"

#include <cwchar>
#include <limits>

namespace zel {

namespace {

constexpr std::size_t kTimeDigits = 16;
constexpr std::size_t kFileIdDigits = 16;
constexpr std::size_t kMaxDigits = 16;

std::wstring FormatHex(std::uint64_t value, std::size_t digits) {
  constexpr wchar_t kDigits[] = L"0123456789abcdef";
  std::wstring text(digits, L'0');
  for (auto digit = text.rbegin(); digit != text.rend(); ++digit, value >>= 4) {
    *digit = kDigits[value & 0xF];
  }
  return text;
}

// As wcstoul reads it: white space and a sign go before the digits, and anything may follow them.
// A negative number of up to kMaxDigits characters wraps in Number as it would there.
template <class Number>
std::optional<Number> ParseHex(std::wstring_view text) {
  wchar_t terminated[kMaxDigits + 1] = {};
  text.copy(terminated, kMaxDigits);
  const auto value = static_cast<Number>(std::wcstoull(terminated, nullptr, 16));
  if (value == 0 || value == std::numeric_limits<Number>::max()) return std::nullopt;
  return value;
}

}  // namespace

std::wstring FormatBitmapName(FileTime creation_time, std::uint32_t block_size) {
  return FormatHex(creation_time, kTimeDigits) +
         FormatHex(block_size, kBitmapNameLength - kTimeDigits);
}

std::wstring_view LastPathComponent(std::wstring_view path) {
  return path.substr(path.rfind(L'\\') + 1);  // npos + 1 is the begin
}

std::optional<FileTime> ParseNameCreationTime(std::wstring_view name) {
  return ParseHex<FileTime>(name.substr(0, kTimeDigits));
}

std::optional<std::uint32_t> ParseNameBlockSize(std::wstring_view name) {
  return ParseHex<std::uint32_t>(name.substr(kTimeDigits));
}

std::wstring FormatFileIdDirectory(FileId file_id) {
  return FormatHex(file_id, kFileIdDigits);
}

std::optional<FileId> ParseFileIdDirectory(std::wstring_view name) {
  if (name.size() != kFileIdDigits) return std::nullopt;
  return ParseHex<FileId>(name);
}

}  // namespace zel
