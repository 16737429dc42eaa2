#include "service/command_line.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

namespace zel {
namespace {

ProgramMode ModeOf(std::initializer_list<const wchar_t*> arguments) {
  return SelectMode({arguments.begin(), arguments.size()});
}

ProgramMode ModeOfFirst(const wchar_t* argument) {
  return ModeOf({L"zelservice", argument});
}

TEST(SelectModeTest, EitherPrefixSelectsEachMode) {
  EXPECT_EQ(ModeOfFirst(L"-install"), ProgramMode::kInstall);
  EXPECT_EQ(ModeOfFirst(L"/install"), ProgramMode::kInstall);
  EXPECT_EQ(ModeOfFirst(L"-remove"), ProgramMode::kRemove);
  EXPECT_EQ(ModeOfFirst(L"/remove"), ProgramMode::kRemove);
  EXPECT_EQ(ModeOfFirst(L"-debug"), ProgramMode::kDebug);
  EXPECT_EQ(ModeOfFirst(L"/debug"), ProgramMode::kDebug);
}

TEST(SelectModeTest, SwitchesThatDoNotMatchWholeAskForUsage) {
  for (const wchar_t* argument :
       {L"--debug", L"-DEBUG", L"-Debug", L"-Install", L"-installx", L"-inst", L"-install ", L"-x",
        L"-", L"/", L"/?", L"-/debug", L"-removed", L"- remove", L"-nodriver"}) {
    EXPECT_EQ(ModeOfFirst(argument), ProgramMode::kUsage) << testing::PrintToString(argument);
  }
}

TEST(SelectModeTest, FirstArgumentWithoutPrefixRunsTheService) {
  for (const wchar_t* argument : {L"debug", L"install", L"", L" -install", L"\\install"}) {
    EXPECT_EQ(ModeOfFirst(argument), ProgramMode::kService) << testing::PrintToString(argument);
  }
}

TEST(SelectModeTest, NoArgumentRunsTheService) {
  EXPECT_EQ(ModeOf({L"zelservice"}), ProgramMode::kService);
  EXPECT_EQ(ModeOf({L"-install"}), ProgramMode::kService);
  EXPECT_EQ(SelectMode({}), ProgramMode::kService);
}

TEST(SelectModeTest, ArgumentsBehindTheFirstChangeNothing) {
  EXPECT_EQ(ModeOf({L"zelservice", L"-install", L"-remove"}), ProgramMode::kInstall);
  EXPECT_EQ(ModeOf({L"zelservice", L"-remove", L"x", L"y"}), ProgramMode::kRemove);
  EXPECT_EQ(ModeOf({L"zelservice", L"x", L"-debug"}), ProgramMode::kService);
  EXPECT_EQ(ModeOf({L"zelservice", L"-x", L"-debug"}), ProgramMode::kUsage);
}

bool NoDriver(std::initializer_list<const wchar_t*> arguments) {
  return AsksForNoDriver({arguments.begin(), arguments.size()});
}

TEST(AsksForNoDriverTest, ThirdOfThreeArgumentsAsksWithEitherPrefix) {
  EXPECT_TRUE(NoDriver({L"zelservice", L"-debug", L"-nodriver"}));
  EXPECT_TRUE(NoDriver({L"zelservice", L"-debug", L"/nodriver"}));
}

TEST(AsksForNoDriverTest, OtherCountsOfArgumentsDoNot) {
  EXPECT_FALSE(NoDriver({}));
  EXPECT_FALSE(NoDriver({L"-nodriver"}));
  EXPECT_FALSE(NoDriver({L"zelservice", L"-nodriver"}));
  EXPECT_FALSE(NoDriver({L"zelservice", L"-debug", L"x", L"-nodriver"}));
  EXPECT_FALSE(NoDriver({L"zelservice", L"-debug", L"-nodriver", L"x"}));
}

TEST(AsksForNoDriverTest, OtherSpellingsDoNot) {
  for (const wchar_t* argument :
       {L"nodriver", L"--nodriver", L"-NoDriver", L"-nodrivers", L"-nodrive", L"-", L""}) {
    EXPECT_FALSE(NoDriver({L"zelservice", L"-debug", argument}))
        << testing::PrintToString(argument);
  }
}

TEST(ServiceCommandLineTest, PathWithABlankIsQuotedAndAnyOtherIsNot) {
  EXPECT_EQ(ServiceCommandLine(L"C:\\Program Files\\x\\svc.exe"),
            L"\"C:\\Program Files\\x\\svc.exe\"");
  EXPECT_EQ(ServiceCommandLine(L"C:\\svc\\svc.exe"), L"C:\\svc\\svc.exe");
  EXPECT_EQ(ServiceCommandLine(L"C:\\a\tb\\svc.exe"), L"C:\\a\tb\\svc.exe");
}

}  // namespace
}  // namespace zel
