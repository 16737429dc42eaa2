#include "driver/driver_protocol.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace zel {
namespace {

TEST(DriverCommandTest, CodeIsTheFirstOf64BytesAndTheRestAreZeros) {
  const std::pair<DriverCommand, int> commands[] = {{DriverCommand::kTrackingListChanged, 0},
                                                    {DriverCommand::kSyncMessageQueue, 1},
                                                    {DriverCommand::kQueryStatus, 2}};
  for (const auto& [command, code] : commands) {
    const DriverCommandBytes bytes = MakeDriverCommand(command);
    ASSERT_EQ(bytes.size(), 64u);
    EXPECT_EQ(std::to_integer<int>(bytes[0]), code);
    EXPECT_EQ(std::ranges::count(bytes.begin() + 1, bytes.end(), std::byte{0}), 63) << code;
  }
}

}  // namespace
}  // namespace zel
