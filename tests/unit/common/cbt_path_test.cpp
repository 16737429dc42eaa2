#include "common/cbt_path.h"

#include <gtest/gtest.h>

namespace zel {
namespace {

TEST(ComposeCbtDirectoryTest, StandsInTheInstallDirectory) {
  EXPECT_EQ(ComposeCbtDirectory(L"D:\\Program Files\\agent"),
            L"\\\\?\\D:\\Program Files\\agent\\cbt");
}

TEST(ComposeCbtDirectoryTest, WithoutInstallDirectoryHasNoCbtComponent) {
  EXPECT_EQ(ComposeCbtDirectory(L""), L"\\\\?\\C:\\velmora");
}

TEST(ComposeCbtDirectoryTest, InstallDirectoryOf251CharactersIsTheLongestPossible) {
  EXPECT_EQ(ComposeCbtDirectory(std::wstring(251, L'd')).size(), kMaxCbtDirectory);
  EXPECT_GT(ComposeCbtDirectory(std::wstring(252, L'd')).size(), kMaxCbtDirectory);
}

}  // namespace
}  // namespace zel
