// Bitmap directories for the cleanup of untracked files, in a CBT directory of the test's own.
#pragma once

#include <windows.h>

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "tests/integration/support/cbt_directory.h"
#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/tracking_fixture.h"

extern "C" {
extern void* __imp_DeleteFileW;
extern void* __imp_FindFirstFileW;
}

namespace zel::test {

inline constexpr wchar_t kTrackedName[] = L"0001000000000017";
inline constexpr FileId kTracked = 0x0001000000000017;

class CleanupFixture : public TrackingFixture {
 protected:
  CleanupFixture() : cbt_(UseCbtDirectoryOf(directory().wstring())) { EXPECT_TRUE(OpenAndLoad()); }

  [[nodiscard]] const std::filesystem::path& cbt() const { return cbt_; }

  // Puts a bitmap, as far as the cleanup knows one, into a file id's directory.
  [[nodiscard]] std::filesystem::path AddDirectory(const wchar_t* volume,
                                                   const wchar_t* name) const {
    const std::filesystem::path path = cbt_ / volume / name;
    WriteFileBytes(path / L"bitmap", "bits");
    return path;
  }

 private:
  std::filesystem::path cbt_;
};

// Does something of the test's own at the cleanup's first deletion of a file, or before it lists
// a directory.
class AtFirst {
 public:
  enum class Call { kList, kDelete };
  AtFirst(Call call, std::wstring path, std::function<void()> action) {
    call_ = call;
    path_ = std::move(path);
    action_ = std::move(action);
  }

 private:
  static void Act(Call call, std::wstring_view path) {
    if (call == call_ && path.starts_with(path_) && action_) std::exchange(action_, nullptr)();
  }
  static HANDLE WINAPI FindFirst(const wchar_t* pattern, WIN32_FIND_DATAW* entry) {
    Act(Call::kList, pattern);
    return real_find_(pattern, entry);
  }
  static BOOL WINAPI Delete(const wchar_t* path) {
    Act(Call::kDelete, path);
    return real_delete_(path);
  }

  static inline Call call_;
  static inline std::wstring path_;
  static inline std::function<void()> action_;
  static inline auto* const real_find_ =
      reinterpret_cast<decltype(&::FindFirstFileW)>(__imp_FindFirstFileW);
  static inline auto* const real_delete_ =
      reinterpret_cast<decltype(&::DeleteFileW)>(__imp_DeleteFileW);
  ImportHook find_{__imp_FindFirstFileW, &FindFirst};
  ImportHook delete_{__imp_DeleteFileW, &Delete};
};

}  // namespace zel::test
