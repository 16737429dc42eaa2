#include "config/config_parser.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace zel {
namespace {

std::uint32_t MaskOf(std::string_view text) {
  return ComputeLogEnableMask(ParseConfiguration(text).levels);
}

TEST(ParseConfigurationTest, EmptyTextGivesInfoEverywhereAndDefaultTimeouts) {
  const Configuration configuration = ParseConfiguration("");
  EXPECT_EQ(ComputeLogEnableMask(configuration.levels), 0x739Cu);
  EXPECT_EQ(configuration.bitmap_idle_timeout, 600);
  EXPECT_EQ(configuration.sync_timeout, 60);
}

TEST(ParseConfigurationTest, OneLevelLineLeavesTheOtherCategoriesAtInfo) {
  EXPECT_EQ(MaskOf("zelservicelog = debug"), 0x739Eu);
  EXPECT_EQ(MaskOf("zelservicelog:bitmap=error\n"), 0x721Cu);
  EXPECT_EQ(MaskOf("zelservicelog:drivercomm=trace\n"), 0x7F9Cu);
}

TEST(ParseConfigurationTest, KeysAndWordsAreComparedIgnoringCase) {
  EXPECT_EQ(MaskOf("ZELSERVICELOG=TRACE"), 0x739Fu);
  EXPECT_EQ(ParseConfiguration("ZELSERVICE:synctimeout=7").sync_timeout, 7);
}

TEST(ParseConfigurationTest, UnknownLevelWordSilencesItsCategoryErrorsIncluded) {
  EXPECT_EQ(MaskOf("zelservicelog = verbose"), 0x7380u);
  EXPECT_EQ(MaskOf("zelservicelog ="), 0x7380u);
  EXPECT_EQ(MaskOf("zelservicelog = info warn"), 0x7380u);
}

TEST(ParseConfigurationTest, ZeroAndMinusOneTimeoutsGiveTheDefaults) {
  for (const char* value : {"0", "-1", "", "none", "0x10", "-", "+0"}) {
    const std::string text = std::string("zelservice:SyncTimeout = ") + value +
                             "\nzelservice:BitmapIdleTimeout = " + value;
    EXPECT_EQ(ParseConfiguration(text).sync_timeout, 60) << value;
    EXPECT_EQ(ParseConfiguration(text).bitmap_idle_timeout, 600) << value;
  }
}

TEST(ParseConfigurationTest, OtherTimeoutsAreTakenAsTheyAre) {
  EXPECT_EQ(ParseConfiguration("zelservice:SyncTimeout = -5").sync_timeout, -5);
  EXPECT_EQ(ParseConfiguration("zelservice:SyncTimeout = 30s").sync_timeout, 30);
  EXPECT_EQ(ParseConfiguration("zelservice:SyncTimeout = +42").sync_timeout, 42);
  EXPECT_EQ(ParseConfiguration("zelservice:BitmapIdleTimeout = 5000000000").bitmap_idle_timeout,
            5'000'000'000);
}

TEST(ParseConfigurationTest, NumbersBeyond64BitsStopAtTheLimit) {
  using Limits = std::numeric_limits<std::int64_t>;
  EXPECT_EQ(ParseConfiguration("zelservice:SyncTimeout=99999999999999999999").sync_timeout,
            Limits::max());
  EXPECT_EQ(ParseConfiguration("zelservice:SyncTimeout=-99999999999999999999").sync_timeout,
            Limits::min());
}

TEST(ParseConfigurationTest, BlanksAndTabsAroundLineKeyAndValueAreTrimmed) {
  EXPECT_EQ(MaskOf(" \t zelservicelog \t = \t debug \t "), 0x739Eu);
}

TEST(ParseConfigurationTest, OnlyBlanksAndTabsAreTrimmed) {
  EXPECT_EQ(MaskOf("zelservicelog = debug\r"), 0x7380u);
  EXPECT_EQ(MaskOf("\vzelservicelog = debug"), 0x739Cu);
}

TEST(ParseConfigurationTest, CommentsAreSkippedButHashInsideALineIsPlainText) {
  EXPECT_EQ(MaskOf("# zelservicelog = debug\n \t# zelservicelog = trace\n"), 0x739Cu);
  EXPECT_EQ(MaskOf("zelservicelog = debug # more"), 0x7380u);
  EXPECT_EQ(MaskOf("zelservicelog # = debug"), 0x739Cu);
}

TEST(ParseConfigurationTest, LinesWithoutEqualsAndUnknownKeysAreSkipped) {
  EXPECT_EQ(MaskOf("\n\nzelservicelog debug\n=debug\nzelservicelog:rpc=trace\nzelservicelog=warn"),
            0x7398u);
}

TEST(ParseConfigurationTest, TheFirstEqualsParts) {
  EXPECT_EQ(MaskOf("zelservicelog == debug"), 0x7380u);
  EXPECT_EQ(ParseConfiguration("zelservice:SyncTimeout = 7 = 8").sync_timeout, 7);
}

TEST(ParseConfigurationTest, ALaterLineOverridesAnEarlierOne) {
  EXPECT_EQ(MaskOf("zelservicelog=trace\nzelservicelog=error\n"), 0x7390u);
  EXPECT_EQ(ParseConfiguration("zelservice:SyncTimeout=5\nzelservice:SyncTimeout=x").sync_timeout,
            60);
}

TEST(ParseConfigurationTest, BytesOfAnyKindAreOnlyText) {
  using std::literals::operator""sv;
  EXPECT_EQ(MaskOf("zelservicelog=de\0bug\n\xff\xfe=\n"sv), 0x7380u);
}

TEST(ParseConfigurationTest, RpcCallersTakesThreeWordsInAnyCase) {
  EXPECT_EQ(ParseConfiguration("zelservice:RpcCallers = any").rpc_callers, CallerPolicy::kAny);
  EXPECT_EQ(ParseConfiguration("ZELSERVICE:RPCCALLERS=Local").rpc_callers, CallerPolicy::kLocal);
  EXPECT_EQ(ParseConfiguration("zelservice:rpccallers=ADMINISTRATORS").rpc_callers,
            CallerPolicy::kAdministrators);
}

TEST(ParseConfigurationTest, WordThatRpcCallersDoesNotKnowOpensNothing) {
  for (const char* word : {"", "an", "any # more", "none", "everyone", "localhost", "Any\r"}) {
    EXPECT_EQ(ParseConfiguration(std::string("zelservice:RpcCallers = ") + word).rpc_callers,
              CallerPolicy::kAdministrators)
        << word;
  }
}

TEST(ParseConfigurationTest, WithoutRpcCallersNothingIsSaidOfCallers) {
  EXPECT_EQ(ParseConfiguration("").rpc_callers, std::nullopt);
  EXPECT_EQ(ParseConfiguration("zelservice:RpcCaller=any\n#zelservice:RpcCallers=any").rpc_callers,
            std::nullopt);
}

TEST(WordOfTest, IsTheWordThatIsRead) {
  for (const auto policy :
       {CallerPolicy::kAny, CallerPolicy::kLocal, CallerPolicy::kAdministrators}) {
    const std::wstring word = WordOf(policy);
    EXPECT_EQ(ParseCallerPolicy(std::string(word.begin(), word.end())), policy);
  }
}

TEST(ParseLevelWordTest, KnowsFiveWords) {
  EXPECT_EQ(ParseLevelWord("trace"), kTrace);
  EXPECT_EQ(ParseLevelWord("Debug"), kDebug);
  EXPECT_EQ(ParseLevelWord("INFO"), kInfo);
  EXPECT_EQ(ParseLevelWord("warn"), kWarn);
  EXPECT_EQ(ParseLevelWord("error"), kError);
  for (const char* word : {"", "warning", "inf", "info ", "3"}) {
    EXPECT_EQ(ParseLevelWord(word), kSilent) << word;
  }
}

TEST(ComputeLogEnableMaskTest, SetsEachThresholdAndEverythingAbove) {
  EXPECT_EQ(ComputeLogEnableMask({kTrace, kTrace, kTrace}), 0x7FFFu);
  EXPECT_EQ(ComputeLogEnableMask({kSilent, kSilent, kSilent}), 0u);
  EXPECT_EQ(ComputeLogEnableMask({kError, kWarn, kInfo}), 0x7310u);
}

}  // namespace
}  // namespace zel
