#include "tracking/path_compare.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace zel {
namespace {

bool Same(std::wstring_view a, std::wstring_view b) {
  return !PathLess{}(a, b) && !PathLess{}(b, a);
}

TEST(FoldAsciiCaseTest, FoldsTheLettersAToZAndNothingElse) {
  for (unsigned unit = 0; unit <= 0xFFFF; ++unit) {
    const unsigned expected = unit >= 0x41 && unit <= 0x5A ? unit + 0x20 : unit;
    ASSERT_EQ(FoldAsciiCase(static_cast<wchar_t>(unit)), expected) << unit;
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
  EXPECT_TRUE(PathLess{}(L"C:\\a", L"C:\\B"));
  EXPECT_TRUE(PathLess{}(L"C:\\A", L"C:\\b"));
  EXPECT_TRUE(PathLess{}(L"C:\\Z", L"C:\\\u00C4"));
  // Between Z and a: capitals count as small letters.
  EXPECT_TRUE(PathLess{}(L"C:\\_", L"C:\\A"));
  EXPECT_TRUE(PathLess{}(L"C:\\[", L"C:\\Z"));
  // Code units, not code points: a surrogate comes before the private use area.
  EXPECT_TRUE(PathLess{}(std::wstring(1, wchar_t{0xD800}), std::wstring(1, wchar_t{0xE000})));
  EXPECT_TRUE(PathLess{}(std::wstring(1, wchar_t{0x7FFF}), std::wstring(1, wchar_t{0x8000})));
}

TEST(PathLessTest, BeginningOfAPathComesBeforeIt) {
  EXPECT_TRUE(PathLess{}(L"C:\\a", L"C:\\A1"));
  EXPECT_FALSE(PathLess{}(L"C:\\a1", L"C:\\A"));
  EXPECT_TRUE(PathLess{}(L"", L"a"));
}

TEST(PathLessTest, FindsAPathInAMapInAnyCase) {
  const std::map<std::wstring, int, PathLess> files = {{L"C:\\B", 2}, {L"c:\\a", 1}, {L"C:\\c", 3}};
  const auto found = files.find(std::wstring_view(L"C:\\b"));
  ASSERT_NE(found, files.end());
  EXPECT_EQ(found->second, 2);
  EXPECT_EQ(files.find(std::wstring_view(L"C:\\bb")), files.end());
}

}  // namespace
}  // namespace zel
