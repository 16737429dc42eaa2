#include "driver/driver_protocol.h"

#include <gtest/gtest.h>

#include <string_view>

namespace zel {
namespace {

TEST(DriverStatusTest, EveryFieldIsReadFromItsPlace) {
  DriverStatusBytes bytes;
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::byte>(i + 1);
  const DriverStatus status = ParseDriverStatus(bytes);
  EXPECT_EQ(status.Version[0], 0x0201);
  EXPECT_EQ(status.Version[1], 0x0403);
  EXPECT_EQ(status.Version[2], 0x0605);
  EXPECT_EQ(status.Version[3], 0x0807);
  EXPECT_EQ(status.StartTime, 0x100F0E0D0C0B0A09u);
  EXPECT_EQ(status.StartedDuringBoot, 0x11);
  EXPECT_EQ(status.PreviousShutdownClean, 0x12);
  EXPECT_EQ(status.OlderDriverLoaded, 0x13);
  EXPECT_EQ(status.LoadStatus, 0x14);
  EXPECT_EQ(status.MessagesLoadedFromDisk, 0x18171615u);
  EXPECT_EQ(status.MessagesVaulted, 0x201F1E1D1C1B1A19u);
  EXPECT_EQ(status.MessagesSentFromVault, 0x2827262524232221u);
  EXPECT_EQ(status.FilesToBeMarkedUnreliable, 0x2C2B2A29u);
}

TEST(DriverStatusTest, EveryLoadStatusHasItsText) {
  constexpr std::string_view kTexts[] = {
      "Uninitialized",         "Deleted",        "Loaded",
      "Doesn't exist",         "Open failed",    "Unknown file size",
      "Failed to read header", "File too small", "Unknown version",
      "Invalid header",        "File wrong size"};
  for (std::uint8_t code = 0; code < std::size(kTexts); ++code) {
    EXPECT_EQ(LoadStatusText(code), kTexts[code]);
  }
}

TEST(DriverStatusTest, EveryOtherLoadStatusIsUnknown) {
  for (int code = 11; code < 256; ++code) {
    EXPECT_STREQ(LoadStatusText(static_cast<std::uint8_t>(code)), "<unkown>") << code;
  }
}

}  // namespace
}  // namespace zel
