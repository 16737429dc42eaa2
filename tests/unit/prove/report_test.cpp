#include "prove/report.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

namespace zel::prove {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

Item MakeItem(Outcome outcome, const char* name = "a step", const char* detail = "") {
  return {"group", name, outcome, detail, 0.5};
}

Report ReportOf(std::initializer_list<Outcome> outcomes) {
  Report report;
  for (const Outcome outcome : outcomes) report.items.push_back(MakeItem(outcome));
  return report;
}

TEST(ReportTest, RunSucceedsWhenEverythingThatWasToBeRunPassed) {
  EXPECT_TRUE(Succeeded(ReportOf({Outcome::kPassed})));
  EXPECT_TRUE(Succeeded(ReportOf({Outcome::kPassed, Outcome::kNotHere, Outcome::kLeftOut})));
}

TEST(ReportTest, RunFailsForEachReasonAlone) {
  EXPECT_FALSE(Succeeded(ReportOf({Outcome::kPassed, Outcome::kFailed})));
  EXPECT_FALSE(Succeeded(ReportOf({Outcome::kPassed, Outcome::kNotRun})));
  Report report = ReportOf({Outcome::kPassed});
  report.interrupted = true;
  EXPECT_FALSE(Succeeded(report));
  report = ReportOf({Outcome::kPassed});
  report.left_behind = "a service";
  EXPECT_FALSE(Succeeded(report));
}

TEST(ReportTest, RunThatShowedNothingIsNoSuccess) {
  EXPECT_FALSE(Succeeded(Report{}));
  EXPECT_FALSE(Succeeded(ReportOf({Outcome::kNotHere, Outcome::kLeftOut})));
}

TEST(ReportTest, OneLineCountsEachOutcome) {
  EXPECT_EQ(OneLine(ReportOf({Outcome::kPassed, Outcome::kPassed, Outcome::kFailed,
                              Outcome::kNotHere, Outcome::kLeftOut, Outcome::kNotRun})),
            "2 passed, 1 failed, 1 not here, 1 left out, 1 not run");
}

TEST(ReportTest, TextNamesWhatDidNotPassWithItsReason) {
  Report report;
  report.facts = {{"system", "10.0"}};
  report.items = {MakeItem(Outcome::kPassed, "went well"),
                  MakeItem(Outcome::kFailed, "went wrong", "first\r\nsecond"),
                  MakeItem(Outcome::kNotHere, "cannot be", "no driver")};
  const std::string text = TextOf(report);
  EXPECT_THAT(text, HasSubstr("system                  10.0\n"));
  EXPECT_THAT(text,
              HasSubstr("group                        1.5 s  1 passed, 1 failed, 1 not here"));
  EXPECT_THAT(text, HasSubstr("FAILED: group: went wrong\n    first\n    second\n"));
  EXPECT_THAT(text, HasSubstr("not here: group: cannot be\n    no driver\n"));
  EXPECT_THAT(text, Not(HasSubstr("went well")));
  EXPECT_THAT(text, ::testing::EndsWith("1 passed, 1 failed, 1 not here, 0 left out, 0 not run\n"));
}

TEST(ReportTest, TextTellsInterruptionAndWhatIsLeft) {
  Report report = ReportOf({Outcome::kPassed});
  EXPECT_THAT(TextOf(report), Not(HasSubstr("LEFT BEHIND")));
  report.interrupted = true;
  report.left_behind = "the service X\n";
  EXPECT_THAT(TextOf(report), HasSubstr("LEFT BEHIND:\n    the service X\n"));
  EXPECT_THAT(TextOf(report), HasSubstr("The run was interrupted.\n"));
}

TEST(ReportTest, JsonHasEveryItem) {
  Report report;
  report.facts = {{"system", "10.0"}};
  report.items = {MakeItem(Outcome::kPassed, "went well"),
                  MakeItem(Outcome::kFailed, "went wrong", "why")};
  const auto json = nlohmann::json::parse(JsonOf(report));
  EXPECT_EQ(json["succeeded"], false);
  EXPECT_EQ(json["facts"]["system"], "10.0");
  EXPECT_EQ(json["counts"]["passed"], 1);
  EXPECT_EQ(json["counts"]["FAILED"], 1);
  ASSERT_EQ(json["items"].size(), 2u);
  EXPECT_EQ(json["items"][0]["outcome"], "passed");
  EXPECT_EQ(json["items"][1]["name"], "went wrong");
  EXPECT_EQ(json["items"][1]["detail"], "why");
  EXPECT_EQ(json["items"][1]["seconds"], 0.5);
}

TEST(ReportTest, JsonTakesDetailsThatAreNoUtf8) {
  Report report;
  report.items = {MakeItem(Outcome::kFailed, "a step", "a\xFFz")};
  const auto json = nlohmann::json::parse(JsonOf(report));
  EXPECT_EQ(json["items"][0]["detail"], "a\xEF\xBF\xBDz");
}

}  // namespace
}  // namespace zel::prove
