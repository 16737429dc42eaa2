// The user library and the driver's port, as a service meets them.
#include <algorithm>
#include <array>
#include <set>
#include <thread>

#include "tests/integration/support/simulated_driver.h"

namespace zel::test {
namespace {

using sim::OrderText;

constexpr VolumeGuid kVolume = {0x01234567, 0x89AB, 0xCDEF, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr FileKey kFile = {kVolume, 77};
constexpr FileKey kOther = {kVolume, 78};
constexpr HRESULT kNoPort = HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
constexpr HRESULT kDeadPort = HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE);

class PortTest : public ::testing::Test {
 protected:
  // The driver knows kFile and kOther.
  PortTest() {
    WriteTrackedList(kVolume, {kFile.file_id, kOther.file_id});
    EXPECT_EQ(PortClient().Send(0), S_OK);
    EXPECT_TRUE(driver_.WaitForCounter("connected", 0));
  }

  void Write(std::uint64_t offset, const FileKey& file = kFile) {
    driver_.Order("write " + OrderText(file) + " " + std::to_string(offset) + " 512 4242");
  }

  SimulatedDriver driver_;
};

std::vector<std::uint64_t> Offsets(PortReader& reader, int count) {
  std::vector<std::uint64_t> offsets;
  for (int i = 0; i < count; ++i) offsets.push_back(reader.Next().offset_or_size);
  return offsets;
}

TEST_F(PortTest, MessageArrivesByteForByte) {
  const PortClient port;
  PortReader reader(port);
  reader.Post();
  EXPECT_FALSE(reader.Wait(0));
  driver_.Order("write " + OrderText(kFile) + " 0x123456789A 4096 4242 987654321");
  ASSERT_TRUE(reader.Wait());
  EXPECT_EQ(reader.status(), 0u);
  EXPECT_EQ(reader.size(), 80u);
  sim::EventMessage expected = {};
  expected.message_id = reader.message().message_id;
  expected.magic = 0x092ABB38;
  expected.type = sim::MessageType::kWrite;
  expected.process_id = 4242;
  expected.timestamp = 987654321;
  expected.file_id = kFile.file_id;
  expected.volume = kVolume;
  expected.offset_or_size = 0x123456789A;
  expected.length = 4096;
  EXPECT_EQ(sim::ToBytes(reader.message()), sim::ToBytes(expected));
}

TEST_F(PortTest, ReadThatFindsAMessageWaitingStillAnswersPending) {
  Write(1);
  const PortClient port;
  PortReader reader(port);
  EXPECT_EQ(reader.Next().offset_or_size, 1u);  // Post expects the pending answer
}

TEST_F(PortTest, ReadWithoutAnOverlappedLastsUntilThereIsAMessage) {
  Write(1);
  const PortClient port;
  alignas(8) char buffer[80];
  EXPECT_EQ(::FilterGetMessage(port.get(), reinterpret_cast<FILTER_MESSAGE_HEADER*>(buffer),
                               sizeof buffer, nullptr),
            S_OK);
}

TEST_F(PortTest, FourConcurrentReadsGetEachMessageOnce) {
  constexpr int kMessages = 400;
  const PortClient port;
  std::array<std::vector<std::uint64_t>, 4> received;
  const UniqueEvent stop(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  std::vector<std::jthread> threads;
  for (auto& mine : received) {
    threads.emplace_back([&] {
      PortReader reader(port);
      const HANDLE events[] = {stop.get(), reader.event()};
      for (reader.Post(); ::WaitForMultipleObjects(2, events, FALSE, INFINITE) == WAIT_OBJECT_0 + 1;
           reader.Post()) {
        mine.push_back(reader.message().offset_or_size);
      }
      ::CancelIo(port.get());
    });
  }
  for (int i = 0; i < kMessages; ++i) Write(i);
  EXPECT_TRUE(driver_.WaitForCounter("handed_over", kMessages));
  EXPECT_TRUE(driver_.WaitForCounter("in_flight", 0));
  ::SetEvent(stop.get());
  threads.clear();
  std::vector<std::uint64_t> all;
  for (const auto& mine : received) {
    EXPECT_TRUE(std::ranges::is_sorted(mine));
    all.insert(all.end(), mine.begin(), mine.end());
  }
  std::ranges::sort(all);
  std::vector<std::uint64_t> expected(kMessages);
  for (int i = 0; i < kMessages; ++i) expected[i] = i;
  EXPECT_EQ(all, expected);
}

TEST_F(PortTest, MessagesArriveInTheirOrder) {
  const PortClient port;
  PortReader reader(port);
  for (int i = 0; i < 50; ++i) Write(i);
  const std::vector<std::uint64_t> offsets = Offsets(reader, 50);
  EXPECT_TRUE(std::ranges::is_sorted(offsets));
  EXPECT_EQ(offsets.back(), 49u);
}

TEST_F(PortTest, SyncComesBehindEverythingThatWasQueued) {
  const PortClient port;
  PortReader reader(port);
  driver_.Order("hold");
  Write(1);
  Write(2, kOther);
  EXPECT_EQ(port.Send(1), S_OK);
  Write(3);
  driver_.Order("release");
  EXPECT_EQ(reader.Next().offset_or_size, 1u);
  const sim::EventMessage before = reader.Next();
  EXPECT_EQ(before.file_id, kOther.file_id);
  const sim::EventMessage sync = reader.Next();
  EXPECT_EQ(sync.type, sim::MessageType::kSync);
  EXPECT_GE(sync.timestamp, before.timestamp);
  EXPECT_EQ(reader.Next().offset_or_size, 3u);
}

TEST_F(PortTest, DriverKnowsOfAConnectionThatIsMade) {
  for (int i = 0; i < 50; ++i) {
    const PortClient port;
    ASSERT_EQ(driver_.Counter("connected"), 1u);
  }
}

TEST_F(PortTest, StatusTellsWhatWasVaulted) {
  Write(1);
  Write(2);
  const PortClient port;
  PortReader reader(port);
  EXPECT_EQ(Offsets(reader, 2), (std::vector<std::uint64_t>{1, 2}));
  EXPECT_TRUE(driver_.WaitForCounter("handed_over", 2));
  sim::StatusReply status = {};
  EXPECT_EQ(port.Send(2, &status, sizeof status), S_OK);
  EXPECT_EQ(status.messages_vaulted, 2u);
  EXPECT_EQ(status.messages_from_vault, 2u);
  EXPECT_EQ(status.load_status, 3);
  EXPECT_EQ(status.files_pending, 0u);
}

TEST_F(PortTest, SendsAreCheckedAsTheDriverWould) {
  const PortClient port;
  char reply[48];
  EXPECT_EQ(port.Send(9), E_INVALIDARG);
  EXPECT_EQ(port.Send(2, reply, 47), HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER));
  unsigned char command[64] = {};
  DWORD returned;
  EXPECT_EQ(::FilterSendMessage(port.get(), command, 63, nullptr, 0, &returned), E_INVALIDARG);
  command[63] = 1;
  EXPECT_EQ(::FilterSendMessage(port.get(), command, 64, nullptr, 0, &returned), E_INVALIDARG);
}

TEST_F(PortTest, MalformedListIsRefusedAndChangesNothing) {
  const PortClient port;
  UniqueRegistryKey key;
  ASSERT_EQ(::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kTrackedListKey, 0, KEY_ALL_ACCESS, key.put()), 0);
  const BYTE nonsense[] = {1, 2, 3};
  ASSERT_EQ(::RegSetValueExA(key.get(), sim::VolumeText(kVolume).c_str(), 0, REG_BINARY, nonsense,
                             sizeof nonsense),
            0);
  EXPECT_EQ(port.Send(0), HRESULT_FROM_WIN32(ERROR_INVALID_DATA));
  EXPECT_EQ(driver_.Counter("tracked"), 2u);
}

TEST_F(PortTest, ListValueBeyondAnyBufferIsRead) {
  std::vector<FileId> ids(10'000);
  for (std::size_t i = 0; i < ids.size(); ++i) ids[i] = i + 1;
  WriteTrackedList(kVolume, ids);
  EXPECT_EQ(PortClient().Send(0), S_OK);
  EXPECT_EQ(driver_.Counter("tracked"), ids.size());
}

TEST_F(PortTest, ReplyFindsNobodyWaiting) {
  const PortClient port;
  FILTER_REPLY_HEADER reply = {};
  EXPECT_EQ(::FilterReplyMessage(port.get(), &reply, sizeof reply),
            static_cast<HRESULT>(0x801F0020));
}

TEST_F(PortTest, OtherPortDoesNotExist) {
  HANDLE port;
  EXPECT_EQ(::FilterConnectCommunicationPort(L"\\OtherPort", 0, nullptr, 0, nullptr, &port),
            kNoPort);
  EXPECT_EQ(port, INVALID_HANDLE_VALUE);
}

TEST_F(PortTest, SecondConnectionIsOneTooMany) {
  const PortClient port;
  UniqueFile second;
  EXPECT_EQ(PortClient::Connect(second), HRESULT_FROM_WIN32(ERROR_CONNECTION_COUNT_LIMIT));
}

TEST_F(PortTest, RefusedConnectAndSendSayWhy) {
  driver_.Order("refuse connects 0x80070422");
  UniqueFile refused;
  EXPECT_EQ(PortClient::Connect(refused), static_cast<HRESULT>(0x80070422));
  driver_.Order("accept connects");
  const PortClient port;
  driver_.Order("refuse sends");
  EXPECT_EQ(port.Send(1), kDeadPort);
  driver_.Order("refuse sends 0x8007001f");
  EXPECT_EQ(port.Send(0), static_cast<HRESULT>(0x8007001F));
  driver_.Order("accept sends");
  EXPECT_EQ(port.Send(1), S_OK);
}

TEST_F(PortTest, ClosingThePortEndsTheOutstandingReads) {
  PortClient port;
  PortReader first(port);
  PortReader second(port);
  first.Post();
  second.Post();
  port.Close();
  ASSERT_TRUE(first.Wait());
  ASSERT_TRUE(second.Wait());
  EXPECT_NE(first.status(), 0u);
  EXPECT_NE(second.status(), 0u);
  EXPECT_EQ(port.Send(1), kDeadPort);
}

TEST_F(PortTest, DeathOfTheDriverEndsReadsAndSends) {
  const PortClient port;
  PortReader reader(port);
  reader.Post();
  driver_.Kill();
  ASSERT_TRUE(reader.Wait());
  EXPECT_NE(reader.status(), 0u);
  EXPECT_TRUE(FAILED(port.Send(1)));
  alignas(8) char buffer[80];
  OVERLAPPED overlapped = {};
  const HRESULT result = ::FilterGetMessage(
      port.get(), reinterpret_cast<FILTER_MESSAGE_HEADER*>(buffer), sizeof buffer, &overlapped);
  EXPECT_TRUE(FAILED(result));
  EXPECT_NE(result, HRESULT_FROM_WIN32(ERROR_IO_PENDING));
  UniqueFile again;
  EXPECT_EQ(PortClient::Connect(again), kNoPort);
}

TEST_F(PortTest, WhatWasQueuedIsHandedToTheNextConnection) {
  {
    const PortClient port;
    PortReader reader(port);
    Write(1);
    EXPECT_EQ(reader.Next().offset_or_size, 1u);
    Write(2);
    Write(3);
    reader.Post();  // takes the second; nobody looks at it
    ASSERT_TRUE(reader.Wait());
  }
  Write(4);
  const PortClient port;
  PortReader reader(port);
  EXPECT_EQ(Offsets(reader, 2), (std::vector<std::uint64_t>{3, 4}));
  EXPECT_EQ(driver_.Counter("forgotten"), 1u);
}

TEST_F(PortTest, MessageInABufferThatNobodyWaitedForIsStillTheDrivers) {
  {
    const PortClient port;
    PortReader reader(port);
    Write(1);
    reader.Post();
    ASSERT_TRUE(driver_.WaitForCounter("handed_over", 1));
  }
  const PortClient port;
  PortReader reader(port);
  EXPECT_EQ(reader.Next().offset_or_size, 1u);
  EXPECT_EQ(driver_.Counter("forgotten"), 0u);
}

TEST_F(PortTest, EveryReaderOfSeveralReceivesForItself) {
  {
    const PortClient port;
    PortReader first(port);
    PortReader second(port);
    PortReader third(port);
    first.Post();
    second.Post();
    third.Post();
    for (int i = 1; i <= 3; ++i) Write(i);
    ASSERT_TRUE(driver_.WaitForCounter("handed_over", 3));
    const HANDLE events[] = {third.event(), second.event()};
    EXPECT_EQ(::WaitForMultipleObjects(2, events, TRUE, 10'000), WAIT_OBJECT_0);
  }
  const PortClient port;
  PortReader reader(port);
  EXPECT_EQ(reader.Next().offset_or_size, 1u);
  EXPECT_EQ(driver_.Counter("forgotten"), 2u);
}

// As a service that is killed while it works on a message.
class DeadReader {
 public:
  explicit DeadReader(SimulatedDriver& driver) {
    EXPECT_EQ(::WaitForSingleObject(has_one_.get(), 20'000), WAIT_OBJECT_0);
    EXPECT_TRUE(driver.WaitForCounter("in_flight", 1));
    process_.Kill();
    EXPECT_TRUE(driver.WaitForCounter("connected", 0));
  }

 private:
  UniqueEvent has_one_{::CreateEventW(nullptr, TRUE, FALSE, L"zel_port_reader_has_one")};
  ChildProcess process_{BesideThisProgram(L"port_reader.exe") + L" zel_port_reader_has_one"};
};

TEST_F(PortTest, MessageThatDiedWithItsReaderIsForgotten) {
  Write(1);
  DeadReader reader(driver_);
  Write(2);
  const PortClient port;
  PortReader next(port);
  EXPECT_EQ(next.Next().offset_or_size, 2u);
  EXPECT_EQ(driver_.Counter("forgotten"), 1u);
}

TEST_F(PortTest, MessageThatDiedWithItsReaderIsDeliveredAgainByAnOrder) {
  driver_.Order("redeliver");
  Write(1);
  DeadReader reader(driver_);
  const PortClient port;
  PortReader next(port);
  EXPECT_EQ(next.Next().offset_or_size, 1u);
  EXPECT_EQ(driver_.Counter("redelivered"), 1u);
}

TEST_F(PortTest, ProcessedMessagesAreNotDeliveredAgain) {
  {
    const PortClient port;
    PortReader reader(port);
    Write(1);
    EXPECT_EQ(reader.Next().offset_or_size, 1u);
    reader.Post();  // says that the first is processed
    ASSERT_TRUE(driver_.WaitForCounter("in_flight", 0));
  }
  Write(2);
  const PortClient port;
  PortReader reader(port);
  EXPECT_EQ(reader.Next().offset_or_size, 2u);
}

// Starts and stops of the driver itself.

TEST_F(PortTest, DriverThatLostMessagesSaysSoForEveryTrackedFile) {
  Write(1);
  driver_.Kill();
  driver_.Start();
  const PortClient port;
  PortReader reader(port);
  std::set<FileId> files;
  for (int i = 0; i < 2; ++i) {
    const sim::EventMessage message = reader.Next();
    EXPECT_EQ(message.unreported_changes, 1);
    files.insert(message.file_id);
  }
  EXPECT_EQ(files, (std::set<FileId>{kFile.file_id, kOther.file_id}));
  sim::StatusReply status = {};
  EXPECT_EQ(port.Send(2, &status, sizeof status), S_OK);
  EXPECT_EQ(status.previous_shutdown_clean, 0);
}

TEST_F(PortTest, DriverThatEndedWithNothingWaitingStartsClean) {
  driver_.Stop();
  driver_.Start();
  EXPECT_EQ(driver_.Counter("tracked"), 2u);
  EXPECT_EQ(driver_.Counter("pending"), 0u);
  const PortClient port;
  sim::StatusReply status = {};
  EXPECT_EQ(port.Send(2, &status, sizeof status), S_OK);
  EXPECT_EQ(status.previous_shutdown_clean, 1);
}

TEST_F(PortTest, DriverThatEndedWithMessagesWaitingStartsUnclean) {
  Write(1);
  driver_.Stop();
  driver_.Start();
  EXPECT_EQ(driver_.Counter("pending"), 2u);
}

}  // namespace
}  // namespace zel::test
