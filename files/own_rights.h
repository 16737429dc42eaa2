// Who may do what with the service's own files and directories: SYSTEM and the Administrators
// everything, nobody else anything, and nothing is inherited. Whoever can write there can clear
// bits and choose what the service opens.
//
// Threads: any.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

namespace zel {

// For CreateDirectoryW and CreateFileW. They live as long as the process. Null, the rights of the
// directory above, when they cannot be made.
[[nodiscard]] SECURITY_ATTRIBUTES* RightsOfOwnDirectory();
[[nodiscard]] SECURITY_ATTRIBUTES* RightsOfOwnFile();

// Makes the CBT directory, or takes it over as it is found: who else had rights in it, or owned it,
// is named in one line at General/Warn, and loses them there and in everything below. What cannot
// be changed is logged at General/Error and no failure. kLinkRefused (win32/no_links.h) when it is
// a link, which has been logged: nothing in it has been touched then.
[[nodiscard]] std::uint32_t TakeOverCbtDirectory(const std::wstring& directory);

}  // namespace zel
