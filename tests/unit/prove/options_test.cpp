#include "prove/options.h"

#include <gmock/gmock.h>

namespace zel::prove {
namespace {

std::optional<Options> Parse(std::vector<std::string> words) {
  return ParseOptions(words);
}

TEST(OptionsTest, EverythingIsWantedUnlessToldOtherwise) {
  const std::optional<Options> options = Parse({});
  ASSERT_TRUE(options);
  EXPECT_FALSE(options->help || options->clean_only || options->short_form);
  for (const std::string_view group : kGroups) EXPECT_TRUE(options->Wants(group));
}

TEST(OptionsTest, OnlyWhatIsNamedIsWanted) {
  const std::optional<Options> options = Parse({"--only", "unit", "--only", "end-to-end"});
  ASSERT_TRUE(options);
  EXPECT_TRUE(options->Wants(kUnitTests));
  EXPECT_TRUE(options->Wants(kEndToEnd));
  EXPECT_FALSE(options->Wants(kIntegrationTests));
  EXPECT_FALSE(options->Wants(kDemonstration));
}

TEST(OptionsTest, EachSwitchIsTaken) {
  EXPECT_TRUE(Parse({"--short"})->short_form);
  EXPECT_TRUE(Parse({"--clean"})->clean_only);
  EXPECT_TRUE(Parse({"--help"})->help);
  EXPECT_TRUE(Parse({"/?"})->help);
}

TEST(OptionsTest, OtherWordsAreRefused) {
  EXPECT_FALSE(Parse({"--Short"}));
  EXPECT_FALSE(Parse({"short"}));
  EXPECT_FALSE(Parse({"--only"}));
  EXPECT_FALSE(Parse({"--only", "everything"}));
  EXPECT_FALSE(Parse({"--short", ""}));
}

TEST(OptionsTest, HelpNamesEveryGroup) {
  for (const std::string_view group : kGroups) {
    EXPECT_THAT(std::string(HelpText()), ::testing::HasSubstr(std::string(group)));
  }
}

}  // namespace
}  // namespace zel::prove
