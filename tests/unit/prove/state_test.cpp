#include "prove/state.h"

#include <gtest/gtest.h>

namespace zel::prove {
namespace {

const State kAll = {"C:\\kit \xC3\xBC", {"ZelService", "Other"}, true};

TEST(StateTest, StateReadsBackEqual) {
  EXPECT_EQ(ParseState(FormatState(kAll)), kAll);
  const State little = {"D:\\k", {}, false};
  EXPECT_EQ(ParseState(FormatState(little)), little);
}

TEST(StateTest, StateThatIsCutOffAnywhereIsRefused) {
  const std::string text = FormatState(kAll);
  for (std::size_t size = 0; size < text.size(); ++size) {
    EXPECT_FALSE(ParseState(text.substr(0, size))) << size;
  }
}

TEST(StateTest, OtherTextsAreRefused) {
  const std::string text = FormatState(kAll);
  EXPECT_FALSE(ParseState(text + "more\n"));
  EXPECT_FALSE(ParseState("x" + text));
  EXPECT_FALSE(ParseState("state of the proving kit, 1\nfolder \nend\n"));
  EXPECT_FALSE(ParseState("state of the proving kit, 1\nfolder C:\\k\nservice \nend\n"));
  EXPECT_FALSE(ParseState("state of the proving kit, 1\nfolder C:\\k\nfile x\nend\n"));
  EXPECT_FALSE(ParseState("state of the proving kit, 2\nfolder C:\\k\nend\n"));
}

TEST(StateTest, PathLiesInItsFolderAloneWhateverTheCase) {
  EXPECT_TRUE(LiesIn(L"C:\\Kit\\work\\a.exe", L"c:\\kit"));
  EXPECT_TRUE(LiesIn(L"C:\\Kit", L"C:\\kit"));
  EXPECT_FALSE(LiesIn(L"C:\\Kit2\\a.exe", L"C:\\Kit"));
  EXPECT_FALSE(LiesIn(L"C:\\", L"C:\\Kit"));
  EXPECT_FALSE(LiesIn(L"D:\\Kit\\a.exe", L"C:\\Kit"));
  EXPECT_FALSE(LiesIn(L"C:\\Kit\\a.exe", L""));
}

TEST(StateTest, ServiceRunsFromItsFolderWithOrWithoutQuotes) {
  EXPECT_TRUE(RunsFrom(L"\"C:\\Kit 1\\work\\agent\\zelservice.exe\" -x", L"C:\\kit 1"));
  EXPECT_TRUE(RunsFrom(L"C:\\Kit\\zelservice.exe -x", L"C:\\kit"));
  EXPECT_FALSE(RunsFrom(L"\"C:\\Program Files\\zelservice.exe\" C:\\Kit", L"C:\\Kit"));
  EXPECT_FALSE(RunsFrom(L"", L"C:\\Kit"));
}

}  // namespace
}  // namespace zel::prove
