#include <array>

#include "bitmap/zel_set_bits.h"
#include "tests/integration/support/log_fixture.h"

namespace zel {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ZelSetBitsTest : public test::LogFixture {
 protected:
  // The trace line of a call on the fixture's bitmap, with the numbers as they are printed.
  std::string TraceLine(const std::string& first, const std::string& count) const {
    char pointer[17];
    std::snprintf(pointer, sizeof pointer, "%016llX",
                  static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(&bitmap_)));
    return std::string("TRACE ZelSetBits(BitmapHeader = 0x") + pointer + ", StartingIndex = 0x" +
           first + ", NumberToSet = 0x" + count;
  }

  alignas(8) std::array<std::uint32_t, 2> words_ = {};
  const RtlBitmap bitmap_ = {40, words_.data()};
};

TEST_F(ZelSetBitsTest, EachCallIsTraced) {
  StartLogging();
  ZelSetBits(&bitmap_, 7, 10);
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre(TraceLine("7", "a")));
  EXPECT_THAT(words_, ElementsAre(0x1FF80, 0));
}

TEST_F(ZelSetBitsTest, RangeAtTheEndIsTracedAndSetsNothing) {
  StartLogging();
  ZelSetBits(&bitmap_, 40, 1);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(TraceLine("28", "1"), "TRACE write beyond end of bitmap"));
  EXPECT_THAT(words_, ElementsAre(0, 0));
}

TEST_F(ZelSetBitsTest, RangePastTheEndIsTracedAndClipped) {
  StartLogging();
  ZelSetBits(&bitmap_, 39, 5);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(TraceLine("27", "5"), "TRACE write beyond end of bitmap"));
  EXPECT_THAT(words_, ElementsAre(0, 0x80));
}

TEST_F(ZelSetBitsTest, RangeWhoseSumWrapsIsTracedAsWithin) {
  StartLogging();
  ZelSetBits(&bitmap_, 39, 0xFFFFFFFF);
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre(TraceLine("27", "ffffffff")));
  EXPECT_THAT(words_, ElementsAre(0, 0x80));
}

TEST_F(ZelSetBitsTest, NothingIsTracedAndBitsAreSetWithTraceOff) {
  StartLogging("zelservicelog:bitmap=debug\n");
  ZelSetBits(&bitmap_, 0, 3);
  ZelSetBits(&bitmap_, 38, 9);
  EXPECT_THAT(StopLoggingAndGetMessages(), IsEmpty());
  EXPECT_THAT(words_, ElementsAre(7, 0xC0));
}

// By ntdll's own routines.
TEST_F(ZelSetBitsTest, DescribedBitsAreThoseOfTheBuffer) {
  RtlBitmap described = {};
  DescribeBits(described, words_.data(), 40);
  EXPECT_EQ(described.SizeOfBitMap, 40u);
  EXPECT_EQ(described.Buffer, words_.data());
  ZelSetBits(&described, 0, 1);
  using AreBitsClear = std::uint8_t __stdcall(RtlBitmap*, std::uint32_t, std::uint32_t);
  auto* const are_bits_clear = reinterpret_cast<AreBitsClear*>(reinterpret_cast<void*>(
      ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "RtlAreBitsClear")));
  ASSERT_NE(are_bits_clear, nullptr);
  EXPECT_TRUE(are_bits_clear(&described, 1, 39));
  EXPECT_FALSE(are_bits_clear(&described, 0, 1));
}

}  // namespace
}  // namespace zel
