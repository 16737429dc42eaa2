// The two enumerations.
#include <algorithm>
#include <cstring>
#include <memory>

#include "bitmap/bitmap_manager.h"
#include "files/file_identity.h"
#include "logging/log_message.h"
#include "rpc/bitmap_description.h"
#include "rpc/contexts.h"
#include "rpc/procedures.h"
#include "win32/stop_requested.h"

namespace zel {

namespace {

std::unique_ptr<ListContext> SnapshotFiles() {
  LogMessage(kGeneralDebug, L"ListFiles called\n");
  auto files = std::make_unique<FileListContext>();
  CollectTrackedFiles(files->list);
  return files;
}

// Describes the bitmaps while they are pinned.
std::vector<ListedBitmap> DescribeBitmapsOf(const FileKey& file) {
  std::vector<ListedBitmap> described;
  for (const PinnedBitmap& bitmap : FindBitmapsForFile(file.volume, file.file_id)) {
    BitmapFileHeader header = {};
    if (ReadBitmapHeader(bitmap, header) != ERROR_SUCCESS) continue;
    ListedBitmap entry = {.info = DescribeBitmap(header, bitmap->FileSize),
                          .name = bitmap->FileName};
    // As it was found, whatever its header says.
    entry.info.BitmapId = bitmap->BitmapId;
    entry.info.VolumeGuid = file.volume;
    entry.info.FileId = file.file_id;
    described.push_back(std::move(entry));
  }
  return described;
}

std::unique_ptr<ListContext> SnapshotBitmaps(const FileKey& file) {
  auto bitmaps = std::make_unique<BitmapListContext>();
  bitmaps->list = DescribeBitmapsOf(file);
  LogMessage(kGeneralDebug, L"ListBitmaps Volume %s, FileId 0x%016I64x called, %Iu bitmaps\n",
             GuidToString(file.volume).c_str(), file.file_id, bitmaps->list.size());
  return bitmaps;
}

// The context behind a handle; null when it is of the other kind.
template <class Context>
Context* ContextOf(void* handle) {
  return dynamic_cast<Context*>(static_cast<ListContext*>(handle));
}

void FreeContext(void* handle) {
  delete static_cast<ListContext*>(handle);
}

// The end of an enumeration.
error_status_t EndList(void** context) {
  FreeContext(*context);
  *context = nullptr;
  return ERROR_NO_MORE_ITEMS;
}

// The stub sends the buffer up to its first zero, whatever has been put into it: all of it is
// cleared, and a buffer without a single character cannot be sent at all.
void ClearString(wchar_t* buffer, unsigned short room) {
  if (room == 0) ::RpcRaiseException(RPC_S_INVALID_BOUND);
  std::fill_n(buffer, room, L'\0');
}

// Takes `room` bytes of the path at most: established clients count on the half.
void CopyPath(const std::wstring& path, wchar_t* buffer, unsigned short room) {
  const std::size_t path_bytes = (path.size() + 1) * sizeof(wchar_t);
  std::memcpy(buffer, path.c_str(), std::min<std::size_t>(room, path_bytes));
  buffer[room - 1] = L'\0';  // a room of 1 has just taken half a character
}

error_status_t NextFile(void** context, FileId* file_id, VolumeGuid* volume_guid,
                        unsigned short path_room, wchar_t* path) noexcept {
  if (*context == nullptr) {
    std::unique_ptr<ListContext> files = SnapshotFiles();
    if (StopRequested) return ERROR_SHUTDOWN_IN_PROGRESS;  // of a list that is closed, perhaps
    *context = files.release();
  }
  auto* const files = ContextOf<FileListContext>(*context);
  if (files == nullptr) return ERROR_INVALID_HANDLE;
  const TrackedFileEntry* const entry = files->Current();
  if (entry == nullptr) return EndList(context);
  *volume_guid = entry->VolumeGuid;
  *file_id = entry->FileId;
  CopyPath(entry->Path, path, path_room);
  files->Advance();
  return ERROR_SUCCESS;
}

error_status_t NextBitmap(const FileKey& file, void** context, wire::BitmapInfo* info,
                          unsigned short name_room, wchar_t* name) noexcept {
  if (*context == nullptr) {
    std::unique_ptr<ListContext> bitmaps = SnapshotBitmaps(file);
    if (StopRequested) return ERROR_SHUTDOWN_IN_PROGRESS;  // without what is not loaded any more
    *context = bitmaps.release();
  }
  auto* const bitmaps = ContextOf<BitmapListContext>(*context);
  if (bitmaps == nullptr) return ERROR_INVALID_HANDLE;
  const ListedBitmap* const entry = bitmaps->Current();
  if (entry == nullptr) return EndList(context);
  *info = entry->info;
  if (entry->name.size() >= name_room) return ERROR_INSUFFICIENT_BUFFER;
  entry->name.copy(name, entry->name.size());
  bitmaps->Advance();
  return ERROR_SUCCESS;
}

}  // namespace

error_status_t ListFiles(handle_t, void** context, FileId* file_id, VolumeGuid* volume_guid,
                         unsigned short path_room, wchar_t* path) {
  ClearString(path, path_room);
  return NextFile(context, file_id, volume_guid, path_room, path);
}

error_status_t ListBitmaps(handle_t, VolumeGuid* volume_guid, FileId file_id, void** context,
                           wire::BitmapInfo* info, unsigned short name_room, wchar_t* name) {
  ClearString(name, name_room);
  return NextBitmap({*volume_guid, file_id}, context, info, name_room, name);
}

void FileListContext_rundown(void* context) noexcept {
  FreeContext(context);
}

void BitmapListContext_rundown(void* context) noexcept {
  FreeContext(context);
}

}  // namespace zel
