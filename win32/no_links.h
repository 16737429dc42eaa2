// Files and directories of the service's own, never what a link in their place leads to: whoever
// can make a link there must not choose what the service writes to or deletes.
//
// A link is a reparse point of any kind: symbolic links, junctions, mount points, and files that a
// filter keeps elsewhere. `levels`: how many of a path's last components are the service's own; the
// directory above them is the administrator's, and may be reached through links.
//
// Threads: any.
// Errors: Win32 codes, 0 for success; kLinkRefused when a link is met.
#pragma once

#include <windows.h>

#include <string>

#include "win32/handles.h"

namespace zel {

inline constexpr DWORD kLinkRefused = ERROR_CANT_ACCESS_FILE;

// CreateFileW without attributes and template. A file that was opened or made, and turns out to be
// elsewhere, is closed again. Null for a failure, with the thread's last error.
[[nodiscard]] UniqueFile OpenWithoutLinks(const std::wstring& path, int levels, DWORD access,
                                          DWORD sharing, DWORD disposition,
                                          DWORD flags = FILE_ATTRIBUTE_NORMAL);

// Whether what the path names lies where the path says, so that deleting or renaming it touches
// nothing else. It may be a link itself: then it is the link that goes.
[[nodiscard]] DWORD CheckPlace(const std::wstring& path, int levels);

// Whether the path's last component is a link. False when there is no such thing.
[[nodiscard]] bool IsLink(const std::wstring& path);

// Deletes a file, or a link to one, unless it lies elsewhere.
[[nodiscard]] DWORD DeleteInPlace(const std::wstring& path, int levels);

}  // namespace zel
