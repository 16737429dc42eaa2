#include "prove/test_programs.h"

#include <gmock/gmock.h>

namespace zel::prove {
namespace {

using ::testing::ElementsAre;

constexpr char kList[] =
    "Running main() from gmock_main.cc\r\n"
    "FirstTest.\r\n"
    "  Begins\r\n"
    "  DISABLED_Waits\r\n"
    "  Ends  # a comment\r\n"
    "Sizes/SecondTest.\r\n"
    "  Fits/0  # GetParam() = 1\r\n"
    "  Fits/1  # GetParam() = 2\r\n";

TEST(TestListTest, NamesAreWholeAndDisabledTestsLeftOut) {
  EXPECT_THAT(ParseTestList(kList),
              ElementsAre("FirstTest.Begins", "FirstTest.Ends", "Sizes/SecondTest.Fits/0",
                          "Sizes/SecondTest.Fits/1"));
}

TEST(TestListTest, WhatIsNoListHasNoTests) {
  EXPECT_THAT(ParseTestList(""), ElementsAre());
  EXPECT_THAT(ParseTestList("  Lost\nerror: no such program\n  Lost\n"), ElementsAre());
}

TEST(TestListTest, FirstOfEachSuite) {
  EXPECT_THAT(FirstOfEachSuite(ParseTestList(kList)),
              ElementsAre("FirstTest.Begins", "Sizes/SecondTest.Fits/0"));
}

TEST(TestListTest, EveryProgramIsNamedOnce) {
  std::vector<std::string_view> paths;
  for (const TestProgram& program : TestPrograms()) paths.push_back(program.path);
  std::ranges::sort(paths);
  EXPECT_EQ(std::ranges::adjacent_find(paths), paths.end());
}

constexpr char kOutput[] =
    "[==========] Running 4 tests from 1 test suite.\n"
    "[ RUN      ] A.Passes\n"
    "[       OK ] A.Passes (12 ms)\n"
    "[ RUN      ] A.Fails\n"
    "a.cpp:7: Failure\n"
    "Value of: false\n"
    "[  FAILED  ] A.Fails (1500 ms)\n"
    "[ RUN      ] A.Skips\n"
    "a.cpp:9: Skipped\n"
    "not for this system\n"
    "\n"
    "[  SKIPPED ] A.Skips (0 ms)\n"
    "[----------] 3 tests from A (1 ms total)\n"
    "[----------] Global test environment tear-down\n"
    "[  SKIPPED ] 1 test, listed below:\n"
    "[  SKIPPED ] A.Skips\n"
    "[  FAILED  ] A.Fails\n";

TEST(TestOutputTest, EachTestHasItsResult) {
  EXPECT_THAT(ParseResults(kOutput), ElementsAre(TestResult{"A.Passes", true, false, 0.012},
                                                 TestResult{"A.Fails", false, false, 1.5},
                                                 TestResult{"A.Skips", false, true, 0}));
}

TEST(TestOutputTest, TestThatBeganAndDidNotEndHasFailed) {
  EXPECT_THAT(ParseResults("[ RUN      ] A.Crashes\nsome words"),
              ElementsAre(TestResult{"A.Crashes", false, false, 0}));
  EXPECT_THAT(
      ParseResults("[ RUN      ] A.Crashes\n[ RUN      ] A.Next\n[       OK ] A.Next (1 ms)\n"),
      ElementsAre(TestResult{"A.Crashes", false, false, 0},
                  TestResult{"A.Next", true, false, 0.001}));
}

TEST(TestOutputTest, NoTestHasNoResult) {
  EXPECT_THAT(ParseResults("[       OK ] A.Passes (12 ms)\n"), ElementsAre());
}

TEST(TestOutputTest, SkippedTestGivesItsReason) {
  EXPECT_EQ(SkipReason(OutputOf(kOutput, "A.Skips")), "not for this system");
  EXPECT_EQ(SkipReason(OutputOf(kOutput, "A.Fails")), std::nullopt);
  EXPECT_TRUE(SkipReason("[  SKIPPED ] A.Skips (0 ms)\n").has_value());
}

TEST(TestOutputTest, OutputOfATestIsItsOwn) {
  EXPECT_EQ(OutputOf(kOutput, "A.Fails"),
            "[ RUN      ] A.Fails\na.cpp:7: Failure\nValue of: false\n"
            "[  FAILED  ] A.Fails (1500 ms)\n");
}

TEST(TestOutputTest, TailHasTheLastWholeLines) {
  EXPECT_EQ(Tail("one\ntwo\nthree\n", 100), "one\ntwo\nthree\n");
  EXPECT_EQ(Tail("one\ntwo\nthree\n", 8), "...\nthree\n");
}

}  // namespace
}  // namespace zel::prove
