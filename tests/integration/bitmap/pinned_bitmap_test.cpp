#include "bitmap/pinned_bitmap.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace zel {
namespace {

TEST(PinnedBitmapTest, CountsAPinUntilItGoes) {
  const auto data = std::make_shared<BitmapData>();
  {
    const PinnedBitmap first(data);
    const PinnedBitmap second(data);
    EXPECT_EQ(data->InUseCount, 2u);
    EXPECT_EQ(&*first, data.get());
    EXPECT_TRUE(first);
  }
  EXPECT_EQ(data->InUseCount, 0u);
}

TEST(PinnedBitmapTest, MovingPassesThePinOn) {
  const auto data = std::make_shared<BitmapData>();
  const auto other = std::make_shared<BitmapData>();
  PinnedBitmap from(data);
  PinnedBitmap to(std::move(from));
  EXPECT_FALSE(from);  // NOLINT(bugprone-use-after-move): the moved-from state is the subject
  EXPECT_EQ(data->InUseCount, 1u);
  to = PinnedBitmap(other);
  EXPECT_EQ(data->InUseCount, 0u);
  EXPECT_EQ(other->InUseCount, 1u);
  to = {};
  EXPECT_EQ(other->InUseCount, 0u);
}

TEST(PinnedBitmapTest, KeepsTheDataWhenItsRecordLetsGo) {
  auto data = std::make_shared<BitmapData>();
  const std::weak_ptr<BitmapData> watch = data;
  {
    const PinnedBitmap pin(data);
    data.reset();
    EXPECT_EQ(pin->InUseCount, 1u);
  }
  EXPECT_TRUE(watch.expired());
}

class PinnedBitmapsTest : public ::testing::TestWithParam<std::size_t> {
 protected:
  PinnedBitmapsTest() {
    for (std::size_t i = 0; i < GetParam(); ++i) data_.push_back(std::make_shared<BitmapData>());
  }

  [[nodiscard]] PinnedBitmaps PinAll() const {
    PinnedBitmaps pinned;
    for (const auto& data : data_) pinned.Add(PinnedBitmap(data));
    return pinned;
  }

  // That each is pinned `pins` times, and that `pinned` has them in order.
  void Expect(const PinnedBitmaps& pinned, std::uint32_t pins) const {
    ASSERT_EQ(pinned.size(), data_.size());
    EXPECT_EQ(pinned.empty(), data_.empty());
    std::size_t index = 0;
    for (const PinnedBitmap& bitmap : pinned) {
      EXPECT_EQ(&*bitmap, data_[index].get());
      EXPECT_EQ(&*pinned[index], data_[index].get());
      EXPECT_EQ(bitmap->InUseCount, pins);
      ++index;
    }
    EXPECT_EQ(index, data_.size());
  }

  std::vector<std::shared_ptr<BitmapData>> data_;
};

TEST_P(PinnedBitmapsTest, HoldsThePinsInOrderUntilItGoes) {
  Expect(PinAll(), 1);
  for (const auto& data : data_) EXPECT_EQ(data->InUseCount, 0u);
}

TEST_P(PinnedBitmapsTest, MovingPassesThePinsOn) {
  PinnedBitmaps from = PinAll();
  const PinnedBitmaps to = std::move(from);
  Expect(to, 1);
  EXPECT_TRUE(from.empty());  // NOLINT(bugprone-use-after-move): the moved-from state is tested
  EXPECT_EQ(from.begin(), from.end());
}

INSTANTIATE_TEST_SUITE_P(UpToFourAndMore, PinnedBitmapsTest, ::testing::Values(0, 1, 3, 4, 5, 9));

}  // namespace
}  // namespace zel
