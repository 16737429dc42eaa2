#include "tracking/volume_file_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

constexpr VolumeGuid kVolume = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};

TEST(VolumeFileListTest, NewListHasItsVolumeAndNoFiles) {
  const VolumeFileList list(kVolume);
  EXPECT_EQ(list.volume_guid(), kVolume);
  EXPECT_THAT(list.files(), IsEmpty());
  EXPECT_EQ(list.Find(L"C:\\a"), 0u);
  EXPECT_FALSE(list.HasFileId(1));
}

TEST(VolumeFileListTest, FilesStandInTheOrderOfTheirPaths) {
  VolumeFileList list(kVolume);
  for (const wchar_t* path : {L"C:\\b", L"C:\\_", L"C:\\A", L"C:\\C"}) list.Set(path, 7);
  EXPECT_THAT(list.files(), ElementsAre(Pair(L"C:\\_", 7), Pair(L"C:\\A", 7), Pair(L"C:\\b", 7),
                                        Pair(L"C:\\C", 7)));
}

TEST(VolumeFileListTest, SetTellsWhetherAnythingChanged) {
  VolumeFileList list(kVolume);
  EXPECT_TRUE(list.Set(L"C:\\a", 1));
  EXPECT_FALSE(list.Set(L"C:\\a", 1));
  EXPECT_FALSE(list.Set(L"c:\\A", 1));
  EXPECT_TRUE(list.Set(L"C:\\A", 2));
  EXPECT_EQ(list.Find(L"C:\\a"), 2u);
  EXPECT_THAT(list.files(), ElementsAre(Pair(L"C:\\a", 2)));
}

TEST(VolumeFileListTest, EraseFindsThePathInAnyCase) {
  VolumeFileList list(kVolume);
  list.Set(L"C:\\a", 1);
  EXPECT_FALSE(list.Erase(L"C:\\b"));
  EXPECT_TRUE(list.Erase(L"c:\\A"));
  EXPECT_FALSE(list.Erase(L"C:\\a"));
  EXPECT_THAT(list.files(), IsEmpty());
}

TEST(VolumeFileListTest, FileIdIsThereAsLongAsSomePathHasIt) {
  VolumeFileList list(kVolume);
  list.Set(L"C:\\a", 1);
  list.Set(L"C:\\link to a", 1);
  EXPECT_TRUE(list.HasFileId(1));
  list.Erase(L"C:\\a");
  EXPECT_TRUE(list.HasFileId(1));
  list.Set(L"C:\\link to a", 2);
  EXPECT_FALSE(list.HasFileId(1));
  EXPECT_TRUE(list.HasFileId(2));
  list.Erase(L"C:\\link to a");
  EXPECT_FALSE(list.HasFileId(2));
}

TEST(VolumeFileListTest, StoredZeroCountsAsNotTracked) {
  VolumeFileList list(kVolume);
  EXPECT_TRUE(list.Set(L"C:\\a", 0));
  EXPECT_EQ(list.Find(L"C:\\a"), 0u);
  EXPECT_TRUE(list.Set(L"C:\\a", 5));
  EXPECT_EQ(list.Find(L"C:\\a"), 5u);
}

}  // namespace
}  // namespace zel
