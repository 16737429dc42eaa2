#include "bitmap/change/change_bitmap.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

namespace zel {
namespace {

using Owed = ChangeBitmap::Owed;

constexpr std::uint32_t kBlock = 4096;
constexpr std::uint32_t kBits = 128;
constexpr std::uint64_t kFileSize = std::uint64_t{kBits} * kBlock;

void SetPlain(const RtlBitmap* bitmap, std::uint32_t first, std::uint32_t count) {
  SetBitsInRange(*bitmap, first, count);
}

class ChangeBitmapTest : public ::testing::Test {
 protected:
  static BitmapFileHeader MakeHeader() {
    BitmapFileHeader header = {};
    header.FileSize = kFileSize;
    return header;
  }
  [[nodiscard]] bool Bit(std::uint32_t bit) const {
    return (words_[bit / 64] >> bit % 64 & 1) != 0;
  }
  [[nodiscard]] std::vector<std::uint32_t> Bits() const {
    std::vector<std::uint32_t> bits;
    for (std::uint32_t bit = 0; bit < kBits; ++bit) {
      if (Bit(bit)) bits.push_back(bit);
    }
    return bits;
  }
  [[nodiscard]] RtlBitmap Descriptor() {
    return {kBits, reinterpret_cast<std::uint32_t*>(words_.data())};
  }

  BitmapFileHeader header_ = MakeHeader();
  std::array<std::uint64_t, kBits / 64> words_ = {};
  ChangeBitmap changes_{header_, kBlock, Descriptor(), SetPlain};
};

using Numbers = std::vector<std::uint32_t>;

TEST_F(ChangeBitmapTest, WriteSetsItsBlocksAndStampsAndOwesNothing) {
  const auto recorded = changes_.RecordWrite(2 * kBlock - 1, 2, 77);
  EXPECT_EQ(recorded.owed, Owed::kNothing);
  EXPECT_FALSE(recorded.block_number_cut);
  EXPECT_EQ(Bits(), (Numbers{1, 2}));
  EXPECT_EQ(header_.LastUpdateTime, 77u);
  EXPECT_EQ(header_.SizeChanged, 0);
  EXPECT_EQ(header_.Unreliable, 0);
}

TEST_F(ChangeBitmapTest, FileThatGoesOnGrowingOwesItsMarkOnce) {
  EXPECT_EQ(changes_.RecordWrite(kFileSize - 1, 2, 1).owed, Owed::kHeaderToDevice);
  EXPECT_EQ(header_.SizeChanged, 1);
  EXPECT_EQ(changes_.RecordWrite(kFileSize, kBlock, 2).owed, Owed::kNothing);
  EXPECT_EQ(changes_.RecordSize(kFileSize + kBlock, 3), Owed::kNothing);
  EXPECT_EQ(header_.LastUpdateTime, 3u);
  EXPECT_EQ(Bits(), (Numbers{kBits - 1}));
}

TEST_F(ChangeBitmapTest, BlockNumberOfMoreThan32BitsIsSaidAndMarked) {
  const auto recorded = changes_.RecordWrite((std::uint64_t{1} << 32) * kBlock, 1, 1);
  EXPECT_TRUE(recorded.block_number_cut);
  EXPECT_EQ(recorded.owed, Owed::kHeaderToDevice);
}

TEST_F(ChangeBitmapTest, SizeOfTheStartIsNoChange) {
  EXPECT_EQ(changes_.RecordSize(kFileSize, 9), Owed::kNothing);
  EXPECT_EQ(header_.LastUpdateTime, 0u);
  EXPECT_EQ(header_.SizeChanged, 0);
}

TEST_F(ChangeBitmapTest, SmallerSizeSetsAllFromTheNewEndOn) {
  EXPECT_EQ(changes_.RecordSize((kBits - 2) * kBlock - 1, 9), Owed::kHeaderToDevice);
  EXPECT_EQ(Bits(), (Numbers{kBits - 3, kBits - 2, kBits - 1}));
  EXPECT_EQ(header_.FileSize, kFileSize);  // another report of this size is one again
}

TEST_F(ChangeBitmapTest, DistrustMarksAndSetsNoBit) {
  EXPECT_EQ(changes_.Distrust(5), Owed::kHeaderToDevice);
  EXPECT_EQ(changes_.Distrust(6), Owed::kNothing);
  EXPECT_EQ(header_.Unreliable, 1);
  EXPECT_EQ(header_.SizeChanged, 0);
  EXPECT_EQ(header_.LastUpdateTime, 6u);
  EXPECT_TRUE(Bits().empty());
}

// The header may lie in a file that another program has mapped.
TEST_F(ChangeBitmapTest, NumbersThatChangeInTheHeaderChangeNothing) {
  header_.BlockSize = 0;
  header_.BitmapSize = 1u << 30;
  header_.FileSize = 0;
  EXPECT_EQ(changes_.RecordSize(kFileSize, 9), Owed::kNothing);
  EXPECT_EQ(changes_.RecordWrite(kFileSize - 1, 1u << 31, 9).owed, Owed::kHeaderToDevice);
  EXPECT_EQ(Bits(), (Numbers{kBits - 1}));
}

TEST_F(ChangeBitmapTest, BitsAreSetInTheCallersWay) {
  static int calls;
  calls = 0;
  ChangeBitmap changes(header_, kBlock, Descriptor(),
                       [](const RtlBitmap*, std::uint32_t, std::uint32_t) { ++calls; });
  changes.RecordWrite(0, 1, 1);
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(Bits().empty());
}

// Eight threads on neighbouring blocks, each mark of them new to one of them.
TEST_F(ChangeBitmapTest, NothingIsLostBetweenThreadsAndOneOwesEachMark) {
  constexpr std::uint32_t kThreads = 8;
  std::atomic<int> owed{0};
  const auto note = [&](Owed owes) { owed += owes == Owed::kHeaderToDevice ? 1 : 0; };
  {
    std::vector<std::jthread> threads;
    for (std::uint32_t thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([&, thread] {
        for (std::uint32_t bit = thread; bit < kBits - 8; bit += kThreads) {
          note(changes_.RecordWrite(std::uint64_t{bit} * kBlock, 1, bit).owed);
        }
        note(changes_.RecordSize(kFileSize + thread + 1, thread));
        note(changes_.Distrust(thread));
      });
    }
  }
  EXPECT_EQ(owed, 2);
  EXPECT_EQ(Bits().size(), kBits - 8);
}

}  // namespace
}  // namespace zel
