#include "win32/no_links.h"

#include <gtest/gtest.h>

#include <cstring>

#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/temp_directory.h"

extern "C" {
extern void* __imp_CreateFileW;
extern void* __imp_DeleteFileW;
extern void* __imp_GetFileAttributesW;
extern void* __imp_GetFileInformationByHandle;
extern void* __imp_GetFinalPathNameByHandleW;
}

namespace zel {
namespace {

// Plays a link: the file of this path has a reparse point, or lies elsewhere.
class PlayedLink {
 public:
  enum class As { kReparsePoint, kElsewhere };
  PlayedLink(std::wstring path, As as) {
    path_ = std::move(path);
    as_ = as;
    handle_ = nullptr;
  }

 private:
  static HANDLE WINAPI Create(const wchar_t* path, DWORD access, DWORD share,
                              SECURITY_ATTRIBUTES* attributes, DWORD disposition, DWORD flags,
                              HANDLE like) {
    const HANDLE file = real_create_(path, access, share, attributes, disposition, flags, like);
    if (path == path_) {
      EXPECT_NE(flags & FILE_FLAG_OPEN_REPARSE_POINT, 0u);  // else Windows follows it
      handle_ = file;
    }
    return file;
  }
  static BOOL WINAPI Inform(HANDLE file, BY_HANDLE_FILE_INFORMATION* information) {
    if (!real_inform_(file, information)) return FALSE;
    if (file == handle_ && as_ == As::kReparsePoint) {
      information->dwFileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
    }
    return TRUE;
  }
  static DWORD WINAPI Locate(HANDLE file, wchar_t* path, DWORD size, DWORD flags) {
    if (file != handle_ || as_ != As::kElsewhere) return real_locate_(file, path, size, flags);
    constexpr wchar_t kElsewhere[] = L"\\Device\\HarddiskVolume1\\Windows\\file";
    std::memcpy(path, kElsewhere, sizeof kElsewhere);
    return std::size(kElsewhere) - 1;
  }

  static inline std::wstring path_;
  static inline As as_;
  static inline HANDLE handle_;
  static inline auto* const real_create_ =
      reinterpret_cast<decltype(&::CreateFileW)>(__imp_CreateFileW);
  static inline auto* const real_inform_ =
      reinterpret_cast<decltype(&::GetFileInformationByHandle)>(__imp_GetFileInformationByHandle);
  static inline auto* const real_locate_ =
      reinterpret_cast<decltype(&::GetFinalPathNameByHandleW)>(__imp_GetFinalPathNameByHandleW);
  test::ImportHook create_hook_{__imp_CreateFileW, &Create};
  test::ImportHook inform_hook_{__imp_GetFileInformationByHandle, &Inform};
  test::ImportHook locate_hook_{__imp_GetFinalPathNameByHandleW, &Locate};
};

class NoLinksTest : public ::testing::Test {
 protected:
  NoLinksTest() { test::WriteFileBytes(path_, "text"); }

  // The error, or 0.
  DWORD Open(int levels = 3, DWORD disposition = OPEN_EXISTING) {
    const UniqueFile file =
        OpenWithoutLinks(path_, levels, GENERIC_READ, FILE_SHARE_READ, disposition);
    return file ? 0 : ::GetLastError();
  }

  test::TempDirectory directory_;
  std::wstring path_ = (directory_.path() / L"a" / L"b" / L"file").wstring();
};

TEST_F(NoLinksTest, FileInItsPlaceIsOpened) {
  for (const int levels : {1, 2, 3, 4}) EXPECT_EQ(Open(levels), 0u) << levels;
  path_ = L"\\\\?\\" + path_;
  for (const int levels : {1, 2, 3, 4}) EXPECT_EQ(Open(levels), 0u) << levels;
}

TEST_F(NoLinksTest, CaseOfTheNameMakesNoDifference) {
  path_ = (directory_.path() / L"A" / L"b" / L"FILE").wstring();
  EXPECT_EQ(Open(), 0u);
}

TEST_F(NoLinksTest, FileInTheRootOfADriveIsOpened) {
  path_ = L"C:\\zel-no-links-" + std::to_wstring(::GetCurrentProcessId());
  EXPECT_EQ(Open(1, CREATE_NEW), 0u);
  EXPECT_EQ(Open(1), 0u);
  EXPECT_EQ(DeleteInPlace(path_, 1), 0u);
}

TEST_F(NoLinksTest, RelativePathIsThatOfTheProcesssDirectory) {
  std::filesystem::current_path(directory_.path() / L"a");
  path_ = L"b\\file";
  EXPECT_EQ(Open(), 0u);
  path_ = L"file";
  std::filesystem::current_path(directory_.path() / L"a" / L"b");
  EXPECT_EQ(Open(), 0u);
  std::filesystem::current_path(L"C:\\");  // a test's directory goes with it
}

TEST_F(NoLinksTest, FileThatIsNotThereGivesItsError) {
  std::filesystem::remove(path_);
  EXPECT_EQ(Open(), DWORD{ERROR_FILE_NOT_FOUND});
  EXPECT_EQ(CheckPlace(path_, 3), DWORD{ERROR_FILE_NOT_FOUND});
  EXPECT_EQ(DeleteInPlace(path_, 3), DWORD{ERROR_FILE_NOT_FOUND});
}

TEST_F(NoLinksTest, LinkInTheLastPlaceIsRefused) {
  const PlayedLink link(path_, PlayedLink::As::kReparsePoint);
  EXPECT_EQ(Open(), kLinkRefused);
}

TEST_F(NoLinksTest, FileThatLiesElsewhereIsRefused) {
  const PlayedLink link(path_, PlayedLink::As::kElsewhere);
  EXPECT_EQ(Open(), kLinkRefused);
  EXPECT_EQ(CheckPlace(path_, 3), kLinkRefused);
}

TEST_F(NoLinksTest, FileThatLiesElsewhereIsNotDeleted) {
  {
    const PlayedLink link(path_, PlayedLink::As::kElsewhere);
    EXPECT_EQ(DeleteInPlace(path_, 3), kLinkRefused);
  }
  EXPECT_TRUE(std::filesystem::exists(path_));
}

TEST_F(NoLinksTest, LinkItselfIsDeleted) {
  const PlayedLink link(path_, PlayedLink::As::kReparsePoint);
  EXPECT_EQ(DeleteInPlace(path_, 3), 0u);
  EXPECT_FALSE(std::filesystem::exists(path_));
}

DWORD WINAPI FailToLocate(HANDLE, wchar_t*, DWORD, DWORD) {
  ::SetLastError(ERROR_INVALID_FUNCTION);
  return 0;
}

TEST_F(NoLinksTest, FileWhosePlaceNobodyTellsIsRefused) {
  const test::ImportHook hook(__imp_GetFinalPathNameByHandleW, &FailToLocate);
  EXPECT_EQ(Open(), kLinkRefused);
}

DWORD WINAPI AnswerLink(const wchar_t*) {
  return FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
}

TEST_F(NoLinksTest, LinkIsKnownByItsAttributes) {
  EXPECT_FALSE(IsLink(path_));
  EXPECT_FALSE(IsLink(directory_.path().wstring()));
  EXPECT_FALSE(IsLink(path_ + L"missing"));
  const test::ImportHook hook(__imp_GetFileAttributesW, &AnswerLink);
  EXPECT_TRUE(IsLink(path_));
}

}  // namespace
}  // namespace zel
