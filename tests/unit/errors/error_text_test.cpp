#include "errors/error_text.h"

#include <gtest/gtest.h>

#include <string>

namespace zel {
namespace {

std::uint32_t AlwaysFive(std::uint32_t) {
  return 5;
}
std::uint32_t AlwaysUnmapped(std::uint32_t) {
  return 317;
}
constexpr std::uint32_t (*kNoConverter)(std::uint32_t) = nullptr;

TEST(ToWin32CodeTest, OnlyTheTwoUpperSeveritiesAreConverted) {
  for (const std::uint32_t value : {0x80000000u, 0xBFFFFFFFu, 0xC0000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(ToWin32Code(value, AlwaysFive), 5u) << value;
  }
  for (const std::uint32_t value : {0u, 2u, 0x3FFFFFFFu, 0x40000000u, 0x7FFFFFFFu}) {
    EXPECT_EQ(ToWin32Code(value, AlwaysFive), value);
  }
}

TEST(ToWin32CodeTest, ValueWithoutMappingOrConverterStays) {
  EXPECT_EQ(ToWin32Code(0xC0000022u, AlwaysUnmapped), 0xC0000022u);
  EXPECT_EQ(ToWin32Code(0xC0000022u, kNoConverter), 0xC0000022u);
}

TEST(AssembleErrorTextTest, LosesFullStopAndLineEndAndGainsTheName) {
  EXPECT_EQ(AssembleErrorText("Access is denied.\r\n", 5, "ERROR_ACCESS_DENIED"),
            "Access is denied [ERROR_ACCESS_DENIED]");
}

TEST(AssembleErrorTextTest, TrimsEveryWhiteSpaceAndFullStopAtTheEndAlone) {
  EXPECT_EQ(AssembleErrorText(" .One. Two. \t\n\v\f\r...", 1, "N"), " .One. Two [N]");
}

TEST(AssembleErrorTextTest, NothingLeftIsAnUnknownErrorCode) {
  EXPECT_EQ(AssembleErrorText("", 65000, "65000"), "Unknown error code [65000]");
  EXPECT_EQ(AssembleErrorText(" .\r\n", 65000, "65000"), "Unknown error code [65000]");
}

TEST(AssembleErrorTextTest, NegativeCodesShowEightLowerCaseHexadecimalDigits) {
  EXPECT_EQ(AssembleErrorText("Text", 0x80000000u, "n"), "Text [0x80000000]");
  EXPECT_EQ(AssembleErrorText("Text", 0xC00ABCDEu, "n"), "Text [0xc00abcde]");
  EXPECT_EQ(AssembleErrorText("Text", 0xFFFFFFFFu, "n"), "Text [0xffffffff]");
  EXPECT_EQ(AssembleErrorText("Text", 0x7FFFFFFFu, "2147483647"), "Text [2147483647]");
}

TEST(AssembleErrorTextTest, IsCutWhereTheBufferEnds) {
  for (std::size_t length = 1010; length <= 1023; ++length) {
    const std::string system_text(length, 'x');
    const std::string whole = system_text + " [NAME]";
    EXPECT_EQ(AssembleErrorText(system_text, 1, "NAME"), whole.substr(0, 1023)) << length;
  }
}

}  // namespace
}  // namespace zel
