#include "logging/utf8_writer.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/unit/support/utf8_collector.h"

namespace zel {
namespace {

using test::CollectUtf8;

std::string Wide(std::wstring_view text) {
  return CollectUtf8([text](Utf8Writer& out) { out.Wide(text); });
}

std::string Number(std::uint64_t value, bool negative, Utf8Writer::NumberLayout layout) {
  return CollectUtf8([=](Utf8Writer& out) { out.Number(value, negative, layout); });
}

TEST(Utf8WriterTest, EncodesTheFirstAndLastCharacterOfEveryLength) {
  EXPECT_EQ(Wide(L"\x7f"), "\x7f");
  EXPECT_EQ(Wide(L"\u0080\u07ff"), "\xc2\x80\xdf\xbf");
  EXPECT_EQ(Wide(L"\u0800\uffff"), "\xe0\xa0\x80\xef\xbf\xbf");
  EXPECT_EQ(Wide(L"\U00010000\U0010ffff"), "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf");
}

TEST(Utf8WriterTest, SurrogatePairsOf16BitTextAreOneCharacter) {
  const wchar_t pair[] = {static_cast<wchar_t>(0xD83D), static_cast<wchar_t>(0xDCBE), 0};
  EXPECT_EQ(Wide(pair), "\xf0\x9f\x92\xbe");
}

TEST(Utf8WriterTest, LoneSurrogatesBecomeTheReplacementCharacter) {
  const std::string replacement = "\xef\xbf\xbd";
  const auto high = static_cast<wchar_t>(0xD800);
  const auto low = static_cast<wchar_t>(0xDFFF);
  EXPECT_EQ(Wide(std::wstring{high}), replacement);
  EXPECT_EQ(Wide(std::wstring{high, L'a'}), replacement + "a");
  EXPECT_EQ(Wide(std::wstring{low, high}), replacement + replacement);
  EXPECT_EQ(Wide(std::wstring{high, high, low}), replacement + "\xf0\x90\x8f\xbf");
}

TEST(Utf8WriterTest, LongTextArrivesWholeAndNoPieceEndsInsideACharacter) {
  for (std::size_t lead = 1000; lead < 1040; ++lead) {
    std::string bytes;
    const std::wstring text =
        std::wstring(lead, L'a') + L"\U0001F4BE" + std::wstring(3000, L'\u6570');
    {
      Utf8Writer out(
          [](void* target, const char* piece, std::size_t count) {
            EXPECT_NE(static_cast<unsigned char>(piece[0]) & 0xC0, 0x80);
            static_cast<std::string*>(target)->append(piece, count);
          },
          &bytes);
      out.Wide(text);
    }
    ASSERT_EQ(bytes.size(), lead + 4 + 9000);
    ASSERT_EQ(bytes.substr(lead, 4), "\xf0\x9f\x92\xbe");
    ASSERT_EQ(bytes.substr(bytes.size() - 3), "\xe6\x95\xb0");
  }
}

TEST(Utf8WriterTest, NarrowBytesAreLatin1) {
  EXPECT_EQ(CollectUtf8([](Utf8Writer& out) { out.Narrow("a\xe9z"); }), "a\xc3\xa9z");
}

TEST(Utf8WriterTest, NumbersAreFilledToTheirWidth) {
  EXPECT_EQ(Number(0, false, {}), "0");
  EXPECT_EQ(Number(18446744073709551615u, false, {}), "18446744073709551615");
  EXPECT_EQ(Number(7, false, {.width = 4}), "   7");
  EXPECT_EQ(Number(7, false, {.width = 4, .fill = '0'}), "0007");
  EXPECT_EQ(Number(7, true, {.width = 4}), "  -7");
  EXPECT_EQ(Number(7, true, {.width = 4, .fill = '0'}), "-007");
  EXPECT_EQ(Number(12345, false, {.width = 4, .fill = '0'}), "12345");
  EXPECT_EQ(Number(0xabc, false, {.digits = Utf8Writer::Digits::kLowerHex}), "abc");
  EXPECT_EQ(Number(0xabc, false, {.digits = Utf8Writer::Digits::kUpperHex}), "ABC");
}

TEST(Utf8WriterTest, CountsWideCharactersNotBytes) {
  CollectUtf8([](Utf8Writer& out) {
    out.Wide(L"\u6570a");
    out.Narrow("xyz");
    out.Number(42, true, {.width = 5});
    EXPECT_EQ(out.characters(), 2u + 3u + 5u);
  });
}

}  // namespace
}  // namespace zel
