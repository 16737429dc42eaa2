// The tracked files as the service lists them. Pure.
#pragma once

#include <string>
#include <vector>

#include "zelctl/commands.h"

namespace zel::ctl {

[[nodiscard]] MaybeFailure ListFiles(Surroundings& with, const Request& request,
                                     std::vector<FileEntry>& files);

// The file of that path, whose letters A to Z may be written in either case; null if none is
// tracked by it. Lifetime: points into `files`.
[[nodiscard]] const FileEntry* FindFile(const std::vector<FileEntry>& files,
                                        const std::string& path);

[[nodiscard]] std::size_t CountBitmaps(const std::vector<FileEntry>& files);

[[nodiscard]] bool HasBitmap(const std::vector<FileEntry>& files, BitmapId id);

}  // namespace zel::ctl
