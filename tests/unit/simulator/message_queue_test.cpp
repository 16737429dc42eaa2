#include "simulator/message_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zel::sim {
namespace {

using ::testing::ElementsAre;

constexpr FileKey kFile = {{1, 2, 3, {}}, 7};
constexpr FileKey kOther = {{1, 2, 3, {}}, 8};
constexpr FileTime kNow = 1000;

class MessageQueueTest : public ::testing::Test {
 protected:
  // Queues a write; its offset tells it from the others.
  void Write(std::uint64_t offset, const FileKey& file = kFile) {
    EventMessage message = {};
    message.magic = kMagic;
    message.type = MessageType::kWrite;
    message.volume = file.volume;
    message.file_id = file.file_id;
    message.offset_or_size = offset;
    queue.Add(message, kNow);
  }

  void Sync() {
    EventMessage message = {};
    message.type = MessageType::kSync;
    queue.AddSync(message, kNow);
  }

  EventMessage Next() {
    const std::optional<Message> message = queue.Take(kNow);
    EventMessage event = {};
    EXPECT_TRUE(message && message->bytes.size() == sizeof event);
    if (message) std::memcpy(&event, message->bytes.data(), sizeof event);
    return event;
  }

  // Takes everything: a letter a message (w, W with unreported changes, u for the news of them
  // alone, s for sync), writes with their offsets.
  std::vector<std::string> Drain() {
    std::vector<std::string> all;
    while (queue.WhenDue(kNow).value_or(kNow + 1) <= kNow) {
      const EventMessage event = Next();
      const bool flag = event.unreported_changes != 0;
      if (event.type == MessageType::kWrite) {
        all.push_back((flag ? "W" : "w") + std::to_string(event.offset_or_size));
      } else if (event.type == MessageType::kClosed && flag) {
        all.push_back("u" + std::to_string(event.file_id));
      } else {
        all.push_back(event.type == MessageType::kSync ? "s" : "?");
      }
    }
    return all;
  }

  MessageQueue queue;
};

TEST_F(MessageQueueTest, MessagesLeaveInTheirOrder) {
  Write(1);
  Sync();
  Write(2);
  EXPECT_THAT(Drain(), ElementsAre("w1", "s", "w2"));
  EXPECT_FALSE(queue.Take(kNow));
}

TEST_F(MessageQueueTest, MessageIdsRise) {
  Write(1);
  Sync();
  const std::uint64_t first = Next().message_id;
  EXPECT_EQ(Next().message_id, first + 1);
}

TEST_F(MessageQueueTest, HeldMessagesWaitForTheRelease) {
  queue.SetHeld(true);
  Write(1);
  EXPECT_FALSE(queue.Take(kNow));
  EXPECT_FALSE(queue.WhenDue(kNow));
  queue.SetHeld(false);
  EXPECT_THAT(Drain(), ElementsAre("w1"));
}

TEST_F(MessageQueueTest, DelayedMessageIsDueLater) {
  queue.SetDelay(50);
  Write(1);
  queue.SetDelay(0);
  Write(2);
  EXPECT_FALSE(queue.Take(kNow + 49));
  EXPECT_EQ(queue.WhenDue(kNow), kNow + 50);
  EXPECT_TRUE(queue.Take(kNow + 50));
  EXPECT_TRUE(queue.Take(kNow));
}

TEST_F(MessageQueueTest, NextMessageOfTheFileTellsOfADroppedOne) {
  Write(1, kOther);
  queue.DropNext(1);
  Write(2);
  Write(3, kOther);
  Write(4);
  Write(5);
  EXPECT_THAT(Drain(), ElementsAre("w1", "w3", "W4", "w5"));
  EXPECT_EQ(queue.counters().dropped, 1u);
}

TEST_F(MessageQueueTest, EmptyQueueTellsOfADroppedMessageByItself) {
  queue.DropNext(2);
  Write(1);
  Write(2, kOther);
  EXPECT_EQ(queue.pending(), 2u);
  EXPECT_THAT(Drain(), ElementsAre("u7", "u8"));
  EXPECT_EQ(queue.pending(), 0u);
}

TEST_F(MessageQueueTest, SyncComesBehindTheNewsOfLostChanges) {
  Write(1);
  queue.DropNext(1);
  Write(2);
  Sync();
  EXPECT_THAT(Drain(), ElementsAre("w1", "u7", "s"));
}

TEST_F(MessageQueueTest, HeldQueueKeepsTheNewsToo) {
  queue.SetHeld(true);
  queue.MarkUnreported(kFile);
  EXPECT_THAT(Drain(), ElementsAre());
  queue.SetHeld(false);
  EXPECT_THAT(Drain(), ElementsAre("u7"));
}

TEST_F(MessageQueueTest, OverflowMarksItsFiles) {
  queue.SetLimit(2);
  for (int i = 1; i <= 4; ++i) Write(i);
  Write(5, kOther);
  EXPECT_EQ(queue.counters().overflowed, 3u);
  EXPECT_EQ(Next().offset_or_size, 1u);
  Write(6);
  EXPECT_THAT(Drain(), ElementsAre("w2", "W6", "u8"));
}

TEST_F(MessageQueueTest, SyncGetsIntoAFullQueue) {
  queue.SetLimit(1);
  Write(1);
  Write(2);
  Sync();
  EXPECT_THAT(Drain(), ElementsAre("w1", "u7", "s"));
}

TEST_F(MessageQueueTest, DuplicateIsTheSameMessageTwice) {
  queue.DuplicateNext(1);
  Write(1);
  Write(2);
  const EventMessage first = Next();
  EXPECT_EQ(ToBytes(Next()), ToBytes(first));
  EXPECT_THAT(Drain(), ElementsAre("w2"));
}

TEST_F(MessageQueueTest, DamageIsAsOrderedAndTheFileIsMarked) {
  queue.CorruptNext(1, "magic");
  Write(1);
  EXPECT_EQ(Next().magic, kMagic ^ 1);
  queue.CorruptNext(1, "type");
  Write(2);
  EXPECT_EQ(Next().type, MessageType{0xFFFF});
  queue.CorruptNext(1, "short");
  Write(3);
  EXPECT_EQ(queue.Take(kNow)->bytes.size(), 79u);
  EXPECT_THAT(Drain(), ElementsAre("u7"));
}

TEST_F(MessageQueueTest, DamagedMessageThatToldOfLostChangesMarksTheFileAgain) {
  queue.MarkUnreported(kFile);
  queue.CorruptNext(1, "magic");
  Write(1);
  EXPECT_THAT(Drain(), ElementsAre("W1", "u7"));
}

TEST_F(MessageQueueTest, ReorderTurnsTheRunsBetweenSyncsAround) {
  for (int i = 1; i <= 3; ++i) Write(i);
  Sync();
  Write(4);
  Write(5);
  queue.ReverseWaiting();
  EXPECT_THAT(Drain(), ElementsAre("w3", "w2", "w1", "s", "w5", "w4"));
}

TEST_F(MessageQueueTest, RawBytesPassThrough) {
  queue.DropNext(1);
  queue.AddRaw({std::byte{1}}, kNow);
  EXPECT_EQ(queue.Take(kNow)->bytes, Bytes{std::byte{1}});
}

TEST_F(MessageQueueTest, PutBackMessagesComeFirst) {
  for (int i = 1; i <= 3; ++i) Write(i);
  std::deque<Message> taken;
  taken.push_back(*queue.Take(kNow));
  taken.push_back(*queue.Take(kNow));
  queue.PutBack(std::move(taken));
  EXPECT_THAT(Drain(), ElementsAre("w1", "w2", "w3"));
}

TEST_F(MessageQueueTest, VaultedIsWhatIsQueuedWithNobodyConnected) {
  Write(1);
  queue.SetConnected(true);
  Write(2);
  EXPECT_EQ(queue.counters().vaulted, 1u);
  EXPECT_TRUE(queue.Take(kNow)->vaulted);
  EXPECT_FALSE(queue.Take(kNow)->vaulted);
}

}  // namespace
}  // namespace zel::sim
