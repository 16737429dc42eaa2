// A file that another program has open.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>

#include "win32/handles.h"

namespace zel::test {

// Opens the file; whoever wants access that is not shared is refused until the result goes.
[[nodiscard]] inline UniqueFile HoldFile(const std::filesystem::path& path,
                                         DWORD access = GENERIC_READ, DWORD share = 0) {
  UniqueFile holder(::CreateFileW(path.c_str(), access, share, nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_TRUE(holder) << path;
  return holder;
}

}  // namespace zel::test
