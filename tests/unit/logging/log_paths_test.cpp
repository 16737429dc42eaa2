#include "logging/log_paths.h"

#include <gtest/gtest.h>

namespace zel {
namespace {

TEST(RolledLogPathTest, NumberZeroIsTheLogItselfAndOthersAreAppended) {
  EXPECT_EQ(RolledLogPath(L"D:\\log\\zelservice.log", 0), L"D:\\log\\zelservice.log");
  EXPECT_EQ(RolledLogPath(L"D:\\log\\zelservice.log", 1), L"D:\\log\\zelservice.log.1");
  EXPECT_EQ(RolledLogPath(L"D:\\log\\zelservice.log", 9), L"D:\\log\\zelservice.log.9");
}

}  // namespace
}  // namespace zel
