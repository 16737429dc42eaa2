#include "driver/driver_protocol.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

namespace zel {
namespace {

// The bytes 1, 2, 3, ... with the right magic: every field has a value of its own.
std::array<std::byte, 80> NumberedBytes() {
  std::array<std::byte, 80> bytes;
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::byte>(i + 1);
  constexpr std::uint8_t kMagicBytes[] = {0x38, 0xBB, 0x2A, 0x09};
  std::memcpy(bytes.data() + 16, kMagicBytes, sizeof kMagicBytes);
  return bytes;
}

TEST(DriverMessageTest, EveryFieldIsReadFromItsPlace) {
  DriverMessage message;
  ASSERT_EQ(ParseDriverMessage(NumberedBytes(), message), DriverMessageFault::kNone);
  EXPECT_EQ(message.ReplyLength, 0x04030201u);
  EXPECT_EQ(message.MessageId, 0x100F0E0D0C0B0A09u);
  EXPECT_EQ(message.Magic, 0x092ABB38u);
  EXPECT_EQ(static_cast<std::uint16_t>(message.Type), 0x1615);
  EXPECT_EQ(message.UnreportedChanges, 0x17);
  EXPECT_EQ(message.ProcessId, 0x1C1B1A19u);
  EXPECT_EQ(message.Timestamp, 0x2827262524232221u);
  EXPECT_EQ(message.FileId, 0x302F2E2D2C2B2A29u);
  EXPECT_EQ(message.VolumeGuid,
            (VolumeGuid{0x34333231, 0x3635, 0x3837, {57, 58, 59, 60, 61, 62, 63, 64}}));
  EXPECT_EQ(message.OffsetOrSize, 0x4847464544434241u);
  EXPECT_EQ(message.Length, 0x4C4B4A49u);
}

TEST(DriverMessageTest, MessageAtAnOddAddressIsReadAlike) {
  std::array<std::byte, 81> shifted;
  std::ranges::copy(NumberedBytes(), shifted.begin() + 1);
  DriverMessage message;
  ASSERT_EQ(ParseDriverMessage(std::span(shifted).subspan(1), message), DriverMessageFault::kNone);
  EXPECT_EQ(message.FileId, 0x302F2E2D2C2B2A29u);
}

TEST(DriverMessageTest, SeventyNineBytesAreTooFewAndEightyEnough) {
  const auto bytes = NumberedBytes();
  DriverMessage message;
  EXPECT_EQ(ParseDriverMessage(std::span(bytes).first(79), message), DriverMessageFault::kTooSmall);
  EXPECT_EQ(ParseDriverMessage(bytes, message), DriverMessageFault::kNone);
}

TEST(DriverMessageTest, WhatFollowsTheMessageIsNotLookedAt) {
  std::vector<std::byte> bytes(65'536, std::byte{0xEE});
  std::ranges::copy(NumberedBytes(), bytes.begin());
  DriverMessage message;
  DriverMessage alone;
  EXPECT_EQ(ParseDriverMessage(bytes, message), DriverMessageFault::kNone);
  EXPECT_EQ(ParseDriverMessage(NumberedBytes(), alone), DriverMessageFault::kNone);
  EXPECT_EQ(std::memcmp(&message, &alone, sizeof message), 0);
}

TEST(DriverMessageTest, MessageCutAtAnyLengthReadsAsZerosFromThere) {
  const auto bytes = NumberedBytes();
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    // A copy of its own length, so that a read behind it is seen by AddressSanitizer.
    const std::vector<std::byte> cut(bytes.begin(), bytes.begin() + static_cast<long>(length));
    DriverMessage message;
    std::memset(&message, 0xFF, sizeof message);
    EXPECT_EQ(ParseDriverMessage(cut, message), DriverMessageFault::kTooSmall) << length;
    std::array<std::byte, 80> expected = {};
    std::ranges::copy(cut, expected.begin());
    EXPECT_EQ(std::memcmp(&message, expected.data(), expected.size()), 0) << length;
  }
}

TEST(DriverMessageTest, EveryWrongBitOfTheMagicIsSeen) {
  for (unsigned bit = 0; bit < 32; ++bit) {
    auto bytes = NumberedBytes();
    bytes[16 + bit / 8] ^= static_cast<std::byte>(1u << bit % 8);
    DriverMessage message;
    EXPECT_EQ(ParseDriverMessage(bytes, message), DriverMessageFault::kWrongMagic) << bit;
    EXPECT_EQ(message.Magic, kDriverMessageMagic ^ 1u << bit);
  }
}

TEST(DriverMessageTest, ReservedBytesMayBeAnything) {
  for (const std::size_t at : {4u, 5u, 6u, 7u, 23u, 28u, 29u, 30u, 31u, 76u, 77u, 78u, 79u}) {
    auto bytes = NumberedBytes();
    bytes[at] = std::byte{0xFF};
    DriverMessage message;
    EXPECT_EQ(ParseDriverMessage(bytes, message), DriverMessageFault::kNone) << at;
  }
}

TEST(IsOperationOfTest, ProcessDidWhatHasItsIdAndIsFromAfterItsStart) {
  const ProcessIdentity process = {.id = 4711, .start = 1000};
  DriverMessage message = {};
  message.ProcessId = 4711;
  message.Timestamp = 1001;
  EXPECT_TRUE(IsOperationOf(process, message));
  message.Timestamp = 1000;
  EXPECT_FALSE(IsOperationOf(process, message));
  message.Timestamp = 1001;
  message.ProcessId = 4712;
  EXPECT_FALSE(IsOperationOf(process, message));
}

TEST(IsOperationOfTest, NothingIsTheOperationOfAProcessWhoseStartIsUnknown) {
  DriverMessage message = {};
  message.ProcessId = 4711;
  message.Timestamp = ~FileTime{0};
  EXPECT_FALSE(IsOperationOf({.id = 4711}, message));
}

}  // namespace
}  // namespace zel
