#include "simulator/tracked_list.h"

#include <gtest/gtest.h>

namespace zel::sim {
namespace {

constexpr VolumeGuid kVolume = {
    0x01234567, 0x89AB, 0xCDEF, {1, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};

// Two files: "C:\a" with id 0x11 and "C:\bc" with id 0x0102030405060708.
constexpr unsigned char kTwoFiles[] = {
    0x18, 0x7C, 0x67, 0x45, 0x23, 0x01, 0xAB, 0x89, 0xEF, 0xCD, 0x01, 0x23, 0x45, 0x67,
    0x89, 0xAB, 0xCD, 0xEF, 2,    0,    0,    0,                                      // count
    22,   0,    0,    0,    0x11, 0,    0,    0,    0,    0,    0,    0,    8,    0,  // record
    'C',  0,    ':',  0,    '\\', 0,    'a',  0,                                      //
    0,    0,    0,    0,    8,    7,    6,    5,    4,    3,    2,    1,    10,   0,  // last record
    'C',  0,    ':',  0,    '\\', 0,    'b',  0,    'c',  0};

Bytes TwoFiles() {
  const auto* const first = reinterpret_cast<const std::byte*>(kTwoFiles);
  return Bytes(first, first + sizeof kTwoFiles);
}

bool Read(const Bytes& value) {
  TrackedFiles files;
  return ReadTrackedList(value, kVolume, files);
}

TEST(TrackedListTest, FilesAreReadByteForByte) {
  TrackedFiles files;
  EXPECT_TRUE(ReadTrackedList(TwoFiles(), kVolume, files));
  EXPECT_EQ(files, (TrackedFiles{{kVolume, 0x11}, {kVolume, 0x0102030405060708}}));
}

TEST(TrackedListTest, EveryTruncationIsRefused) {
  const Bytes whole = TwoFiles();
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(Read(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size))))
        << size;
  }
}

TEST(TrackedListTest, EveryChangedByteOfTheLayoutIsRefused) {
  for (std::size_t at = 0; at < sizeof kTwoFiles; ++at) {
    const bool file_id = (at >= 26 && at < 34) || (at >= 48 && at < 56);
    const bool path = (at >= 36 && at < 44) || at >= 58;
    if (file_id || path) continue;
    Bytes damaged = TwoFiles();
    damaged[at] ^= std::byte{1};
    EXPECT_FALSE(Read(damaged)) << at;
  }
}

TEST(TrackedListTest, BytesBehindTheLastRecordAreRefused) {
  Bytes longer = TwoFiles();
  longer.push_back(std::byte{0});
  EXPECT_FALSE(Read(longer));
}

}  // namespace
}  // namespace zel::sim
