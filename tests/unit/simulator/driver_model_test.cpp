#include "simulator/driver_model.h"

#include <gtest/gtest.h>

#include "simulator/text.h"

namespace zel::sim {
namespace {

constexpr FileKey kFile = {{1, 2, 3, {}}, 7};
constexpr FileTime kStart = 500;
constexpr FileTime kNow = 1000;

class DriverModelTest : public ::testing::Test {
 protected:
  std::string Tell(const std::string& line, FileTime now = kNow) {
    Order order;
    std::string fault;
    EXPECT_TRUE(ParseOrder(line, order, fault)) << line << ": " << fault;
    return model.Obey(order, now);
  }

  std::string Write(int offset) {
    return Tell("write " + VolumeText(kFile.volume) + " 7 " + std::to_string(offset) + " 1");
  }

  std::string Send(CommandCode code, std::size_t reply_size = 0) {
    Bytes command(kCommandBytes);
    command[0] = std::byte(code);
    return Tell("send " + BytesText(command) + " " + std::to_string(reply_size));
  }

  StatusReply Status() {
    StatusReply status = {};
    Bytes bytes;
    const std::string answer = Send(CommandCode::kStatus, sizeof status);
    EXPECT_TRUE(ParseBytes(std::string_view(answer).substr(3), bytes)) << answer;
    if (bytes.size() == sizeof status) std::memcpy(&status, bytes.data(), sizeof status);
    return status;
  }

  // Hands the next message over; its offset, or -1 without one.
  int HandOver() {
    const Message* const message = model.Offer(kNow);
    if (message == nullptr) return -1;
    EventMessage event;
    std::memcpy(&event, message->bytes.data(), sizeof event);
    model.HandedOver();
    return static_cast<int>(event.offset_or_size);
  }

  std::optional<TrackedFiles> list = TrackedFiles{kFile};
  DriverModel model{[this] { return list; }, kStart, true};
};

TEST_F(DriverModelTest, OnlyTrackedFilesAreReported) {
  EXPECT_EQ(Write(1), "ok");
  EXPECT_EQ(Tell("write " + VolumeText(kFile.volume) + " 8 1 1"), "ok untracked");
  EXPECT_EQ(Tell("unreported " + VolumeText({9, 2, 3, {}}) + " 7"), "ok untracked");
  EXPECT_EQ(HandOver(), 1);
  EXPECT_EQ(HandOver(), -1);
}

TEST_F(DriverModelTest, BurstIsOneWriteBehindTheOther) {
  const std::string burst = "burst " + VolumeText(kFile.volume);
  EXPECT_EQ(Tell(burst + " 7 100 16 3 42"), "ok");
  for (const std::uint64_t offset : {100, 116, 132}) {
    EventMessage event;
    std::memcpy(&event, model.Offer(kNow)->bytes.data(), sizeof event);
    model.HandedOver();
    EXPECT_EQ(event.type, MessageType::kWrite);
    EXPECT_EQ(event.offset_or_size, offset);
    EXPECT_EQ(event.length, 16u);
    EXPECT_EQ(event.process_id, 42u);
  }
  EXPECT_EQ(HandOver(), -1);
  EXPECT_EQ(Tell(burst + " 7 0 1 0"), "ok");
  EXPECT_EQ(Tell(burst + " 8 0 1 2"), "ok untracked");
  EXPECT_EQ(HandOver(), -1);
}

TEST_F(DriverModelTest, ReadsOfTrackedFilesAreKeptAndNotQueued) {
  const std::string file = VolumeText(kFile.volume) + " 7";
  EXPECT_EQ(Tell("read " + file + " 100 10"), "ok");
  EXPECT_EQ(Tell("read " + VolumeText(kFile.volume) + " 8 0 1"), "ok untracked");
  EXPECT_EQ(HandOver(), -1);
  EXPECT_EQ(Tell("reads " + file), "ok 10 100+10");
  EXPECT_EQ(Tell("reads " + file), "ok 0");
  EXPECT_EQ(Tell("reads " + VolumeText(kFile.volume) + " 8"), "ok 0");
}

TEST_F(DriverModelTest, ListIsReadAgainWithTheCommandOnly) {
  model.Connect();
  list = TrackedFiles{};
  EXPECT_EQ(Write(1), "ok");
  EXPECT_EQ(Send(CommandCode::kListChanged), "ok -");
  EXPECT_EQ(Write(1), "ok untracked");
}

TEST_F(DriverModelTest, MalformedListLeavesTheOldOne) {
  model.Connect();
  list.reset();
  EXPECT_EQ(Send(CommandCode::kListChanged), "refused 0x8007000d");
  EXPECT_EQ(Write(1), "ok");
}

TEST_F(DriverModelTest, EventCarriesTheTimeThatIsSaid) {
  Tell("open " + VolumeText(kFile.volume) + " 7 42 123");
  EventMessage event;
  std::memcpy(&event, model.Offer(kNow)->bytes.data(), sizeof event);
  EXPECT_EQ(event.timestamp, 123u);
  EXPECT_EQ(event.process_id, 42u);
  EXPECT_EQ(event.type, MessageType::kOpened);
}

TEST_F(DriverModelTest, CommandsNeedAConnection) {
  EXPECT_EQ(Send(CommandCode::kSync), "refused 0x80070006");
  model.Connect();
  EXPECT_EQ(Send(CommandCode::kSync), "ok -");
}

TEST_F(DriverModelTest, StatusHasTheDriversCounters) {
  Write(1);
  Write(2);
  model.Connect();
  Write(3);
  EXPECT_EQ(HandOver(), 1);
  Tell("drop");
  Write(4);
  const StatusReply status = Status();
  EXPECT_EQ(status.version[0], 1);
  EXPECT_EQ(status.start_time, kStart);
  EXPECT_EQ(status.previous_shutdown_clean, 1);
  EXPECT_EQ(status.load_status, kLoadStatusDoesNotExist);
  EXPECT_EQ(status.messages_vaulted, 2u);
  EXPECT_EQ(status.messages_from_vault, 1u);
  EXPECT_EQ(status.files_pending, 1u);
}

TEST_F(DriverModelTest, StatusNeedsRoom) {
  model.Connect();
  EXPECT_EQ(Send(CommandCode::kStatus, 47), "refused 0x8007007a");
}

TEST_F(DriverModelTest, RefusalLastsUntilItIsTakenBack) {
  model.Connect();
  EXPECT_EQ(Tell("refuse sends 0x80070422"), "ok");
  EXPECT_EQ(Send(CommandCode::kSync), "refused 0x80070422");
  EXPECT_EQ(Tell("connect"), "ok");
  EXPECT_EQ(Tell("accept sends"), "ok");
  EXPECT_EQ(Send(CommandCode::kSync), "ok -");
  Tell("refuse connects");
  EXPECT_EQ(Tell("connect"), "refused 0x80070005");
}

TEST_F(DriverModelTest, WhatAReaderHasReceivedIsForgotten) {
  model.Connect();
  for (int i = 1; i <= 4; ++i) Write(i);
  for (int i = 1; i <= 3; ++i) EXPECT_EQ(HandOver(), i);
  // In any order; the second is in no buffer yet, though a read has taken it.
  model.Received(3);
  model.Received(1);
  EXPECT_NE(Tell("counters").find(" in_flight=3 "), std::string::npos);
  model.Disconnect();
  EXPECT_NE(Tell("counters").find(" forgotten=2 redelivered=0 "), std::string::npos);
  model.Connect();
  for (const int expected : {2, 4, -1}) EXPECT_EQ(HandOver(), expected);
}

TEST_F(DriverModelTest, WhatIsNotProcessedIsDeliveredAgainByAnOrder) {
  Tell("redeliver");
  model.Connect();
  for (int i = 1; i <= 5; ++i) Write(i);
  for (int i = 1; i <= 4; ++i) EXPECT_EQ(HandOver(), i);
  for (int i = 1; i <= 3; ++i) model.Received(i);
  model.Processed(2);
  model.Disconnect();
  EXPECT_NE(Tell("counters").find(" forgotten=0 redelivered=2 "), std::string::npos);
  model.Connect();
  for (const int expected : {1, 3, 4, 5, -1}) EXPECT_EQ(HandOver(), expected);
  Tell("forget");
  model.Received(4);
  model.Disconnect();
  model.Connect();
  for (const int expected : {1, 3, 5, -1}) EXPECT_EQ(HandOver(), expected);
}

TEST_F(DriverModelTest, MessageMayBeReceivedBeforeItsWriteHasEnded) {
  model.Connect();
  Write(1);
  Write(2);
  EXPECT_NE(model.Offer(kNow), nullptr);
  model.Received(1);
  model.HandedOver();
  EXPECT_NE(model.Offer(kNow), nullptr);
  model.Received(2);
  model.Processed(2);
  model.HandedOver();
  EXPECT_NE(Tell("counters").find(" in_flight=1 "), std::string::npos);
  model.Disconnect();
  model.Connect();
  EXPECT_EQ(HandOver(), -1);
}

TEST_F(DriverModelTest, OfferedMessageThatWasReceivedIsForgottenToo) {
  model.Connect();
  Write(1);
  EXPECT_NE(model.Offer(kNow), nullptr);
  model.Received(1);
  model.Disconnect();
  model.Connect();
  EXPECT_EQ(HandOver(), -1);
}

TEST_F(DriverModelTest, ReceiptsOfDuplicatesCountOnceEach) {
  model.Connect();
  Tell("duplicate");
  Write(1);
  EXPECT_EQ(HandOver(), 1);
  EXPECT_EQ(HandOver(), 1);
  model.Received(1);
  model.Disconnect();
  model.Connect();
  EXPECT_EQ(HandOver(), 1);
  EXPECT_EQ(HandOver(), -1);
}

TEST_F(DriverModelTest, BytesTooShortForAnIdAreReceivedLikeOthers) {
  model.Connect();
  Tell("raw 0102");
  EXPECT_NE(model.Offer(kNow), nullptr);
  model.HandedOver();
  model.Received(0);
  model.Disconnect();
  EXPECT_EQ(model.Offer(kNow), nullptr);
}

TEST_F(DriverModelTest, OfferedMessageThatNobodyTookIsDeliveredAgain) {
  model.Connect();
  Write(1);
  EXPECT_NE(model.Offer(kNow), nullptr);
  EXPECT_NE(Tell("counters").find(" waiting=1 "), std::string::npos);
  model.Disconnect();
  model.Connect();
  EXPECT_EQ(HandOver(), 1);
}

TEST_F(DriverModelTest, DriverIsIdleWhenEverythingIsProcessed) {
  EXPECT_TRUE(model.Idle());
  model.Connect();
  Write(1);
  EXPECT_FALSE(model.Idle());
  HandOver();
  EXPECT_FALSE(model.Idle());
  model.Received(1);
  EXPECT_FALSE(model.Idle());
  model.Processed(1);
  EXPECT_TRUE(model.Idle());
  Tell("unreported " + VolumeText(kFile.volume) + " 7");
  EXPECT_FALSE(model.Idle());
}

TEST(DriverModelStartTest, UncleanShutdownMarksEveryTrackedFile) {
  DriverModel model([] { return TrackedFiles{kFile}; }, kStart, false);
  EventMessage event;
  std::memcpy(&event, model.Offer(kNow)->bytes.data(), sizeof event);
  EXPECT_EQ(event.unreported_changes, 1);
  EXPECT_EQ(event.file_id, kFile.file_id);
}

}  // namespace
}  // namespace zel::sim
