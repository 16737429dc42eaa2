#include "files/file_identity.h"

#include <rpc.h>
#include <windows.h>

#include <bit>
#include <cstddef>
#include <iterator>

#include "errors/error_info.h"
#include "files/directory_listing.h"
#include "files/layout.h"
#include "logging/log_message.h"
#include "win32/file_time.h"
#include "win32/handles.h"
#include "win32/rpc_string.h"

namespace zel {

static_assert(sizeof(VolumeGuid) == sizeof(GUID) &&
              offsetof(VolumeGuid, Data1) == offsetof(GUID, Data1) &&
              offsetof(VolumeGuid, Data2) == offsetof(GUID, Data2) &&
              offsetof(VolumeGuid, Data3) == offsetof(GUID, Data3) &&
              offsetof(VolumeGuid, Data4) == offsetof(GUID, Data4));

namespace {

// Logs an error of the volume look-up, whose formats take the path and the error's text.
std::uint32_t LogVolumeError(LogFormat<const wchar_t*, const char*> format, const wchar_t* path,
                             const ErrorInfo& error) {
  LogMessage(kGeneralError, format, path, error.text());
  return error.code();
}

}  // namespace

std::wstring GuidToString(const VolumeGuid& guid) {
  auto uuid = std::bit_cast<UUID>(guid);
  UniqueRpcString text;
  if (::UuidToStringW(&uuid, text.put()) != RPC_S_OK) return L"<invalid GUID>";
  return reinterpret_cast<const wchar_t*>(text.get());
}

std::optional<VolumeGuid> ParseVolumeGuid(std::wstring_view text) {
  wchar_t terminated[37] = {};
  if (text.size() != std::size(terminated) - 1) return std::nullopt;
  text.copy(terminated, text.size());
  UUID uuid;
  if (::UuidFromStringW(reinterpret_cast<RPC_WSTR>(terminated), &uuid) != RPC_S_OK) {
    return std::nullopt;
  }
  return std::bit_cast<VolumeGuid>(uuid);
}

std::uint32_t GetFileIdAndSize(const wchar_t* path, FileId* id, std::uint64_t* size) {
  const UniqueFile file(::CreateFileW(path, SYNCHRONIZE | FILE_READ_ATTRIBUTES,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return ::GetLastError();
  BY_HANDLE_FILE_INFORMATION information;
  if (!::GetFileInformationByHandle(file.get(), &information)) return ::GetLastError();
  if (id != nullptr) *id = JoinHalves(information.nFileIndexHigh, information.nFileIndexLow);
  if (size != nullptr) *size = JoinHalves(information.nFileSizeHigh, information.nFileSizeLow);
  return ERROR_SUCCESS;
}

std::uint32_t GetVolumeGuidForPath(const wchar_t* path, VolumeGuid& guid) {
  wchar_t volume_path[MAX_PATH];
  if (!::GetVolumePathNameW(path, volume_path, MAX_PATH)) {
    return LogVolumeError(L"GetVolumePathName(%s) failed: %hs\n", path, ErrorInfo());
  }
  // A volume can have several names; asked for the name of a name, the system gives its first.
  wchar_t volume_name[128] = {};
  wchar_t unique_name[MAX_PATH];
  if (!::GetVolumeNameForVolumeMountPointW(volume_path, volume_name, 128) ||
      !::GetVolumeNameForVolumeMountPointW(volume_name, unique_name, MAX_PATH)) {
    return LogVolumeError(L"GetVolumeNameForVolumeMountPoint(%s) failed: %hs\n", volume_path,
                          ErrorInfo());
  }
  const std::wstring guid_text(GuidTextInVolumeName(unique_name));
  const std::optional<VolumeGuid> parsed = ParseVolumeGuid(guid_text);
  if (!parsed) {
    return LogVolumeError(L"UuidFromString(%s) failed: %hs\n", guid_text.c_str(),
                          ErrorInfo(RPC_S_INVALID_STRING_UUID));
  }
  guid = *parsed;
  return ERROR_SUCCESS;
}

std::vector<VolumeGuid> ListVolumeGuids(const std::wstring& directory, bool* has_failed) {
  std::vector<VolumeGuid> guids;
  DirectoryListing listing(directory);
  while (const WIN32_FIND_DATAW* entry = listing.Next()) {
    const std::optional<VolumeGuid> guid = ParseVolumeGuid(entry->cFileName);
    if (guid && *guid != VolumeGuid{}) {
      guids.push_back(*guid);
    } else if (entry->cFileName != kReceivedMessagesName) {
      LogMessage(kBitmapDebug, L"Entry in CBT directory is not a VolumeGuid: %ls\n",
                 entry->cFileName);
    }
  }
  if (has_failed != nullptr) *has_failed = listing.HasFailed();
  return guids;
}

}  // namespace zel
