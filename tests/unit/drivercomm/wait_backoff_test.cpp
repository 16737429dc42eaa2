#include "drivercomm/wait_backoff.h"

#include <gtest/gtest.h>

namespace zel {
namespace {

TEST(WaitBackoffTest, WaitsDoubleUpToFiveSeconds) {
  WaitBackoff backoff(50);
  for (const std::uint32_t wait_ms : {50, 100, 200, 400, 800, 1600, 3200, 5000, 5000, 5000}) {
    EXPECT_EQ(backoff.Next(), wait_ms);
  }
}

}  // namespace
}  // namespace zel
