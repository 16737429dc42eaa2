// Sees the files that the service opens for the driver, and plays the driver's part in it.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tests/integration/support/import_hook.h"

extern "C" {
extern void* __imp_CreateFileW;
extern void* __imp_DeviceIoControl;
}

namespace zel::test {

// For tests in which one thread at a time opens files for the driver.
class DriverOpens {
 public:
  DriverOpens() { current_ = this; }
  ~DriverOpens() { current_ = nullptr; }
  DriverOpens(const DriverOpens&) = delete;
  DriverOpens& operator=(const DriverOpens&) = delete;

  // What opening these paths fails with; others are really opened.
  std::map<std::wstring, DWORD> open_errors;
  // Called by every open, before it is made.
  std::function<void()> on_open = [] {};
  // What the control code fails with, unless it is 0.
  DWORD control_error = 0;
  // Called by every control code that succeeds.
  std::function<void()> on_control = [] {};

  // The paths so far; empties the list.
  std::vector<std::wstring> Take() { return std::exchange(paths_, {}); }
  std::vector<DWORD> TakeControlCodes() { return std::exchange(control_codes_, {}); }

 private:
  using Create = decltype(&::CreateFileW);
  // No other open of the service has both.
  static constexpr DWORD kDriverAccess = 0x00100080;
  static constexpr DWORD kDriverFlags = 0x02000080;

  static HANDLE WINAPI OnCreate(const wchar_t* path, DWORD access, DWORD share,
                                SECURITY_ATTRIBUTES* attributes, DWORD disposition, DWORD flags,
                                HANDLE like) {
    if (access == kDriverAccess && flags == kDriverFlags) {
      EXPECT_TRUE(share == 7 && attributes == nullptr && disposition == OPEN_EXISTING);
      current_->paths_.emplace_back(path);
      current_->on_open();
      const auto error = current_->open_errors.find(path);
      if (error != current_->open_errors.end()) {
        ::SetLastError(error->second);
        return INVALID_HANDLE_VALUE;
      }
    }
    return reinterpret_cast<Create>(current_->create_.original())(path, access, share, attributes,
                                                                  disposition, flags, like);
  }

  static BOOL WINAPI OnControl(HANDLE, DWORD code, void* in, DWORD in_size, void* out,
                               DWORD out_size, DWORD*, OVERLAPPED* overlapped) {
    EXPECT_TRUE(in == nullptr && in_size == 0 && out == nullptr && out_size == 0);
    EXPECT_EQ(overlapped, nullptr);
    current_->control_codes_.push_back(code);
    if (current_->control_error != 0) {
      ::SetLastError(current_->control_error);
      return FALSE;
    }
    current_->on_control();
    return TRUE;
  }

  static inline DriverOpens* current_ = nullptr;
  std::vector<std::wstring> paths_;
  std::vector<DWORD> control_codes_;
  ImportHook create_{__imp_CreateFileW, &OnCreate};
  ImportHook control_{__imp_DeviceIoControl, &OnControl};
};

}  // namespace zel::test
