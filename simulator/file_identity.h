// By which volume and index the driver knows an open file. Test bench only.
//
// Threads: any. The calling thread's last error is kept.
#pragma once

#include <windows.h>

#include <optional>
#include <string>

#include "files/types.h"

namespace zel::sim {

// Nothing for what is no file of a volume with a GUID: directories, pipes, consoles, network files.
[[nodiscard]] std::optional<FileKey> IdentifyFile(HANDLE file);

// "VOLUME FILEID", as orders name a file.
[[nodiscard]] std::string OrderText(const FileKey& file);

}  // namespace zel::sim
