#include "tracking/tracked_file_table.h"

#include <iterator>
#include <optional>
#include <utility>

#include "files/file_identity.h"
#include "logging/log_message.h"
#include "tracking/registry_store.h"
#include "tracking/state.h"
#include "tracking/volume_list_format.h"
#include "win32/stop_requested.h"

namespace zel {

namespace {

// The identity other than `requested` under which the path is tracked: the first volume's that has
// one.
std::optional<FileKey> FindConflict(std::wstring_view path, const FileKey& requested)
    ZEL_REQUIRES(TrackedFilesLock) {
  for (const auto& [volume_guid, list] : TrackedFiles().table) {
    const FileKey existing = {volume_guid, list->Find(path)};
    if (existing.file_id != 0 && existing != requested) return existing;
  }
  return std::nullopt;
}

void LogConflict(const wchar_t* path, const FileKey& requested, const FileKey& existing) {
  if (existing.volume == requested.volume) {
    LogMessage(kGeneralWarn,
               L"Unable to start tracking file %ls because it is already tracked under a different "
               L"FileId\n",
               path);
  } else if (existing.file_id == requested.file_id) {
    LogMessage(kGeneralWarn,
               L"Unable to start tracking file %ls because it is already tracked under a different "
               L"VolumeGuid\n",
               path);
  } else {
    LogMessage(kGeneralWarn,
               L"Unable to start tracking file %ls because it is already tracked under a different "
               L"VolumeGuid and FileId\n",
               path);
  }
  LogMessage(kGeneralWarn, L"  Requested: VolumeGuid %s FileId 0x%016I64x\n",
             GuidToString(requested.volume).c_str(), requested.file_id);
  LogMessage(kGeneralWarn, L"  Existing:  VolumeGuid %s FileId 0x%016I64x\n",
             GuidToString(existing.volume).c_str(), existing.file_id);
}

VolumeFileList& FindOrInsertList(const VolumeGuid& volume_guid) ZEL_REQUIRES(TrackedFilesLock) {
  std::shared_ptr<VolumeFileList>& list = TrackedFiles().table[volume_guid];
  if (!list) list = std::make_shared<VolumeFileList>(volume_guid);
  return *list;
}

// What follows every change of a list.
void SaveChange(const VolumeFileList& list) ZEL_REQUIRES(TrackedFilesLock) {
  SaveVolumeFileList(list, TrackedFiles().TrackedFileListKey.get());
  WakeCleanupThread();
}

// Returns the files that the path has named. A list whose value in the registry cannot be read is
// not saved over it: the path stays there, and is tracked again at the next start.
std::vector<FileKey> EraseEverywhere(std::wstring_view path) ZEL_REQUIRES(TrackedFilesLock) {
  std::vector<FileKey> erased;
  TrackedFileTable& table = TrackedFiles().table;
  for (auto volume = table.begin(); volume != table.end();) {
    const bool is_read = ReadMissingList(volume->first) == 0;
    VolumeFileList& list = *volume->second;
    const FileId file_id = list.Find(path);
    if (file_id != 0) erased.push_back({volume->first, file_id});
    if (list.Erase(path) && is_read) SaveChange(list);
    volume = list.empty() ? table.erase(volume) : std::next(volume);
  }
  return erased;
}

}  // namespace

std::uint32_t EnsureVolumeListIsRead(const VolumeGuid& volume_guid) {
  const LockGuard guard(TrackedFilesLock);
  return ReadMissingList(volume_guid);
}

bool IsTracked(const FileKey& file) {
  const LockGuard guard(TrackedFilesLock);
  const TrackedFileTable& table = TrackedFiles().table;
  const auto volume = table.find(file.volume);
  return file.file_id != 0 && volume != table.end() && volume->second->HasFileId(file.file_id);
}

bool StartTrackingFile(std::wstring_view path, const VolumeGuid& volume_guid, FileId file_id,
                       bool& is_new) {
  is_new = false;
  const std::wstring terminated_path(path);
  if (path.size() > kMaxTrackedPath) {
    LogMessage(kGeneralWarn,
               L"Unable to start tracking file %ls because its path is longer than %u characters\n",
               terminated_path.c_str(), static_cast<std::uint32_t>(kMaxTrackedPath));
    return false;
  }
  const LockGuard guard(TrackedFilesLock);
  // The list is closed, or about to be: an empty one would take any file for a new one.
  if (StopRequested) return false;
  if (ReadMissingList(volume_guid) != 0) return false;
  const FileKey requested = {volume_guid, file_id};
  if (const std::optional<FileKey> existing = FindConflict(path, requested)) {
    LogConflict(terminated_path.c_str(), requested, *existing);
    return false;
  }
  VolumeFileList& list = FindOrInsertList(volume_guid);
  if (!list.Set(path, file_id)) return true;
  LogMessage(kGeneralInfo, L"Started tracking %s, Volume %s, FileId 0x%016I64x\n",
             terminated_path.c_str(), GuidToString(volume_guid).c_str(), file_id);
  SaveChange(list);
  TrackedFiles().StartsInHand.insert(terminated_path);
  is_new = true;
  return true;
}

bool TrackingStartIsInHand(std::wstring_view path) {
  const LockGuard guard(TrackedFilesLock);
  return TrackedFiles().StartsInHand.contains(path);
}

bool EndTrackingStart(std::wstring_view path) {
  const LockGuard guard(TrackedFilesLock);
  if (StopRequested) return false;
  auto& starts = TrackedFiles().StartsInHand;
  if (const auto start = starts.find(path); start != starts.end()) {
    starts.erase(start);
  }
  return true;
}

void TakeBackTrackingStarts() {
  const LockGuard guard(TrackedFilesLock);
  for (const std::wstring& path : std::exchange(TrackedFiles().StartsInHand, {})) {
    (void)EraseEverywhere(path);
  }
}

bool FindTrackedFile(std::wstring_view path, VolumeGuid& volume_guid, FileId& file_id) {
  const LockGuard guard(TrackedFilesLock);
  for (const auto& [guid, list] : TrackedFiles().table) {
    const FileId found = list->Find(path);
    if (found == 0) continue;
    volume_guid = guid;
    file_id = found;
    return true;
  }
  return false;
}

void CollectTrackedFiles(std::vector<TrackedFileEntry>& entries) {
  entries.clear();
  const LockGuard guard(TrackedFilesLock);
  for (const auto& [volume_guid, list] : TrackedFiles().table) {
    for (std::size_t i = 0; i < list->size(); ++i) {
      const std::u16string_view path = list->PathAt(i);
      const FileId file_id = list->FileIdAt(i);
      if (file_id != 0) entries.push_back({{path.begin(), path.end()}, volume_guid, file_id});
    }
  }
}

std::optional<std::vector<FileKey>> StopTrackingFile(std::wstring_view path) {
  const LockGuard guard(TrackedFilesLock);
  if (StopRequested) return std::nullopt;
  return EraseEverywhere(path);
}

}  // namespace zel
