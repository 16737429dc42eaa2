#include "tracking/tracked_file_list_value.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <utility>

#include "tests/unit/support/hex_dump.h"

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

std::string Text(const Bytes& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

template <class T>
void Put(Bytes& bytes, std::size_t offset, T value) {
  std::memcpy(bytes.data() + offset, &value, sizeof value);
}

template <class T>
T Get(const Bytes& bytes, std::size_t offset) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
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

Read Whole(const VolumeFileList& list) {
  return {{list.files().begin(), list.files().end()}, false};
}

// Any path of UTF-16 code units, lone surrogates included, but no NUL.
std::wstring RandomPath(std::mt19937& random, std::size_t length) {
  std::wstring path(length, L'\0');
  for (wchar_t& unit : path) {
    unit = static_cast<wchar_t>(random() % 4 == 0 ? 1 + random() % 0xFFFF : 'A' + random() % 58);
  }
  return path;
}

TEST(TrackedFileListValueTest, ExampleOfTheDocumentIsWhatTheCodeWrites) {
  const VolumeFileList list =
      ListOf({{L"D:\\\u00DCbung.vhdx", 0x00010000000000c7}, {L"D:\\Mail.pst", 0x000300000001a2b4}});
  const std::string written = Text(EncodeTrackedFileListValue(list));
  const test::HexDump dump = test::ReadHexDump(ZEL_DOCS "/operations.md", written.size());
  EXPECT_EQ(dump.lines, (written.size() + 15) / 16);
  EXPECT_EQ(dump.bytes, written);
}

TEST(TrackedFileListValueTest, OneRecordHasTheLengthZero) {
  const Bytes value = EncodeTrackedFileListValue(ListOf({{L"C:\\a", 5}}));
  EXPECT_EQ(value.size(), 22u + 14 + 2 * 4);
  EXPECT_EQ(Get<std::uint32_t>(value, kAtCount), 1u);
  EXPECT_EQ(Get<std::uint32_t>(value, kHeader), 0u);
}

TEST(TrackedFileListValueTest, EveryRecordButTheLastLeadsToTheNext) {
  const Bytes value =
      EncodeTrackedFileListValue(ListOf({{L"C:\\a", 1}, {L"C:\\bb", 2}, {L"C:\\ccc", 3}}));
  EXPECT_EQ(value.size(), 22u + 3 * 14 + 2 * (4 + 5 + 6));
  EXPECT_EQ(Get<std::uint32_t>(value, kHeader), 14u + 8);
  EXPECT_EQ(Get<std::uint32_t>(value, kHeader + 22), 14u + 10);
  EXPECT_EQ(Get<std::uint32_t>(value, kHeader + 22 + 24), 0u);
}

TEST(TrackedFileListValueTest, RandomListsReadBackEqualAndInOrder) {
  std::mt19937 random(1);
  for (int round = 0; round < 300; ++round) {
    VolumeFileList list(kVolume);
    for (std::size_t files = random() % 40; files > 0; --files) {
      list.Set(RandomPath(random, random() % 300), std::uint64_t{random()} << 32 | random());
    }
    ASSERT_EQ(ReadAll(EncodeTrackedFileListValue(list)), Whole(list)) << round;
  }
}

TEST(TrackedFileListValueTest, LongestPathsReadBackEqual) {
  std::mt19937 random(2);
  VolumeFileList list(kVolume);
  for (const std::size_t length : {32'000u, 32'000u, 32'766u, 32'767u}) {
    list.Set(RandomPath(random, length), random());
  }
  ASSERT_EQ(list.files().size(), 4u);
  EXPECT_EQ(ReadAll(EncodeTrackedFileListValue(list)), Whole(list));
}

TEST(TrackedFileListValueTest, ReaderTellsTheVolumeAndMindsNoMagic) {
  Bytes value = EncodeTrackedFileListValue(ListOf({{L"C:\\a", 5}}));
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

TEST(TrackedFileListValueTest, ReaderGoesByTheCountAlone) {
  const Bytes whole = EncodeTrackedFileListValue(ListOf({{L"C:\\a", 1}, {L"C:\\b", 2}}));
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

TEST(TrackedFileListValueTest, RecordsLengthLeadsOnWhateverItsPathSays) {
  Bytes value = EncodeTrackedFileListValue(ListOf({{L"C:\\abc", 1}, {L"C:\\b", 2}}));
  Put<std::uint16_t>(value, kHeader + 12, 8);  // a path shorter than its record
  EXPECT_EQ(ReadAll(value), (Read{{{L"C:\\a", 1}, {L"C:\\b", 2}}, false}));
  Put<std::uint16_t>(value, kHeader + 12, 9);  // half a code unit
  EXPECT_EQ(ReadAll(value), (Read{{{L"C:\\a", 1}, {L"C:\\b", 2}}, false}));
}

TEST(TrackedFileListValueTest, CutAtAnyLengthReadsTheWholeRecordsAndIsDamaged) {
  const Bytes whole = EncodeTrackedFileListValue(ListOf({{L"C:\\a", 1}, {L"C:\\bb", 2}}));
  const std::size_t first_end = kHeader + 14 + 8;
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    Read expected = {{}, true};
    if (length >= first_end) expected.files.emplace_back(L"C:\\a", 1);
    ASSERT_EQ(ReadAll(cut), expected) << length;
    ASSERT_EQ(TrackedFileListReader(cut).volume_guid().has_value(), length >= kHeader) << length;
  }
}

TEST(TrackedFileListValueTest, CountBeyondTheRecordsIsDamage) {
  Bytes value = EncodeTrackedFileListValue(ListOf({{L"C:\\a", 1}, {L"C:\\b", 2}}));
  Put<std::uint32_t>(value, kAtCount, 0xFFFFFFFF);
  EXPECT_EQ(ReadAll(value), (Read{{{L"C:\\a", 1}, {L"C:\\b", 2}}, true}));
}

TEST(TrackedFileListValueTest, RecordThatLeadsNowhereEndsTheWalk) {
  for (const std::uint32_t length : {0u, 45u, 46u, 0x80000000u, 0xFFFFFFFFu}) {
    Bytes value = EncodeTrackedFileListValue(ListOf({{L"C:\\a", 1}, {L"C:\\b", 2}}));
    ASSERT_EQ(value.size() - kHeader, 44u);
    Put(value, kHeader, length);
    EXPECT_EQ(ReadAll(value), (Read{{{L"C:\\a", 1}}, true})) << length;
  }
}

}  // namespace
}  // namespace zel
