// Sizes, times, ids and failures in words.
#include <gmock/gmock.h>

#include <future>

#include "zelctl/bitmap_state.h"
#include "zelctl/call_within.h"
#include "zelctl/failure.h"
#include "zelctl/id_text.h"
#include "zelctl/nearest_word.h"
#include "zelctl/size_text.h"
#include "zelctl/table_text.h"
#include "zelctl/time_text.h"

namespace zel::ctl {
namespace {

TEST(ParseSizeTest, PlainNumbersAndUnitsAreRead) {
  EXPECT_EQ(ParseSize("0"), 0u);
  EXPECT_EQ(ParseSize("4096"), 4096u);
  EXPECT_EQ(ParseSize("64K"), 65'536u);
  EXPECT_EQ(ParseSize("64k"), 65'536u);
  EXPECT_EQ(ParseSize("1MiB"), 1u << 20);
  EXPECT_EQ(ParseSize("0x1000"), 4096u);
  EXPECT_EQ(ParseSize("0XfK"), 15u << 10);
  EXPECT_EQ(ParseSize("2g"), std::uint64_t{2} << 30);
  EXPECT_EQ(ParseSize("16777215T"), std::uint64_t{16'777'215} << 40);
}

TEST(ParseSizeTest, WhatIsNoSizeIsRefused) {
  for (const char* text :
       {"", "K", "-1", "+1", " 1", "1 ", "1.5M", "1KB", "1Ki", "1iB", "1KK", "64Q", "0x", "0xg",
        "0x-1", "0x0x1", "18446744073709551616", "16777216T"}) {
    EXPECT_EQ(ParseSize(text), std::nullopt) << text;
  }
}

TEST(NearestWordTest, BeginningOrFewWrongLettersTellTheWord) {
  const std::vector<std::string> known = {"status", "track", "untrack", "sync"};
  EXPECT_EQ(NearestWord("stat", known), "status");
  EXPECT_EQ(NearestWord("trak", known), "track");
  EXPECT_EQ(NearestWord("untrak", known), "untrack");
  EXPECT_EQ(NearestWord("snyc", known), "sync");
  EXPECT_EQ(NearestWord("s", known), "");
  EXPECT_EQ(NearestWord("", known), "");
  EXPECT_EQ(NearestWord("delete", known), "");
  EXPECT_EQ(NearestWord("sync", {}), "");
}

TEST(FormatOffsetTest, OffsetsOfAFileHaveOneUnit) {
  constexpr std::uint64_t kGiB = std::uint64_t{1} << 30;
  EXPECT_EQ(FormatOffset(0, 9999), "0 bytes");
  EXPECT_EQ(FormatOffset(9998, 9999), "9998 bytes");
  EXPECT_EQ(FormatOffset(0, 10'000), "0.0 KiB");
  EXPECT_EQ(FormatOffset(1536, 9'000'000), "1.5 KiB");
  EXPECT_EQ(FormatOffset(kGiB / 10, kGiB), "102.4 MiB");
  EXPECT_EQ(FormatOffset(1075 * kGiB, 3000 * kGiB), "1075.0 GiB");
  EXPECT_EQ(FormatOffset(9998 * kGiB, 9998 * kGiB), "9998.0 GiB");
  EXPECT_EQ(FormatOffset(9999 * kGiB, 9999 * kGiB), "9.8 TiB");
  EXPECT_EQ(FormatOffset(~std::uint64_t{0}, ~std::uint64_t{0}), "16.0 EiB");
}

TEST(FormatSizeTest, UnitKeepsTheNumberBelow1024) {
  EXPECT_EQ(FormatSize(0), "0 bytes");
  EXPECT_EQ(FormatSize(1), "1 byte");
  EXPECT_EQ(FormatSize(1023), "1023 bytes");
  EXPECT_EQ(FormatSize(1024), "1.0 KiB");
  EXPECT_EQ(FormatSize(1536), "1.5 KiB");
  EXPECT_EQ(FormatSize((1 << 20) - 1), "1.0 MiB");
  EXPECT_EQ(FormatSize(std::uint64_t{256} << 20), "256.0 MiB");
  EXPECT_EQ(FormatSize(~std::uint64_t{0}), "16.0 EiB");
}

TEST(FormatExactSizeTest, NothingIsRoundedAway) {
  EXPECT_EQ(FormatExactSize(1), "1 byte");
  EXPECT_EQ(FormatExactSize(1000), "1000 bytes");
  EXPECT_EQ(FormatExactSize(1536), "1.5 KiB");
  EXPECT_EQ(FormatExactSize(4095), "4095 bytes");
  EXPECT_EQ(FormatExactSize(4096), "4.0 KiB");
  EXPECT_EQ(FormatExactSize(65'536), "64.0 KiB");
  EXPECT_EQ(FormatExactSize(65'537), "65537 bytes");
  EXPECT_EQ(FormatExactSize((1 << 20) - 1), "1048575 bytes");
  EXPECT_EQ(FormatExactSize(1 << 20), "1.0 MiB");
  EXPECT_EQ(FormatExactSize(0xFFFFFFFE), "4294967294 bytes");
}

TEST(TableTextTest, PeopleGetHeadingsAndColumnsAndScriptsNeither) {
  constexpr Column kColumns[] = {{"NAME", 6}, {"SIZE", 4}, {"PATH", 0}};
  for (const auto& [reader, text] :
       {std::pair{TableFor::kPeople, "NAME    SIZE  PATH\na       1     x\nlong name  22    y z\n"},
        std::pair{TableFor::kScripts, "a  1  x\nlong name  22  y z\n"}}) {
    TableText table(kColumns, reader);
    EXPECT_EQ(table.text(), "");
    table.AddLine({"a", "1", "x"});
    table.AddLine({"long name", "22", "y z"});
    EXPECT_EQ(table.text(), text);
  }
}

constexpr FileTime kUnixEpoch = 116'444'736'000'000'000;

TEST(ParseTimeTest, IsoWithAZoneIsRead) {
  EXPECT_EQ(ParseTime("1601-01-01T00:00:00Z", 7), 0u);
  EXPECT_EQ(ParseTime("1970-01-01T00:00:00Z", 7), kUnixEpoch);
  EXPECT_EQ(ParseTime("1970-01-01T00:00:00.1234567Z", 7), kUnixEpoch + 1'234'567);
  EXPECT_EQ(ParseTime("1970-01-01T00:00:01.5Z", 7), kUnixEpoch + 15'000'000);
  EXPECT_EQ(ParseTime("1970-01-01T05:45:00+05:45", 7), kUnixEpoch);
  EXPECT_EQ(ParseTime("1969-12-31T18:30:00-05:30", 7), kUnixEpoch);
  EXPECT_EQ(ParseTime("2024-02-29T23:59:59Z", 7), ParseTime("2024-03-01T00:59:59+01:00", 7));
}

TEST(ParseTimeTest, NowAndFileTimesAreRead) {
  EXPECT_EQ(ParseTime("now", 7), 7u);
  EXPECT_EQ(ParseTime("0", 7), 0u);
  EXPECT_EQ(ParseTime("18446744073709551615", 7), ~FileTime{0});
}

TEST(ParseTimeTest, WhatIsNoTimeIsRefused) {
  for (const char* text : {"",
                           "Now",
                           "18446744073709551616",
                           "-1",
                           "1970-01-01",
                           "1970-01-01T00:00:00",
                           "1970-01-01 00:00:00Z",
                           "1970-1-1T00:00:00Z",
                           "2023-02-29T00:00:00Z",
                           "1970-13-01T00:00:00Z",
                           "1970-01-01T24:00:00Z",
                           "1970-01-01T00:60:00Z",
                           "1970-01-01T00:00:60Z",
                           "1970-01-01T00:00:00.Z",
                           "1970-01-01T00:00:00.12345678Z",
                           "1970-01-01T00:00:00+0100",
                           "1970-01-01T00:00:00+24:00",
                           "1970-01-01T00:00:00Zz",
                           "1601-01-01T00:00:00+00:01",
                           "1970-01-01T00:00:00z"}) {
    EXPECT_EQ(ParseTime(text, 7), std::nullopt) << text;
  }
}

TEST(FormatTimeTest, EveryTickIsWrittenAndReadBack) {
  EXPECT_EQ(FormatTime(0), "1601-01-01T00:00:00.0000000Z");
  EXPECT_EQ(FormatTime(kUnixEpoch + 1), "1970-01-01T00:00:00.0000001Z");
  for (const FileTime time : {FileTime{1}, kUnixEpoch - 1, FileTime{0x01dc92bf4c8a6d00},
                              FileTime{2'650'467'743'999'999'999}}) {
    EXPECT_EQ(ParseTime(FormatTime(time), 7), time) << FormatTime(time);
  }
}

TEST(FormatTimeTest, TimeBehindTheYear9999IsANumber) {
  EXPECT_EQ(FormatTime(2'650'467'743'999'999'999), "9999-12-31T23:59:59.9999999Z");
  EXPECT_EQ(FormatTime(2'650'467'744'000'000'000), "2650467744000000000");
  EXPECT_EQ(FormatTime(~FileTime{0}), "18446744073709551615");
}

TEST(IdTextTest, UpToSixteenDigitsAreRead) {
  EXPECT_EQ(ParseId("0x000500000001a9f0"), 0x000500000001a9f0u);
  EXPECT_EQ(ParseId("500000001A9F0"), 0x000500000001a9f0u);
  EXPECT_EQ(ParseId("0XffffFFFFffffFFFF"), ~std::uint64_t{0});
  for (const char* text : {"", "0x", "-1", "0x-1", "1g", " 1", "00000000000000001", "0x0x1"}) {
    EXPECT_EQ(ParseId(text), std::nullopt) << text;
  }
}

TEST(IdTextTest, IdsHaveSixteenDigitsAndGuidsNoBraces) {
  EXPECT_EQ(FormatId(0x000500000001a9f0), "0x000500000001a9f0");
  EXPECT_EQ(FormatId(~std::uint64_t{0}), "0xffffffffffffffff");
  EXPECT_EQ(
      FormatGuid({0x8a3f10c2, 0x4d5e, 0x4b7a, {0x9e, 0x21, 0xd0, 0x4f, 0x7c, 0x6b, 0x5a, 0x3e}}),
      "8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e");
}

TEST(FailureTextTest, NameAndNumberGoBeforeTheSentence) {
  Failure failure = {.code = 1110, .name = "ERROR_MEDIA_CHANGED", .message = "it is another file"};
  EXPECT_EQ(FailureText(failure), "ERROR_MEDIA_CHANGED (1110): it is another file");
}

TEST(FailureTextTest, CodeWithoutANameStandsOnce) {
  EXPECT_EQ(FailureText({.code = 65000, .name = "65000", .message = "no"}), "65000: no");
  EXPECT_EQ(FailureText({.code = 0x80070005, .name = "0x80070005", .message = "no"}),
            "0x80070005: no");
}

TEST(FormatAgeTest, AgeHasTheUnitThatFits) {
  constexpr FileTime kSecond = kFileTimeUnitsPerSecond;
  EXPECT_EQ(FormatAge(100, 100 + 59 * kSecond), "59 s");
  EXPECT_EQ(FormatAge(100, 100 + 60 * kSecond), "1 min");
  EXPECT_EQ(FormatAge(100, 100 + 3600 * kSecond), "1 h");
  EXPECT_EQ(FormatAge(100, 100 + 47 * 3600 * kSecond), "47 h");
  EXPECT_EQ(FormatAge(100, 100 + 48 * 3600 * kSecond), "2 d");
  EXPECT_EQ(FormatAge(100, 99), "0 s") << "the clock was set back";
}

TEST(CallWithinTest, CallThatTakesTooLongIsGivenUp) {
  EXPECT_EQ(CallWithin<int>(
                std::chrono::seconds(0), [] { return 1; }, 2),
            1);
  EXPECT_EQ(CallWithin<int>(
                std::chrono::seconds(60), [] { return 1; }, 2),
            1);
  const auto gate = std::make_shared<std::promise<void>>();
  const auto opened = gate->get_future().share();
  EXPECT_EQ(CallWithin<int>(
                std::chrono::seconds(1),
                [gate, opened] {
                  opened.wait();
                  return 1;
                },
                2),
            2);
  gate->set_value();
}

TEST(FailureTextTest, CheckOfTheProgramHasNoNumber) {
  EXPECT_EQ(FailureText(Refuse(Reason::kNone, "a full copy is needed")), "a full copy is needed");
}

}  // namespace
}  // namespace zel::ctl
