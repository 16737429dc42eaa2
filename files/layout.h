// Where everything lies on the disk, and what it is called: the CBT directory, in it a directory
// for a volume, in that one for a tracked file, in that its bitmap files. Pure.
//
// Names of numbers are lower-case hexadecimal digits, filled with zeros. They are read as wcstoul
// reads: white space and a sign go before the digits, and anything may follow them. A negative
// number wraps as it would there. 0 and all ones are no numbers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "files/types.h"

namespace zel {

// The longest path that the system uses; 260 characters with the terminator (MAX_PATH).
inline constexpr std::size_t kMaxPathLength = 259;

// \\?\<install directory>\cbt; without an install directory \\?\C:\velmora, which has no "cbt".
// May be longer than kMaxPathLength.
[[nodiscard]] std::wstring ComposeCbtDirectory(std::wstring_view install_directory);

// The file beside the volumes' directories that keeps the messages in hand.
inline constexpr std::wstring_view kReceivedMessagesName = L"received-messages";
[[nodiscard]] std::wstring ComposeReceivedMessagesPath(std::wstring_view cbt_directory);

// The characters between the braces of \\?\Volume{...}\, where a volume name has its GUID: up to
// 36 of them, fewer when the name is shorter. What they are is not checked.
[[nodiscard]] std::wstring_view GuidTextInVolumeName(std::wstring_view volume_name);

// A tracked file's directory is called by its file id: 16 digits.
[[nodiscard]] std::wstring FormatFileIdDirectory(FileId file_id);

// None unless the name has exactly 16 characters and reads as a number.
[[nodiscard]] std::optional<FileId> ParseFileIdDirectory(std::wstring_view name);

// A bitmap file is called by its creation time (16 digits) and its block size (8 digits).
inline constexpr std::size_t kBitmapNameLength = 24;
[[nodiscard]] std::wstring FormatBitmapName(FileTime creation_time, std::uint32_t block_size);

// One half of a name of kBitmapNameLength characters.
[[nodiscard]] std::optional<FileTime> ParseNameCreationTime(std::wstring_view name);
[[nodiscard]] std::optional<std::uint32_t> ParseNameBlockSize(std::wstring_view name);

// The directory that says, beside a bitmap file that cannot be opened, that changes are missing
// from it. The start-up scan and the listings look at files alone.
[[nodiscard]] std::wstring MissedMarkPath(std::wstring_view bitmap_path);

// The text after the last backslash; the whole path without one.
[[nodiscard]] std::wstring_view LastPathComponent(std::wstring_view path);

// A bitmap's directories from the CBT directory down, each in the one before it, and its file.
struct NewBitmapPaths {
  std::wstring directories[3];
  std::wstring file;  // the longest; may be longer than kMaxPathLength
};
// `volume_text` is the GUID's 36-character form.
[[nodiscard]] NewBitmapPaths ComposeNewBitmapPaths(std::wstring_view cbt_directory,
                                                   std::wstring_view volume_text, FileId file_id,
                                                   FileTime creation_time,
                                                   std::uint32_t block_size);

}  // namespace zel
