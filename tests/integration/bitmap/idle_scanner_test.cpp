#include "bitmap/idle_scanner.h"

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "tests/integration/support/handle_count.h"
#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/log_fixture.h"
#include "tests/integration/support/poll.h"
#include "win32/handles.h"

extern "C" {
extern void* __imp_CreateEventW;
extern void* __imp_WaitForSingleObject;
}

namespace zel {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::StartsWith;

std::atomic<int> scans{0};
void CountScan() {
  ++scans;
}

// The scanner's waits: each ends at once, as a time-out or as a failure, unless the event is set.
std::atomic<DWORD> answer{WAIT_TIMEOUT};
std::mutex timeouts_mutex;
std::vector<DWORD> timeouts_ms;
decltype(&::WaitForSingleObject) real_wait = nullptr;

DWORD WINAPI AnswerWait(HANDLE handle, DWORD timeout_ms) {
  if (timeout_ms == INFINITE) return real_wait(handle, timeout_ms);
  const std::scoped_lock lock(timeouts_mutex);
  timeouts_ms.push_back(timeout_ms);
  return real_wait(handle, 1) == WAIT_OBJECT_0 ? WAIT_OBJECT_0 : answer.load();
}

class IdleScannerTest : public test::LogFixture {
 protected:
  IdleScannerTest() {
    real_wait = reinterpret_cast<decltype(real_wait)>(__imp_WaitForSingleObject);
  }
  ~IdleScannerTest() override { StopIdleScanner(); }
};

TEST_F(IdleScannerTest, ScansEveryTenSecondsUntilItIsStopped) {
  const test::ImportHook hook(__imp_WaitForSingleObject, &AnswerWait);
  StartLogging("zelservicelog=none\nzelservicelog:bitmap=debug\nzelservicelog:drivercomm=none\n");
  StartIdleScanner(CountScan);
  ASSERT_TRUE(test::PollUntil([] { return scans >= 5; }));
  StopIdleScanner();
  const int at_stop = scans;
  EXPECT_THAT(timeouts_ms, Each(10'000u));
  // One wait before each scan, and the one that found the event.
  EXPECT_EQ(timeouts_ms.size(), static_cast<std::size_t>(at_stop) + 1);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  Starting bitmap idle scanner thread",
                          "DEBUG Bitmap idle scanner thread exiting..."));
  EXPECT_EQ(scans, at_stop);
}

TEST_F(IdleScannerTest, FailedWaitScansToo) {
  answer = WAIT_FAILED;
  const test::ImportHook hook(__imp_WaitForSingleObject, &AnswerWait);
  StartIdleScanner(CountScan);
  EXPECT_TRUE(test::PollUntil([] { return scans >= 2; }));
  StopIdleScanner();
}

TEST_F(IdleScannerTest, StopWithoutATimeoutDoesNotScan) {
  StartIdleScanner(CountScan);
  StopIdleScanner();
  EXPECT_EQ(scans, 0);
}

UniqueEvent scan_entered(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
UniqueEvent scan_may_end(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
std::atomic<bool> scan_ended{false};

void WaitInScan() {
  ::SetEvent(scan_entered.get());
  ::WaitForSingleObject(scan_may_end.get(), INFINITE);
  scan_ended = true;
}

TEST_F(IdleScannerTest, EveryStopReturnsAfterTheRunningScan) {
  const test::ImportHook hook(__imp_WaitForSingleObject, &AnswerWait);
  StartIdleScanner(WaitInScan);
  ::WaitForSingleObject(scan_entered.get(), INFINITE);
  std::atomic<int> returned_early{0};
  std::atomic<int> begun{0};
  {
    std::vector<std::jthread> stoppers;
    for (int i = 0; i < 4; ++i) {
      stoppers.emplace_back([&] {
        ++begun;
        StopIdleScanner();
        if (!scan_ended) ++returned_early;
      });
    }
    EXPECT_TRUE(test::PollUntil([&] { return begun == 4; }));
    ::SetEvent(scan_may_end.get());
  }
  EXPECT_EQ(returned_early, 0);
}

TEST_F(IdleScannerTest, StopClosesEveryHandle) {
  StartIdleScanner(CountScan);
  StopIdleScanner();  // what the run-time library opens once is open now
  const std::size_t before = test::HandleCount();
  for (int round = 0; round < 3; ++round) {
    StartIdleScanner(CountScan);
    StopIdleScanner();
  }
  StopIdleScanner();
  EXPECT_EQ(test::HandleCount(), before);
}

HANDLE WINAPI FailToCreateEvent(SECURITY_ATTRIBUTES*, BOOL, BOOL, const wchar_t*) {
  ::SetLastError(ERROR_NO_SYSTEM_RESOURCES);
  return nullptr;
}

TEST_F(IdleScannerTest, WithoutItsEventDoesNotScanAndSaysSo) {
  StartLogging("zelservicelog=none\nzelservicelog:bitmap=error\nzelservicelog:drivercomm=none\n");
  {
    const test::ImportHook hook(__imp_CreateEventW, &FailToCreateEvent);
    StartIdleScanner(CountScan);
  }
  StopIdleScanner();
  EXPECT_EQ(scans, 0);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre(StartsWith("ERROR Failed to start the bitmap idle scanner thread: ")));
}

}  // namespace
}  // namespace zel
