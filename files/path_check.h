// What a caller may name as the path of a file to track. By its form alone: nothing is opened.
// Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zel {

// The longest path that Windows opens, in UTF-16 units.
inline constexpr std::size_t kLongestPath = 32'767;

enum class PathFault : std::uint8_t {
  kNone,
  kTooLong,           // longer than kLongestPath
  kControlCharacter,  // below U+0020, which no file name has and which would break a log line
  kNotLocal,          // not a file by a local drive's letter or a volume's GUID
};

// Local are a drive's letter, with or without "\\?\", "\\?\Volume{GUID}\", and what Windows
// resolves against the process's own directory. Not local, because Windows leaves the local file
// systems for it or means something else than a file's own data: a share, a device, a pipe,
// whatever else begins with two separators, a stream of a file ("file:stream"), and a device's name
// in the last place, dots, blanks and an extension after it included ("C:\x\NUL .txt").
[[nodiscard]] PathFault CheckPath(std::wstring_view path);

// The start of `path`, fit for a log line: '?' for each control character, and "..." for what is
// left out.
[[nodiscard]] std::wstring PrintableStart(std::wstring_view path);

// `path` with '?' for each control character.
[[nodiscard]] std::wstring PrintablePath(std::wstring_view path);

}  // namespace zel
