#include "bitmap/create_bitmap.h"

#include <windows.h>

#include <string>

#include "bitmap/bitmap_manager.h"
#include "bitmap/format/new_bitmap.h"
#include "errors/error_info.h"
#include "files/file_identity.h"
#include "files/install_directory.h"
#include "files/layout.h"
#include "logging/log_message.h"
#include "win32/file_time.h"
#include "win32/handles.h"

namespace zel {

namespace {

bool CheckPathLength(const std::wstring& path) {
  if (path.size() <= kMaxPathLength) return true;
  LogMessage(kBitmapError,
             L"Failed to create new bitmap file %s: the path has %Iu characters, more than %Iu\n",
             path.c_str(), path.size(), kMaxPathLength);
  return false;
}

bool CreateDirectories(const NewBitmapPaths& paths) {
  for (const std::wstring& directory : paths.directories) {
    if (::CreateDirectoryW(directory.c_str(), nullptr)) continue;
    const ErrorInfo error;
    if (error.code() == ERROR_ALREADY_EXISTS) continue;
    LogMessage(kBitmapError, L"Failed to create directory %s: %hs\n", directory.c_str(),
               error.text());
    return false;
  }
  return true;
}

UniqueFile CreateBitmapFile(const std::wstring& path) {
  UniqueFile file(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
                                nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) {
    LogMessage(kBitmapError, L"Failed to create new bitmap file %s: %hs\n", path.c_str(),
               ErrorInfo().text());
  }
  return file;
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

// Makes the file and closes it.
bool MakeBitmapFile(const std::wstring& path, const std::wstring& volume_text,
                    const NewBitmap& bitmap, BitmapId& bitmap_id) {
  const UniqueFile file = CreateBitmapFile(path);
  if (!file || !ReadBitmapId(file.get(), path, bitmap_id)) return false;
  LogMessage(kBitmapInfo, L"New BitmapId 0x%016I64x created for Volume %s, FileId 0x%016I64x\n",
             bitmap_id, volume_text.c_str(), bitmap.file_id);
  return WriteFirstBytes(file.get(), ComposeNewBitmapBytes(bitmap, bitmap_id)) &&
         SetLength(file.get(), NewBitmapLength(bitmap.bitmap_size), bitmap_id);
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
  if (!CheckPathLength(paths.file) || !CreateDirectories(paths) ||
      !MakeBitmapFile(paths.file, volume_text, bitmap, bitmap_id)) {
    return false;
  }
  if (AddBitmap(volume_guid, file_id, bitmap_id, paths.file, NewBitmapLength(bitmap_size))) {
    return true;
  }
  // The id still belongs to a bitmap whose file somebody has removed. Nothing would be set in this
  // one, and the next start would trust it.
  ::DeleteFileW(paths.file.c_str());
  return false;
}

}  // namespace zel
