#include "client/tracked_files_reader.h"

#include <gmock/gmock.h>

#include <random>

#include "rpc/tracked_files_stream.h"

namespace zel {
namespace {

using ::testing::IsEmpty;
using ::testing::IsNull;
using ::testing::StrEq;

using Stream = std::vector<std::byte>;

// The stream that the service writes of `files`.
Stream Write(const std::vector<TrackedFile>& files) {
  Stream stream;
  TrackedFilesWriter writer([&](std::span<const std::byte> piece) {
    stream.insert(stream.end(), piece.begin(), piece.end());
  });
  writer.PutFileCount(static_cast<std::uint32_t>(files.size()));
  for (const TrackedFile& file : files) {
    writer.PutFile(file.key.volume, file.key.file_id, file.path,
                   static_cast<std::uint32_t>(file.bitmaps.size()));
    for (const TrackedFile::Bitmap& bitmap : file.bitmaps) {
      writer.PutBitmap(bitmap.file_size, bitmap.creation_time, bitmap.bitmap_id);
    }
  }
  return stream;
}

TrackedFile SomeFile() {
  return {.key = {{1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}}, 12},
          .path = L"C:\\data\\file",
          .bitmaps = {{13, 14, 15}, {0xFFFFFFFF, ~0ull, ~0ull}}};
}

TEST(ReadTrackedFilesTest, ReadsWhatTheServiceWrites) {
  std::mt19937 random(1);
  for (int round = 0; round < 200; ++round) {
    std::vector<TrackedFile> files(random() % 5);
    for (TrackedFile& file : files) {
      file.key = {{1, 2, static_cast<std::uint16_t>(random()), {}}, random()};
      // Paths of even and odd length, so that later values lie anywhere.
      for (auto left = random() % 40; left > 0; --left) {
        file.path += static_cast<wchar_t>(1 + random() % 0xFFFF);
      }
      file.bitmaps.resize(random() % 4);
      for (auto& bitmap : file.bitmaps) {
        bitmap = {static_cast<std::uint32_t>(random()), random(), random()};
      }
    }
    std::vector<TrackedFile> read = {SomeFile()};
    ASSERT_THAT(ReadTrackedFiles(Write(files), read), IsNull());
    ASSERT_EQ(read, files);
  }
}

TEST(ReadTrackedFilesTest, EveryTruncationIsFoundAndKeepsTheFilesBefore) {
  const Stream whole = Write({SomeFile(), SomeFile()});
  const std::size_t first = Write({SomeFile()}).size();
  for (std::size_t length = 0; length < whole.size(); ++length) {
    // A block of its own, for AddressSanitizer.
    const Stream cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    std::vector<TrackedFile> files;
    ASSERT_NE(ReadTrackedFiles(cut, files), nullptr) << length;
    ASSERT_EQ(files.size(), length < first ? 0u : 1u) << length;
  }
}

TEST(ReadTrackedFilesTest, FaultsAreTold) {
  const auto fault = [](const Stream& stream) {
    std::vector<TrackedFile> files;
    return ReadTrackedFiles(stream, files);
  };
  const Stream whole = Write({SomeFile()});
  const auto cut = [&](std::size_t length) {
    return fault(Stream(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)));
  };
  EXPECT_THAT(cut(3), StrEq("the stream ends before its number of files"));
  EXPECT_THAT(cut(27), StrEq("the stream ends in a file's identity"));
  EXPECT_THAT(cut(28), StrEq("the stream ends in a path"));
  EXPECT_THAT(cut(55), StrEq("the stream ends before a file's number of bitmaps"));
  EXPECT_THAT(cut(whole.size() - 1), StrEq("the stream ends in a bitmap"));
  Stream longer = whole;
  longer.push_back({});
  EXPECT_THAT(fault(longer), StrEq("there is more behind the last file"));
}

TEST(ReadTrackedFilesTest, CountsBeyondTheStreamTakeNoMemory) {
  Stream stream(4, std::byte{0xFF});
  std::vector<TrackedFile> files = {SomeFile()};
  EXPECT_NE(ReadTrackedFiles(stream, files), nullptr);
  EXPECT_THAT(files, IsEmpty());
  EXPECT_LT(files.capacity(), 1000u);
}

}  // namespace
}  // namespace zel
