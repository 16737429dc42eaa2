#include "common/volume_name.h"

#include <gtest/gtest.h>

namespace zel {
namespace {

TEST(GuidTextInVolumeNameTest, IsWhatStandsBetweenTheBraces) {
  EXPECT_EQ(GuidTextInVolumeName(L"\\\\?\\Volume{01234567-89ab-cdef-0123-456789abcdef}\\"),
            L"01234567-89ab-cdef-0123-456789abcdef");
}

TEST(GuidTextInVolumeNameTest, ShorterNamesGiveWhatThereIs) {
  const std::wstring_view name = L"\\\\?\\Volume{01234567-89ab-cdef-0123-456789abcdef}\\";
  for (std::size_t length = 0; length < 47; ++length) {
    const std::size_t expected = length < 11 ? 0 : length - 11;
    EXPECT_EQ(GuidTextInVolumeName(name.substr(0, length)).size(), expected) << length;
  }
}

}  // namespace
}  // namespace zel
