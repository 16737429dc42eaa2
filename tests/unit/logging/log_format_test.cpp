#include "logging/log_format.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace zel {
namespace {

TEST(LogFormatMatchesTest, AcceptsEveryConversionOfTheSystem) {
  EXPECT_TRUE(LogFormatMatches<>(L"nothing to fill, 100%%\n"));
  EXPECT_TRUE((LogFormatMatches<const wchar_t*, const char*>(L"%s failed: %hs\n")));
  EXPECT_TRUE((LogFormatMatches<const wchar_t*, int>(L"%ls: %u\n")));
  EXPECT_TRUE((LogFormatMatches<std::uint64_t, std::uint32_t>(L"0x%016I64x length %u\n")));
  EXPECT_TRUE((LogFormatMatches<std::uint64_t, std::size_t>(L"%llu files, %Iu bitmaps\n")));
  EXPECT_TRUE((LogFormatMatches<std::uint32_t, std::uint32_t>(L"%08lx 0x%04x\n")));
  EXPECT_TRUE((LogFormatMatches<std::uint16_t, std::uint8_t>(L"%04hu %02x\n")));
  EXPECT_TRUE((LogFormatMatches<void*>(L"0x%p\n")));
}

TEST(LogFormatMatchesTest, RefusesStringsOfTheOtherWidth) {
  EXPECT_FALSE(LogFormatMatches<const char*>(L"%s\n"));
  EXPECT_FALSE(LogFormatMatches<const char*>(L"%ls\n"));
  EXPECT_FALSE(LogFormatMatches<const wchar_t*>(L"%hs\n"));
  EXPECT_FALSE(LogFormatMatches<int>(L"%s\n"));
}

TEST(LogFormatMatchesTest, RefusesNumbersOfTheOtherSize) {
  EXPECT_FALSE(LogFormatMatches<std::uint64_t>(L"%u\n"));
  EXPECT_FALSE(LogFormatMatches<std::uint32_t>(L"%I64u\n"));
  EXPECT_FALSE(LogFormatMatches<std::uint32_t>(L"%Iu\n"));
  EXPECT_FALSE(LogFormatMatches<double>(L"%u\n"));
  EXPECT_FALSE(LogFormatMatches<const wchar_t*>(L"%u\n"));
}

TEST(LogFormatMatchesTest, RefusesMissingAndSurplusArguments) {
  EXPECT_FALSE(LogFormatMatches<>(L"%u\n"));
  EXPECT_FALSE(LogFormatMatches<int>(L"none\n"));
  EXPECT_FALSE((LogFormatMatches<int, int>(L"%u\n")));
}

TEST(LogFormatMatchesTest, RefusesUnknownAndCutConversions) {
  EXPECT_FALSE(LogFormatMatches<std::uint64_t>(L"0x%016I4x"));
  EXPECT_FALSE(LogFormatMatches<int>(L"%"));
  EXPECT_FALSE(LogFormatMatches<int>(L"%I64"));
  EXPECT_FALSE(LogFormatMatches<int*>(L"%n"));
}

}  // namespace
}  // namespace zel
