// Setting bits: against ntdll's RtlSetBits, which is not atomic, and memset; with four threads.
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "bench/bench.h"
#include "bitmap/zel_set_bits.h"

namespace zel::bench {
namespace {

// In blocks of 64 KiB the small bitmap is that of a file of 128 GiB, the large one of 1 TiB.
constexpr std::uint32_t kSmallBitmap = 2u << 20;
constexpr std::uint32_t kLargeBitmap = 16u << 20;
constexpr std::uint32_t kLargeRange = 8u << 20;
constexpr int kOffsets = 4096;
constexpr int kRounds = 15;

using RtlSetBitsFunction = void __stdcall(RtlBitmap* bitmap, ULONG first, ULONG count);

std::vector<std::uint32_t> RandomOffsets(std::uint32_t range_bits, unsigned seed) {
  std::mt19937 random(seed);
  const std::uint32_t bitmap_bits = range_bits == kLargeRange ? kLargeBitmap : kSmallBitmap;
  std::uniform_int_distribution<std::uint32_t> offset(0, bitmap_bits - range_bits);
  std::vector<std::uint32_t> offsets(kOffsets);
  std::generate(offsets.begin(), offsets.end(), [&] { return offset(random); });
  return offsets;
}

struct Times {
  double measured;
  double reference;
};

// The seconds of the fastest of `rounds` runs of both, which take turns so that a busy moment of
// the machine meets both. `prepare` goes before each run and is not counted.
template <class Measured, class Reference, class Prepare>
Times BestInTurns(int rounds, Measured measured, Reference reference, Prepare prepare) {
  constexpr double kNever = std::numeric_limits<double>::max();
  Times best = {kNever, kNever};
  for (int round = 0; round < rounds; ++round) {
    prepare();
    best.measured = std::min(best.measured, BestSeconds(1, measured));
    prepare();
    best.reference = std::min(best.reference, BestSeconds(1, reference));
  }
  return best;
}

class BitmapBench {
 public:
  BitmapBench() : words_(kLargeBitmap / 32, 1), bitmap_{kLargeBitmap, words_.data()} {}

  // Small ranges at random offsets, of which all but the first round finds the bits set.
  bool SmallRanges(std::uint32_t bits) {
    return SmallRanges(
        bits, "set before", 50, kRounds, [] {}, 2.0);
  }

  // The same on a bitmap that is cleared before each round. 64 bits lie in two words as a rule: two
  // locked operations, against none.
  bool FreshSmallRanges(std::uint32_t bits) {
    const auto clear = [&] { std::fill_n(words_.begin(), kSmallBitmap / 32, 0); };
    return SmallRanges(bits, "fresh", 1, 50 * kRounds, clear, bits == 64 ? 2.5 : 2.1);
  }

  bool LargeRangeByRtlSetBits() {
    // Both are bound by memory: as fast as each other, within what one run tells.
    return LargeRange("RtlSetBits", 0.95,
                      [&](std::uint32_t offset) { rtl_set_bits_(&bitmap_, offset, kLargeRange); });
  }

  bool LargeRangeByMemset() {
    auto* const bytes = reinterpret_cast<unsigned char*>(words_.data());
    return LargeRange("memset", 0.8, [=](std::uint32_t offset) {
      std::memset(bytes + offset / 8, 0xFF, kLargeRange / 8);
    });
  }

  // Four threads on one bitmap, against one thread that does the work of all.
  bool FourThreads(std::uint32_t bits) {
    const std::vector<std::uint32_t> offsets[] = {RandomOffsets(bits, 1), RandomOffsets(bits, 2),
                                                  RandomOffsets(bits, 3), RandomOffsets(bits, 4)};
    constexpr int kPasses = 1000;
    const auto work = [&](int number) {
      for (int pass = 0; pass < kPasses; ++pass) {
        for (const std::uint32_t offset : offsets[number]) ZelSetBits(&bitmap_, offset, bits);
      }
    };
    const auto times = BestInTurns(
        kRounds, [&] { OnThreads(4, work); },
        [&] {
          for (int number = 0; number < 4; ++number) work(number);
        },
        [] {});
    const std::string name = "ZelSetBits, " + std::to_string(bits) + " bits, 4 threads by 1";
    constexpr double kCalls = 4.0 * kPasses * kOffsets / 1e6;
    return Report(name.c_str(), kCalls / times.measured, kCalls / times.reference, "M/s",
                  Bound::kAtLeast, 1.0);
  }

 private:
  template <class Prepare>
  bool SmallRanges(std::uint32_t bits, const char* what, int passes, int rounds, Prepare prepare,
                   double limit) {
    const auto offsets = RandomOffsets(bits, bits);
    const auto times = BestInTurns(
        rounds,
        [&] {
          for (int pass = 0; pass < passes; ++pass) {
            for (const std::uint32_t offset : offsets) ZelSetBits(&bitmap_, offset, bits);
          }
        },
        [&] {
          for (int pass = 0; pass < passes; ++pass) {
            for (const std::uint32_t offset : offsets) rtl_set_bits_(&bitmap_, offset, bits);
          }
        },
        prepare);
    const std::string name =
        "ZelSetBits, " + std::to_string(bits) + " bits " + what + ", by RtlSetBits";
    const double ns = 1e9 / (passes * double{kOffsets});
    return Report(name.c_str(), times.measured * ns, times.reference * ns, "ns", Bound::kAtMost,
                  limit);
  }

  template <class Reference>
  bool LargeRange(const char* reference_name, double limit, Reference reference) {
    const auto offsets = RandomOffsets(kLargeRange, 1);
    constexpr std::size_t kCalls = 64;
    const auto times = BestInTurns(
        2 * kRounds,
        [&] {
          for (std::size_t i = 0; i < kCalls; ++i) ZelSetBits(&bitmap_, offsets[i], kLargeRange);
        },
        [&] {
          for (std::size_t i = 0; i < kCalls; ++i) reference(offsets[i]);
        },
        [] {});
    const std::string name = std::string("ZelSetBits, 8 Mi bits, by ") + reference_name;
    constexpr double kGigabytes = kCalls * (kLargeRange / 8.0) / 1e9;
    return Report(name.c_str(), kGigabytes / times.measured, kGigabytes / times.reference, "GB/s",
                  Bound::kAtLeast, limit);
  }

  RtlSetBitsFunction* const rtl_set_bits_ = reinterpret_cast<RtlSetBitsFunction*>(
      reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "RtlSetBits")));
  std::vector<std::uint32_t> words_;
  RtlBitmap bitmap_;
};

bool Run() {
  BitmapBench bench;
  bool kept = true;
  for (const std::uint32_t bits : {1u, 8u, 64u, 4096u}) {
    kept = bench.SmallRanges(bits) && kept;
    kept = bench.FreshSmallRanges(bits) && kept;
  }
  kept = bench.LargeRangeByRtlSetBits() && kept;
  kept = bench.LargeRangeByMemset() && kept;
  kept = bench.FourThreads(1) && kept;
  kept = bench.FourThreads(64) && kept;
  return kept;
}

}  // namespace
}  // namespace zel::bench

int main() {
  return zel::bench::Run() ? 0 : 1;
}
