// What names a file and where the bitmaps are: volume GUIDs, file ids, the CBT directory.
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

#include "common/types.h"

namespace zel {

// The 36-character form without braces, in lower case; "<invalid GUID>" when formatting fails.
[[nodiscard]] std::wstring GuidToString(const VolumeGuid& guid);

// The GUID that `text` is the 36-character form of, in either case; no braces. The all-zero GUID
// is one.
[[nodiscard]] std::optional<VolumeGuid> ParseVolumeGuid(std::wstring_view text);

// The file's id and its size in bytes; either output may be null. Works while others hold the file
// open, whatever they share. A directory cannot be asked.
[[nodiscard]] std::uint32_t GetFileIdAndSize(const wchar_t* path, FileId* id, std::uint64_t* size);

// The GUID of the volume that holds `path`, be it mounted at a drive letter or in a folder.
[[nodiscard]] std::uint32_t GetVolumeGuidForPath(const wchar_t* path, VolumeGuid& guid);

// The host agent's install directory from the registry. While there is none it waits for it, 15 s
// in all; then the buffer holds the empty string. What does not fit the buffer counts as none.
void GetInstallDirectory(wchar_t (&buffer)[260]);

// The directory that holds the bitmaps, in the "\\?\" form, without a backslash at its end.
// Computed by the first call, which may take GetInstallDirectory's 15 s; a thread that calls
// meanwhile waits for it. The string lives as long as the process. A path of 260 characters or
// more ends the process with STATUS_INVALID_CRUNTIME_PARAMETER.
[[nodiscard]] const std::wstring& GetCbtDirectory();

// The entries of `directory` whose names are GUIDs, in the file system's order. Every other entry,
// and the all-zero GUID, is logged at Bitmap/Debug. Empty for a directory that does not exist.
[[nodiscard]] std::vector<VolumeGuid> ListVolumeGuids(const std::wstring& directory);

}  // namespace zel
