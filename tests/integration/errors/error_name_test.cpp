#include "errors/error_name.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>

namespace zel {
namespace {

std::string NameOf(std::uint32_t code) {
  return ErrorName(code).text();
}

TEST(ErrorNameTest, KnowsTheNamesOfTheHeader) {
  EXPECT_EQ(NameOf(0), "ERROR_SUCCESS");
  EXPECT_EQ(NameOf(2), "ERROR_FILE_NOT_FOUND");
  EXPECT_EQ(NameOf(5), "ERROR_ACCESS_DENIED");
  EXPECT_EQ(NameOf(ERROR_SERVICE_ALREADY_RUNNING), "ERROR_SERVICE_ALREADY_RUNNING");
  EXPECT_EQ(NameOf(ERROR_NOT_ALL_ASSIGNED), "ERROR_NOT_ALL_ASSIGNED");
  EXPECT_EQ(NameOf(ERROR_TIMEOUT), "ERROR_TIMEOUT");
  EXPECT_EQ(NameOf(15841), "ERROR_API_UNAVAILABLE");
}

TEST(ErrorNameTest, KnowsTheWinsockCodesUpTo10112) {
  EXPECT_EQ(NameOf(10004), "WSAEINTR");
  EXPECT_EQ(NameOf(10009), "WSAEBADF");
  EXPECT_EQ(NameOf(10112), "WSAEREFUSED");
  EXPECT_EQ(NameOf(10000), "10000");
  EXPECT_EQ(NameOf(11001), "11001");
}

TEST(ErrorNameTest, CodeWithoutNameIsWrittenInDecimal) {
  EXPECT_EQ(NameOf(65000), "65000");
  EXPECT_EQ(NameOf(15842), "15842");
  EXPECT_EQ(NameOf(4294967295u), "4294967295");
}

TEST(ErrorNameTest, HresultsOfTheHeaderHaveNoName) {
  EXPECT_EQ(NameOf(0xC0090001u), "3221815297");  // ERROR_AUDITING_DISABLED
}

TEST(ErrorNameTest, EveryCodeHasANameOfTheRightKindOrItsDigits) {
  int names = 0;
  for (std::uint32_t code = 0; code < 20'000; ++code) {
    const std::string name = NameOf(code);
    if (name == std::to_string(code)) continue;
    ++names;
    EXPECT_TRUE(name.starts_with("ERROR_") || (name.starts_with("WSA") && code > 10'000)) << name;
  }
  EXPECT_GT(names, 1'700);
}

}  // namespace
}  // namespace zel
