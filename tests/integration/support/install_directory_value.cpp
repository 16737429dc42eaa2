#include "tests/integration/support/install_directory_value.h"

#include <gtest/gtest.h>

#include "win32/handles.h"

namespace zel::test {

namespace {

constexpr wchar_t kValue[] = L"InstallDirectory";

UniqueRegistryKey OpenAgentKey() {
  UniqueRegistryKey key;
  EXPECT_EQ(::RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"Software\\Velmora Inc\\DruAgent", 0, nullptr, 0,
                              KEY_ALL_ACCESS, nullptr, key.put(), nullptr),
            ERROR_SUCCESS);
  return key;
}

}  // namespace

InstallDirectoryValue::InstallDirectoryValue() {
  const UniqueRegistryKey key = OpenAgentKey();
  DWORD size = 0;
  existed_ =
      ::RegQueryValueExW(key.get(), kValue, nullptr, &old_type_, nullptr, &size) == ERROR_SUCCESS;
  old_bytes_.resize(size);
  if (existed_) {
    EXPECT_EQ(::RegQueryValueExW(key.get(), kValue, nullptr, &old_type_, old_bytes_.data(), &size),
              ERROR_SUCCESS);
  }
  Remove();
}

InstallDirectoryValue::~InstallDirectoryValue() {
  if (existed_) {
    SetBytes(old_type_, old_bytes_.data(), old_bytes_.size());
  } else {
    Remove();
  }
}

void InstallDirectoryValue::Set(const std::wstring& directory) const {
  SetBytes(REG_SZ, directory.c_str(), (directory.size() + 1) * sizeof(wchar_t));
}

void InstallDirectoryValue::SetBytes(DWORD type, const void* bytes, std::size_t size_bytes) const {
  EXPECT_EQ(::RegSetValueExW(OpenAgentKey().get(), kValue, 0, type, static_cast<const BYTE*>(bytes),
                             static_cast<DWORD>(size_bytes)),
            ERROR_SUCCESS);
}

void InstallDirectoryValue::Remove() const {
  const LSTATUS status = ::RegDeleteValueW(OpenAgentKey().get(), kValue);
  EXPECT_TRUE(status == ERROR_SUCCESS || status == ERROR_FILE_NOT_FOUND) << status;
}

}  // namespace zel::test
