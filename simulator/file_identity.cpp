#include "simulator/file_identity.h"

#include <string_view>
#include <vector>

#include "simulator/text.h"
#include "win32/file_time.h"
#include "win32/last_error.h"

namespace zel::sim {

namespace {

std::optional<VolumeGuid> VolumeOf(HANDLE file) {
  constexpr std::wstring_view kPrefix = LR"(\\?\Volume{)";
  std::vector<wchar_t> path(512);
  DWORD chars = 0;
  // As often as the file is renamed meanwhile.
  while ((chars = ::GetFinalPathNameByHandleW(file, path.data(), static_cast<DWORD>(path.size()),
                                              VOLUME_NAME_GUID)) >= path.size()) {
    path.resize(chars + 1);
  }
  const std::wstring_view name(path.data(), chars);
  if (!name.starts_with(kPrefix)) return std::nullopt;
  const std::wstring_view guid = name.substr(kPrefix.size(), 36);
  VolumeGuid volume;
  if (!ParseVolume(std::string(guid.begin(), guid.end()), volume)) return std::nullopt;
  return volume;
}

}  // namespace

std::optional<FileKey> IdentifyFile(HANDLE file) {
  const LastErrorKeeper keeper;
  BY_HANDLE_FILE_INFORMATION information;
  if (::GetFileType(file) != FILE_TYPE_DISK || !::GetFileInformationByHandle(file, &information) ||
      (information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    return std::nullopt;
  }
  const std::optional<VolumeGuid> volume = VolumeOf(file);
  if (!volume) return std::nullopt;
  return FileKey{*volume, JoinHalves(information.nFileIndexHigh, information.nFileIndexLow)};
}

std::string OrderText(const FileKey& file) {
  return VolumeText(file.volume) + " " + std::to_string(file.file_id);
}

}  // namespace zel::sim
