// The threads that read the port: their start, their loop, their stop.
#include "driver/message_threads.h"
#include "driver/driver_session.h"

#include <process.h>
#include <tlhelp32.h>

#include <memory>
#include <optional>
#include <thread>

#include "driver/message_times.h"
#include "driver/reader_barrier.h"
#include "driver/synchronize.h"
#include "tests/integration/support/driver_fixture.h"
#include "tests/integration/support/handle_count.h"
#include "tests/integration/support/scripted_port.h"

extern "C" {
extern void* __imp_CreateEventW;
extern void* __imp_WaitForMultipleObjects;
extern void* __imp__beginthreadex;
}

namespace zel {
namespace {

using test::HandleCount;
using test::kPending;
using test::MakeMessage;
using test::MakeWrite;
using test::PollUntil;
using ::testing::ElementsAre;
using ::testing::SizeIs;

using Type = DriverMessageType;

constexpr auto kRefused = static_cast<HRESULT>(0x80070006);
constexpr char kUnexpected[] = "ERROR Unexpected result 0x80070006 from FilterGetMessage";

int ThreadCount() {
  const UniqueFile snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
  THREADENTRY32 thread = {};
  thread.dwSize = sizeof thread;
  int count = 0;
  for (BOOL more = ::Thread32First(snapshot.get(), &thread); more;
       more = ::Thread32Next(snapshot.get(), &thread)) {
    if (thread.th32OwnerProcessID == ::GetCurrentProcessId()) ++count;
  }
  return count;
}

class MessageThreadsTest : public test::DriverFixture {
 protected:
  MessageThreadsTest() { EXPECT_EQ(ConnectDriverPort(), S_OK); }
  ~MessageThreadsTest() override {
    StopDriverThreads();
    test::ShortWaits::on_wait = [] {};
  }

  void Start() {
    ASSERT_EQ(StartDriverThreads(), 0u);
    ASSERT_TRUE(port_.WaitForReads(kMessageThreads));
  }

  // The messages that are neither of the start nor of the end of a thread.
  std::vector<std::string> MessagesBetween() {
    StopDriverThreads();
    std::vector<std::string> messages = StopLoggingAndGetMessages();
    std::erase_if(messages, [](const std::string& message) {
      return message.starts_with("DEBUG Service thread ");
    });
    return messages;
  }

  test::ScriptedPort port_;
};

TEST_F(MessageThreadsTest, FourThreadsReadAndEndWithTheirLines) {
  StartLogging(test::kDriverDebug);
  Start();
  StopDriverThreads();
  const auto messages = StopLoggingAndGetMessages();
  EXPECT_THAT(messages, SizeIs(12));
  for (const char* line :
       {"DEBUG Service thread started", "DEBUG Service thread shutdown requested",
        "DEBUG Service thread shutdown"}) {
    EXPECT_EQ(std::ranges::count(messages, line), 4) << line;
  }
}

TEST_F(MessageThreadsTest, MessagesAreHandledByWhoeverReadsThem) {
  const BitmapId id = Create(16);
  Start();
  for (std::uint64_t block = 0; block < 8; ++block) {
    port_.Post(MakeWrite(block * test::kBlockSize, 1, 1000 + block));
  }
  ASSERT_TRUE(port_.WaitForReads(kMessageThreads));
  EXPECT_THAT(Bits(id), ElementsAre(0, 1, 2, 3, 4, 5, 6, 7));
  EXPECT_EQ(LastMessageTime.Get(), 1007u);
}

TEST_F(MessageThreadsTest, MessageOf65536BytesIsTakenAndMoreThanTheBufferIsNotLookedFor) {
  const BitmapId id = Create(16);
  Start();
  std::string bytes = test::BytesOf(MakeWrite(0, 1));
  bytes.resize(65'536, 'x');
  port_.Post(bytes);
  ASSERT_TRUE(port_.WaitForReads(kMessageThreads));
  EXPECT_THAT(Bits(id), ElementsAre(0));
}

TEST_F(MessageThreadsTest, ShortMessageDoesNotSeeTheOneBeforeInItsBuffer) {
  Create(16);
  StartLogging(test::kDriverErrors);
  Start();
  for (int i = 0; i < 8; ++i) port_.Post(MakeWrite(0, 1));
  ASSERT_TRUE(port_.WaitForReads(kMessageThreads));
  for (int i = 0; i < 4; ++i) port_.Post(std::string(4, '\0'));
  ASSERT_TRUE(port_.WaitForReads(kMessageThreads));
  EXPECT_THAT(
      MessagesBetween(),
      ElementsAre("ERROR Message too small (4 bytes)", "ERROR Message too small (4 bytes)",
                  "ERROR Message too small (4 bytes)", "ERROR Message too small (4 bytes)"));
}

TEST_F(MessageThreadsTest, FailedReadIsLoggedAndTheNextOneWorks) {
  const BitmapId id = Create(16);
  StartLogging(test::kDriverErrors);
  Start();
  port_.Post("", 0xC0000008);  // STATUS_INVALID_HANDLE
  port_.Post(MakeWrite(0, 1));
  ASSERT_TRUE(port_.WaitForReads(kMessageThreads));
  EXPECT_THAT(Bits(id), ElementsAre(0));
  const auto messages = MessagesBetween();
  ASSERT_THAT(messages, SizeIs(1));
  EXPECT_THAT(messages[0], ::testing::MatchesRegex(
                               "ERROR FilterGetMessage failed: .*\\[ERROR_INVALID_HANDLE\\]"));
}

// One thread of the procedure, on a session of the test's own.
class OneReader {
 public:
  OneReader() {
    session.port = CurrentDriverPort();
    session.serviceThreadStartEvent.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    session.serviceThreadShutdownEvent.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    thread_ = std::jthread([this] { EXPECT_EQ(DriverMessageThread(&session), 0u); });
  }
  ~OneReader() { Stop(); }

  void Release() { ::SetEvent(session.serviceThreadStartEvent.get()); }
  void Stop() {
    driverThreadsStopping = true;
    Release();
    ::SetEvent(session.serviceThreadShutdownEvent.get());
    if (thread_.joinable()) thread_.join();
  }

  DriverSession session;

 private:
  std::jthread thread_;
};

TEST_F(MessageThreadsTest, NothingIsReadBeforeTheStartEvent) {
  std::atomic<int> reads{0};
  port_.on_read = [&] { ++reads; };
  StartLogging(test::kDriverDebug);
  OneReader reader;
  // The thread makes its events, which is all that it does before it waits.
  ASSERT_TRUE(PollUntil([&] { return static_cast<bool>(reader.session.probe_events[0]); }));
  EXPECT_EQ(reads, 0);
  reader.Release();
  EXPECT_TRUE(port_.WaitForReads(1));
}

TEST_F(MessageThreadsTest, StopBeforeTheStartEventReadsNothing) {
  std::atomic<int> reads{0};
  port_.on_read = [&] { ++reads; };
  OneReader reader;
  reader.Stop();
  EXPECT_EQ(reads, 0);
}

TEST_F(MessageThreadsTest, ThreadWithoutStartInformationSaysSoAndEnds) {
  StartLogging(test::kDriverDebug);
  EXPECT_EQ(DriverMessageThread(nullptr), 0u);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("DEBUG Service thread started", "ERROR Invalid start info, terminating"));
}

HANDLE WINAPI FailToCreateEvent(SECURITY_ATTRIBUTES*, BOOL, BOOL, const wchar_t*) {
  ::SetLastError(ERROR_NO_SYSTEM_RESOURCES);
  return nullptr;
}

TEST_F(MessageThreadsTest, ThreadWithoutItsEventSaysSoAndEnds) {
  DriverSession session;
  StartLogging(test::kDriverDebug);
  const test::ImportHook hook(__imp_CreateEventW, &FailToCreateEvent);
  EXPECT_EQ(DriverMessageThread(&session), 0u);
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre("DEBUG Service thread started",
                                                       "ERROR Failed to allocate an event: 1450"));
}

TEST_F(MessageThreadsTest, ThreadWhoseStartEventCannotBeWaitedForSaysSoAndEnds) {
  DriverSession session;  // without the event
  StartLogging(test::kDriverDebug);
  EXPECT_EQ(DriverMessageThread(&session), 0u);
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("DEBUG Service thread started", "ERROR Startup event wait failed 6"));
}

TEST_F(MessageThreadsTest, TenRefusedReadsAreOneLineAndAPauseOfASecondEach) {
  test::ShortWaits waits;
  StartLogging(test::kDriverErrors);
  port_.AnswerReads(kRefused);
  OneReader reader;
  reader.Release();
  ASSERT_TRUE(PollUntil([&] { return port_.refused_reads() >= 10; }));
  port_.AnswerReads(kPending);
  ASSERT_TRUE(port_.WaitForReads(1));
  const auto pauses = waits.Take();
  EXPECT_EQ(pauses.size(), static_cast<std::size_t>(port_.refused_reads()));
  EXPECT_THAT(pauses, ::testing::Each(1000u));
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre(kUnexpected));
}

TEST_F(MessageThreadsTest, RunOfRefusedReadsEndsWithTheNextPendingOne) {
  test::ShortWaits waits;
  StartLogging(test::kDriverErrors);
  OneReader reader;
  reader.Release();
  ASSERT_TRUE(port_.WaitForReads(1));
  for (int run = 0; run < 2; ++run) {
    const int refused_before = port_.refused_reads();
    port_.AnswerReads(kRefused);
    port_.Post(MakeMessage(Type::kOpened));
    ASSERT_TRUE(PollUntil([&] { return port_.refused_reads() >= refused_before + 2; }));
    port_.AnswerReads(kPending);
    ASSERT_TRUE(port_.WaitForReads(1));
  }
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre(kUnexpected, kUnexpected));
}

TEST_F(MessageThreadsTest, ImmediateSuccessIsUnexpectedAndItsPauseASecond) {
  test::ShortWaits waits;
  StartLogging(test::kDriverErrors);
  port_.AnswerReads(S_OK);
  OneReader reader;
  reader.Release();
  ASSERT_TRUE(PollUntil([&] { return port_.refused_reads() >= 3; }));
  reader.Stop();
  EXPECT_THAT(waits.Take(), ::testing::Each(1000u));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR Unexpected result 0x00000000 from FilterGetMessage"));
}

TEST_F(MessageThreadsTest, MessageOfAnImmediateSuccessIsHandledBeforeThePause) {
  test::ShortWaits waits;
  const BitmapId id = Create(16);
  port_.AnswerReads(S_OK);
  port_.Post(MakeWrite(0, 1));
  OneReader reader;
  reader.Release();
  ASSERT_TRUE(PollUntil([&] { return port_.refused_reads() >= 3; }));
  reader.Stop();
  EXPECT_THAT(Bits(id), ElementsAre(0));
  EXPECT_THAT(waits.Take(), ::testing::Each(1000u));
}

// Fails the waits of the message threads while it is armed, with whatever is ready left unseen.
std::atomic<int> failing_waits{0};
decltype(&::WaitForMultipleObjects) real_wait_for_multiple = nullptr;

DWORD WINAPI FailWait(DWORD count, const HANDLE* handles, BOOL all, DWORD limit_ms) {
  if (limit_ms != INFINITE || all || failing_waits == 0) {
    return real_wait_for_multiple(count, handles, all, limit_ms);
  }
  real_wait_for_multiple(count, handles, all, limit_ms);
  --failing_waits;
  return WAIT_FAILED;
}

TEST_F(MessageThreadsTest, UnexpectedWaitResultIsLoggedAndTheReceivedMessageStillHandled) {
  const BitmapId id = Create(16);
  const test::ImportHook hook(__imp_WaitForMultipleObjects, &FailWait);
  real_wait_for_multiple = reinterpret_cast<decltype(real_wait_for_multiple)>(hook.original());
  failing_waits = 1;
  StartLogging(test::kDriverErrors);
  {
    OneReader reader;
    reader.Release();
    ASSERT_TRUE(port_.WaitForReads(1));
    port_.Post(MakeWrite(0, 1));
    ASSERT_TRUE(port_.WaitForReads(1));
  }
  EXPECT_THAT(Bits(id), ElementsAre(0));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR Unexpected handle condition (4294967295)"));
}

TEST_F(MessageThreadsTest, MessageThatArrivesWithTheStopIsHandled) {
  const BitmapId id = Create(16);
  OneReader reader;
  UniqueEvent reading(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  UniqueEvent may_read(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  port_.on_read = [&] {
    ::SetEvent(reading.get());
    ::WaitForSingleObject(may_read.get(), INFINITE);
  };
  reader.Release();
  ::WaitForSingleObject(reading.get(), INFINITE);
  // The thread is past the test of the flag; now both ends of its wait become ready.
  port_.Post(MakeWrite(0, 1));
  driverThreadsStopping = true;
  ::SetEvent(reader.session.serviceThreadShutdownEvent.get());
  ::SetEvent(may_read.get());
  reader.Stop();
  EXPECT_THAT(Bits(id), ElementsAre(0));
}

TEST_F(MessageThreadsTest, StopTakesEveryOutstandingReadBackFromThePort) {
  Start();
  StopDriverThreads();
  EXPECT_EQ(port_.OutstandingReads(), 0u);
}

TEST_F(MessageThreadsTest, StopEndsReadsThatCannotBeCancelled) {
  Start();
  port_.cancels = false;
  StopDriverThreads();
  EXPECT_EQ(port_.OutstandingReads(), 4u);
}

// Stops the threads again and again in the midst of what a test has begun.
class StopLeavesNothingTest : public MessageThreadsTest {
 protected:
  // `begin` returns what ends it when it goes, behind the stop. Up to `late_handles` are not lost
  // but made late: a lock has an event from the first time on that somebody waits for it.
  template <class Begin>
  void StopInTheMidstOf(Begin begin, int rounds = 4, std::size_t late_handles = 0) {
    Create(16);
    std::size_t handles = 0;
    const int threads = ThreadCount();
    // The first round makes what the system keeps for the life of a process.
    for (int round = 0; round < rounds; ++round) {
      driverThreadsStopping = false;  // as if in a new process
      if (round > 0) {
        ASSERT_EQ(ConnectDriverPort(), S_OK);
      }
      Start();
      EXPECT_EQ(ThreadCount(), threads + 4);
      {
        [[maybe_unused]] const auto begun = begin();
        StopDriverThreads();
      }
      EXPECT_EQ(ThreadCount(), threads);
      EXPECT_FALSE(DriverPortConnected());
      if (round == 0) handles = HandleCount();
      EXPECT_LE(HandleCount(), handles + late_handles);
    }
  }
};

TEST_F(StopLeavesNothingTest, NoThreadAndNoHandleBehindAMessage) {
  StopInTheMidstOf([this] {
    port_.Post(MakeWrite(0, 1));
    return 0;
  });
}

TEST_F(StopLeavesNothingTest, NoThreadAndNoHandleWhileMessagesPourIn) {
  const auto pour = [this](const std::stop_token& ended) {
    while (!ended.stop_requested()) {
      if (port_.OutstandingReads() == 0) continue;  // behind the stop they would pile up
      for (int i = 0; i < 64; ++i) port_.Post(MakeWrite(0, 1));
    }
  };
  StopInTheMidstOf([&] { return std::jthread(pour); }, 20, 6);
}

TEST_F(StopLeavesNothingTest, NoThreadAndNoHandleWhileThePortIsDead) {
  StopInTheMidstOf([this] {
    const int refused_before = port_.refused_reads();
    port_.AnswerReads(kRefused);
    for (std::size_t i = 0; i < kMessageThreads; ++i) port_.Post("", 0xC0000008);
    EXPECT_TRUE(PollUntil([&] { return port_.refused_reads() >= refused_before + 4; }));
    return std::shared_ptr<void>(nullptr, [this](void*) { port_.AnswerReads(kPending); });
  });
}

TEST_F(StopLeavesNothingTest, NoThreadAndNoHandleWhileASynchronizationWaits) {
  const UniqueEvent sent(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
  port_.on_send = [&](int) { ::SetEvent(sent.get()); };
  StopInTheMidstOf([&] {
    std::jthread waiter(
        [] { EXPECT_EQ(Synchronize(~FileTime{0}), DWORD{ERROR_SHUTDOWN_IN_PROGRESS}); });
    ::WaitForSingleObject(sent.get(), INFINITE);
    return waiter;
  });
}

TEST_F(MessageThreadsTest, StopWhileMessagesPourInEndsAfterThoseInHand) {
  const BitmapId id = Create(16);
  std::atomic<bool> pouring{true};
  std::atomic<int> posted{0};
  Start();
  {
    const std::jthread driver([&] {
      for (; pouring; ++posted) port_.Post(MakeWrite(0, 1));
    });
    EXPECT_TRUE(PollUntil([&] { return posted > 1000; }));
    StopDriverThreads();
    pouring = false;
  }
  EXPECT_FALSE(DriverPortConnected());
  EXPECT_EQ(GetBitmapById(id)->InUseCount, 1u);
}

decltype(&::WaitForSingleObject) real_wait = nullptr;

DWORD WINAPI PauseForEver(HANDLE handle, DWORD limit_ms) {
  return real_wait(handle, limit_ms == 1000 ? INFINITE : limit_ms);
}

TEST_F(MessageThreadsTest, StopEndsThePauseAfterARefusedRead) {
  const test::ImportHook hook(__imp_WaitForSingleObject, &PauseForEver);
  real_wait = reinterpret_cast<decltype(real_wait)>(hook.original());
  port_.AnswerReads(kRefused);
  ASSERT_EQ(StartDriverThreads(), 0u);
  ASSERT_TRUE(PollUntil([&] { return port_.refused_reads() == 4; }));
  StopDriverThreads();
  EXPECT_EQ(port_.refused_reads(), 4);
}

TEST_F(MessageThreadsTest, StopTwiceAndWithoutAStartIsHarmless) {
  StopDriverThreads();
  EXPECT_FALSE(DriverPortConnected());
  StopDriverThreads();
}

TEST_F(MessageThreadsTest, EveryConcurrentStopReturnsAfterTheThreadsHaveEnded) {
  Create(16);
  Start();
  std::atomic<int> begun{0};
  std::atomic<int> returned{0};
  {
    std::vector<std::jthread> stoppers;
    {
      const LockGuard guard(bitmapCacheLock);
      port_.Post(MakeWrite(0, 1));  // keeps its reader in hand
      for (int i = 0; i < 4; ++i) {
        stoppers.emplace_back([&] {
          ++begun;
          StopDriverThreads();
          ++returned;
        });
      }
      EXPECT_TRUE(PollUntil([&] { return begun == 4 && driverThreadsStopping; }));
      EXPECT_EQ(returned, 0);
    }
  }
  EXPECT_EQ(returned, 4);
  EXPECT_EQ(LastMessageTime.Get(), test::kEventTime);
}

TEST_F(MessageThreadsTest, StartAfterAStopIsRefusedAndClosesThePort) {
  StopDriverThreads();
  ASSERT_EQ(ConnectDriverPort(), S_OK);
  EXPECT_EQ(StartDriverThreads(), DWORD{ERROR_SHUTDOWN_IN_PROGRESS});
  EXPECT_FALSE(DriverPortConnected());
  EXPECT_EQ(CurrentDriverSession(), nullptr);
}

// The threads that may still be made, and what each was made with.
int threads_left = 0;
decltype(&::_beginthreadex) real_begin_thread = nullptr;

std::uintptr_t __cdecl BeginThread(void* security, unsigned stack,
                                   unsigned(__stdcall* procedure)(void*), void* argument,
                                   unsigned flags, unsigned* id) {
  EXPECT_TRUE(security == nullptr && id == nullptr);
  EXPECT_EQ(stack, 0x100000u);
  EXPECT_EQ(flags, unsigned{STACK_SIZE_PARAM_IS_A_RESERVATION});
  if (threads_left-- > 0) return real_begin_thread(security, stack, procedure, argument, flags, id);
  ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return 0;
}

TEST_F(MessageThreadsTest, FailedThreadIsLoggedAndTheOthersEndWithoutReading) {
  std::atomic<int> reads{0};
  port_.on_read = [&] { ++reads; };
  StartLogging(test::kDriverErrors);
  const int threads = ThreadCount();
  {
    const test::ImportHook hook(__imp__beginthreadex, &BeginThread);
    real_begin_thread = reinterpret_cast<decltype(real_begin_thread)>(hook.original());
    threads_left = 2;
    EXPECT_EQ(StartDriverThreads(), DWORD{ERROR_NOT_ENOUGH_MEMORY});
  }
  EXPECT_EQ(threads_left, -1);  // none was tried after it
  EXPECT_EQ(ThreadCount(), threads);
  EXPECT_EQ(reads, 0);
  EXPECT_FALSE(DriverPortConnected());
  EXPECT_THAT(StopLoggingAndGetMessages(), ElementsAre("ERROR CreateThread failed 8"));
}

TEST_F(MessageThreadsTest, EventsThatCannotBeMadeAreLoggedAndEndTheStart) {
  StartLogging();
  {
    const test::ImportHook hook(__imp_CreateEventW, &FailToCreateEvent);
    EXPECT_EQ(StartDriverThreads(), DWORD{ERROR_NO_SYSTEM_RESOURCES});
  }
  EXPECT_FALSE(DriverPortConnected());
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("ERROR Create serviceThreadStartEvent failed",
                          "ERROR Create serviceThreadShutdownEvent failed"));
}

TEST_F(MessageThreadsTest, WaitForTheStopTimesOutUntilItComes) {
  EXPECT_TRUE(WaitForDriverStop(60'000));  // no threads yet
  Start();
  EXPECT_FALSE(WaitForDriverStop(1));
  {
    const std::jthread waiter([] { EXPECT_TRUE(WaitForDriverStop(INFINITE)); });
    StopDriverThreads();
  }
  EXPECT_TRUE(WaitForDriverStop(60'000));
}

TEST_F(MessageThreadsTest, MessageIsInHandFromItsReceiptUntilItIsProcessed) {
  Create(16);
  Start();
  const ReaderBarrier none = RaiseReaderBarrier();
  EXPECT_TRUE(PollUntil([&] { return none.Passed(); }));
  std::optional<ReaderBarrier> in_hand;
  {
    const LockGuard guard(bitmapCacheLock);
    port_.Post(MakeWrite(0, 1));
    in_hand.emplace(RaiseReaderBarrier());
    EXPECT_FALSE(in_hand->Passed());
    // Later messages do not count, neither those in hand nor those processed.
    port_.Post(MakeMessage(Type::kOpened));
    port_.Post(MakeWrite(0, 1));
    EXPECT_TRUE(port_.WaitForReads(2));
    EXPECT_FALSE(in_hand->Passed());
  }
  EXPECT_TRUE(PollUntil([&] { return in_hand->Passed(); }));
}

// Tells a thread of its read's end on its way out of a wait, as the system does.
test::ScriptedPort* tells_late = nullptr;

DWORD WINAPI TellBehindWait(DWORD count, const HANDLE* handles, BOOL all, DWORD limit_ms) {
  const DWORD result = real_wait_for_multiple(count, handles, all, limit_ms);
  if (limit_ms == INFINITE && !all) tells_late->TellReader(handles[1]);
  return result;
}

TEST_F(MessageThreadsTest, MessageIsInHandBeforeItsThreadHasBeenTold) {
  const BitmapId id = Create(16);
  tells_late = &port_;
  const test::ImportHook hook(__imp_WaitForMultipleObjects, &TellBehindWait);
  real_wait_for_multiple = reinterpret_cast<decltype(real_wait_for_multiple)>(hook.original());
  Start();
  port_.PostUntold(MakeWrite(0, 1));
  port_.Post(MakeMessage(Type::kQueueSync));
  ASSERT_TRUE(PollUntil([] { return LastSyncTime.Get() == test::kEventTime; }));
  std::optional<ReaderBarrier> in_hand;
  {
    const LockGuard guard(bitmapCacheLock);
    in_hand.emplace(RaiseReaderBarrier());
    // Its thread is probed, and has the message; it cannot look its bitmaps up yet.
    EXPECT_TRUE(PollUntil([] { return LastMessageTime.Get() == test::kEventTime; }));
    EXPECT_FALSE(in_hand->Passed());
  }
  EXPECT_TRUE(PollUntil([&] { return in_hand->Passed(); }));
  EXPECT_THAT(Bits(id), ElementsAre(0));
  StopDriverThreads();
}

TEST_F(MessageThreadsTest, NothingIsInHandWithoutThreads) {
  EXPECT_TRUE(RaiseReaderBarrier().Passed());
  Start();
  const ReaderBarrier before = RaiseReaderBarrier();
  StopDriverThreads();
  EXPECT_TRUE(before.Passed());
  EXPECT_TRUE(RaiseReaderBarrier().Passed());
}

}  // namespace
}  // namespace zel
