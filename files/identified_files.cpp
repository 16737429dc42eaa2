#include "files/identified_files.h"

#include <windows.h>

#include <cstddef>
#include <memory>
#include <string_view>
#include <utility>

#include "files/directory_listing.h"
#include "files/file_identity.h"
#include "win32/handles.h"

namespace zel {

namespace {

constexpr DWORD kBatchBytes = 64 * 1024;  // the most that file servers answer at once

// File systems without ids of 64 bits answer one of these.
bool IsNoId(FileId id) {
  return id == 0 || id == ~FileId{0};
}

// What a link's entry has is the link's own id, the look-up gives that of the file it leads to.
bool TellsFileId(const FILE_ID_BOTH_DIR_INFO& entry) {
  return (entry.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0 &&
         !IsNoId(static_cast<FileId>(entry.FileId.QuadPart));
}

void AppendByLookup(const std::wstring& directory, std::wstring name, std::uint64_t size,
                    std::vector<IdentifiedFile>& files) {
  FileId id;
  const std::wstring path = directory + L'\\' + name;
  if (GetFileIdAndSize(path.c_str(), &id, nullptr) != ERROR_SUCCESS) return;
  files.push_back({std::move(name), id, size});
}

void AppendEntry(const std::wstring& directory, const FILE_ID_BOTH_DIR_INFO& entry,
                 std::vector<IdentifiedFile>& files) {
  if ((entry.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return;
  std::wstring name(entry.FileName, entry.FileNameLength / sizeof(wchar_t));
  const auto size = static_cast<std::uint64_t>(entry.EndOfFile.QuadPart);
  if (TellsFileId(entry)) {
    files.push_back({std::move(name), static_cast<FileId>(entry.FileId.QuadPart), size});
  } else {
    AppendByLookup(directory, std::move(name), size, files);
  }
}

// The entries lie one after the other, each with the distance to the next.
void AppendBatch(const std::wstring& directory, const std::byte* batch,
                 std::vector<IdentifiedFile>& files) {
  for (DWORD distance = 1; distance != 0; batch += distance) {
    const auto& entry = *reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(batch);
    AppendEntry(directory, entry, files);
    distance = entry.NextEntryOffset;
  }
}

// Returns the error that ended the listing.
DWORD AppendFromDirectory(const std::wstring& directory, std::vector<IdentifiedFile>& files) {
  const UniqueFile handle(::CreateFileW(directory.c_str(), FILE_LIST_DIRECTORY | SYNCHRONIZE,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                        nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS,
                                        nullptr));
  if (!handle) return ::GetLastError();
  const auto batch = std::make_unique_for_overwrite<std::byte[]>(kBatchBytes);
  auto info_class = FileIdBothDirectoryRestartInfo;
  while (::GetFileInformationByHandleEx(handle.get(), info_class, batch.get(), kBatchBytes)) {
    AppendBatch(directory, batch.get(), files);
    info_class = FileIdBothDirectoryInfo;
  }
  return ::GetLastError();
}

std::vector<IdentifiedFile> LookUpEach(const std::wstring& directory) {
  std::vector<IdentifiedFile> files;
  DirectoryListing listing(directory);
  while (const WIN32_FIND_DATAW* entry = listing.Next()) {
    if ((entry->dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) continue;
    const auto high = static_cast<std::uint64_t>(entry->nFileSizeHigh) << 32;
    AppendByLookup(directory, entry->cFileName, high | entry->nFileSizeLow, files);
  }
  return files;
}

}  // namespace

std::vector<IdentifiedFile> ListIdentifiedFiles(const std::wstring& directory) {
  std::vector<IdentifiedFile> files;
  const DWORD error = AppendFromDirectory(directory, files);
  if (IsEndOfListing(error)) return files;
  // Not every file system can list ids, and they differ in how they refuse.
  if (files.empty()) return LookUpEach(directory);
  LogFailedListing(directory, error);
  return files;
}

}  // namespace zel
