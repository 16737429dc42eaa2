#include "service/service_status.h"

#include "tests/integration/support/log_fixture.h"
#include "tests/integration/support/service_status_recorder.h"

namespace zel {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

const auto kHandle = reinterpret_cast<SERVICE_STATUS_HANDLE>(0x5A);

TEST(ReportServiceStatusTest, ManagerGetsEveryFieldUnderTheHandle) {
  const test::ServiceStatusRecorder recorder;
  SetServiceStatusHandle(kHandle);
  EXPECT_TRUE(ReportServiceStatus(SERVICE_START_PENDING, 0, 3000));
  EXPECT_TRUE(ReportServiceStatus(SERVICE_START_PENDING, 0, 3000));
  EXPECT_TRUE(ReportServiceStatus(SERVICE_STOPPED, 1722, 40));
  ASSERT_THAT(recorder.reports(), SizeIs(3));
  for (const auto& report : recorder.reports()) {
    EXPECT_EQ(report.handle, kHandle);
    EXPECT_EQ(report.status.dwServiceType, 16u);
    EXPECT_EQ(report.status.dwServiceSpecificExitCode, 0u);
  }
  EXPECT_EQ(recorder.reports()[0].status.dwCurrentState, 2u);
  EXPECT_EQ(recorder.reports()[0].status.dwControlsAccepted, 0u);
  EXPECT_EQ(recorder.reports()[0].status.dwCheckPoint, 1u);
  EXPECT_EQ(recorder.reports()[0].status.dwWaitHint, 3000u);
  EXPECT_EQ(recorder.reports()[1].status.dwCheckPoint, 2u);
  const SERVICE_STATUS& stopped = recorder.reports()[2].status;
  EXPECT_EQ(stopped.dwCurrentState, 1u);
  EXPECT_EQ(stopped.dwControlsAccepted, 5u);
  EXPECT_EQ(stopped.dwWin32ExitCode, 1722u);
  EXPECT_EQ(stopped.dwCheckPoint, 0u);
  EXPECT_EQ(stopped.dwWaitHint, 40u);
}

TEST(ReportServiceStatusTest, NothingFollowsTheFirstReportOfTheStoppedState) {
  const test::ServiceStatusRecorder recorder;
  EXPECT_TRUE(ReportServiceStatus(SERVICE_STOPPED, 1721, 0));
  EXPECT_TRUE(ReportServiceStatus(SERVICE_STOPPED, 0, 0));
  EXPECT_TRUE(ReportServiceStatus(SERVICE_RUNNING, 0, 0));
  ASSERT_THAT(recorder.reports(), SizeIs(1));
  EXPECT_EQ(recorder.reports()[0].status.dwWin32ExitCode, 1721u);
}

TEST(ReportServiceStatusTest, DebugModeReportsNothingAndIsContent) {
  const test::ServiceStatusRecorder recorder;
  DebugMode = true;
  EXPECT_TRUE(ReportServiceStatus(SERVICE_RUNNING, 0, 0));
  EXPECT_THAT(recorder.reports(), IsEmpty());
}

class RefusedServiceStatusTest : public test::LogFixture {};

TEST_F(RefusedServiceStatusTest, IsLoggedWithWhatWasReported) {
  StartLogging();
  SetServiceStatusHandle(nullptr);
  EXPECT_FALSE(ReportServiceStatus(SERVICE_START_PENDING, 5, 3000));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(AllOf(StartsWith("ERROR SetServiceStatus(2, 5, 3000) failed: "),
                                EndsWith(" [ERROR_INVALID_HANDLE]"))));
}

}  // namespace
}  // namespace zel
