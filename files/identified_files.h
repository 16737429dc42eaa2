// The files of one directory with their ids, read from the directory itself.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "files/types.h"

namespace zel {

struct IdentifiedFile {
  std::wstring name;  // without its directory
  FileId id;
  std::uint64_t size;  // bytes, as the directory's entry has it

  bool operator==(const IdentifiedFile&) const = default;
};

// The files in `directory`, in the file system's order, each with the id that GetFileIdAndSize
// gives. Subdirectories, files whose id cannot be read, and links, which are logged at Bitmap/Warn,
// are left out; `is_complete`, if given, tells whether nothing but subdirectories is missing.
//
// Errors: a directory that does not exist has no files; any other failure is logged at Bitmap/Error
// and ends the listing. A directory that is a link is not followed: kLinkRefused.
// Threads: any thread.
// Cost: one system call for some hundred files; a file is opened only where the directory does not
// tell its id.
[[nodiscard]] std::vector<IdentifiedFile> ListIdentifiedFiles(const std::wstring& directory,
                                                              bool* is_complete = nullptr);

}  // namespace zel
