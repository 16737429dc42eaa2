#include "bitmap/create_bitmap.h"

#include <windows.h>

#include <cstddef>
#include <string>
#include <utility>

#include "bitmap/bitmap_manager.h"
#include "bitmap/format/new_bitmap.h"
#include "errors/error_info.h"
#include "files/file_identity.h"
#include "files/install_directory.h"
#include "files/layout.h"
#include "files/own_rights.h"
#include "logging/log_message.h"
#include "win32/file_time.h"
#include "win32/handles.h"
#include "win32/no_links.h"

namespace zel {

namespace {

bool CheckPathLength(const std::wstring& path) {
  if (path.size() <= kMaxPathLength) return true;
  LogMessage(kBitmapError,
             L"Failed to create new bitmap file %s: the path has %Iu characters, more than %Iu\n",
             path.c_str(), path.size(), kMaxPathLength);
  return false;
}

// The cleanup of untracked files takes an empty directory when it asked a moment before the file
// became tracked: the file's own and the volume's once each, and never again after that.
constexpr DWORD kMaxRetries = 5;

// What a directory answers that has just gone, or is just going because somebody has it open.
bool DirectoryMayHaveGone(DWORD error) {
  return error == ERROR_PATH_NOT_FOUND || error == ERROR_FILE_NOT_FOUND ||
         error == ERROR_ACCESS_DENIED || error == ERROR_DELETE_PENDING;
}

// The first directory that cannot be made, whose error is the thread's last; null when all stand.
const std::wstring* CreateDirectories(const NewBitmapPaths& paths) {
  for (const std::wstring& directory : paths.directories) {
    if (::CreateDirectoryW(directory.c_str(), RightsOfOwnDirectory())) continue;
    if (::GetLastError() != ERROR_ALREADY_EXISTS) return &directory;
    if (!IsLink(directory)) continue;
    ::SetLastError(kLinkRefused);
    return &directory;
  }
  return nullptr;
}

void LogCreationFailure(const std::wstring* directory, const std::wstring& file, DWORD error) {
  const ErrorInfo info(error);
  if (directory != nullptr) {
    LogMessage(kBitmapError, L"Failed to create directory %s: %hs\n", directory->c_str(),
               info.text());
  } else {
    LogMessage(kBitmapError, L"Failed to create new bitmap file %s: %hs\n", file.c_str(),
               info.text());
  }
}

UniqueFile CreateBitmapFile(const NewBitmapPaths& paths) {
  for (DWORD retries = 0;; ++retries) {
    const std::wstring* const missing = CreateDirectories(paths);
    if (missing == nullptr) {
      UniqueFile file(::CreateFileW(paths.file.c_str(), GENERIC_READ | GENERIC_WRITE,
                                    FILE_SHARE_READ, RightsOfOwnFile(), CREATE_NEW,
                                    FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
      if (file) return file;
    }
    const DWORD error = ::GetLastError();
    if (retries == kMaxRetries || !DirectoryMayHaveGone(error)) {
      LogCreationFailure(missing, paths.file, error);
      return {};
    }
    ::Sleep(retries);  // nobody tells when a directory has gone
  }
}

bool ReadBitmapId(HANDLE file, const std::wstring& path, BitmapId& bitmap_id) {
  BY_HANDLE_FILE_INFORMATION information;
  if (!::GetFileInformationByHandle(file, &information)) {
    LogMessage(kBitmapError, L"Failed to get the BitmapId of %s: %hs\n", path.c_str(),
               ErrorInfo().text());
    return false;
  }
  bitmap_id = JoinHalves(information.nFileIndexHigh, information.nFileIndexLow);
  return true;
}

bool WriteFirstBytes(HANDLE file, const NewBitmapBytes& bytes) {
  DWORD written = 0;
  if (::WriteFile(file, &bytes, sizeof bytes, &written, nullptr)) {
    if (written == sizeof bytes) return true;
    ::SetLastError(ERROR_DISK_FULL);  // the one reason to write less
  }
  LogMessage(kBitmapError,
             L"Failed to write out a new bitmap header to new BitmapId 0x%016I64x: %hs\n",
             bytes.header.BitmapId, ErrorInfo().text());
  return false;
}

// Logs an error of setting the length, whose formats take the offset, the id and the error's text.
bool LogLengthError(LogFormat<std::int64_t, BitmapId, const char*> format, LARGE_INTEGER offset,
                    BitmapId bitmap_id) {
  LogMessage(kBitmapError, format, std::int64_t{offset.QuadPart}, bitmap_id, ErrorInfo().text());
  return false;
}

bool SetLength(HANDLE file, std::uint32_t length, BitmapId bitmap_id) {
  LARGE_INTEGER offset;
  offset.QuadPart = length;
  if (!::SetFilePointerEx(file, offset, nullptr, FILE_BEGIN)) {
    return LogLengthError(L"Failed to seek to offset %I64d in new BitmapId 0x%016I64x: %hs\n",
                          offset, bitmap_id);
  }
  if (!::SetEndOfFile(file)) {
    return LogLengthError(L"Failed to set EOF at offset %I64d in new BitmapId 0x%016I64x: %hs\n",
                          offset, bitmap_id);
  }
  return true;
}

// Null for a failure. The file looks like one in use: until the bitmap is registered no change
// reaches it, and the next start must not trust what a failure or a kill leaves of it.
UniqueFile MakeBitmapFile(const NewBitmapPaths& paths, const std::wstring& volume_text,
                          const NewBitmap& bitmap, BitmapId& bitmap_id) {
  UniqueFile file = CreateBitmapFile(paths);
  if (!file || !ReadBitmapId(file.get(), paths.file, bitmap_id)) return {};
  LogMessage(kBitmapInfo, L"New BitmapId 0x%016I64x created for Volume %s, FileId 0x%016I64x\n",
             bitmap_id, volume_text.c_str(), bitmap.file_id);
  NewBitmapBytes bytes = ComposeNewBitmapBytes(bitmap, bitmap_id);
  bytes.header.ClosedCleanly = 0;
  if (!WriteFirstBytes(file.get(), bytes) ||
      !SetLength(file.get(), NewBitmapLength(bitmap.bitmap_size), bitmap_id)) {
    return {};
  }
  return file;
}

// Closes the file of a bitmap that has been registered, as a clean one. Without the mark its first
// load takes it for one that was left in use: it is unreliable then, and nothing is lost.
void CloseCleanly(UniqueFile file, BitmapId bitmap_id) {
  OVERLAPPED place = {};
  place.Offset = offsetof(BitmapFileHeader, ClosedCleanly);
  const std::uint8_t mark = 1;
  DWORD written = 0;
  if (::WriteFile(file.get(), &mark, sizeof mark, &written, &place)) return;
  LogMessage(kBitmapError, L"Failed to mark new BitmapId 0x%016I64x as closed cleanly: %hs\n",
             bitmap_id, ErrorInfo().text());
}

}  // namespace

bool CreateNewBitmap(const VolumeGuid& volume_guid, FileId file_id, std::uint32_t bitmap_size,
                     std::uint32_t block_size, std::uint64_t file_size, BitmapId& bitmap_id) {
  const NewBitmap bitmap = {.volume_guid = volume_guid,
                            .file_id = file_id,
                            .creation_time = SystemTimeNow(),
                            .bitmap_size = bitmap_size,
                            .block_size = block_size,
                            .file_size = file_size};
  const std::wstring volume_text = GuidToString(volume_guid);
  const NewBitmapPaths paths = ComposeNewBitmapPaths(GetCbtDirectory(), volume_text, bitmap.file_id,
                                                     bitmap.creation_time, bitmap.block_size);
  if (!CheckPathLength(paths.file)) return false;
  UniqueFile file = MakeBitmapFile(paths, volume_text, bitmap, bitmap_id);
  if (!file) return false;
  if (AddNewBitmap(volume_guid, file_id, bitmap_id, paths.file, NewBitmapLength(bitmap_size),
                   [&] { CloseCleanly(std::move(file), bitmap_id); })) {
    return true;
  }
  file.reset();
  // A late look at the directory was faster, and takes it for one that missed changes.
  if (IsBitmapKnown({volume_guid, file_id}, bitmap_id, paths.file)) return true;
  // The id still belongs to a bitmap whose file somebody has removed. Nothing would be set in this
  // one.
  ::DeleteFileW(paths.file.c_str());
  return false;
}

}  // namespace zel
