#include "tracking/registry_store.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "files/file_identity.h"
#include "logging/log_message.h"
#include "tracking/state.h"
#include "tracking/volume_list_format.h"

namespace zel {

namespace {

constexpr std::size_t kFirstNameChars = 64;
constexpr std::size_t kMaxNameChars = 16'384;  // the registry's limit, with the terminator
constexpr std::size_t kFirstDataBytes = 1024;

// Reads one value after the other into buffers that grow as they need.
class ValueReader {
 public:
  explicit ValueReader(HKEY key) : key_(key) {}

  // ERROR_SUCCESS, ERROR_NO_MORE_ITEMS behind the last value, or what went wrong.
  [[nodiscard]] LSTATUS Read(DWORD index) {
    LSTATUS status = TryRead(index);
    while (status == ERROR_MORE_DATA && Grow()) status = TryRead(index);
    return status;
  }

  // Of the value read last.
  [[nodiscard]] DWORD type() const { return type_; }
  [[nodiscard]] std::wstring name() const { return {name_.data(), name_chars_}; }
  [[nodiscard]] std::span<const std::byte> data() const {
    return std::span(data_).first(data_bytes_);
  }

 private:
  LSTATUS TryRead(DWORD index) {
    name_chars_ = static_cast<DWORD>(name_.size());
    data_bytes_ = static_cast<DWORD>(data_.size());
    return ::RegEnumValueW(key_, index, name_.data(), &name_chars_, nullptr, &type_,
                           reinterpret_cast<BYTE*>(data_.data()), &data_bytes_);
  }

  // The size that the data needs is told; that of the name is not by every system. False when
  // nothing more can be given.
  bool Grow() {
    const std::size_t name_chars =
        std::min(kMaxNameChars, std::max<std::size_t>(name_chars_ + 1, 2 * name_.size()));
    const bool grows = name_chars > name_.size() || data_bytes_ > data_.size();
    name_.resize(name_chars);
    data_.resize(std::max<std::size_t>(data_bytes_, data_.size()));
    return grows;
  }

  HKEY key_;
  std::vector<wchar_t> name_ = std::vector<wchar_t>(kFirstNameChars);
  std::vector<std::byte> data_ = std::vector<std::byte>(kFirstDataBytes);
  DWORD type_ = REG_NONE;
  DWORD name_chars_ = 0;
  DWORD data_bytes_ = 0;
};

// Reads the value of this name into `data`, which grows as it needs.
LSTATUS ReadByName(HKEY key, const std::wstring& name, DWORD& type, std::vector<std::byte>& data) {
  data.resize(kFirstDataBytes);
  for (;;) {
    auto bytes = static_cast<DWORD>(data.size());
    const LSTATUS status = ::RegQueryValueExW(key, name.c_str(), nullptr, &type,
                                              reinterpret_cast<BYTE*>(data.data()), &bytes);
    const bool grows = bytes > data.size();
    data.resize(bytes);
    if (status != ERROR_MORE_DATA || !grows) return status;
  }
}

// The list that a value holds; null when it is too short to name its volume.
std::shared_ptr<VolumeFileList> ParseList(const std::wstring& name,
                                          std::span<const std::byte> data) {
  LogMessage(kGeneralInfo, L"Loading tracked file list for Volume %ls:\n", name.c_str());
  TrackedFileListReader reader(data);
  std::shared_ptr<VolumeFileList> list;
  std::uint32_t files = 0;
  if (reader.volume_guid()) {
    list = std::make_shared<VolumeFileList>(*reader.volume_guid());
    while (const auto record = reader.Next()) {
      list->Set(record->Path, record->FileId);
      LogMessage(kGeneralInfo, L"   FileId 0x%016I64x: %ls\n", record->FileId,
                 record->Path.c_str());
      ++files;
    }
  }
  if (reader.IsDamaged()) {
    LogMessage(kGeneralWarn, L"Tracked file list for Volume %ls is damaged behind %u files\n",
               name.c_str(), files);
  }
  return list;
}

// Stores the list that a value holds in the table, in place of the one that is there.
void LoadValue(const std::wstring& name, const VolumeGuid& volume_in_name,
               std::span<const std::byte> data) ZEL_REQUIRES(TrackedFilesLock) {
  const std::shared_ptr<VolumeFileList> list = ParseList(name, data);
  if (list == nullptr) return;
  TrackedFiles().table[list->volume_guid()] = list;
  // Under another volume's name the list would go with that volume's first write; and it may have
  // replaced one that stands under the right name.
  TrackedFiles().VolumesRead.erase(list->volume_guid());
  if (list->volume_guid() == volume_in_name) TrackedFiles().VolumesRead.insert(volume_in_name);
}

// Adds the files of a list to the table, which keeps what it knows of a path.
const VolumeFileList& MergeList(const VolumeFileList& list) ZEL_REQUIRES(TrackedFilesLock) {
  std::shared_ptr<VolumeFileList>& known = TrackedFiles().table[list.volume_guid()];
  if (!known) known = std::make_shared<VolumeFileList>(list.volume_guid());
  for (std::size_t i = 0; i < list.size(); ++i) {
    const std::u16string_view path = list.PathAt(i);
    const std::wstring text(path.begin(), path.end());
    if (known->Find(text) == 0) known->Set(text, list.FileIdAt(i));
  }
  return *known;
}

}  // namespace

void SetTrackedFileListKey(UniqueRegistryKey key) {
  const LockGuard guard(TrackedFilesLock);
  TrackedFiles().TrackedFileListKey = std::move(key);
}

bool LoadTrackedFileList() {
  const LockGuard guard(TrackedFilesLock);
  ValueReader values(TrackedFiles().TrackedFileListKey.get());
  for (DWORD index = 0;; ++index) {
    const LSTATUS status = values.Read(index);
    if (status == ERROR_NO_MORE_ITEMS) return true;
    if (status != ERROR_SUCCESS) {
      LogMessage(kGeneralError, L"RegEnumValue(%u) failed: %u\n", index, status);
      return false;
    }
    const std::wstring name = values.name();
    const std::optional<VolumeGuid> volume = ParseVolumeGuid(name);
    if (values.type() == REG_BINARY && volume) LoadValue(name, *volume, values.data());
  }
}

std::uint32_t ReadMissingList(const VolumeGuid& volume_guid) {
  TrackedFilesState& state = TrackedFiles();
  const HKEY key = state.TrackedFileListKey.get();
  if (key == nullptr || state.VolumesRead.contains(volume_guid)) return ERROR_SUCCESS;
  const std::wstring name = GuidToString(volume_guid);
  DWORD type = REG_NONE;
  std::vector<std::byte> data;
  const LSTATUS status = ReadByName(key, name, type, data);
  if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) {
    LogMessage(kGeneralError, L"RegQueryValueEx(%ls) failed: %u\n", name.c_str(), status);
    return static_cast<std::uint32_t>(status);
  }
  if (status == ERROR_SUCCESS && type == REG_BINARY) {
    if (const std::shared_ptr<VolumeFileList> list = ParseList(name, data)) {
      const VolumeFileList& merged = MergeList(*list);
      if (merged.volume_guid() != volume_guid) SaveVolumeFileList(merged, key);
    }
  }
  state.VolumesRead.insert(volume_guid);
  return ERROR_SUCCESS;
}

void SaveVolumeFileList(const VolumeFileList& list, HKEY key) {
  if (key == nullptr) return;
  const std::wstring name = GuidToString(list.volume_guid());
  if (list.empty()) {
    const LSTATUS status = ::RegDeleteValueW(key, name.c_str());
    if (status != ERROR_SUCCESS) {
      LogMessage(kGeneralWarn, L"RegDeleteValue(%ls) failed: %u\n", name.c_str(), status);
    }
    return;
  }
  const std::span<const std::byte> value = list.value();
  const LSTATUS status = ::RegSetValueExW(key, name.c_str(), 0, REG_BINARY,
                                          reinterpret_cast<const BYTE*>(value.data()),
                                          static_cast<DWORD>(value.size()));
  if (status != ERROR_SUCCESS) {
    LogMessage(kGeneralWarn, L"RegSetValueEx(%ls) failed: %u\n", name.c_str(), status);
  }
}

void CloseTrackedFileList() {
  const LockGuard guard(TrackedFilesLock);
  TrackedFiles().TrackedFileListKey.reset();
  TrackedFiles().table.clear();
  TrackedFiles().VolumesRead.clear();
}

}  // namespace zel
