#include "tracking/volume_list.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace zel {
namespace {

bool Less(std::wstring_view a, std::wstring_view b) {
  return PathLess(a, b);
}

bool Same(std::wstring_view a, std::wstring_view b) {
  return !Less(a, b) && !Less(b, a);
}

TEST(FoldAsciiCaseTest, FoldsTheLettersAToZAndNothingElse) {
  for (unsigned unit = 0; unit <= 0xFFFF; ++unit) {
    const unsigned expected = unit >= 0x41 && unit <= 0x5A ? unit + 0x20 : unit;
    ASSERT_EQ(FoldAsciiCase(static_cast<char16_t>(unit)), expected) << unit;
  }
}

TEST(PathLessTest, PathsThatDifferOnlyInTheCaseOfAsciiLettersAreTheSame) {
  EXPECT_TRUE(Same(L"C:\\Data\\MAIL.pst", L"c:\\dATA\\mail.PST"));
  EXPECT_TRUE(Same(L"", L""));
}

TEST(PathLessTest, OtherLettersInAnotherCaseAreDifferent) {
  EXPECT_FALSE(Same(L"C:\\\u00C4", L"C:\\\u00E4"));  // A with diaeresis
  EXPECT_FALSE(Same(L"C:\\\u0130", L"C:\\i"));       // I with a dot
  EXPECT_FALSE(Same(L"C:\\\u212A", L"C:\\k"));       // the Kelvin sign
  EXPECT_FALSE(Same(L"C:\\\uFF21", L"C:\\\uFF41"));  // full-width A
}

TEST(PathLessTest, OrdersByTheFirstUnitThatDiffers) {
  EXPECT_TRUE(Less(L"C:\\a", L"C:\\B"));
  EXPECT_TRUE(Less(L"C:\\A", L"C:\\b"));
  EXPECT_TRUE(Less(L"C:\\Z", L"C:\\\u00C4"));
  // Between Z and a: capitals count as small letters.
  EXPECT_TRUE(Less(L"C:\\_", L"C:\\A"));
  EXPECT_TRUE(Less(L"C:\\[", L"C:\\Z"));
  // Code units, not code points: a surrogate comes before the private use area.
  EXPECT_TRUE(Less(std::wstring(1, wchar_t{0xD800}), std::wstring(1, wchar_t{0xE000})));
  EXPECT_TRUE(Less(std::wstring(1, wchar_t{0x7FFF}), std::wstring(1, wchar_t{0x8000})));
}

TEST(PathLessTest, BeginningOfAPathComesBeforeIt) {
  EXPECT_TRUE(Less(L"C:\\a", L"C:\\A1"));
  EXPECT_FALSE(Less(L"C:\\a1", L"C:\\A"));
  EXPECT_TRUE(Less(L"", L"a"));
}

TEST(PathLessTest, ComparesPathsOfBothKindsOfCharacter) {
  EXPECT_FALSE(PathLess(std::u16string_view(u"C:\\\u00C4b"), std::wstring_view(L"c:\\\u00C4B")));
  EXPECT_FALSE(PathLess(std::wstring_view(L"c:\\\u00C4B"), std::u16string_view(u"C:\\\u00C4b")));
  EXPECT_TRUE(PathLess(std::u16string_view(u"C:\\a"), std::wstring_view(L"C:\\\u00C4")));
  EXPECT_TRUE(PathLess(std::wstring_view(L"C:\\a"), std::u16string_view(u"C:\\\u00C4")));
}

}  // namespace
}  // namespace zel
