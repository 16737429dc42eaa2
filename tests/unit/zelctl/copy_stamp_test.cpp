// By what a copy that somebody else has written is noticed.
#include "zelctl/copies/copy_stamp.h"

#include <gtest/gtest.h>

namespace zel::ctl {
namespace {

constexpr FileTime kSecond = 10'000'000;
constexpr FileTime kFrom = 1000 * kSecond;
constexpr FileTime kUntil = 1010 * kSecond;
constexpr FileTime kBefore = 500 * kSecond;

CopyRecord Whole() {
  return {.size = 4096, .written = kBefore};
}

CopyRecord HalfWayTo(std::uint64_t size) {
  CopyRecord record = Whole();
  record.half_way = {.size = size, .from = kFrom, .until = kUntil};
  return record;
}

TEST(CopyStampTest, WholeCopyHasItsSizeAndItsTime) {
  EXPECT_TRUE(IsAsLeft(Whole(), {4096, kBefore}));
  EXPECT_FALSE(IsAsLeft(Whole(), {4095, kBefore}));
  EXPECT_FALSE(IsAsLeft(Whole(), {4096, kBefore + 1}));
  EXPECT_FALSE(IsAsLeft(Whole(), {4096, kBefore - 1}));
}

TEST(CopyStampTest, HalfWayMayBeUntouched) {
  EXPECT_TRUE(IsAsLeft(HalfWayTo(5000), {4096, kBefore}));
  EXPECT_FALSE(IsAsLeft(HalfWayTo(5000), {4096, kBefore + 1}));
  EXPECT_FALSE(IsAsLeft(HalfWayTo(5000), {5000, kBefore}));
}

TEST(CopyStampTest, HalfWayHasTheSizeOfBeforeOrOfAfterwards) {
  EXPECT_TRUE(IsAsLeft(HalfWayTo(5000), {4096, kFrom}));
  EXPECT_TRUE(IsAsLeft(HalfWayTo(5000), {5000, kFrom}));
  EXPECT_FALSE(IsAsLeft(HalfWayTo(5000), {4097, kFrom}));
  EXPECT_FALSE(IsAsLeft(HalfWayTo(5000), {5001, kFrom}));
}

TEST(CopyStampTest, HalfWayWasWrittenWhileItsRunLived) {
  const CopyRecord half = HalfWayTo(4096);
  EXPECT_TRUE(IsAsLeft(half, {4096, kUntil}));
  EXPECT_TRUE(IsAsLeft(half, {4096, kFrom - 2 * kSecond})) << "kept in steps of two seconds";
  EXPECT_TRUE(IsAsLeft(half, {4096, kUntil + 2 * kSecond}));
  EXPECT_FALSE(IsAsLeft(half, {4096, kFrom - 2 * kSecond - 1})) << "an older file in its place";
  EXPECT_FALSE(IsAsLeft(half, {4096, kUntil + 2 * kSecond + 1})) << "written afterwards";
}

}  // namespace
}  // namespace zel::ctl
