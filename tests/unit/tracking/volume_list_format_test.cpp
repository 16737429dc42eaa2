#include "tracking/volume_list_format.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <utility>

#include "tracking/volume_list.h"

namespace zel {
namespace {

constexpr VolumeGuid kVolume = {
    0x8a3f10c2, 0x4d5e, 0x4b7a, {0x9e, 0x21, 0xd0, 0x4f, 0x7c, 0x6b, 0x5a, 0x3e}};
constexpr std::size_t kHeader = 22;
constexpr std::size_t kAtCount = 18;

using Bytes = std::vector<std::byte>;

VolumeFileList ListOf(std::initializer_list<std::pair<std::wstring, FileId>> files) {
  VolumeFileList list(kVolume);
  for (const auto& [path, file_id] : files) list.Set(path, file_id);
  return list;
}

Bytes ValueOf(const VolumeFileList& list) {
  return {list.value().begin(), list.value().end()};
}

template <class T>
void Put(Bytes& bytes, std::size_t offset, T value) {
  std::memcpy(bytes.data() + offset, &value, sizeof value);
}

struct Read {
  std::vector<std::pair<std::wstring, FileId>> files;
  bool is_damaged;

  bool operator==(const Read&) const = default;
};

// From a block that ends with the bytes, for AddressSanitizer.
Read ReadAll(const Bytes& bytes) {
  const Bytes exact(bytes.begin(), bytes.end());
  TrackedFileListReader reader(exact);
  Read read = {};
  while (auto record = reader.Next()) read.files.emplace_back(record->Path, record->FileId);
  read.is_damaged = reader.IsDamaged();
  return read;
}

// What the reader should give for the value of an undamaged list.
Read Whole(const VolumeFileList& list) {
  Read whole = {};
  for (std::size_t i = 0; i < list.size(); ++i) {
    const std::u16string_view path = list.PathAt(i);
    whole.files.emplace_back(std::wstring(path.begin(), path.end()), list.FileIdAt(i));
  }
  return whole;
}

// Any path of UTF-16 code units, lone surrogates included, but no NUL.
std::wstring RandomPath(std::mt19937& random, std::size_t length) {
  std::wstring path(length, L'\0');
  for (wchar_t& unit : path) {
    unit = static_cast<wchar_t>(random() % 4 == 0 ? 1 + random() % 0xFFFF : 'A' + random() % 58);
  }
  return path;
}

TEST(TrackedFileListReaderTest, RandomListsReadBackEqualAndInOrder) {
  std::mt19937 random(1);
  for (int round = 0; round < 300; ++round) {
    VolumeFileList list(kVolume);
    for (std::size_t files = random() % 40; files > 0; --files) {
      list.Set(RandomPath(random, random() % 300), std::uint64_t{random()} << 32 | random());
    }
    ASSERT_EQ(ReadAll(ValueOf(list)), Whole(list)) << round;
  }
}

TEST(TrackedFileListReaderTest, LongestPathsReadBackEqual) {
  std::mt19937 random(2);
  VolumeFileList list(kVolume);
  for (const std::size_t length : {32'000u, 32'000u, 32'766u, 32'767u}) {
    list.Set(RandomPath(random, length), random());
  }
  ASSERT_EQ(list.size(), 4u);
  EXPECT_EQ(ReadAll(ValueOf(list)), Whole(list));
}

TEST(TrackedFileListReaderTest, TellsTheVolumeAndMindsNoMagic) {
  Bytes value = ValueOf(ListOf({{L"C:\\a", 5}}));
  Put<std::uint16_t>(value, 0, 0);
  TrackedFileListReader reader(value);
  EXPECT_EQ(reader.volume_guid(), kVolume);
  const auto record = reader.Next();
  ASSERT_TRUE(record);
  EXPECT_EQ(record->Path, L"C:\\a");
  EXPECT_EQ(record->FileId, 5u);
  EXPECT_FALSE(reader.Next());
  EXPECT_FALSE(reader.IsDamaged());
}

TEST(TrackedFileListReaderTest, GoesByTheCountAlone) {
  const Bytes whole = ValueOf(ListOf({{L"C:\\a", 1}, {L"C:\\b", 2}}));
  Bytes value = whole;
  Put<std::uint32_t>(value, kAtCount, 1);
  EXPECT_EQ(ReadAll(value), (Read{{{L"C:\\a", 1}}, false}));
  Put<std::uint32_t>(value, kAtCount, 0);
  EXPECT_EQ(ReadAll(value), (Read{{}, false}));
  // What the last record's length says, and bytes behind it, tell nothing.
  value = whole;
  Put<std::uint32_t>(value, kHeader + 22, 0xFFFFFFFF);
  value.resize(value.size() + 100);
  EXPECT_EQ(ReadAll(value), (Read{{{L"C:\\a", 1}, {L"C:\\b", 2}}, false}));
}

TEST(TrackedFileListReaderTest, RecordsLengthLeadsOnWhateverItsPathSays) {
  Bytes value = ValueOf(ListOf({{L"C:\\abc", 1}, {L"C:\\b", 2}}));
  Put<std::uint16_t>(value, kHeader + 12, 8);  // a path shorter than its record
  EXPECT_EQ(ReadAll(value), (Read{{{L"C:\\a", 1}, {L"C:\\b", 2}}, false}));
  Put<std::uint16_t>(value, kHeader + 12, 9);  // half a code unit
  EXPECT_EQ(ReadAll(value), (Read{{{L"C:\\a", 1}, {L"C:\\b", 2}}, false}));
}

TEST(TrackedFileListReaderTest, CutAtAnyLengthReadsTheWholeRecordsAndIsDamaged) {
  const Bytes whole = ValueOf(ListOf({{L"C:\\a", 1}, {L"C:\\bb", 2}}));
  const std::size_t first_end = kHeader + 14 + 8;
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    Read expected = {{}, true};
    if (length >= first_end) expected.files.emplace_back(L"C:\\a", 1);
    ASSERT_EQ(ReadAll(cut), expected) << length;
    ASSERT_EQ(TrackedFileListReader(cut).volume_guid().has_value(), length >= kHeader) << length;
  }
}

TEST(TrackedFileListReaderTest, CountBeyondTheRecordsIsDamage) {
  Bytes value = ValueOf(ListOf({{L"C:\\a", 1}, {L"C:\\b", 2}}));
  Put<std::uint32_t>(value, kAtCount, 0xFFFFFFFF);
  EXPECT_EQ(ReadAll(value), (Read{{{L"C:\\a", 1}, {L"C:\\b", 2}}, true}));
}

TEST(TrackedFileListReaderTest, RecordThatLeadsNowhereEndsTheWalk) {
  for (const std::uint32_t length : {0u, 45u, 46u, 0x80000000u, 0xFFFFFFFFu}) {
    Bytes value = ValueOf(ListOf({{L"C:\\a", 1}, {L"C:\\b", 2}}));
    ASSERT_EQ(value.size() - kHeader, 44u);
    Put(value, kHeader, length);
    EXPECT_EQ(ReadAll(value), (Read{{{L"C:\\a", 1}}, true})) << length;
  }
}

}  // namespace
}  // namespace zel
