// A mapped view that fails where it is touched: its pages can be neither read nor written.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

namespace zel::test {

class FailingView {
 public:
  // The pages of the `bytes` bytes from `view` on.
  FailingView(void* view, std::size_t bytes) : view_(view), bytes_(bytes) {
    EXPECT_TRUE(::VirtualProtect(view_, bytes_, PAGE_NOACCESS, &protection_));
  }
  ~FailingView() { Heal(); }
  FailingView(const FailingView&) = delete;
  FailingView& operator=(const FailingView&) = delete;

  // False once the view has been unmapped.
  bool Heal() { return ::VirtualProtect(view_, bytes_, protection_, &protection_) != FALSE; }

 private:
  void* const view_;
  const std::size_t bytes_;
  DWORD protection_ = PAGE_READWRITE;
};

}  // namespace zel::test
