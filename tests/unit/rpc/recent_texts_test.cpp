#include "rpc/recent_texts.h"

#include <gtest/gtest.h>

namespace zel {
namespace {

constexpr std::uint64_t kMinute = RecentTexts::kKeptMs;

TEST(RecentTextsTest, SameTextIsAdmittedOnceAMinute) {
  RecentTexts texts;
  EXPECT_TRUE(texts.Admit(L"a", 5));
  EXPECT_FALSE(texts.Admit(L"a", 5));
  EXPECT_FALSE(texts.Admit(L"a", 4 + kMinute));
  EXPECT_TRUE(texts.Admit(L"a", 5 + kMinute));
  EXPECT_FALSE(texts.Admit(L"a", 6 + kMinute));
}

TEST(RecentTextsTest, OneThatKeepsComingDoesNotHideAnother) {
  RecentTexts texts;
  EXPECT_TRUE(texts.Admit(L"a", 0));
  for (std::uint64_t now = 1; now < 1000; ++now) EXPECT_FALSE(texts.Admit(L"a", now));
  EXPECT_TRUE(texts.Admit(L"b", 1000));
}

TEST(RecentTextsTest, NoMoreThanItsNumberIsAdmittedInAMinute) {
  RecentTexts texts;
  std::size_t admitted = 0;
  for (std::uint64_t i = 0; i < 10'000; ++i) {
    if (texts.Admit(std::to_wstring(i), i)) ++admitted;
  }
  EXPECT_EQ(admitted, RecentTexts::kMaxTexts);
  EXPECT_TRUE(texts.Admit(L"later", kMinute));  // in place of the first
  EXPECT_FALSE(texts.Admit(L"another", kMinute));
}

}  // namespace
}  // namespace zel
