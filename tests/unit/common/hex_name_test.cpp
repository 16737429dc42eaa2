#include "common/hex_name.h"

#include <gtest/gtest.h>

namespace zel {
namespace {

TEST(FileIdDirectoryTest, IsSixteenLowerCaseDigitsAndReadsBack) {
  EXPECT_EQ(FormatFileIdDirectory(0x000100000000ABCD), L"000100000000abcd");
  EXPECT_EQ(ParseFileIdDirectory(L"000100000000abcd"), 0x000100000000ABCDu);
  EXPECT_EQ(ParseFileIdDirectory(L"000100000000ABCD"), 0x000100000000ABCDu);
}

TEST(FileIdDirectoryTest, OtherLengthsZeroAndAllOnesAreNone) {
  EXPECT_EQ(ParseFileIdDirectory(L"00100000000abcd"), std::nullopt);
  EXPECT_EQ(ParseFileIdDirectory(L"0000100000000abcd"), std::nullopt);
  EXPECT_EQ(ParseFileIdDirectory(L""), std::nullopt);
  EXPECT_EQ(ParseFileIdDirectory(L"0000000000000000"), std::nullopt);
  EXPECT_EQ(ParseFileIdDirectory(L"ffffffffffffffff"), std::nullopt);
  EXPECT_EQ(ParseFileIdDirectory(L"not a file id..."), std::nullopt);
}

}  // namespace
}  // namespace zel
