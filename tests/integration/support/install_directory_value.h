// The host agent's registry value "InstallDirectory", put back as it was at the end.
//
// The value belongs to the whole machine: a test executable that uses this runs its tests under
// the ctest resource lock install_directory.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace zel::test {

class InstallDirectoryValue {
 public:
  // Remembers the value and removes it.
  InstallDirectoryValue();
  ~InstallDirectoryValue();
  InstallDirectoryValue(const InstallDirectoryValue&) = delete;
  InstallDirectoryValue& operator=(const InstallDirectoryValue&) = delete;

  void Set(const std::wstring& directory) const;  // a string with its terminator
  void SetBytes(DWORD type, const void* bytes, std::size_t size_bytes) const;
  void Remove() const;

 private:
  bool existed_;
  DWORD old_type_ = REG_NONE;
  std::vector<BYTE> old_bytes_;
};

}  // namespace zel::test
