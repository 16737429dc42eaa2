// How many handles this process has open.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>
#include <winternl.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace zel::test {

// Asked of the system's table of all handles: GetProcessHandleCount answers 0 where it is not
// implemented, and no comparison of its answers could fail.
inline std::size_t HandleCount() {
  struct Entry {
    void* object;
    std::uintptr_t process_id;
    std::uintptr_t handle;
    ULONG rest[4];
  };
  struct Table {
    std::uintptr_t count;
    std::uintptr_t reserved;
    Entry entries[1];
  };
  constexpr auto kExtendedHandleInformation = static_cast<SYSTEM_INFORMATION_CLASS>(64);
  constexpr NTSTATUS kTooSmall = static_cast<NTSTATUS>(0xC0000004);
  using Query = NTSTATUS WINAPI(SYSTEM_INFORMATION_CLASS, void*, ULONG, ULONG*);
  auto* const query = reinterpret_cast<Query*>(reinterpret_cast<void*>(
      ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));

  std::vector<std::uintptr_t> buffer(1 << 16);
  NTSTATUS status = kTooSmall;
  while (status == kTooSmall) {
    buffer.resize(2 * buffer.size());
    status = query(kExtendedHandleInformation, buffer.data(),
                   static_cast<ULONG>(buffer.size() * sizeof buffer[0]), nullptr);
  }
  EXPECT_EQ(status, 0);
  const auto& table = *reinterpret_cast<const Table*>(buffer.data());
  const auto own = std::ranges::count(std::span(table.entries, table.count),
                                      ::GetCurrentProcessId(), &Entry::process_id);
  EXPECT_GT(own, 0);
  return static_cast<std::size_t>(own);
}

}  // namespace zel::test
