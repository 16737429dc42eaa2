// The entries of one directory.
#pragma once

#include <windows.h>

#include <optional>
#include <string>

#include "files/types.h"
#include "win32/handles.h"

namespace zel {

// Files and directories alike, in the file system's order, without "." and "..".
//
//   DirectoryListing listing(directory);
//   while (const WIN32_FIND_DATAW* entry = listing.Next()) ...
//
// Errors: a directory that does not exist has no entries; any other failure is logged at
// Bitmap/Error and ends the listing. One that is a link is not followed: kLinkRefused.
// Threads: one thread at a time. Entries may be deleted while they are listed.
// Cost: one system call an entry, no allocation.
class DirectoryListing {
 public:
  // A backslash at the end of `directory` makes no difference.
  explicit DirectoryListing(std::wstring directory);

  // Null after the last entry. The entry is valid until the next call.
  [[nodiscard]] const WIN32_FIND_DATAW* Next();

  // After the last entry: whether there may be more, which a failure has kept back.
  [[nodiscard]] bool HasFailed() const { return has_failed_; }

 private:
  [[nodiscard]] bool Advance();
  void Finish();

  std::wstring directory_;
  UniqueFind find_;
  WIN32_FIND_DATAW entry_;
  bool entry_is_new_ = false;  // the search has filled it and nobody has seen it
  bool has_failed_ = false;
};

// The file id of the tracked file whose bitmaps the entry is the directory of; none for any other
// entry.
[[nodiscard]] std::optional<FileId> FileIdOfDirectory(const WIN32_FIND_DATAW& entry);

// Whether a listing that ended with `error` has given every entry: it came to its end, or there is
// no such directory.
[[nodiscard]] bool IsEndOfListing(DWORD error);

// Logs at Bitmap/Error that a listing ended with `error` before its end.
void LogFailedListing(const std::wstring& directory, DWORD error);

}  // namespace zel
