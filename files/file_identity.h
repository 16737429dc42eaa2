// What names a file: its volume's GUID and its id.
//
// Errors: Win32 codes, 0 for success; outputs are unchanged on failure. The volume look-up logs
// its failures at General/Error.
// Threads: any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "files/types.h"

namespace zel {

// The 36-character form without braces, in lower case; "<invalid GUID>" when formatting fails.
[[nodiscard]] std::wstring GuidToString(const VolumeGuid& guid);

// The GUID that `text` is the 36-character form of, in either case; no braces. The all-zero GUID
// is one.
[[nodiscard]] std::optional<VolumeGuid> ParseVolumeGuid(std::wstring_view text);

// The file's id and its size in bytes; either output may be null. Works while others hold the file
// open, whatever they share. Fails for a directory.
[[nodiscard]] std::uint32_t GetFileIdAndSize(const wchar_t* path, FileId* id, std::uint64_t* size);

// The GUID of the volume that holds `path`, be it mounted at a drive letter or in a folder.
[[nodiscard]] std::uint32_t GetVolumeGuidForPath(const wchar_t* path, VolumeGuid& guid);

// The entries of `directory` whose names are GUIDs, in the file system's order. Every other entry,
// and the all-zero GUID, is logged at Bitmap/Debug. Empty for a directory that does not exist.
// `has_failed`, if given, tells whether a failure may have kept entries back.
[[nodiscard]] std::vector<VolumeGuid> ListVolumeGuids(const std::wstring& directory,
                                                      bool* has_failed = nullptr);

}  // namespace zel
