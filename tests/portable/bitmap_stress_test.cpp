// Eight threads over loads, writes, scans, deletions and synchronizations of the real cache and
// records, then a stop; and what a power cut would leave after each synchronization.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include "bitmap/bitmap_sweep.h"
#include "bitmap/flusher.h"
#include "bitmap/record_changes.h"
#include "config/settings.h"
#include "tests/portable/support/memory_bitmap_files.h"

namespace zel {
namespace {

using test::BitmapContents;
using test::FileOperation;
using test::Files;
using test::kBlockSize;
using test::kVolume;

constexpr std::uint32_t kBits = 256;
constexpr std::size_t kFiles = 12;
constexpr FileId kFirstFile = 0x1000;
constexpr FileId kPassingFile = 0x2000;  // whose bitmaps come and go

// The blocks that writes have reported for one file, once their calls have returned.
struct Shadow {
  std::array<std::atomic<bool>, kBits> written{};
};

class BitmapStressTest : public ::testing::Test {
 protected:
  BitmapStressTest() {
    BitmapIdleTimeout = 0;
    for (std::size_t i = 0; i < kFiles; ++i) {
      paths_.push_back(Files().Create(kFirstFile + i, 1 + i, kBits));
    }
    StartFlusher();
  }

  void WriteAtRandom(unsigned seed) {
    std::mt19937 random(seed);
    while (!stop_) {
      const std::size_t file = random() % kFiles;
      const std::uint32_t block = random() % kBits;
      UpdateBitmapsForFile(kFirstFile + file, kVolume, std::uint64_t{block} * kBlockSize, 1);
      shadows_[file].written[block] = true;
      UpdateBitmapsForFile(kPassingFile, kVolume, std::uint64_t{block} * kBlockSize, 1);
      if (random() % 64 == 0) (void)FindBitmapsForFile(kVolume, kFirstFile + random() % kFiles);
      ++writes_;
    }
  }

  void Scan() {
    for (; !stop_; ++scans_) UnloadIdleBitmaps();
  }

  void CreateAndDelete() {
    std::mt19937 random(7);
    for (BitmapId id = 1000; !stop_; ++id) {
      const std::wstring path = Files().Create(kPassingFile, id, kBits);
      if (random() % 2 == 0) (void)GetBitmapById(id);
      VolumeGuid volume;
      FileId owner;
      DeleteBitmapById(random() % 4 == 0 ? id - random() % 3 : id, volume, owner);
      if (random() % 16 == 0) DiscardBitmapsOfFile({kVolume, kPassingFile});
      ++deletions_;
    }
  }

  void List() {
    while (!stop_) {
      for (std::size_t i = 0; i < kFiles; ++i) {
        const auto listed = ListAllBitmaps();
        const auto entry = listed.find({kVolume, kFirstFile + i});
        if (entry == listed.end() || entry->second.size() != 1) ++wrong_;
        if (!GetBitmapById(1 + i)) ++wrong_;
      }
    }
  }

  // What was reported before a synchronization is on the device after it, or the device's header
  // says that the bitmap cannot be trusted.
  void SynchronizeAndCut() {
    for (; !stop_; ++synchronizations_) {
      std::array<std::array<bool, kBits>, kFiles> before;
      for (std::size_t i = 0; i < kFiles; ++i) {
        for (std::uint32_t bit = 0; bit < kBits; ++bit) before[i][bit] = shadows_[i].written[bit];
      }
      const RecordedReports reports;
      while (!reports.AreSafe() && !stop_) std::this_thread::yield();
      if (stop_) return;
      for (std::size_t i = 0; i < kFiles; ++i) {
        const BitmapContents device = Files().OnDevice(paths_[i]);
        if (!device.IsTrusted()) continue;
        ++trusted_;
        for (std::uint32_t bit = 0; bit < kBits; ++bit)
          wrong_ += before[i][bit] && !device.bits[bit];
      }
    }
  }

  void ExpectEveryBitAfterTheStop() {
    for (std::size_t i = 0; i < kFiles; ++i) {
      const BitmapContents end = Files().OnDevice(paths_[i]);
      EXPECT_EQ(Files().InCache(paths_[i]).header.ClosedCleanly, 1) << i;
      EXPECT_EQ(end.header.Unreliable, 0) << i;
      for (std::uint32_t bit = 0; bit < kBits; ++bit) {
        EXPECT_EQ(end.bits[bit], shadows_[i].written[bit]) << i << ", " << bit;
      }
    }
  }

  static std::chrono::seconds Duration() {
    const char* const seconds = std::getenv("ZEL_STRESS_SECONDS");
    return std::chrono::seconds(seconds != nullptr ? std::atoi(seconds) : 3);
  }

  std::vector<std::wstring> paths_;
  std::array<Shadow, kFiles> shadows_;
  std::atomic<bool> stop_{false};
  std::atomic<std::uint64_t> writes_{0};
  std::atomic<std::uint64_t> scans_{0};
  std::atomic<std::uint64_t> deletions_{0};
  std::atomic<std::uint64_t> synchronizations_{0};
  std::atomic<std::uint64_t> trusted_{0};
  std::atomic<std::uint64_t> wrong_{0};
};

TEST_F(BitmapStressTest, NoBitIsLostBetweenLoadsWritesScansDeletionsAndTheStop) {
  {
    std::vector<std::jthread> threads;
    for (unsigned seed = 1; seed <= 4; ++seed)
      threads.emplace_back([=, this] { WriteAtRandom(seed); });
    threads.emplace_back([this] { Scan(); });
    threads.emplace_back([this] { CreateAndDelete(); });
    threads.emplace_back([this] { List(); });
    threads.emplace_back([this] { SynchronizeAndCut(); });
    std::this_thread::sleep_for(Duration());  // how long, decides nothing
    stop_ = true;
  }
  {
    std::vector<std::jthread> stops;
    for (int i = 0; i < 2; ++i) stops.emplace_back(UnloadAllBitmaps);
  }
  StopFlusher();
  EXPECT_EQ(wrong_, 0u);
  ExpectEveryBitAfterTheStop();
  EXPECT_GT(writes_, 0u);
  EXPECT_GT(scans_, 0u);
  EXPECT_GT(deletions_, 0u);
  std::printf(
      "%llu writes, %llu scans, %llu deletions, %llu synchronizations, %llu bitmaps trusted\n",
      static_cast<unsigned long long>(writes_), static_cast<unsigned long long>(scans_),
      static_cast<unsigned long long>(deletions_),
      static_cast<unsigned long long>(synchronizations_),
      static_cast<unsigned long long>(trusted_));
}

}  // namespace
}  // namespace zel
