#include "logging/log_format.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <string>

#include "tests/unit/support/utf8_collector.h"

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
  EXPECT_FALSE(LogFormatMatches<int>(L"%-5d"));
  EXPECT_FALSE(LogFormatMatches<int>(L"%.3d"));
  EXPECT_FALSE((LogFormatMatches<int, int>(L"%*d")));
}

template <class... Args>
std::string Format(const wchar_t* format, Args... args) {
  const std::array<LogArgument, sizeof...(Args)> arguments = {LogArgument::Of(args)...};
  return test::CollectUtf8([&](Utf8Writer& out) { FormatLogMessage(out, format, arguments); });
}

TEST(FormatLogMessageTest, StringsOfBothWidths) {
  EXPECT_EQ(Format(L"%s|%ls|%hs\n", L"\u6570", L"wide", "narrow"), "\xe6\x95\xb0|wide|narrow\n");
  EXPECT_EQ(Format(L"%s", L""), "");
}

TEST(FormatLogMessageTest, TextsAreCutAfterTheLongestPath) {
  const std::string longest(kMaxLoggedText, 'x');
  const std::wstring wide(longest.begin(), longest.end());
  EXPECT_EQ(Format(L"%s|%hs|\n", wide.c_str(), longest.c_str()), longest + "|" + longest + "|\n");
  const std::string cut = longest + "\xe2\x80\xa6";
  EXPECT_EQ(Format(L"%s|%hs|\n", (wide + L"y").c_str(), (longest + "y").c_str()),
            cut + "|" + cut + "|\n");
}

// Cut in the middle of a character of two units, the first half is written as a lone one.
TEST(FormatLogMessageTest, CutCharacterIsReplaced) {
  const std::wstring text = std::wstring(kMaxLoggedText - 1, L'x') + L"\xd83d\xde00";
  const std::string written = Format(L"%s", text.c_str());
  EXPECT_EQ(written.substr(kMaxLoggedText - 1), "\xef\xbf\xbd\xe2\x80\xa6");
}

TEST(FormatLogMessageTest, NullStringsAreNamed) {
  EXPECT_EQ(
      Format(L"%s %hs", static_cast<const wchar_t*>(nullptr), static_cast<const char*>(nullptr)),
      "(null) (null)");
}

TEST(FormatLogMessageTest, IntegersOfEverySizeAndSign) {
  EXPECT_EQ(Format(L"%d %u %x %X", -1, -1, 0xabcd, 0xabcd), "-1 4294967295 abcd ABCD");
  EXPECT_EQ(Format(L"%I64d %I64u %llu", std::int64_t{-1}, std::uint64_t{1} << 63, 7ull),
            "-1 9223372036854775808 7");
  EXPECT_EQ(Format(L"%I64d", std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(
      Format(L"0x%016I64x 0x%08x %04hu %02x", 0x12abull, 0x34u, std::uint16_t{5}, std::uint8_t{6}),
      "0x00000000000012ab 0x00000034 0005 06");
  EXPECT_EQ(Format(L"%5d|%05d|%3d", -42, -42, 12345), "  -42|-0042|12345");
  EXPECT_EQ(Format(L"%hu", 65537), "1");
}

TEST(FormatLogMessageTest, PointersAreSixteenUpperCaseDigits) {
  EXPECT_EQ(Format(L"0x%p", reinterpret_cast<void*>(0xabcdef)), "0x0000000000ABCDEF");
}

TEST(FormatLogMessageTest, PlainTextAndPercentSigns) {
  EXPECT_EQ(Format(L""), "");
  EXPECT_EQ(Format(L"%%"), "%");
  EXPECT_EQ(Format(L"100%% of %u%%\n", 7), "100% of 7%\n");
}

TEST(FormatLogMessageTest, AMisprintedConversionIsTextAndTakesNoArgument) {
  EXPECT_EQ(Format(L"%s, 0x%016I4x, 0x%016I64x", L"v", 0x12ull, 0x34ull),
            "v, 0xI4x, 0x0000000000000012");
}

TEST(FormatLogMessageTest, AFormatThatDisagreesPrintsAQuestionMark) {
  EXPECT_EQ(Format(L"%s %u %I64u %hs", 1, L"wide"), "? ? ? ?");
  EXPECT_EQ(Format(L"end %"), "end ");
}

}  // namespace
}  // namespace zel
