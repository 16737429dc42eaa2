// How many handles this process has open.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <cstddef>
#include <cstdint>

namespace zel::test {

// Every value that a handle may have is tried. GetProcessHandleCount answers 0 where it is not
// implemented, and no comparison of its answers could fail. The system's table of all handles is
// not asked either: on Wine 8 that ends the server of all programs when one of them has no handle
// at that moment, for the server then reads on behind the program's empty table.
inline std::size_t HandleCount() {
  constexpr std::uintptr_t kStep = 4;
  constexpr std::uintptr_t kEnd = kStep * 16'384;
  std::size_t count = 0;
  for (std::uintptr_t value = kStep; value < kEnd; value += kStep) {
    DWORD flags = 0;
    if (::GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags)) ++count;
  }
  EXPECT_GT(count, 0);
  return count;
}

}  // namespace zel::test
