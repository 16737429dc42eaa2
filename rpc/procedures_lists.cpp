// The two enumerations.
#include <algorithm>
#include <cstring>
#include <memory>

#include "bitmap/bitmap_manager.h"
#include "files/file_identity.h"
#include "logging/log_message.h"
#include "rpc/bitmap_description.h"
#include "rpc/caller_road.h"
#include "rpc/contexts.h"
#include "rpc/procedures.h"
#include "win32/critical_section.h"
#include "win32/stop_requested.h"

namespace zel {

namespace {

// The files as they are now: what the enumerations under way list, if it is still the same, so that
// any number of them that nobody goes on with costs the memory of one. TrackedFilesLock comes
// after.
CriticalSection snapshotLock;

FileListContext::List CollectSharedFiles() ZEL_EXCLUDES(snapshotLock) {
  // Never destroyed: calls may still come while the process ends.
  static auto& last_snapshot = *new std::weak_ptr<const std::vector<TrackedFileEntry>>;
  const LockGuard guard(snapshotLock);
  auto files = std::make_shared<std::vector<TrackedFileEntry>>();
  CollectTrackedFiles(*files);
  FileListContext::List last = last_snapshot.lock();
  if (last && *last == *files) return last;
  last_snapshot = files;
  return files;
}

std::unique_ptr<ListContext> SnapshotFiles(std::unique_ptr<ListSlot> slot) {
  LogMessage(kGeneralDebug, L"ListFiles called\n");
  return std::make_unique<FileListContext>(std::move(slot), CollectSharedFiles());
}

// Describes the bitmaps while they are pinned.
std::vector<ListedBitmap> DescribeBitmapsOf(const FileKey& file) {
  std::vector<ListedBitmap> described;
  // A look-up leaves an entry for good, and callers can make up files without end.
  if (BitmapIdsOfFile(file).empty()) return described;
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

std::unique_ptr<ListContext> SnapshotBitmaps(const FileKey& file, std::unique_ptr<ListSlot> slot) {
  const auto bitmaps = std::make_shared<std::vector<ListedBitmap>>(DescribeBitmapsOf(file));
  LogMessage(kGeneralDebug, L"ListBitmaps Volume %s, FileId 0x%016I64x called, %Iu bitmaps\n",
             GuidToString(file.volume).c_str(), file.file_id, bitmaps->size());
  return std::make_unique<BitmapListContext>(std::move(slot), bitmaps);
}

// Begins an enumeration of the snapshot that `take` makes. 0, or why not.
template <class Take>
std::uint32_t Begin(void** context, Take take) {
  auto slot = std::make_unique<ListSlot>(ClientInHand());
  if (!slot->taken()) return ERROR_NO_SYSTEM_RESOURCES;
  std::unique_ptr<ListContext> list = take(std::move(slot));
  if (StopRequested) return ERROR_SHUTDOWN_IN_PROGRESS;  // of what is closed, perhaps
  *context = list.release();
  return ERROR_SUCCESS;
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
    if (const std::uint32_t error = Begin(context, SnapshotFiles)) return error;
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
    const auto take = [&file](auto slot) { return SnapshotBitmaps(file, std::move(slot)); };
    if (const std::uint32_t error = Begin(context, take)) return error;
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
