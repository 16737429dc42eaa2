#include "files/identified_files.h"

#include <windows.h>

#include <cstddef>
#include <memory>
#include <string_view>
#include <utility>

#include "files/directory_listing.h"
#include "files/file_identity.h"
#include "logging/log_message.h"
#include "win32/handles.h"
#include "win32/no_links.h"

namespace zel {

namespace {

constexpr DWORD kBatchBytes = 64 * 1024;  // the most that file servers answer at once

// File systems without ids of 64 bits answer one of these.
bool IsNoId(FileId id) {
  return id == 0 || id == ~FileId{0};
}

struct Found {
  std::vector<IdentifiedFile> files;
  bool is_complete = true;
};

// A file that is gone by now was none that is missing.
void AppendByLookup(const std::wstring& directory, std::wstring name, std::uint64_t size,
                    Found& found) {
  FileId id;
  const std::wstring path = directory + L'\\' + name;
  const std::uint32_t error = GetFileIdAndSize(path.c_str(), &id, nullptr);
  if (error == ERROR_SUCCESS) {
    found.files.push_back({std::move(name), id, size});
  } else if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND) {
    found.is_complete = false;
  }
}

// Whether the entry is of a file. Where a link stands there may have been a bitmap.
bool IsFile(const std::wstring& directory, std::wstring_view name, DWORD attributes, Found& found) {
  if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return false;
  if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) return true;
  LogMessage(kBitmapWarn, L"%s\\%s is a link, which is not followed\n", directory.c_str(),
             std::wstring(name).c_str());
  found.is_complete = false;
  return false;
}

void AppendEntry(const std::wstring& directory, const FILE_ID_BOTH_DIR_INFO& entry, Found& found) {
  std::wstring name(entry.FileName, entry.FileNameLength / sizeof(wchar_t));
  if (!IsFile(directory, name, entry.FileAttributes, found)) return;
  const auto size = static_cast<std::uint64_t>(entry.EndOfFile.QuadPart);
  if (!IsNoId(static_cast<FileId>(entry.FileId.QuadPart))) {
    found.files.push_back({std::move(name), static_cast<FileId>(entry.FileId.QuadPart), size});
  } else {
    AppendByLookup(directory, std::move(name), size, found);
  }
}

// The entries lie one after the other, each with the distance to the next.
void AppendBatch(const std::wstring& directory, const std::byte* batch, Found& found) {
  for (DWORD distance = 1; distance != 0; batch += distance) {
    const auto& entry = *reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(batch);
    AppendEntry(directory, entry, found);
    distance = entry.NextEntryOffset;
  }
}

// Returns the error that ended the listing.
DWORD AppendFromDirectory(const std::wstring& directory, Found& found) {
  if (IsLink(directory)) return kLinkRefused;
  const UniqueFile handle(
      ::CreateFileW(directory.c_str(), FILE_LIST_DIRECTORY | SYNCHRONIZE,
                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                    FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  if (!handle) return ::GetLastError();
  const auto batch = std::make_unique_for_overwrite<std::byte[]>(kBatchBytes);
  auto info_class = FileIdBothDirectoryRestartInfo;
  while (::GetFileInformationByHandleEx(handle.get(), info_class, batch.get(), kBatchBytes)) {
    AppendBatch(directory, batch.get(), found);
    info_class = FileIdBothDirectoryInfo;
  }
  return ::GetLastError();
}

Found LookUpEach(const std::wstring& directory) {
  Found found;
  DirectoryListing listing(directory);
  while (const WIN32_FIND_DATAW* entry = listing.Next()) {
    if (!IsFile(directory, entry->cFileName, entry->dwFileAttributes, found)) continue;
    const auto high = static_cast<std::uint64_t>(entry->nFileSizeHigh) << 32;
    AppendByLookup(directory, entry->cFileName, high | entry->nFileSizeLow, found);
  }
  if (listing.HasFailed()) found.is_complete = false;
  return found;
}

Found FindIn(const std::wstring& directory) {
  Found found;
  const DWORD error = AppendFromDirectory(directory, found);
  if (IsEndOfListing(error)) return found;
  // Not every file system can list ids, and they differ in how they refuse.
  if (found.files.empty() && error != kLinkRefused) return LookUpEach(directory);
  LogFailedListing(directory, error);
  found.is_complete = false;
  return found;
}

}  // namespace

std::vector<IdentifiedFile> ListIdentifiedFiles(const std::wstring& directory, bool* is_complete) {
  Found found = FindIn(directory);
  if (is_complete != nullptr) *is_complete = found.is_complete;
  return std::move(found.files);
}

}  // namespace zel
