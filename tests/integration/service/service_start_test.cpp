// The start that blocks and the ways to stop it.
#include "service/service_start.h"

#include <future>
#include <thread>
#include <vector>

#include "common/service_status.h"
#include "service/console_control.h"
#include "service/service_main.h"
#include "tests/integration/support/log_fixture.h"
#include "tests/integration/support/service_status_recorder.h"

namespace zel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr auto kLimit = std::chrono::seconds(20);

// ZelServiceStart on a thread of its own.
class StartedService {
 public:
  explicit StartedService(std::vector<const wchar_t*> arguments = {})
      : arguments_(std::move(arguments)) {}

  [[nodiscard]] bool IsBlocked() const {
    return result_.wait_for(std::chrono::milliseconds(100)) == std::future_status::timeout;
  }

  // The result of the start; 77 when it does not return.
  [[nodiscard]] std::uint32_t Result() {
    if (result_.wait_for(kLimit) == std::future_status::ready) return result_.get();
    ADD_FAILURE() << "ZelServiceStart has not returned";
    StopService();
    return 77;
  }

 private:
  std::vector<const wchar_t*> arguments_;
  std::future<std::uint32_t> result_ =
      std::async(std::launch::async, [this] { return ZelServiceStart(arguments_); });
};

class ZelServiceStartTest : public test::LogFixture {
 protected:
  test::ServiceStatusRecorder recorder_;
};

TEST_F(ZelServiceStartTest, ReportsRunningAndReturnsWhenStopped) {
  StartedService service;
  EXPECT_TRUE(service.IsBlocked());
  StopService();
  EXPECT_EQ(service.Result(), 0u);
  WaitForServiceStopped();
  ASSERT_THAT(recorder_.reports(), SizeIs(1));
  EXPECT_EQ(recorder_.reports()[0].status.dwCurrentState, DWORD{SERVICE_RUNNING});
}

TEST_F(ZelServiceStartTest, StopThatComesBeforeTheStartIsNotLost) {
  StopService();
  StartedService service;
  EXPECT_EQ(service.Result(), 0u);
  WaitForServiceStopped();
}

TEST_F(ZelServiceStartTest, ManyStopsAtOnceLeaveTheServiceStopped) {
  StartedService service;
  {
    std::vector<std::jthread> stoppers;
    for (int i = 0; i < 8; ++i) {
      stoppers.emplace_back([] {
        for (int j = 0; j < 1000; ++j) StopService();
      });
    }
  }
  EXPECT_EQ(service.Result(), 0u);
  WaitForServiceStopped();
  WaitForRunningStops();
}

TEST_F(ZelServiceStartTest, RunningStopsNeedNotBeWaitedForWhenThereAreNone) {
  WaitForRunningStops();
}

TEST_F(ZelServiceStartTest, StopControlStopsIt) {
  StartedService service;
  ServiceCtrlHandler(SERVICE_CONTROL_STOP);
  EXPECT_EQ(service.Result(), 0u);
}

TEST_F(ZelServiceStartTest, ShutdownControlStopsIt) {
  StartedService service;
  ServiceCtrlHandler(SERVICE_CONTROL_SHUTDOWN);
  EXPECT_EQ(service.Result(), 0u);
}

TEST_F(ZelServiceStartTest, OtherControlsDoNot) {
  StartedService service;
  for (const DWORD control : {SERVICE_CONTROL_PAUSE, SERVICE_CONTROL_CONTINUE,
                              SERVICE_CONTROL_INTERROGATE, SERVICE_CONTROL_PRESHUTDOWN, 0}) {
    ServiceCtrlHandler(control);
  }
  EXPECT_TRUE(service.IsBlocked());
  StopService();
  EXPECT_EQ(service.Result(), 0u);
}

TEST_F(ZelServiceStartTest, CtrlCStopsItAndSaysSo) {
  StartLogging();
  StartedService service;
  EXPECT_TRUE(ConsoleCtrlHandler(CTRL_C_EVENT));
  EXPECT_EQ(service.Result(), 0u);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  Stopping Velmora Activity Monitoring Service"));
}

TEST_F(ZelServiceStartTest, CtrlBreakStopsItAndSaysSo) {
  StartLogging();
  StartedService service;
  EXPECT_TRUE(ConsoleCtrlHandler(CTRL_BREAK_EVENT));
  EXPECT_EQ(service.Result(), 0u);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  Stopping Velmora Activity Monitoring Service"));
}

TEST_F(ZelServiceStartTest, OtherConsoleControlsAreLeftToOthers) {
  StartLogging();
  StartedService service;
  for (const DWORD type : {CTRL_CLOSE_EVENT, CTRL_LOGOFF_EVENT, CTRL_SHUTDOWN_EVENT, 3, 4}) {
    EXPECT_FALSE(ConsoleCtrlHandler(type)) << type;
  }
  EXPECT_TRUE(service.IsBlocked());
  StopService();
  EXPECT_EQ(service.Result(), 0u);
  EXPECT_THAT(StopLoggingAndGetMessages(), IsEmpty());
}

TEST_F(ZelServiceStartTest, DriverIsIgnoredOnlyInDebugMode) {
  StartLogging();
  StopService();
  const std::vector<const wchar_t*> arguments = {L"zelservice", L"-debug", L"-nodriver"};
  EXPECT_EQ(ZelServiceStart(arguments), 0u);
  DebugMode = true;
  EXPECT_EQ(ZelServiceStart({}), 0u);
  EXPECT_EQ(ZelServiceStart(arguments), 0u);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  service running in driver ignore mode"));
  EXPECT_THAT(recorder_.reports(), SizeIs(1));
}

class RefusedZelServiceStartTest : public test::LogFixture {};

TEST_F(RefusedZelServiceStartTest, ManagerThatRefusesTheRunningStateEndsTheStart) {
  EXPECT_EQ(ZelServiceStart({}), 0u);
}

}  // namespace
}  // namespace zel
