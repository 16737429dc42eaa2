#include "driver/receive_slot.h"

#include <gmock/gmock.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>

namespace zel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr ProcessIdentity kProcess = {.id = 1234, .start = 0x01DC92C3A1B2C3D4};

DriverMessage WriteAt(std::uint64_t offset) {
  DriverMessage message = {};
  message.Magic = kDriverMessageMagic;
  message.Type = DriverMessageType::kWrite;
  message.OffsetOrSize = offset;
  message.Length = 1;
  return message;
}

// A file of slots, and the system's part in it.
class ReceiveSlotTest : public ::testing::Test {
 protected:
  ReceiveSlotTest() {
    for (std::size_t i = 0; i < kMessageThreads; ++i) ClaimSlot(slots_[i], kProcess);
  }

  void Receive(std::size_t slot, const DriverMessage& message) {
    std::memcpy(slots_[slot].Message, &message, sizeof message);
  }

  [[nodiscard]] std::span<std::byte> Bytes() const {
    return std::as_writable_bytes(std::span(slots_.get(), kMessageThreads));
  }
  [[nodiscard]] LeftMessages Left() const { return FindLeftMessages(Bytes()); }

  static std::vector<std::uint64_t> OffsetsOf(const LeftMessages& left) {
    std::vector<std::uint64_t> offsets;
    for (const LeftMessage& message : left.messages) {
      DriverMessage parsed;
      EXPECT_EQ(ParseDriverMessage(message.bytes, parsed), DriverMessageFault::kNone);
      offsets.push_back(parsed.OffsetOrSize);
    }
    return offsets;
  }

  std::unique_ptr<ReceiveSlot[]> slots_ = std::make_unique<ReceiveSlot[]>(kMessageThreads);
};

void ExpectNothing(const LeftMessages& left) {
  EXPECT_THAT(left.messages, IsEmpty());
  EXPECT_FALSE(left.one_is_unreadable);
  EXPECT_FALSE(left.is_damaged);
}

TEST_F(ReceiveSlotTest, NothingIsLeftInANewFile) {
  ExpectNothing(FindLeftMessages({}));
  ExpectNothing(FindLeftMessages(std::vector<std::byte>(kReceiveSlotsBytes)));
  ExpectNothing(Left());
}

TEST_F(ReceiveSlotTest, ReadThatHasNoMessageYetLeavesNothing) {
  for (std::size_t i = 0; i < kMessageThreads; ++i) PrepareForRead(slots_[i]);
  ExpectNothing(Left());
}

TEST_F(ReceiveSlotTest, MessageIsLeftFromItsReceiptUntilTheSlotIsMarkedEmpty) {
  PrepareForRead(slots_[2]);
  EXPECT_FALSE(HoldsMessage(slots_[2]));
  Receive(2, WriteAt(65'536));
  EXPECT_TRUE(HoldsMessage(slots_[2]));
  const LeftMessages left = Left();
  EXPECT_THAT(OffsetsOf(left), ElementsAre(65'536));
  EXPECT_EQ(left.messages[0].receiver.id, kProcess.id);
  EXPECT_EQ(left.messages[0].receiver.start, kProcess.start);
  EXPECT_FALSE(left.is_damaged || left.one_is_unreadable);
  MarkEmpty(slots_[2]);
  ExpectNothing(Left());
}

TEST_F(ReceiveSlotTest, MessageBeforeIsForgottenByTheNextRead) {
  PrepareForRead(slots_[0]);
  Receive(0, WriteAt(1));
  MarkEmpty(slots_[0]);
  PrepareForRead(slots_[0]);
  EXPECT_FALSE(HoldsMessage(slots_[0]));
  ExpectNothing(Left());
}

TEST_F(ReceiveSlotTest, EverySlotIsLookedAt) {
  for (std::size_t i = 0; i < kMessageThreads; ++i) {
    PrepareForRead(slots_[i]);
    Receive(i, WriteAt(i));
  }
  EXPECT_THAT(OffsetsOf(Left()), ElementsAre(0, 1, 2, 3));
}

TEST_F(ReceiveSlotTest, WhatIsNoMessageIsUnreadable) {
  DriverMessage message = WriteAt(1);
  message.Magic ^= 1;
  PrepareForRead(slots_[1]);
  Receive(1, message);
  PrepareForRead(slots_[3]);
  Receive(3, WriteAt(3));
  const LeftMessages left = Left();
  EXPECT_TRUE(left.one_is_unreadable);
  EXPECT_FALSE(left.is_damaged);
  EXPECT_THAT(OffsetsOf(left), ElementsAre(3));
}

// Offsets and sizes of what makes a slot one.
TEST_F(ReceiveSlotTest, MessageInADamagedSlotIsNobodysOwn) {
  for (const std::size_t at : {0, 3, 4, 7, 8, 11}) {
    PrepareForRead(slots_[0]);
    Receive(0, WriteAt(7));
    Bytes()[at] ^= std::byte{0x80};
    const LeftMessages left = Left();
    EXPECT_TRUE(left.is_damaged) << at;
    EXPECT_FALSE(left.one_is_unreadable) << at;
    EXPECT_THAT(OffsetsOf(left), ElementsAre(7)) << at;
    EXPECT_EQ(left.messages[0].receiver.start, ~FileTime{0}) << at;
    Bytes()[at] ^= std::byte{0x80};
  }
}

TEST_F(ReceiveSlotTest, NothingIsBelievedOfADamagedSlotThatHoldsNoMessage) {
  std::memset(slots_[0].Message, 0xA5, kReceiveBufferBytes);
  slots_[0].Magic = 0;
  const LeftMessages left = Left();
  EXPECT_THAT(left.messages, IsEmpty());
  EXPECT_TRUE(left.is_damaged);
  EXPECT_FALSE(left.one_is_unreadable);
}

// What is cut off reads as 0.
TEST_F(ReceiveSlotTest, FileMayEndAnywhere) {
  for (std::size_t i = 0; i < kMessageThreads; ++i) {
    PrepareForRead(slots_[i]);
    Receive(i, WriteAt(i));
  }
  const std::span<const std::byte> bytes = Bytes();
  for (std::size_t slot = 0; slot < kMessageThreads; ++slot) {
    const std::size_t begin = slot * sizeof(ReceiveSlot);
    for (std::size_t length = begin; length <= begin + 200; ++length) {
      const std::vector<std::byte> file(bytes.begin(),
                                        bytes.begin() + static_cast<std::ptrdiff_t>(length));
      const std::size_t in_slot = length - begin;
      const bool has_magic = in_slot >= 64 + offsetof(DriverMessage, Type);
      EXPECT_THAT(FindLeftMessages(file).messages, SizeIs(slot + (has_magic ? 1 : 0))) << length;
    }
  }
  std::vector<std::byte> longer(bytes.begin(), bytes.end());
  longer.resize(2 * bytes.size(), std::byte{0xA5});
  EXPECT_THAT(FindLeftMessages(longer).messages, SizeIs(4));
}

TEST_F(ReceiveSlotTest, AnyBytesAreRead) {
  std::mt19937 random(1);
  for (int round = 0; round < 100; ++round) {
    std::ranges::generate(Bytes(), [&] { return static_cast<std::byte>(random()); });
    const LeftMessages left = Left();
    EXPECT_THAT(left.messages, IsEmpty());
    EXPECT_TRUE(left.is_damaged);
  }
}

}  // namespace
}  // namespace zel
