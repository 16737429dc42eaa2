#include "config/config_parser.h"

#include <gtest/gtest.h>

namespace zel {
namespace {

TEST(DeriveConfigPathsTest, ConfigurationStandsBesideTheLogDirectory) {
  const ConfigPaths paths = DeriveConfigPaths(L"D:\\agent\\log\\zelservice.log");
  EXPECT_EQ(paths.directory, L"D:\\agent\\config");
  EXPECT_EQ(paths.file, L"D:\\agent\\config\\plexor.conf");
}

TEST(DeriveConfigPathsTest, LogDirectoryUnderARootGivesConfigUnderThatRoot) {
  const ConfigPaths paths = DeriveConfigPaths(L"D:\\log\\zelservice.log");
  EXPECT_EQ(paths.directory, L"D:\\config");
  EXPECT_EQ(paths.file, L"D:\\config\\plexor.conf");
}

TEST(DeriveConfigPathsTest, FewerThanTwoBackslashesLeaveTheLogPathItself) {
  for (const wchar_t* log_path : {L"zelservice.log", L"C:\\zelservice.log", L""}) {
    const ConfigPaths paths = DeriveConfigPaths(log_path);
    EXPECT_EQ(paths.directory, L"");
    EXPECT_EQ(paths.file, log_path);
  }
}

}  // namespace
}  // namespace zel
