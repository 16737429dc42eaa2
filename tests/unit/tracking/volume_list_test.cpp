#include "tracking/volume_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <utility>

#include "tests/unit/support/hex_dump.h"
#include "tracking/volume_list_format.h"

namespace zel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

constexpr VolumeGuid kVolume = {
    0x8a3f10c2, 0x4d5e, 0x4b7a, {0x9e, 0x21, 0xd0, 0x4f, 0x7c, 0x6b, 0x5a, 0x3e}};

std::vector<std::pair<std::wstring, FileId>> FilesOf(const VolumeFileList& list) {
  std::vector<std::pair<std::wstring, FileId>> files;
  for (std::size_t i = 0; i < list.size(); ++i) {
    const std::u16string_view path = list.PathAt(i);
    files.emplace_back(std::wstring(path.begin(), path.end()), list.FileIdAt(i));
  }
  return files;
}

std::string ValueOf(const VolumeFileList& list) {
  return {reinterpret_cast<const char*>(list.value().data()), list.value().size()};
}

TEST(VolumeFileListTest, NewListHasItsVolumeAndNoFiles) {
  const VolumeFileList list(kVolume);
  EXPECT_EQ(list.volume_guid(), kVolume);
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(list.Find(L"C:\\a"), 0u);
  EXPECT_FALSE(list.HasFileId(1));
  EXPECT_EQ(list.value().size(), 22u);
}

TEST(VolumeFileListTest, FilesStandInTheOrderOfTheirPaths) {
  VolumeFileList list(kVolume);
  FileId file_id = 0;
  for (const wchar_t* path : {L"C:\\b", L"C:\\_", L"C:\\A", L"C:\\C"}) list.Set(path, ++file_id);
  EXPECT_THAT(FilesOf(list), ElementsAre(Pair(L"C:\\_", 2), Pair(L"C:\\A", 3), Pair(L"C:\\b", 1),
                                         Pair(L"C:\\C", 4)));
}

TEST(VolumeFileListTest, SetTellsWhetherAnythingChanged) {
  VolumeFileList list(kVolume);
  EXPECT_TRUE(list.Set(L"C:\\a", 1));
  EXPECT_FALSE(list.Set(L"C:\\a", 1));
  EXPECT_FALSE(list.Set(L"c:\\A", 1));
  EXPECT_TRUE(list.Set(L"C:\\A", 2));
  EXPECT_EQ(list.Find(L"C:\\a"), 2u);
  EXPECT_THAT(FilesOf(list), ElementsAre(Pair(L"C:\\a", 2)));
}

TEST(VolumeFileListTest, EraseFindsThePathInAnyCase) {
  VolumeFileList list(kVolume);
  list.Set(L"C:\\a", 1);
  EXPECT_FALSE(list.Erase(L"C:\\b"));
  EXPECT_TRUE(list.Erase(L"c:\\A"));
  EXPECT_FALSE(list.Erase(L"C:\\a"));
  EXPECT_THAT(FilesOf(list), IsEmpty());
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

TEST(VolumeFileListTest, ExampleOfTheDocumentIsItsValue) {
  VolumeFileList list(kVolume);
  list.Set(L"D:\\\u00DCbung.vhdx", 0x00010000000000c7);
  list.Set(L"D:\\Mail.pst", 0x000300000001a2b4);
  const test::HexDump dump = test::ReadHexDump("docs/operations.md");
  EXPECT_EQ(dump.lines, (list.value().size() + 15) / 16);
  EXPECT_EQ(dump.bytes, ValueOf(list));
}

TEST(VolumeFileListTest, RecordOfTheLastFileHasNoLength) {
  VolumeFileList list(kVolume);
  list.Set(L"C:\\a", 0x17);
  EXPECT_EQ(ValueOf(list).substr(22, 4), std::string(4, '\0'));
  list.Set(L"C:\\b", 0x18);
  EXPECT_EQ(ValueOf(list).substr(22, 4), std::string("\x16\0\0\0", 4));
  EXPECT_EQ(ValueOf(list).substr(44, 4), std::string(4, '\0'));
}

// The list as a map, and its value put together byte by byte.
class Model {
 public:
  bool Set(const std::wstring& path, FileId file_id) {
    const auto [file, is_new] = files_.try_emplace(Fold(path), path, file_id);
    const bool changes = is_new || file->second.second != file_id;
    file->second.second = file_id;
    return changes;
  }
  bool Erase(const std::wstring& path) { return files_.erase(Fold(path)) != 0; }

  FileId Find(const std::wstring& path) const {
    const auto file = files_.find(Fold(path));
    return file == files_.end() ? 0 : file->second.second;
  }
  bool HasFileId(FileId file_id) const {
    return std::ranges::any_of(files_,
                               [=](const auto& file) { return file.second.second == file_id; });
  }

  std::string Value() const {
    std::string value = "\x18\x7C\xC2\x10\x3F\x8A\x5E\x4D\x7A\x4B\x9E\x21\xD0\x4F\x7C\x6B\x5A\x3E";
    Number(value, files_.size(), 4);
    std::size_t left = files_.size();
    for (const auto& [folded, file] : files_) {
      Number(value, --left == 0 ? 0 : 14 + 2 * file.first.size(), 4);
      Number(value, file.second, 8);
      Number(value, 2 * file.first.size(), 2);
      for (const wchar_t unit : file.first) Number(value, static_cast<std::uint64_t>(unit), 2);
    }
    return value;
  }

 private:
  static std::vector<unsigned> Fold(const std::wstring& path) {
    std::vector<unsigned> folded;
    for (const wchar_t unit : path) {
      const auto value = static_cast<unsigned>(unit);
      folded.push_back(value >= 'A' && value <= 'Z' ? value + 32 : value);
    }
    return folded;
  }
  static void Number(std::string& value, std::uint64_t number, int bytes) {
    for (; bytes > 0; --bytes, number >>= 8) value += static_cast<char>(number & 0xFF);
  }

  std::map<std::vector<unsigned>, std::pair<std::wstring, FileId>> files_;
};

// Short ones of few letters, so that they meet again, in another case too, and are each other's
// beginnings; among them units of all kinds, lone surrogates included.
std::wstring RandomPath(std::mt19937& random) {
  constexpr char16_t kUnits[] = {u'a', u'A',   u'b',   u'B',   u'\\',
                                 u'_', 0x00C4, 0x00E4, 0xD83D, 0xFFFF};
  std::wstring path(random() % 4, L'\0');
  for (wchar_t& unit : path) unit = static_cast<wchar_t>(kUnits[random() % std::size(kUnits)]);
  return path;
}

TEST(VolumeFileListTest, RandomChangesKeepItEqualToAPlainMap) {
  std::mt19937 random(1);
  for (int round = 0; round < 200; ++round) {
    VolumeFileList list(kVolume);
    Model model;
    for (int step = 0; step < 100; ++step) {
      const std::wstring path = RandomPath(random);
      const FileId file_id = random() % 4;
      if (random() % 3 == 0) {
        ASSERT_EQ(list.Erase(path), model.Erase(path));
      } else {
        ASSERT_EQ(list.Set(path, file_id), model.Set(path, file_id));
      }
      ASSERT_EQ(ValueOf(list), model.Value()) << "round " << round << " step " << step;
      ASSERT_EQ(list.Find(path), model.Find(path));
      ASSERT_EQ(list.HasFileId(file_id), model.HasFileId(file_id));
    }
  }
}

TEST(VolumeFileListTest, LongestPathsStandWholeInTheValue) {
  std::mt19937 random(2);
  VolumeFileList list(kVolume);
  Model model;
  for (const std::size_t length : {std::size_t{32'000}, std::size_t{0}, kMaxTrackedPath}) {
    std::wstring path(length, L'\0');
    for (wchar_t& unit : path) unit = static_cast<wchar_t>(1 + random() % 0xFFFF);
    list.Set(path, length + 1);
    model.Set(path, length + 1);
    EXPECT_EQ(list.Find(path), length + 1);
  }
  EXPECT_EQ(ValueOf(list), model.Value());
}

}  // namespace
}  // namespace zel
