// What the service sends to the driver: commands, opens, the control code, the question for status.
#include "driver/driver_port.h"

#include <cstdlib>

#include "driver/driver_protocol.h"
#include "driver/driver_status_report.h"
#include "driver/open_file_for_driver.h"
#include "tests/integration/support/driver_fixture.h"
#include "tests/integration/support/driver_opens.h"
#include "tests/integration/support/scripted_port.h"

namespace zel {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr auto kRefused = static_cast<HRESULT>(0x801F0010);

std::string CommandBytes(char code) {
  std::string bytes(64, '\0');
  bytes[0] = code;
  return bytes;
}

class DriverPortTest : public test::LogFixture {
 protected:
  DriverPortTest() { EXPECT_EQ(ConnectDriverPort(), S_OK); }
  ~DriverPortTest() override { CloseDriverPort(); }

  test::ScriptedPort port_;
};

TEST_F(DriverPortTest, ConnectsByItsName) {
  EXPECT_EQ(port_.port_name(), L"\\VelmoraActivityFilterPort");
  EXPECT_TRUE(DriverPortConnected());
  CloseDriverPort();
  EXPECT_FALSE(DriverPortConnected());
}

TEST_F(DriverPortTest, FailedConnectionIsLoggedAndReturned) {
  CloseDriverPort();
  port_.connect_result = kRefused;
  StartLogging();
  EXPECT_EQ(ConnectDriverPort(), kRefused);
  EXPECT_FALSE(DriverPortConnected());
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR FilterConnectCommunications Port failed"));
}

TEST_F(DriverPortTest, CommandIs64BytesAndWithoutRoomForAnAnswer) {
  EXPECT_EQ(SendDriverCommand(DriverCommand::kSyncMessageQueue), S_OK);
  const auto sent = port_.TakeSent();
  ASSERT_THAT(sent, SizeIs(1));
  EXPECT_EQ(sent[0].command, CommandBytes(1));
  EXPECT_EQ(sent[0].room, 0u);
}

TEST_F(DriverPortTest, FailedCommandIsLoggedAndReturned) {
  port_.send_result = kRefused;
  StartLogging(test::kDriverErrors);
  EXPECT_EQ(SendDriverCommand(DriverCommand::kSyncMessageQueue), kRefused);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR FilterSendMessage failed: -2145452016 (0x801f0010)"));
}

TEST_F(DriverPortTest, CommandWithoutAPortFailsAsOnAnInvalidHandle) {
  CloseDriverPort();
  StartLogging(test::kDriverErrors);
  EXPECT_EQ(SendDriverCommand(DriverCommand::kQueryStatus), HRESULT(0x80070006));
  EXPECT_THAT(port_.TakeSent(), IsEmpty());
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR FilterSendMessage failed: -2147024890 (0x80070006)"));
}

TEST_F(DriverPortTest, ChangeOfTheListIsCommandZeroAndLogged) {
  StartLogging(test::kDriverDebug);
  EXPECT_EQ(NotifyDriverOfTrackingChanges(), S_OK);
  EXPECT_EQ(port_.TakeSent().at(0).command, CommandBytes(0));
  port_.send_result = kRefused;
  EXPECT_EQ(NotifyDriverOfTrackingChanges(), kRefused);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("DEBUG Notified filter driver of file tracking changes",
                          "ERROR FilterSendMessage failed: -2145452016 (0x801f0010)"));
}

TEST_F(DriverPortTest, SendUnderWayKeepsThePortOverItsClosing) {
  DWORD open = 0;
  port_.on_send = [&](int) {
    const DriverPort port = CurrentDriverPort();
    CloseDriverPort();
    DWORD flags = 0;
    open = ::GetHandleInformation(port->get(), &flags);
  };
  EXPECT_EQ(SendDriverCommand(DriverCommand::kSyncMessageQueue), S_OK);
  EXPECT_TRUE(open);
  EXPECT_FALSE(DriverPortConnected());
}

class OpenFileForDriverTest : public test::LogFixture {
 protected:
  std::wstring path_ = (directory() / L"file").wstring();
};

TEST_F(OpenFileForDriverTest, OpensFilesAndDirectoriesWhateverOthersShareAndSendsNothing) {
  test::WriteFileBytes(path_, "x");
  test::DriverOpens opens;
  EXPECT_EQ(OpenFileForDriver(path_), 0u);
  EXPECT_EQ(OpenFileForDriver(directory().wstring()), 0u);
  EXPECT_THAT(opens.Take(), ElementsAre(path_, directory().wstring()));
  EXPECT_THAT(opens.TakeControlCodes(), IsEmpty());
  EXPECT_TRUE(std::filesystem::remove(path_));  // no handle is left
}

TEST_F(OpenFileForDriverTest, ControlCodeIsSentToTheOpenFile) {
  test::WriteFileBytes(path_, "x");
  test::DriverOpens opens;
  EXPECT_EQ(OpenFileForDriver(path_, kVerifyControlCode), 0u);
  EXPECT_THAT(opens.TakeControlCodes(), ElementsAre(0x000937CFu));
}

TEST_F(OpenFileForDriverTest, MissingFileIsToldAndGetsNoControlCode) {
  test::DriverOpens opens;
  StartLogging();
  EXPECT_EQ(OpenFileForDriver(path_, kVerifyControlCode), 2u);
  EXPECT_EQ(OpenFileForDriver(path_ + L"\\x", kVerifyControlCode), 3u);
  EXPECT_THAT(opens.TakeControlCodes(), IsEmpty());
  EXPECT_THAT(StopLogging(), IsEmpty());
}

TEST_F(OpenFileForDriverTest, FailedControlCodeIsLoggedAndReturned) {
  test::WriteFileBytes(path_, "x");
  test::DriverOpens opens;
  opens.control_error = ERROR_NOT_SUPPORTED;
  StartLogging(test::kDriverErrors);
  EXPECT_EQ(OpenFileForDriver(path_, kVerifyControlCode), DWORD{ERROR_NOT_SUPPORTED});
  const auto messages = StopLoggingAndGetMessages();
  ASSERT_THAT(messages, SizeIs(1));
  EXPECT_THAT(messages[0], StartsWith("ERROR Failed to send IOCTL to " +
                                      std::filesystem::path(path_).string() + ": "));
  EXPECT_THAT(messages[0], EndsWith("[ERROR_NOT_SUPPORTED]"));
  EXPECT_TRUE(std::filesystem::remove(path_));  // no handle is left
}

TEST_F(OpenFileForDriverTest, OnlyMissingFilesAndUnreadyDevicesAreOutOfReach) {
  std::vector<std::uint32_t> out_of_reach;
  for (std::uint32_t error = 0; error < 20'000; ++error) {
    if (FileIsOutOfReach(error)) out_of_reach.push_back(error);
  }
  EXPECT_THAT(out_of_reach, ElementsAre(2, 3, 21));
}

// The clocks of these tests are in Kathmandu, 5:45 hours ahead of UTC, where whoever runs them sees
// to it by the variable TZ, which Wine heeds.
constexpr char kWantsTimeZone[] = "it wants the system's clock in Kathmandu";

class DriverStatusReportTest : public DriverPortTest {
 protected:
  // The lines behind "INFO  " of a report of `status`.
  std::vector<std::string> Report(const DriverStatus& status) {
    port_.send_reply = test::BytesOf(status);
    StartLogging("zelservicelog=info\nzelservicelog:drivercomm=none\n");
    EXPECT_EQ(LogDriverStatus(), S_OK);
    std::vector<std::string> messages;
    for (const test::LogLine& line : StopLogging()) {
      EXPECT_EQ(line.level, "INFO ");
      messages.push_back(line.message);
    }
    return messages;
  }
};

TEST_F(DriverStatusReportTest, EveryFieldIsToldInSevenLines) {
  if (std::getenv("TZ") == nullptr) GTEST_SKIP() << kWantsTimeZone;
  DriverStatus status = {};
  std::ranges::copy(std::array{10, 2, 345, 65535}, status.Version);
  status.StartTime = 134119512617890000;  // 2026-01-03 22:01:01.789 UTC
  status.StartedDuringBoot = 1;
  status.PreviousShutdownClean = 2;
  status.OlderDriverLoaded = 0x80;
  status.LoadStatus = 2;
  status.MessagesLoadedFromDisk = 4'294'967'295;
  status.MessagesVaulted = 18'446'744'073'709'551'615u;
  status.MessagesSentFromVault = 5'000'000'000;
  status.FilesToBeMarkedUnreliable = 4'000'000'000;
  EXPECT_THAT(
      Report(status),
      ElementsAre(
          "Mini-filter version 10.2.345.65535 started at 2026-01-04 03:46:01.789",
          "   Started during boot; previous shutdown was clean; older driver already loaded",
          "   4294967295 messages loaded from disk on startup",
          "   18446744073709551615 messages vaulted", "   5000000000 messages sent from the vault",
          "   Messages loaded on startup status: Loaded",
          "   4000000000 files pending to be marked unreliable"));
  const auto sent = port_.TakeSent();
  ASSERT_THAT(sent, SizeIs(1));
  EXPECT_EQ(sent[0].command, CommandBytes(2));
  EXPECT_EQ(sent[0].room, 48u);
}

TEST_F(DriverStatusReportTest, FlagsThatAreZeroAreToldAsSuch) {
  if (std::getenv("TZ") == nullptr) GTEST_SKIP() << kWantsTimeZone;
  const auto messages = Report({});
  ASSERT_THAT(messages, SizeIs(7));
  EXPECT_EQ(messages[0], "Mini-filter version 0.0.0.0 started at 1601-01-01 05:45:00.000");
  EXPECT_EQ(messages[1],
            "   Not started during boot; previous shutdown was dirty; no older driver already "
            "loaded");
  EXPECT_EQ(messages[5], "   Messages loaded on startup status: Uninitialized");
}

TEST_F(DriverStatusReportTest, UnknownLoadStatusIsToldAsUnknown) {
  DriverStatus status = {};
  status.LoadStatus = 11;
  EXPECT_EQ(Report(status).at(5), "   Messages loaded on startup status: <unkown>");
}

TEST_F(DriverStatusReportTest, StartTimeWithoutADateIsAllZeros) {
  DriverStatus status = {};
  status.StartTime = ~FileTime{0};
  EXPECT_EQ(Report(status).at(0), "Mini-filter version 0.0.0.0 started at 0000-00-00 00:00:00.000");
}

TEST_F(DriverStatusReportTest, ShortAnswerReadsAsZerosBehindIt) {
  port_.send_reply = std::string("\1\0\2", 3);
  StartLogging("zelservicelog=info\n");
  EXPECT_EQ(LogDriverStatus(), S_OK);
  EXPECT_THAT(StopLogging().at(0).message, StartsWith("Mini-filter version 1.2.0.0 started at"));
}

TEST_F(DriverStatusReportTest, FailedRequestIsOneLineAndNoReport) {
  port_.send_result = kRefused;
  StartLogging();
  EXPECT_EQ(LogDriverStatus(), kRefused);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR FilterSendMessage failed: -2145452016 (0x801f0010)"));
}

}  // namespace
}  // namespace zel
