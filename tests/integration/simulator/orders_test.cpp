// What a service meets when the driver is ordered to misbehave; and the driver as a service.
#include <gmock/gmock.h>

#include "tests/integration/support/service_manager_fixture.h"
#include "tests/integration/support/simulated_driver.h"

namespace zel::test {
namespace {

using sim::MessageType;
using sim::OrderText;
using ::testing::ElementsAre;

constexpr VolumeGuid kVolume = {0x01234567, 0x89AB, 0xCDEF, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr FileKey kFile = {kVolume, 77};

class OrdersTest : public ::testing::Test {
 protected:
  OrdersTest() {
    WriteTrackedList(kVolume, {kFile.file_id});
    EXPECT_EQ(port_.Send(0), S_OK);
  }

  void Write(int offset) {
    driver_.Order("write " + OrderText(kFile) + " " + std::to_string(offset) + " 512 4242");
  }

  // The next messages: the offset of a write, behind "lost " with unreported changes; "news" when
  // they come alone; "sync".
  std::vector<std::string> Next(int count) {
    std::vector<std::string> messages;
    for (int i = 0; i < count; ++i) {
      const sim::EventMessage message = reader_.Next();
      std::string text = std::to_string(message.offset_or_size);
      if (message.unreported_changes != 0) text = "lost " + text;
      if (message.type == MessageType::kClosed) text = "news";
      if (message.type == MessageType::kSync) text = "sync";
      messages.push_back(text);
    }
    return messages;
  }

  bool IsQuiet() { return driver_.Counter("waiting") + driver_.Counter("pending") == 0; }

  SimulatedDriver driver_;
  PortClient port_;
  PortReader reader_{port_};
};

TEST_F(OrdersTest, HeldMessagesComeWithTheRelease) {
  driver_.Order("hold");
  Write(1);
  Write(2);
  reader_.Post();
  EXPECT_EQ(driver_.Counter("waiting"), 2u);
  EXPECT_FALSE(reader_.Wait(0));
  driver_.Order("release");
  ASSERT_TRUE(reader_.Wait());
  EXPECT_EQ(reader_.message().offset_or_size, 1u);
  EXPECT_THAT(Next(1), ElementsAre("2"));
}

TEST_F(OrdersTest, DelayedMessageTakesItsTime) {
  driver_.Order("delay 300");
  const ULONGLONG before = ::GetTickCount64();
  Write(1);
  EXPECT_THAT(Next(1), ElementsAre("1"));
  // The system's clocks tick in steps of some 16 ms at most.
  EXPECT_GE(::GetTickCount64() - before, 280u);
  driver_.Order("delay 0");
  Write(2);
  EXPECT_THAT(Next(1), ElementsAre("2"));
}

TEST_F(OrdersTest, DroppedMessageIsToldByTheNextOfItsFile) {
  driver_.Order("hold");
  Write(1);
  driver_.Order("drop");
  Write(2);
  Write(3);
  driver_.Order("release");
  EXPECT_THAT(Next(2), ElementsAre("1", "lost 3"));
  EXPECT_TRUE(IsQuiet());
}

TEST_F(OrdersTest, DroppedMessageIsToldByItselfWhenNoOtherComes) {
  driver_.Order("drop");
  Write(1);
  EXPECT_THAT(Next(1), ElementsAre("news"));
}

TEST_F(OrdersTest, SyncIsBehindTheNewsOfDroppedMessages) {
  driver_.Order("hold");
  driver_.Order("drop 2");
  Write(1);
  Write(2);
  EXPECT_EQ(port_.Send(1), S_OK);
  driver_.Order("release");
  EXPECT_THAT(Next(2), ElementsAre("news", "sync"));
  EXPECT_EQ(driver_.Counter("dropped"), 2u);
}

TEST_F(OrdersTest, DuplicatedMessageComesTwice) {
  driver_.Order("duplicate");
  Write(1);
  Write(2);
  EXPECT_THAT(Next(3), ElementsAre("1", "1", "2"));
}

TEST_F(OrdersTest, ReorderedMessagesComeBackwards) {
  driver_.Order("hold");
  for (int i = 1; i <= 3; ++i) Write(i);
  EXPECT_EQ(port_.Send(1), S_OK);
  Write(4);
  driver_.Order("reorder");
  driver_.Order("release");
  EXPECT_THAT(Next(5), ElementsAre("3", "2", "1", "sync", "4"));
}

TEST_F(OrdersTest, DamagedMessagesAreFollowedByTheNews) {
  driver_.Order("corrupt magic");
  Write(1);
  EXPECT_EQ(reader_.Next().magic, 0x092ABB39u);
  EXPECT_THAT(Next(1), ElementsAre("news"));
  driver_.Order("corrupt type");
  Write(2);
  EXPECT_EQ(reader_.Next().type, MessageType{0xFFFF});
  EXPECT_THAT(Next(1), ElementsAre("news"));
  driver_.Order("corrupt short");
  Write(3);
  reader_.Post();
  ASSERT_TRUE(reader_.Wait());
  EXPECT_EQ(reader_.size(), 79u);
  EXPECT_THAT(Next(1), ElementsAre("news"));
}

TEST_F(OrdersTest, OverflowIsToldAsSoonAsThereIsRoom) {
  driver_.Order("limit 2");
  driver_.Order("hold");
  for (int i = 1; i <= 5; ++i) Write(i);
  driver_.Order("release");
  EXPECT_THAT(Next(3), ElementsAre("1", "2", "news"));
  EXPECT_EQ(driver_.Counter("overflowed"), 3u);
}

TEST_F(OrdersTest, RawMessageArrivesAsItStands) {
  driver_.Order("raw 0102030405");
  reader_.Post();
  ASSERT_TRUE(reader_.Wait());
  EXPECT_EQ(reader_.size(), 5u);
}

TEST_F(OrdersTest, EveryEventHasItsType) {
  const std::pair<const char*, MessageType> events[] = {
      {"open", MessageType::kOpened},
      {"close", MessageType::kClosed},
      {"rename", MessageType::kRenamed},
      {"verify", MessageType::kVerify},
  };
  for (const auto& [order, type] : events) {
    driver_.Order(order + (" " + OrderText(kFile)) + " 42");
    EXPECT_EQ(reader_.Next().type, type);
  }
  driver_.Order("size " + OrderText(kFile) + " 5000000000");
  const sim::EventMessage size = reader_.Next();
  EXPECT_EQ(size.type, MessageType::kSizeChanged);
  EXPECT_EQ(size.offset_or_size, 5'000'000'000u);
}

TEST_F(OrdersTest, LineThatIsNoOrderIsAnswered) {
  EXPECT_EQ(driver_.Tell("dance"), "error no such order");
  EXPECT_EQ(driver_.Tell(""), "error no such order");
  const std::wstring tell = BesideThisProgram(L"driversim.exe") + L" tell ";
  EXPECT_EQ(ChildProcess(tell + L"dance").WaitForEnd(), 1u);
  EXPECT_EQ(ChildProcess(tell + L"counters").WaitForEnd(), 0u);
  driver_.Stop();
  EXPECT_EQ(ChildProcess(tell + L"counters").WaitForEnd(), 3u);
}

TEST_F(OrdersTest, SecondDriverCannotServe) {
  EXPECT_EQ(ChildProcess(BesideThisProgram(L"driversim.exe") + L" serve").WaitForEnd(), 3u);
  Write(1);
  EXPECT_THAT(Next(1), ElementsAre("1"));
}

class DriverServiceTest : public ServiceManagerFixture {};

TEST_F(DriverServiceTest, ServiceManagerStartsAndStopsTheDriver) {
  const UniqueServiceHandle service = Create(kDriverServiceName, L"driversim.exe");
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(::StartServiceW(service.get(), 0, nullptr)) << ::GetLastError();
    ASSERT_TRUE(WaitForState(service.get(), SERVICE_RUNNING));
    {
      const PortClient port;
      sim::StatusReply status = {};
      EXPECT_EQ(port.Send(2, &status, sizeof status), S_OK);
      EXPECT_EQ(status.previous_shutdown_clean, round);
    }
    SERVICE_STATUS status;
    ASSERT_TRUE(::ControlService(service.get(), SERVICE_CONTROL_STOP, &status));
    ASSERT_TRUE(WaitForState(service.get(), SERVICE_STOPPED));
    ASSERT_TRUE(PollUntil([] { return !sim::ControlClient().connected(); }));
  }
}

}  // namespace
}  // namespace zel::test
