#include "prove/steps.h"

#include <gmock/gmock.h>

namespace zel::prove {
namespace {

using ::testing::ElementsAre;

class StepsTest : public ::testing::Test {
 protected:
  std::vector<Item> Run(const std::vector<Step>& steps) {
    const StepSetting setting = {on_wine_, [this] { return interrupted_; },
                                 [this] { return clock_ += 1; },
                                 [this](const Item& item) { told_.push_back(item.name); }};
    std::vector<Item> items;
    RunSteps("group", steps, setting, items);
    return items;
  }

  Step Good(const char* name) {
    return {name, [this, name] { ran_.push_back(name); }, {}};
  }
  static Step Bad(const char* name) {
    return {name, [] { throw StepFailure("this is wrong"); }, {}};
  }

  static std::vector<Outcome> OutcomesOf(const std::vector<Item>& items) {
    std::vector<Outcome> outcomes;
    for (const Item& item : items) outcomes.push_back(item.outcome);
    return outcomes;
  }

  bool on_wine_ = false;
  bool interrupted_ = false;
  double clock_ = 0;
  std::vector<std::string> ran_;
  std::vector<std::string> told_;
};

TEST_F(StepsTest, StepsRunInTheirOrderAndAreTold) {
  const std::vector<Item> items = Run({Good("one"), Good("two")});
  EXPECT_THAT(ran_, ElementsAre("one", "two"));
  EXPECT_THAT(told_, ElementsAre("one", "two"));
  EXPECT_THAT(OutcomesOf(items), ElementsAre(Outcome::kPassed, Outcome::kPassed));
  EXPECT_EQ(items[0].seconds, 1);
  EXPECT_EQ(items[0].group, "group");
}

TEST_F(StepsTest, WhatStandsOnAFailureIsNotRun) {
  const std::vector<Item> items = Run({Good("one"), Bad("two"), Good("three")});
  EXPECT_THAT(OutcomesOf(items), ElementsAre(Outcome::kPassed, Outcome::kFailed, Outcome::kNotRun));
  EXPECT_EQ(items[1].detail, "this is wrong");
  EXPECT_EQ(items[2].detail, "after: two");
  EXPECT_THAT(ran_, ElementsAre("one"));
}

TEST_F(StepsTest, WhateverIsThrownIsAFailure) {
  const std::vector<Item> items = Run({{"one", [] { (void)std::vector<int>().at(0); }, {}}});
  EXPECT_THAT(OutcomesOf(items), ElementsAre(Outcome::kFailed));
  EXPECT_NE(items[0].detail, "");
}

TEST_F(StepsTest, StepThatWineCannotShowIsRunElsewhereAlone) {
  Step step = Bad("two");
  step.not_on_wine = "Wine has none";
  EXPECT_THAT(OutcomesOf(Run({step})), ElementsAre(Outcome::kFailed));
  on_wine_ = true;
  const std::vector<Item> items = Run({Good("one"), step, Good("three")});
  EXPECT_THAT(OutcomesOf(items),
              ElementsAre(Outcome::kPassed, Outcome::kNotHere, Outcome::kPassed));
  EXPECT_EQ(items[1].detail, "Wine has none");
}

TEST_F(StepsTest, NothingBeginsAfterAnInterruption) {
  interrupted_ = true;
  const std::vector<Item> items = Run({Good("one")});
  EXPECT_THAT(OutcomesOf(items), ElementsAre(Outcome::kNotRun));
  EXPECT_EQ(items[0].detail, "interrupted");
  EXPECT_THAT(ran_, ElementsAre());
}

TEST_F(StepsTest, InterruptedStepHasNotFailed) {
  const std::vector<Item> items = Run({{"one", [] { throw Interrupted(); }, {}}, Good("two")});
  EXPECT_THAT(OutcomesOf(items), ElementsAre(Outcome::kNotRun, Outcome::kNotRun));
  EXPECT_EQ(items[0].detail, "interrupted");
  EXPECT_THAT(ran_, ElementsAre());
}

TEST(RequireTest, WhatDoesNotHoldIsAFailure) {
  EXPECT_NO_THROW(Require(true, "x"));
  EXPECT_THROW(Require(false, "x"), StepFailure);
}

}  // namespace
}  // namespace zel::prove
