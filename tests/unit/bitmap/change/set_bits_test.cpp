#include "bitmap/change/set_bits.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <thread>
#include <vector>

namespace zel {
namespace {

using Bits = std::vector<bool>;
using Bytes = std::vector<std::uint8_t>;

// The bits of a bitmap in a block of memory that ends with the bitmap's last byte, so that
// AddressSanitizer sees an access behind it. `shift` bytes of the block go before it.
class TestBitmap {
 public:
  explicit TestBitmap(std::uint32_t bits, std::size_t shift = 0, std::uint8_t fill = 0)
      : size_bytes_((std::size_t{bits} + 7) / 8),
        shift_(shift),
        memory_(static_cast<std::uint8_t*>(std::malloc(shift + size_bytes_))),
        bitmap_{bits, reinterpret_cast<std::uint32_t*>(memory_ + shift)} {
    std::memset(memory_, 0xA5, shift);
    std::memset(memory_ + shift, fill, size_bytes_);
  }
  ~TestBitmap() { std::free(memory_); }
  TestBitmap(const TestBitmap&) = delete;
  TestBitmap& operator=(const TestBitmap&) = delete;

  const RtlBitmap& get() const { return bitmap_; }
  const std::uint8_t* bytes() const { return memory_ + shift_; }
  std::size_t size_bytes() const { return size_bytes_; }
  Bytes ToBytes() const { return {bytes(), bytes() + size_bytes_}; }

  // All bits of all bytes, those behind the last one of the bitmap included.
  Bits ToBits() const {
    Bits bits;
    for (std::size_t i = 0; i < size_bytes_ * 8; ++i) {
      bits.push_back((bytes()[i / 8] >> i % 8 & 1) != 0);
    }
    return bits;
  }

  bool FrontIsUntouched() const {
    return std::all_of(memory_, memory_ + shift_, [](std::uint8_t byte) { return byte == 0xA5; });
  }

 private:
  std::size_t size_bytes_;
  std::size_t shift_;
  std::uint8_t* memory_;
  RtlBitmap bitmap_;
};

TEST(SetBitsInRangeTest, OneBitAtIndexSevenSetsTheHighestBitOfByteZero) {
  const TestBitmap bitmap(32);
  EXPECT_EQ(SetBitsInRange(bitmap.get(), 7, 1), SetBitsOutcome::kWithin);
  EXPECT_EQ(bitmap.ToBytes(), (Bytes{0x80, 0, 0, 0}));
}

TEST(SetBitsInRangeTest, TenBitsFromIndexSevenSetThreeBytes) {
  const TestBitmap bitmap(32);
  EXPECT_EQ(SetBitsInRange(bitmap.get(), 7, 10), SetBitsOutcome::kWithin);
  EXPECT_EQ(bitmap.ToBytes(), (Bytes{0x80, 0xFF, 0x01, 0}));
}

TEST(SetBitsInRangeTest, RangePastTheEndSetsUpToTheLastBit) {
  const TestBitmap bitmap(20);
  EXPECT_EQ(SetBitsInRange(bitmap.get(), 18, 5), SetBitsOutcome::kClipped);
  EXPECT_EQ(bitmap.ToBytes(), (Bytes{0, 0, 0x0C}));
}

TEST(SetBitsInRangeTest, RangeUpToTheEndIsWithin) {
  const TestBitmap bitmap(20);
  EXPECT_EQ(SetBitsInRange(bitmap.get(), 18, 2), SetBitsOutcome::kWithin);
  EXPECT_EQ(bitmap.ToBytes(), (Bytes{0, 0, 0x0C}));
}

TEST(SetBitsInRangeTest, RangeThatBeginsAtTheEndIsClippedToNothing) {
  const TestBitmap bitmap(24);
  EXPECT_EQ(SetBitsInRange(bitmap.get(), 24, 1), SetBitsOutcome::kClipped);
  EXPECT_EQ(bitmap.ToBytes(), (Bytes{0, 0, 0}));
}

TEST(SetBitsInRangeTest, RangeThatBeginsBehindTheEndIsBeyond) {
  const TestBitmap bitmap(24);
  EXPECT_EQ(SetBitsInRange(bitmap.get(), 25, 1), SetBitsOutcome::kBeyond);
  EXPECT_EQ(SetBitsInRange(bitmap.get(), 0xFFFFFFFF, 0), SetBitsOutcome::kBeyond);
  EXPECT_EQ(bitmap.ToBytes(), (Bytes{0, 0, 0}));
}

TEST(SetBitsInRangeTest, RangeWhoseSumWrapsPassesTheBoundsTestAndStaysInside) {
  const TestBitmap bitmap(72);
  EXPECT_EQ(SetBitsInRange(bitmap.get(), 70, 0xFFFFFFFF), SetBitsOutcome::kWithin);
  EXPECT_EQ(bitmap.ToBytes(), (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0xC0}));
  EXPECT_EQ(SetBitsInRange(bitmap.get(), 0xFFFFFFFF, 2), SetBitsOutcome::kWithin);
  EXPECT_EQ(bitmap.ToBytes(), (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0xC0}));
}

TEST(SetBitsInRangeTest, EmptyRangeSetsNothing) {
  const TestBitmap bitmap(40);
  for (std::uint32_t first = 0; first <= 40; ++first) {
    EXPECT_EQ(SetBitsInRange(bitmap.get(), first, 0), SetBitsOutcome::kWithin);
  }
  EXPECT_EQ(bitmap.ToBytes(), Bytes(5));
}

TEST(SetBitsInRangeTest, EmptyBitmapIsLeftAlone) {
  EXPECT_EQ(SetBitsInRange(RtlBitmap{}, 0, 0), SetBitsOutcome::kWithin);
  EXPECT_EQ(SetBitsInRange(RtlBitmap{}, 0, 9), SetBitsOutcome::kClipped);
  EXPECT_EQ(SetBitsInRange(RtlBitmap{}, 9, 9), SetBitsOutcome::kBeyond);
}

SetBitsOutcome ExpectedOutcome(std::uint32_t size, std::uint32_t first, std::uint32_t count) {
  if (first + count <= size) return SetBitsOutcome::kWithin;
  return first > size ? SetBitsOutcome::kBeyond : SetBitsOutcome::kClipped;
}

void ExpectLikeThePlainArray(std::uint32_t size, std::size_t shift, std::uint8_t fill,
                             std::uint32_t first, std::uint32_t count) {
  const TestBitmap bitmap(size, shift, fill);
  Bits expected = bitmap.ToBits();
  for (std::uint32_t bit = first; bit < std::min(first + count, size); ++bit) expected[bit] = true;
  const SetBitsOutcome outcome = SetBitsInRange(bitmap.get(), first, count);
  ASSERT_EQ(outcome, ExpectedOutcome(size, first, count))
      << size << " bits: " << first << ", " << count;
  ASSERT_EQ(bitmap.ToBits(), expected) << size << " bits: " << first << ", " << count;
  ASSERT_TRUE(bitmap.FrontIsUntouched()) << size << " bits: " << first << ", " << count;
}

TEST(SetBitsInRangeTest, EveryRangeOfUpToSeventyBitsIsLikeThePlainArray) {
  for (const std::uint32_t size :
       {1, 8, 9, 24, 25, 32, 40, 41, 56, 57, 64, 70, 96, 120, 121, 128, 135}) {
    for (const std::size_t shift : {0, 8}) {
      for (std::uint32_t first = 0; first <= size + 1; ++first) {
        for (std::uint32_t count = 0; count <= 70; ++count) {
          ExpectLikeThePlainArray(size, shift, 0x00, first, count);
          ExpectLikeThePlainArray(size, shift, 0x52, first, count);
        }
      }
    }
  }
}

TEST(SetBitsInRangeTest, EveryAlignmentOfALongRangeIsLikeThePlainArray) {
  for (std::uint32_t first = 0; first <= 130; ++first) {
    for (std::uint32_t end = 700; end <= 840; ++end) {
      ExpectLikeThePlainArray(832, 8 * (first % 2), 0x52, first, end - first);
    }
  }
}

struct Range {
  std::uint32_t first;
  std::uint32_t end;
};

// The union of `ranges`, as ranges with gaps between them.
std::vector<Range> Unite(std::vector<Range> ranges) {
  std::ranges::sort(ranges, {}, &Range::first);
  std::vector<Range> united;
  for (const Range& range : ranges) {
    if (united.empty() || range.first > united.back().end) {
      united.push_back(range);
    } else {
      united.back().end = std::max(united.back().end, range.end);
    }
  }
  return united;
}

bool IsSet(const TestBitmap& bitmap, std::uint32_t bit) {
  return (bitmap.bytes()[bit / 8] >> bit % 8 & 1) != 0;
}

// Bit by bit, and byte by byte where a byte lies inside.
bool IsAllSet(const TestBitmap& bitmap, Range range) {
  std::uint32_t bit = range.first;
  while (bit < range.end) {
    if (bit % 8 == 0 && bit + 8 <= range.end) {
      if (bitmap.bytes()[bit / 8] != 0xFF) return false;
      bit += 8;
    } else if (!IsSet(bitmap, bit++)) {
      return false;
    }
  }
  return true;
}

std::uint64_t CountSet(const TestBitmap& bitmap) {
  std::uint64_t count = 0;
  for (std::size_t i = 0; i < bitmap.size_bytes(); ++i) count += std::popcount(bitmap.bytes()[i]);
  return count;
}

// A number below `limit`, small ones as likely as large ones of any magnitude.
std::uint32_t RandomMagnitude(std::mt19937& random, std::uint32_t limit) {
  const std::uint32_t cut = limit >> random() % 24;
  return cut == 0 ? 0 : random() % cut;
}

// Whatever order and overlap: exactly the union is set, when every range of it is and no other bit.
TEST(SetBitsInRangeTest, MillionRandomRangesSetTheirUnionAndNothingElse) {
  constexpr int kBitmaps = 1000;
  constexpr int kRangesEach = 1000;
  std::mt19937 random(20'260'131);
  for (int i = 0; i < kBitmaps; ++i) {
    const std::uint32_t size = 1 + RandomMagnitude(random, 8u << 20);
    const TestBitmap bitmap(size, random() % 2 * 8);
    const std::uint32_t longest = std::max(1u, size >> random() % 12);
    std::vector<Range> ranges;
    for (int j = 0; j < kRangesEach; ++j) {
      const std::uint32_t first = random() % size;
      const std::uint32_t count = 1 + RandomMagnitude(random, longest);
      ranges.push_back({first, std::min(first + count, size)});
      SetBitsInRange(bitmap.get(), first, count);
    }
    std::uint64_t united_bits = 0;
    for (const Range& range : Unite(ranges)) {
      ASSERT_TRUE(IsAllSet(bitmap, range)) << size << ": " << range.first << ", " << range.end;
      united_bits += range.end - range.first;
    }
    ASSERT_EQ(CountSet(bitmap), united_bits) << size;
  }
}

constexpr int kThreads = 8;

// Each thread runs set(thread, round) in step with the others. The step is counted by hand:
// MinGW's std::barrier loses a wake-up now and then.
template <class Set>
void OnAllThreads(int rounds, Set set) {
  std::atomic<int> arrived = 0;
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int round = 0; round < rounds; ++round) {
        ++arrived;
        while (arrived < (round + 1) * kThreads) std::this_thread::yield();
        set(thread, round);
      }
    });
  }
}

TEST(SetBitsInRangeTest, ThreadsOnNeighbouringBitsOfTheSameBytesLoseNone) {
  constexpr std::uint32_t kBitsEach = 2000;
  constexpr int kRounds = 30;
  std::vector<std::unique_ptr<TestBitmap>> owned;
  for (int round = 0; round < kRounds; ++round) {
    owned.push_back(std::make_unique<TestBitmap>(kBitsEach * kThreads));
  }
  OnAllThreads(kRounds, [&](int thread, int round) {
    for (std::uint32_t i = 0; i < kBitsEach; ++i) {
      SetBitsInRange(owned[round]->get(), i * kThreads + thread, 1);
    }
  });
  for (const auto& bitmap : owned) {
    ASSERT_EQ(bitmap->ToBytes(), Bytes(bitmap->size_bytes(), 0xFF));
  }
}

// Long ranges meet in the middle of bytes and run over bits that others set meanwhile.
TEST(SetBitsInRangeTest, ThreadsOnLongAndSingleBitRangesLoseNone) {
  constexpr std::uint32_t kStripe = 4099;  // bits; no multiple of 8
  constexpr int kRounds = 30;
  constexpr int kStripes = 16;
  std::vector<std::unique_ptr<TestBitmap>> owned;
  for (int round = 0; round < kRounds; ++round) {
    owned.push_back(std::make_unique<TestBitmap>(kStripe * kStripes));
  }
  OnAllThreads(kRounds, [&](int thread, int round) {
    const RtlBitmap& bitmap = owned[round]->get();
    if (thread % 2 == 0) {  // a quarter of the odd stripes each
      for (int stripe = thread / 2; stripe < kStripes; stripe += kThreads / 2) {
        if (stripe % 2 != 0) SetBitsInRange(bitmap, stripe * kStripe, kStripe);
      }
    } else {  // a quarter of all bits but every seventh, one by one
      for (std::uint32_t bit = thread / 2; bit < kStripe * kStripes; bit += kThreads / 2) {
        if (bit % 7 != 0) SetBitsInRange(bitmap, bit, 1);
      }
    }
  });
  for (const auto& bitmap : owned) {
    for (std::uint32_t bit = 0; bit < kStripe * kStripes; ++bit) {
      ASSERT_EQ(IsSet(*bitmap, bit), bit % 7 != 0 || bit / kStripe % 2 != 0) << bit;
    }
  }
}

}  // namespace
}  // namespace zel
