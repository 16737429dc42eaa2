// Known and loaded bitmaps by the thousands. Include in a program's one source file, after
// UseCbtDirectoryOf.
#pragma once

#include <windows.h>

#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "bitmap/bitmap_manager.h"
#include "bitmap/format/new_bitmap.h"
#include "files/file_identity.h"
#include "files/install_directory.h"
#include "files/layout.h"
#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/temp_directory.h"

extern "C" {
extern void* __imp_FlushFileBuffers;
}

namespace zel::bench {

inline constexpr VolumeGuid kVolume = {0x01234567, 0x89AB, 0xCDEF, {1, 2, 3, 4, 5, 6, 7, 8}};
inline constexpr FileTime kCreated = 0x01D2A3B4C5D6E7F8;
inline constexpr std::uint32_t kBlockSize = 0x10000;
inline constexpr std::uint32_t kBitmapBytes = 64;

inline std::wstring DirectoryOf(FileId file) {
  return GetCbtDirectory() + L'\\' + GuidToString(kVolume) + L'\\' + FormatFileIdDirectory(file);
}

// Writes an empty bitmap and returns its path.
inline std::wstring WriteBitmap(FileId file, FileTime created = kCreated) {
  const NewBitmapBytes bytes =
      ComposeNewBitmapBytes({.volume_guid = kVolume,
                             .file_id = file,
                             .creation_time = created,
                             .bitmap_size = kBitmapBytes,
                             .block_size = kBlockSize,
                             .file_size = kBitmapBytes * 8ull * kBlockSize},
                            0);
  std::string file_bytes(reinterpret_cast<const char*>(&bytes), sizeof bytes);
  file_bytes.resize(NewBitmapLength(kBitmapBytes));
  const std::wstring path = DirectoryOf(file) + L'\\' + FormatBitmapName(created, kBlockSize);
  test::WriteFileBytes(path, file_bytes);
  return path;
}

// False when the machine refuses another file.
inline bool AddRealBitmap(FileId file, FileTime created = kCreated) {
  BitmapId id = 0;
  std::wstring path;
  try {
    path = WriteBitmap(file, created);
  } catch (const std::filesystem::filesystem_error&) {
    return false;
  }
  if (GetFileIdAndSize(path.c_str(), &id, nullptr) != ERROR_SUCCESS) return false;
  AddBitmap(kVolume, file, id, path, NewBitmapLength(kBitmapBytes));
  return true;
}

inline bool Load(FileId file) {
  return !FindBitmapsForFile(kVolume, file).empty();
}

// Known but not loaded: nothing needs to be on disk.
inline void AddUnloadedBitmap(FileId file) {
  AddBitmap(kVolume, file, file, DirectoryOf(file) + L'\\' + FormatBitmapName(kCreated, kBlockSize),
            NewBitmapLength(kBitmapBytes));
}

// Adds and loads until the machine refuses: it limits open files, and views to 65,530 on Linux.
inline void LoadMore(std::span<const FileId> files, std::vector<FileId>& loaded) {
  bool machine_allows = true;
  for (const FileId file : files) {
    const bool added = machine_allows && AddRealBitmap(file);
    if (!added) AddUnloadedBitmap(file);
    machine_allows = added && Load(file);
    if (machine_allows) loaded.push_back(file);
  }
}

// Nothing reaches the device while it lives: thousands of loads would wait for it.
class WithoutDeviceFlushes {
 private:
  static BOOL WINAPI DoNotFlush(HANDLE) { return TRUE; }
  test::ImportHook hook_{__imp_FlushFileBuffers, &DoNotFlush};
};

}  // namespace zel::bench
