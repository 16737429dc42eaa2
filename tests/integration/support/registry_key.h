// A registry key of a test's own, removed when the test ends.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <map>
#include <string>
#include <string_view>

#include "win32/handles.h"

namespace zel::test {

struct RegistryValue {
  DWORD type;
  std::string bytes;

  bool operator==(const RegistryValue&) const = default;
};

class TestRegistryKey {
 public:
  // Gone with the session, should the test be broken off.
  TestRegistryKey() {
    EXPECT_EQ(::RegCreateKeyExW(HKEY_CURRENT_USER, path_.c_str(), 0, nullptr, REG_OPTION_VOLATILE,
                                KEY_ALL_ACCESS, nullptr, key_.put(), nullptr),
              ERROR_SUCCESS);
  }
  ~TestRegistryKey() { ::RegDeleteKeyW(HKEY_CURRENT_USER, path_.c_str()); }
  TestRegistryKey(const TestRegistryKey&) = delete;
  TestRegistryKey& operator=(const TestRegistryKey&) = delete;

  // Another handle to the key.
  [[nodiscard]] UniqueRegistryKey Open() const {
    UniqueRegistryKey key;
    EXPECT_EQ(
        ::RegOpenKeyExW(HKEY_CURRENT_USER, path_.c_str(), 0, KEY_READ | KEY_SET_VALUE, key.put()),
        ERROR_SUCCESS);
    return key;
  }

  void Set(const std::wstring& name, std::string_view bytes, DWORD type = REG_BINARY) const {
    EXPECT_EQ(::RegSetValueExW(key_.get(), name.c_str(), 0, type,
                               reinterpret_cast<const BYTE*>(bytes.data()),
                               static_cast<DWORD>(bytes.size())),
              ERROR_SUCCESS);
  }

  [[nodiscard]] std::map<std::wstring, RegistryValue> Values() const {
    DWORD longest_name = 0;
    DWORD longest_data = 0;
    ::RegQueryInfoKeyW(key_.get(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                       &longest_name, &longest_data, nullptr, nullptr);
    std::map<std::wstring, RegistryValue> values;
    for (DWORD index = 0;; ++index) {
      std::wstring name(longest_name + 1, L'\0');
      RegistryValue value = {REG_NONE, std::string(longest_data, '\0')};
      DWORD chars = longest_name + 1;
      DWORD bytes = longest_data;
      if (::RegEnumValueW(key_.get(), index, name.data(), &chars, nullptr, &value.type,
                          reinterpret_cast<BYTE*>(value.bytes.data()), &bytes) != ERROR_SUCCESS) {
        return values;
      }
      name.resize(chars);
      value.bytes.resize(bytes);
      values.emplace(name, value);
    }
  }

 private:
  std::wstring path_ = L"Software\\zel-test-" + std::to_wstring(::GetCurrentProcessId());
  UniqueRegistryKey key_;
};

}  // namespace zel::test
