// Lookups that set bits, creation and deletion, and an idle scan without a time-out, all at once.
// ZEL_STRESS_SECONDS sets how long; 5 without it.
#include <array>
#include <bit>
#include <cstdlib>
#include <map>
#include <random>
#include <thread>

#include "bitmap/bitmap_manager.h"
#include "bitmap/create_bitmap.h"
#include "config/settings.h"
#include "tests/integration/support/bitmap_fixture.h"
#include "tests/integration/support/handle_count.h"
#include "win32/file_time.h"

namespace zel {
namespace {

using test::kVolume;
using test::ReadFileBytes;

constexpr FileId kFiles = 2;
constexpr std::uint32_t kBitmapBytes = 65'000;
constexpr std::uint32_t kBits = kBitmapBytes * 8;

int Seconds() {
  const char* const text = std::getenv("ZEL_STRESS_SECONDS");
  return text == nullptr ? 5 : std::max(1, std::atoi(text));
}

// The bits that one thread set, by the bitmap file's path. Ids would not do: the file system gives
// the id of a deleted file to a new one.
using Shadow = std::map<std::wstring, std::string>;

struct Counts {
  std::uint64_t lookups = 0;
  std::uint64_t ranges = 0;
  std::uint64_t misses = 0;  // lookups without the bitmap that lasts
};

class BitmapStressTest : public test::BitmapFixture {
 protected:
  BitmapStressTest() {
    BitmapIdleTimeout = 0;
    for (FileId file = 0; file < kFiles; ++file) Create(file);
    for (const auto& [file, infos] : ListAllBitmaps()) lasting_.push_back(infos.at(0).BitmapId);
  }

  static bool Create(FileId file) {
    BitmapId id;
    return CreateNewBitmap(kVolume, file, kBitmapBytes, 4096, kBits * 4096ull, id);
  }

  // Sets bits through the pins of one random file at a time: the next ones of the file, which the
  // two threads take in turn, so that they meet in every byte; and some ranges anywhere.
  void SetBits(unsigned seed, Shadow& shadow, Counts& counts) {
    std::mt19937 random(seed);
    while (!stop_) {
      const FileId file = random() % kFiles;
      const PinnedBitmaps pinned = FindBitmapsForFile(kVolume, file);
      ++counts.lookups;
      if (!Contains(pinned, lasting_[file])) ++counts.misses;
      for (int range = 0; range < 2000; ++range, ++counts.ranges) {
        const bool anywhere = range % 400 == 0;
        const std::uint32_t first = (anywhere ? random() : next_bit_[file]++) % kBits;
        const std::uint32_t count = anywhere ? std::min(random() % 200, kBits - first) : 1;
        for (const PinnedBitmap& bitmap : pinned) SetRange(*bitmap, first, count, shadow);
      }
    }
  }

  static bool Contains(const PinnedBitmaps& pinned, BitmapId id) {
    return std::ranges::any_of(pinned, [=](const auto& bitmap) { return bitmap->BitmapId == id; });
  }

  static void SetRange(BitmapData& bitmap, std::uint32_t first, std::uint32_t count,
                       Shadow& shadow) {
    bitmap.Changes->RecordWrite(first * std::uint64_t{4096}, count * 4096, SystemTimeNow());
    bitmap.HasChanges = true;
    std::string& mine = shadow.try_emplace(bitmap.FileName, kBitmapBytes, '\0').first->second;
    for (std::uint32_t bit = first; bit < first + count; ++bit) {
      mine[bit / 8] = static_cast<char>(mine[bit / 8] | 1 << bit % 8);
    }
  }

  // Makes bitmaps and deletes them again, in no order; the lasting ones stay.
  void CreateAndDelete(std::uint64_t& created) {
    std::mt19937 random(3);
    while (!stop_) {
      created += Create(random() % kFiles) ? 1 : 0;
      for (const auto& [file, infos] : ListAllBitmaps()) {
        for (const BitmapInfo& info : infos) {
          const bool lasts = std::ranges::find(lasting_, info.BitmapId) != lasting_.end();
          if (!lasts && random() % 3 == 0) Delete(info.BitmapId);
        }
      }
    }
  }

  // With a pause, since a lock of Windows is not fair.
  void Scan(std::uint64_t& scans) {
    for (; !stop_; ++scans) {
      UnloadIdleBitmaps();
      ::Sleep(1);
    }
  }

  // The files on disk are those of the listing, and the bits in them those that the threads set.
  void ExpectBits(const std::array<Shadow, 2>& shadows) {
    std::size_t listed = 0;
    for (const auto& [file, infos] : ListAllBitmaps()) listed += infos.size();
    std::size_t found = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(cbt())) {
      if (!entry.is_regular_file()) continue;
      ++found;
      ExpectBitsOf(entry.path(), shadows);
    }
    EXPECT_EQ(found, listed);
  }

  static void ExpectBitsOf(const std::filesystem::path& path,
                           const std::array<Shadow, 2>& shadows) {
    const std::string bytes = ReadFileBytes(path);
    ASSERT_EQ(bytes.size(), test::kHeaderBytes + kBitmapBytes) << path;
    EXPECT_EQ(test::Get(bytes, test::kAtClosedCleanly, 1), 1u) << path;
    EXPECT_EQ(test::Get(bytes, test::kAtUnreliable, 1), 0u) << path;
    int lost = 0;
    int strange = 0;
    for (std::uint32_t byte = 0; byte < kBitmapBytes; ++byte) {
      std::uint8_t expected = 0;
      for (const Shadow& shadow : shadows) {
        const auto mine = shadow.find(path.wstring());
        if (mine != shadow.end()) expected |= static_cast<std::uint8_t>(mine->second[byte]);
      }
      const auto found = static_cast<std::uint8_t>(bytes[test::kHeaderBytes + byte]);
      lost += std::popcount(static_cast<std::uint8_t>(expected & ~found));
      strange += std::popcount(static_cast<std::uint8_t>(found & ~expected));
    }
    EXPECT_EQ(lost, 0) << path;
    EXPECT_EQ(strange, 0) << path;
  }

  std::vector<BitmapId> lasting_;
  std::array<std::atomic<std::uint32_t>, kFiles> next_bit_ = {};
  std::atomic<bool> stop_{false};
};

TEST_F(BitmapStressTest, NoBitIsLostAndNoHandleIsLeft) {
  UnloadIdleBitmaps();
  std::array<Shadow, 2> shadows;
  std::array<Counts, 2> counts;
  std::uint64_t created = 0;
  std::uint64_t scans = 0;
  const auto run = [&](int seconds) {
    stop_ = false;
    std::jthread writers[] = {
        std::jthread([&] { SetBits(1, shadows[0], counts[0]); }),
        std::jthread([&] { SetBits(2, shadows[1], counts[1]); }),
    };
    const std::jthread creator([&] { CreateAndDelete(created); });
    const std::jthread scanner([&] { Scan(scans); });
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    stop_ = true;
  };
  run(1);  // what the run-time library opens once is open afterwards
  UnloadIdleBitmaps();
  const std::size_t handles = test::HandleCount();
  run(Seconds());
  UnloadIdleBitmaps();
  // The run-time library opens a handle for a lock of its own when threads first meet in it; what
  // each of the many lookups, creations or scans leaves would be more.
  EXPECT_LE(test::HandleCount(), handles + 4);
  ShutdownBitmapManager();
  ExpectBits(shadows);
  EXPECT_GT(counts[0].ranges, 0u);
  EXPECT_GT(counts[1].ranges, 0u);
  EXPECT_EQ(counts[0].misses + counts[1].misses, 0u);
  EXPECT_GT(created, 0u);
  std::printf("lookups %llu, ranges set %llu, bitmaps created %llu, scans %llu\n",
              counts[0].lookups + counts[1].lookups, counts[0].ranges + counts[1].ranges, created,
              scans);
}

}  // namespace
}  // namespace zel
