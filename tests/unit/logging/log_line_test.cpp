#include "logging/log_line.h"

#include <gtest/gtest.h>

#include <string>

#include "logging/log_selector.h"
#include "tests/unit/support/utf8_collector.h"

namespace zel {
namespace {

std::string Prefix(const LogTime& time, int selector, std::uint32_t thread_id) {
  return test::CollectUtf8(
      [&](Utf8Writer& out) { WriteLogPrefix(out, time, selector, thread_id); });
}

TEST(LevelWordTest, EveryCategoryHasTheSameFiveCharacterWords) {
  for (const LogCategory category : {kGeneral, kBitmap, kDriverComm}) {
    EXPECT_EQ(LevelWord(LogSelector(category, kTrace)), "TRACE");
    EXPECT_EQ(LevelWord(LogSelector(category, kDebug)), "DEBUG");
    EXPECT_EQ(LevelWord(LogSelector(category, kInfo)), "INFO ");
    EXPECT_EQ(LevelWord(LogSelector(category, kWarn)), "WARN ");
    EXPECT_EQ(LevelWord(LogSelector(category, kError)), "ERROR");
  }
}

TEST(LevelWordTest, SelectorOutsideTheTableReadsInfo) {
  for (const int selector : {-1, 15, 18, 19, 1000}) EXPECT_EQ(LevelWord(selector), "INFO ");
}

TEST(WriteLogPrefixTest, PadsEveryFieldToItsColumn) {
  EXPECT_EQ(Prefix({2026, 1, 2, 3, 4, 5, 6}, kGeneralWarn, 7),
            "2026-01-02 03:04:05.006 WARN  [7] ");
}

TEST(WriteLogPrefixTest, WritesFullFieldsAsTheyAre) {
  EXPECT_EQ(Prefix({2026, 11, 20, 23, 59, 58, 999}, kDriverCommError, 4294967295u),
            "2026-11-20 23:59:58.999 ERROR [4294967295] ");
}

TEST(WriteLogPrefixTest, WiderNumbersPushTheRestToTheRight) {
  EXPECT_EQ(Prefix({65535, 65535, 65535, 65535, 65535, 65535, 65535}, kGeneralInfo, 4294967295u),
            "65535-65535-65535 65535:65535:65535.65535 INFO  [4294967295] ");
}

}  // namespace
}  // namespace zel
