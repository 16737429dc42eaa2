#include "driver/synchronize.h"
#include "driver/driver_port.h"

#include <future>
#include <random>
#include <thread>

#include "config/settings.h"
#include "driver/message_threads.h"
#include "driver/message_times.h"
#include "driver/open_file_for_driver.h"
#include "tests/integration/support/driver_fixture.h"
#include "tests/integration/support/driver_opens.h"
#include "tests/integration/support/scripted_port.h"
#include "tracking/tracked_file_table.h"
#include "win32/stop_requested.h"

namespace zel {
namespace {

using test::kEventTime;
using test::kFile;
using test::kKey;
using test::kSecond;
using test::kVolume;
using test::MakeMessage;
using test::MakeWrite;
using test::PollUntil;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::Lt;
using ::testing::SizeIs;
using ::testing::StartsWith;

using Type = DriverMessageType;

constexpr auto kRefused = static_cast<HRESULT>(0x801F0010);

void Track(const std::wstring& path, FileId file = kFile) {
  bool is_new = false;
  EXPECT_TRUE(StartTrackingFile(path, kVolume, file, is_new));
}

// The whole of what the driver's floor needs, and a clock that moves with the waits.
class SynchronizeTest : public test::DriverFixture {
 protected:
  SynchronizeTest() {
    EXPECT_EQ(ConnectDriverPort(), S_OK);
    test::FakeClock::now = kEventTime;
  }
  ~SynchronizeTest() override {
    StopDriverThreads();
    test::ShortWaits::on_wait = [] {};
  }

  void Start() {
    ASSERT_EQ(StartDriverThreads(), 0u);
    ASSERT_TRUE(port_.WaitForReads(kMessageThreads));
  }

  // For calls that succeed: the clock runs ahead while threads say that they have nothing in hand.
  static void WaitPatiently() { SyncTimeout = 1'000'000'000; }

  // Lets the driver answer every sync command at once.
  void AnswerSyncs() {
    port_.on_send = [this](int command) {
      if (command == 1) port_.Post(MakeMessage(Type::kQueueSync, test::FakeClock::now));
    };
  }

  // An existing file's path.
  std::wstring MakeFile(const wchar_t* name) {
    const std::filesystem::path path = directory() / name;
    test::WriteFileBytes(path, "x");
    return path.wstring();
  }

  test::ScriptedPort port_;
  test::ShortWaits waits_;
  test::DriverOpens opens_;
};

TEST_F(SynchronizeTest, PointNotLaterThanTheLastNotificationIsReachedRightAfterTheCommand) {
  WaitPatiently();
  Start();
  LastSyncTime.Raise(kEventTime);
  EXPECT_EQ(Synchronize(kEventTime), 0u);
  EXPECT_EQ(Synchronize(kEventTime - 1), 0u);
  EXPECT_THAT(waits_.Take(), Each(Lt(50u)));  // for the threads to say that nothing is in hand
  const auto sent = port_.TakeSent();
  ASSERT_THAT(sent, SizeIs(2));
  EXPECT_EQ(sent[0].command, std::string("\1", 1) + std::string(63, '\0'));
  EXPECT_EQ(sent[0].room, 0u);
}

TEST_F(SynchronizeTest, RequestIsLogged) {
  LastSyncTime.Raise(kEventTime);
  StartLogging(test::kDriverDebug);
  EXPECT_EQ(Synchronize(kEventTime), 0u);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("DEBUG Requested filter driver message queue sync"));
}

TEST_F(SynchronizeTest, EveryTrackedFileIsOpenedBeforeTheCommand) {
  const std::wstring first = MakeFile(L"a");
  const std::wstring second = MakeFile(L"b");
  Track(second, 2);
  Track(first, 1);
  LastSyncTime.Raise(kEventTime);
  std::vector<std::wstring> opened_at_command;
  port_.on_send = [&](int) { opened_at_command = opens_.Take(); };
  EXPECT_EQ(Synchronize(kEventTime), 0u);
  EXPECT_THAT(opened_at_command, ElementsAre(first, second));
  EXPECT_THAT(opens_.TakeControlCodes(), IsEmpty());
}

TEST_F(SynchronizeTest, FilesOutOfReachArePassedOverSilentlyAndOthersAreLogged) {
  const DWORD errors[] = {2, 3, 21, 1, 5};
  for (const DWORD error : errors) {
    const std::wstring path = L"C:\\file" + std::to_wstring(error);
    Track(path, error);
    opens_.open_errors[path] = error;
  }
  LastSyncTime.Raise(kEventTime);
  StartLogging(test::kDriverErrors);
  EXPECT_EQ(Synchronize(kEventTime), 0u);
  EXPECT_THAT(opens_.Take(), SizeIs(5));
  const auto messages = StopLoggingAndGetMessages();
  ASSERT_THAT(messages, SizeIs(2));
  EXPECT_THAT(messages[0],
              StartsWith("ERROR Failed to open C:\\file1 to flush filter driver state: "));
  EXPECT_THAT(messages[0], EndsWith("[ERROR_INVALID_FUNCTION]"));
  EXPECT_THAT(messages[1],
              StartsWith("ERROR Failed to open C:\\file5 to flush filter driver state: "));
  EXPECT_THAT(messages[1], EndsWith("[ERROR_ACCESS_DENIED]"));
}

// A list of an earlier version may name one.
TEST_F(SynchronizeTest, FileOnAShareIsNeverOpened) {
  const std::wstring share = L"\\\\server\\share\\file";
  Track(share);
  LastSyncTime.Raise(kEventTime);
  StartLogging(test::kDriverErrors);
  EXPECT_EQ(Synchronize(kEventTime), 0u);
  EXPECT_EQ(VerifyFileIsTracked(share, kVolume, kFile), 0u);
  EXPECT_EQ(ForceTrackingStop(share, kVolume, kFile), 0u);
  EXPECT_THAT(opens_.Take(), IsEmpty());
  EXPECT_THAT(StopLogging(), IsEmpty());
}

TEST_F(SynchronizeTest, CommandThatCannotBeSentIsLoggedTwiceAndReturned) {
  LastSyncTime.Raise(kEventTime);
  port_.send_result = kRefused;
  StartLogging(test::kDriverDebug);
  EXPECT_EQ(Synchronize(kEventTime), 0x801F0010u);
  EXPECT_THAT(waits_.Take(), IsEmpty());
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR FilterSendMessage failed: -2145452016 (0x801f0010)",
                          "ERROR Failed to send sync message to driver: 0x801f0010"));
}

TEST_F(SynchronizeTest, WithoutAPortTheCommandFails) {
  CloseDriverPort();
  EXPECT_EQ(Synchronize(kEventTime), 0x80070006u);
}

TEST_F(SynchronizeTest, WithoutThreadsTheWaitIsAborted) {
  StartLogging(test::kDriverDebug);
  EXPECT_EQ(Synchronize(kEventTime), DWORD{ERROR_SHUTDOWN_IN_PROGRESS});
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("DEBUG Requested filter driver message queue sync",
                          "INFO  Synchronize aborting due to service shutdown"));
}

TEST_F(SynchronizeTest, DriverThatSendsNothingIsGivenUpAfterTheTimeout) {
  Start();
  StartLogging(test::kDriverErrors);
  EXPECT_EQ(Synchronize(kEventTime + 1), DWORD{ERROR_TIMEOUT});
  // 61 whole seconds must have passed: 6350 ms in growing steps, then steps of 5 s.
  std::vector<DWORD> expected = {50, 100, 200, 400, 800, 1600, 3200};
  expected.insert(expected.end(), 11, 5000);
  EXPECT_EQ(waits_.Take(), expected);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR Synchronize timed out because no messages arrived from the driver "
                          "for 60 seconds"));
}

TEST_F(SynchronizeTest, TimeoutIsTheSettingOfTheCall) {
  Start();
  SyncTimeout = 1;
  int waits = 0;
  test::ShortWaits::on_wait = [&] {
    if (++waits == 3) SyncTimeout = 3600;  // too late for this call
  };
  EXPECT_EQ(Synchronize(kEventTime + 1), DWORD{ERROR_TIMEOUT});
  EXPECT_THAT(waits_.Take(), ElementsAre(50, 100, 200, 400, 800, 1600));
}

TEST_F(SynchronizeTest, MessagesThatKeepArrivingKeepTheWaitGoing) {
  Start();
  int waits = 0;
  test::ShortWaits::on_wait = [&] {
    // One every five seconds, all from before the request: ten minutes in all.
    LastMessageTime.Raise(kEventTime - 1'000'000 + ++waits);
    if (waits == 120) LastSyncTime.Raise(kEventTime);
  };
  EXPECT_EQ(Synchronize(kEventTime), 0u);
  EXPECT_GE(waits, 120);
}

TEST_F(SynchronizeTest, MessagesFromLongAfterTheRequestEndTheWait) {
  Start();
  StartLogging(test::kDriverErrors);
  test::ShortWaits::on_wait = [] { LastMessageTime.Raise(kEventTime + 61 * kSecond); };
  EXPECT_EQ(Synchronize(kEventTime + 1), DWORD{ERROR_TIMEOUT});
  EXPECT_THAT(waits_.Take(), SizeIs(1));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR Synchronize timed out because messages created 60 seconds after "
                          "the sync event was sent have arrived"));
}

TEST_F(SynchronizeTest, NotificationThroughTheQueueEndsTheWait) {
  WaitPatiently();
  Start();
  AnswerSyncs();
  EXPECT_EQ(Synchronize(test::FakeClock::now), 0u);
}

TEST_F(SynchronizeTest, OlderNotificationDoesNot) {
  Start();
  SyncTimeout = 1;
  port_.on_send = [this](int) { port_.Post(MakeMessage(Type::kQueueSync, kEventTime - 1)); };
  EXPECT_EQ(Synchronize(kEventTime), DWORD{ERROR_TIMEOUT});
}

// The clock was an hour ahead when the driver answered last, and was then set back.
TEST_F(SynchronizeTest, NotificationFromTheFutureIsNoAnswer) {
  Start();
  SyncTimeout = 1;
  LastSyncTime.Raise(kEventTime + 3600 * kSecond);
  EXPECT_EQ(Synchronize(kEventTime), DWORD{ERROR_TIMEOUT});
}

TEST_F(SynchronizeTest, FurtherNotificationAfterOneFromTheFutureIs) {
  WaitPatiently();
  Start();
  const BitmapId id = Create(16);
  LastSyncTime.Raise(kEventTime + 3600 * kSecond);
  port_.on_send = [this](int) {
    port_.Post(MakeWrite(0, 1, test::FakeClock::now));
    port_.Post(MakeMessage(Type::kQueueSync, test::FakeClock::now));
  };
  EXPECT_EQ(Synchronize(test::FakeClock::now), 0u);
  EXPECT_THAT(Bits(id), ElementsAre(0));
}

TEST_F(SynchronizeTest, NotificationThatComesFromTheFutureIsNoAnswerEither) {
  Start();
  SyncTimeout = 1;
  port_.on_send = [this](int) {
    port_.Post(MakeMessage(Type::kQueueSync, kEventTime + 3600 * kSecond));
  };
  EXPECT_EQ(Synchronize(kEventTime), DWORD{ERROR_TIMEOUT});
}

TEST_F(SynchronizeTest, TwoInARowWithoutAMessageBetweenThemBothReturn) {
  WaitPatiently();
  Start();
  AnswerSyncs();
  EXPECT_EQ(Synchronize(test::FakeClock::now), 0u);
  test::FakeClock::now += 1;
  EXPECT_EQ(Synchronize(test::FakeClock::now), 0u);
}

TEST_F(SynchronizeTest, EarlierWriteThatAnotherThreadHasInHandIsWaitedFor) {
  const BitmapId id = Create(16);
  Start();
  std::atomic<int> waits{0};
  test::ShortWaits::on_wait = [&] { ++waits; };
  WaitPatiently();
  std::future<std::uint32_t> result;
  {
    // The write is received but cannot look its bitmaps up.
    const LockGuard guard(bitmapCacheLock);
    port_.Post(MakeWrite(0, 1, kEventTime));
    port_.Post(MakeMessage(Type::kQueueSync, kEventTime));
    ASSERT_TRUE(PollUntil([] { return LastSyncTime.Get() == kEventTime; }));
    result = std::async(std::launch::async, [] { return Synchronize(kEventTime); });
    ASSERT_TRUE(PollUntil([&] { return waits >= 20; }));
    EXPECT_EQ(result.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  }
  EXPECT_EQ(result.get(), 0u);
  EXPECT_THAT(Bits(id), ElementsAre(0));
}

// A thousand times a write, stamped with the very point asked for, whose delivery the driver delays
// at random; the notification follows it.
TEST_F(SynchronizeTest, WriteBeforeThePointIsInTheBitmapWhenTheCallReturns) {
  constexpr std::uint32_t kRounds = 1000;
  const BitmapId id = Create(kRounds);
  Start();
  WaitPatiently();
  const PinnedBitmap bitmap = GetBitmapById(id);
  const auto* const bits = reinterpret_cast<const volatile std::uint8_t*>(bitmap->header() + 1);
  const UniqueEvent asked(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
  const UniqueEvent answered(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
  std::uint32_t round = 0;
  std::jthread driver([&](const std::stop_token& ended) {
    std::mt19937 random(1);
    while (::WaitForSingleObject(asked.get(), INFINITE) == WAIT_OBJECT_0 &&
           !ended.stop_requested()) {
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
      const FileTime time = test::FakeClock::now;
      port_.Post(MakeWrite(std::uint64_t{round} * test::kBlockSize, 1, time));
      port_.Post(MakeMessage(Type::kQueueSync, time));
      ::SetEvent(answered.get());
    }
  });
  port_.on_send = [&](int) { ::SetEvent(asked.get()); };
  bool kept = true;
  for (; round < kRounds && kept; ++round) {
    test::FakeClock::now += 1;
    const std::uint32_t result = Synchronize(test::FakeClock::now);
    kept = result == 0 && (bits[round / 8] & 1 << round % 8) != 0;
    EXPECT_TRUE(kept) << "round " << round << ": " << result;
    ::WaitForSingleObject(answered.get(), INFINITE);
  }
  driver.request_stop();
  ::SetEvent(asked.get());
}

TEST_F(SynchronizeTest, StopEndsTheWaitAtOnce) {
  Start();
  std::atomic<bool> waits{false};
  test::ShortWaits::on_wait = [&] { waits = true; };
  WaitPatiently();
  StartLogging("zelservicelog=none\nzelservicelog:bitmap=none\n");
  std::future<std::uint32_t> result =
      std::async(std::launch::async, [] { return Synchronize(~FileTime{0}); });
  ASSERT_TRUE(PollUntil([&] { return waits.load(); }));
  StopDriverThreads();
  EXPECT_EQ(result.get(), DWORD{ERROR_SHUTDOWN_IN_PROGRESS});
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  Synchronize aborting due to service shutdown"));
}

TEST_F(SynchronizeTest, StopEndsTheOpensAndNothingIsAskedOfTheDriver) {
  const std::wstring first = MakeFile(L"a");
  Track(first, 1);
  Track(MakeFile(L"b"), 2);
  opens_.on_open = [] { StopRequested = true; };
  StartLogging("zelservicelog=none\nzelservicelog:bitmap=none\n");
  EXPECT_EQ(Synchronize(kEventTime), DWORD{ERROR_SHUTDOWN_IN_PROGRESS});
  EXPECT_THAT(opens_.Take(), ElementsAre(first));
  EXPECT_THAT(port_.TakeSent(), IsEmpty());
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  Synchronize aborting due to service shutdown"));
}

class VerifyFileIsTrackedTest : public SynchronizeTest {
 protected:
  VerifyFileIsTrackedTest() : path_(MakeFile(L"file")) {}

  std::uint32_t Verify() { return VerifyFileIsTracked(path_, kVolume, kFile); }

  // Lets the driver answer every control code with a message of this time.
  void AnswerVerifies(FileTime time) {
    opens_.on_control = [this, time] {
      DriverMessage message = MakeMessage(Type::kVerify, time);
      message.ProcessId = ::GetCurrentProcessId();
      port_.Post(message);
    };
  }

  std::wstring path_;
};

TEST_F(VerifyFileIsTrackedTest, FileIsTrackedWhenTheDriverHasSeenItsControlCode) {
  Create(16);
  Create(16);
  Start();
  const FileTime start = test::FakeClock::now;
  AnswerVerifies(start);
  EXPECT_EQ(Verify(), 0u);
  EXPECT_THAT(opens_.Take(), ElementsAre(path_));
  EXPECT_THAT(opens_.TakeControlCodes(), ElementsAre(kVerifyControlCode));
  EXPECT_TRUE(AllVerifiedSince(kKey, start));
  EXPECT_THAT(port_.TakeSent(), IsEmpty());
}

TEST_F(VerifyFileIsTrackedTest, DriverThatDoesNotAnswerIsGivenUpAfterTheTimeout) {
  Create(16);
  Start();
  StartLogging(test::kDriverErrors);
  SyncTimeout = 6;
  EXPECT_EQ(Verify(), DWORD{ERROR_TIMEOUT});
  EXPECT_THAT(waits_.Take(), ElementsAre(50, 100, 200, 400, 800, 1600, 3200, 5000));
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      ElementsAre("ERROR Verifying file tracking didn't receive any events after 6 seconds"));
}

TEST_F(VerifyFileIsTrackedTest, AnswerToAnEarlierControlCodeDoesNotCount) {
  Create(16);
  Start();
  SyncTimeout = 1;
  AnswerVerifies(kEventTime - 1);
  EXPECT_EQ(Verify(), DWORD{ERROR_TIMEOUT});
}

// As when another agent starts tracking of the file meanwhile.
TEST_F(VerifyFileIsTrackedTest, BitmapMadeAfterTheAnswerIsVerifiedByAnotherOne) {
  Create(16);
  Start();
  int answers = 0;
  opens_.on_control = [&] {
    port_.Post(MakeMessage(Type::kVerify, test::FakeClock::now));
    ASSERT_TRUE(port_.WaitForReads(kMessageThreads));
    if (++answers == 1) Create(16);
  };
  EXPECT_EQ(Verify(), 0u);
  EXPECT_EQ(answers, 2);
  EXPECT_THAT(opens_.TakeControlCodes(), Each(kVerifyControlCode));
}

TEST_F(VerifyFileIsTrackedTest, FileThatGoesBeforeItsNewBitmapIsVerifiedNeedsNoMore) {
  Create(16);
  Start();
  opens_.on_control = [&] {
    port_.Post(MakeMessage(Type::kVerify, test::FakeClock::now));
    ASSERT_TRUE(port_.WaitForReads(kMessageThreads));
    Create(16);
    opens_.open_errors[path_] = ERROR_FILE_NOT_FOUND;
  };
  EXPECT_EQ(Verify(), 0u);
}

TEST_F(VerifyFileIsTrackedTest, FileThatTheManagerDoesNotKnowIsNotVerified) {
  Start();
  SyncTimeout = 1;
  AnswerVerifies(kEventTime);
  EXPECT_EQ(Verify(), DWORD{ERROR_TIMEOUT});
}

TEST_F(VerifyFileIsTrackedTest, FileOutOfReachNeedsNoVerificationAndNoWait) {
  std::filesystem::remove(path_);
  EXPECT_EQ(Verify(), 0u);
  for (const DWORD error : {ERROR_PATH_NOT_FOUND, ERROR_NOT_READY}) {
    opens_.open_errors[path_] = error;
    EXPECT_EQ(Verify(), 0u);
  }
  EXPECT_THAT(waits_.Take(), IsEmpty());
  EXPECT_THAT(opens_.TakeControlCodes(), IsEmpty());
}

TEST_F(VerifyFileIsTrackedTest, OtherErrorsOfTheOpenAndTheControlCodeAreReturned) {
  opens_.control_error = ERROR_INVALID_FUNCTION;
  EXPECT_EQ(Verify(), DWORD{ERROR_INVALID_FUNCTION});
  opens_.open_errors[path_] = ERROR_ACCESS_DENIED;
  EXPECT_EQ(Verify(), DWORD{ERROR_ACCESS_DENIED});
  EXPECT_THAT(waits_.Take(), IsEmpty());
}

TEST_F(VerifyFileIsTrackedTest, StopEndsTheWaitAtOnce) {
  Create(16);
  Start();
  std::atomic<bool> waits{false};
  test::ShortWaits::on_wait = [&] { waits = true; };
  WaitPatiently();
  StartLogging("zelservicelog=none\nzelservicelog:bitmap=none\n");
  std::future<std::uint32_t> result = std::async(std::launch::async, [&] { return Verify(); });
  ASSERT_TRUE(PollUntil([&] { return waits.load(); }));
  StopDriverThreads();
  EXPECT_EQ(result.get(), DWORD{ERROR_SHUTDOWN_IN_PROGRESS});
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  Verify file is tracked aborting due to service shutdown"));
}

class ForceTrackingStopTest : public SynchronizeTest {
 protected:
  ForceTrackingStopTest() : path_(MakeFile(L"file")) { Track(path_); }

  std::uint32_t Force() { return ForceTrackingStop(path_, kVolume, kFile); }

  static bool IsTracked(const std::wstring& path) {
    VolumeGuid volume;
    FileId file;
    return FindTrackedFile(path, volume, file);
  }

  std::wstring path_;
};

TEST_F(ForceTrackingStopTest, FileLeavesTheListThenTheDriverIsToldThenItIsOpened) {
  Create(16);
  bool tracked_at_command = true;
  std::vector<std::wstring> opened_at_command;
  port_.on_send = [&](int command) {
    EXPECT_EQ(command, 0);
    tracked_at_command = IsTracked(path_);
    opened_at_command = opens_.Take();
  };
  EXPECT_EQ(Force(), 0u);
  EXPECT_FALSE(tracked_at_command);
  EXPECT_THAT(opened_at_command, IsEmpty());
  EXPECT_THAT(opens_.Take(), ElementsAre(path_));
  EXPECT_THAT(opens_.TakeControlCodes(), IsEmpty());
  EXPECT_THAT(ListAllBitmaps(), IsEmpty());
}

TEST_F(ForceTrackingStopTest, BitmapsThatNobodyUsesAreDeletedNowAndOthersLater) {
  const std::wstring unloaded = GetBitmapById(Create(16))->FileName;
  const BitmapId used = Create(16);
  std::wstring used_path;
  {
    const PinnedBitmap pin = GetBitmapById(used);
    used_path = pin->FileName;
    EXPECT_EQ(Force(), 0u);
    EXPECT_FALSE(std::filesystem::exists(unloaded));
    EXPECT_TRUE(std::filesystem::exists(used_path));
    EXPECT_TRUE(FindBitmapsForFile(kVolume, kFile).empty());
  }
  UnloadIdleBitmaps();
  EXPECT_FALSE(std::filesystem::exists(used_path));
  EXPECT_THAT(ListAllBitmaps(), IsEmpty());
}

TEST_F(ForceTrackingStopTest, BitmapsOfTheFileThatThePathNamesByThenAreDeletedToo) {
  Create(16);
  EXPECT_EQ(ForceTrackingStop(path_, kVolume, kFile + 1), 0u);
  EXPECT_THAT(ListAllBitmaps(), IsEmpty());
}

TEST_F(ForceTrackingStopTest, FileOutOfReachIsStoppedAllTheSame) {
  StartLogging(test::kDriverErrors);
  for (const DWORD error : {ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_NOT_READY}) {
    opens_.open_errors[path_] = error;
    EXPECT_EQ(Force(), 0u);
  }
  EXPECT_FALSE(IsTracked(path_));
  EXPECT_THAT(StopLogging(), IsEmpty());
}

TEST_F(ForceTrackingStopTest, OtherErrorOfTheOpenIsLoggedAndReturned) {
  opens_.open_errors[path_] = ERROR_ACCESS_DENIED;
  StartLogging(test::kDriverErrors);
  EXPECT_EQ(Force(), DWORD{ERROR_ACCESS_DENIED});
  EXPECT_FALSE(IsTracked(path_));
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      ElementsAre("ERROR Failed to open FileId 0x0001000000000123 to force tracking to stop"));
}

TEST_F(ForceTrackingStopTest, ServiceThatIsToStopTouchesNothing) {
  Create(16);
  StopRequested = true;
  EXPECT_EQ(Force(), DWORD{ERROR_SHUTDOWN_IN_PROGRESS});
  EXPECT_TRUE(IsTracked(path_));
  EXPECT_THAT(ListAllBitmaps(), SizeIs(1));
  EXPECT_THAT(port_.TakeSent(), IsEmpty());
  EXPECT_THAT(opens_.Take(), IsEmpty());
}

TEST_F(ForceTrackingStopTest, DriverThatCannotBeToldDoesNotKeepTheFileTracked) {
  Create(16);
  port_.send_result = kRefused;
  EXPECT_EQ(Force(), 0u);
  EXPECT_FALSE(IsTracked(path_));
  EXPECT_THAT(ListAllBitmaps(), IsEmpty());
}

}  // namespace
}  // namespace zel
