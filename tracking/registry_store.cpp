#include "tracking/registry_store.h"

#include <algorithm>
#include <memory>
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

// Stores the list that a value holds in the table, in place of the one that is there.
void LoadValue(const std::wstring& name, std::span<const std::byte> data)
    ZEL_REQUIRES(TrackedFilesLock) {
  LogMessage(kGeneralInfo, L"Loading tracked file list for Volume %ls:\n", name.c_str());
  TrackedFileListReader reader(data);
  std::uint32_t files = 0;
  if (reader.volume_guid()) {
    const auto list = std::make_shared<VolumeFileList>(*reader.volume_guid());
    TrackedFiles().table[list->volume_guid()] = list;
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
    if (values.type() == REG_BINARY && ParseVolumeGuid(name)) LoadValue(name, values.data());
  }
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
}

}  // namespace zel
