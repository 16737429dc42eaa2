#include "tracking/untracked_cleanup.h"

#include <process.h>

#include <atomic>
#include <thread>

#include "files/layout.h"
#include "tests/integration/support/cleanup_fixture.h"
#include "tests/integration/support/cleanup_waits.h"
#include "tests/integration/support/handle_count.h"
#include "tests/integration/support/poll.h"
#include "win32/handles.h"

extern "C" {
extern void* __imp_CloseHandle;
extern void* __imp_CreateEventW;
extern void* __imp_FindNextFileW;
extern void* __imp_TerminateThread;
extern void* __imp__beginthreadex;
}

namespace zel {
namespace {

namespace fs = std::filesystem;

using test::AtFirst;
using test::CleanupWaits;
using test::kFirstVolume;
using test::kFirstVolumeText;
using test::kSecondVolumeText;
using test::kTracked;
using test::kTrackedName;
using test::PollUntil;
using ::testing::IsEmpty;

class UntrackedCleanupTest : public test::CleanupFixture {
 protected:
  // Asks a pass for its end at the first such call below `path`, and returns when it has ended.
  static void EndAtFirst(AtFirst::Call call, const fs::path& path) {
    const CleanupWaits waits;
    const UniqueEvent reached(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const AtFirst hook(call, path.wstring(), [&] {
      ::SetEvent(reached.get());
      EXPECT_TRUE(PollUntil([&] { return waits.end_waits == 1; }));
    });
    EXPECT_TRUE(StartCleanupThread());
    EXPECT_EQ(::WaitForSingleObject(reached.get(), 20'000), WAIT_OBJECT_0);
    ShutdownTrackedFiles();
  }
};

// Holds the cleanup thread where it lists a directory, from the moment that it is told to.
class HeldUpCleanup {
 public:
  [[nodiscard]] static bool WaitUntilHeld() {
    return ::WaitForSingleObject(is_held_.get(), 20'000) == WAIT_OBJECT_0;
  }
  static void Release() { ::SetEvent(may_go_on_.get()); }

 private:
  static HANDLE WINAPI FindFirst(const wchar_t* pattern, WIN32_FIND_DATAW* entry) {
    ::SetEvent(is_held_.get());
    ::WaitForSingleObject(may_go_on_.get(), INFINITE);
    return real_find_(pattern, entry);
  }

  static inline UniqueEvent is_held_{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  static inline UniqueEvent may_go_on_{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  static inline auto* const real_find_ =
      reinterpret_cast<decltype(&::FindFirstFileW)>(__imp_FindFirstFileW);
  test::ImportHook hook_{__imp_FindFirstFileW, &FindFirst};
};

// Sees the start, the termination and the closing of the cleanup thread: the first that is begun.
class ThreadCalls {
 public:
  static inline std::atomic<HANDLE> thread{nullptr};
  static inline std::atomic<int> times_closed{0};
  static inline unsigned stack_bytes = 0;
  static inline unsigned flags = 0;
  static inline std::atomic<int> terminations{0};

  // Another handle to the thread.
  static inline UniqueThread duplicate;

  [[nodiscard]] static DWORD ExitCode() {
    DWORD code = 0;
    EXPECT_TRUE(::GetExitCodeThread(duplicate.get(), &code));
    return code;
  }

 private:
  static std::uintptr_t Begin(void* security, unsigned stack, unsigned(__stdcall* start)(void*),
                              void* context, unsigned begin_flags, unsigned* id) {
    const std::uintptr_t begun = real_begin_(security, stack, start, context, begin_flags, id);
    if (thread != nullptr) return begun;  // the tests' own threads
    thread = reinterpret_cast<HANDLE>(begun);
    stack_bytes = stack;
    flags = begin_flags;
    const HANDLE process = ::GetCurrentProcess();
    ::DuplicateHandle(process, thread, process, duplicate.put(), 0, FALSE, DUPLICATE_SAME_ACCESS);
    return begun;
  }
  static BOOL WINAPI Terminate(HANDLE terminated, DWORD exit_code) {
    ++terminations;
    return real_terminate_(terminated, exit_code);
  }
  static BOOL WINAPI Close(HANDLE handle) {
    if (handle == thread) ++times_closed;
    return real_close_(handle);
  }

  static inline auto* const real_begin_ =
      reinterpret_cast<decltype(&::_beginthreadex)>(__imp__beginthreadex);
  static inline auto* const real_terminate_ =
      reinterpret_cast<decltype(&::TerminateThread)>(__imp_TerminateThread);
  static inline auto* const real_close_ =
      reinterpret_cast<decltype(&::CloseHandle)>(__imp_CloseHandle);
  test::ImportHook begin_{__imp__beginthreadex, &Begin};
  test::ImportHook terminate_{__imp_TerminateThread, &Terminate};
  test::ImportHook close_{__imp_CloseHandle, &Close};
};

TEST_F(UntrackedCleanupTest, CleansEveryVolumeOnceAtStart) {
  Track(L"C:\\a", kFirstVolume, kTracked);
  const fs::path tracked = AddDirectory(kFirstVolumeText, kTrackedName);
  const fs::path untracked = AddDirectory(kFirstVolumeText, L"00000000000000ab");
  (void)AddDirectory(kSecondVolumeText, L"00000000000000ab");
  (void)AddDirectory(L"no volume", L"00000000000000ab");
  const CleanupWaits waits;
  EXPECT_TRUE(StartCleanupThread());
  ASSERT_TRUE(waits.PassesReach(1));
  EXPECT_TRUE(fs::exists(tracked));
  EXPECT_FALSE(fs::exists(untracked));
  EXPECT_FALSE(fs::exists(cbt() / kSecondVolumeText));
  EXPECT_TRUE(fs::exists(cbt() / L"no volume" / L"00000000000000ab"));
  ShutdownTrackedFiles();
  EXPECT_EQ(waits.passes, 1);
}

TEST_F(UntrackedCleanupTest, EveryChangeOfTheTableWakesIt) {
  const CleanupWaits waits;
  EXPECT_TRUE(StartCleanupThread());
  ASSERT_TRUE(waits.PassesReach(1));
  Track(L"C:\\a", kFirstVolume, kTracked);
  ASSERT_TRUE(waits.PassesReach(2));
  const fs::path tracked = AddDirectory(kFirstVolumeText, kTrackedName);
  StopTrackingFile(L"C:\\a");
  ASSERT_TRUE(waits.PassesReach(3));
  EXPECT_FALSE(fs::exists(tracked));
  // With its last file the volume has left the table.
  EXPECT_FALSE(fs::exists(cbt() / kFirstVolumeText));
  // What changes nothing does not.
  StopTrackingFile(L"C:\\a");
  ShutdownTrackedFiles();
  EXPECT_EQ(waits.passes, 3);
}

TEST_F(UntrackedCleanupTest, StartOfATrackedFileAndAConflictDoNotWakeIt) {
  Track(L"C:\\a", kFirstVolume, kTracked);
  const CleanupWaits waits;
  EXPECT_TRUE(StartCleanupThread());
  ASSERT_TRUE(waits.PassesReach(1));
  bool is_new = false;
  EXPECT_TRUE(StartTrackingFile(L"C:\\a", kFirstVolume, kTracked, is_new));
  EXPECT_FALSE(StartTrackingFile(L"C:\\a", kFirstVolume, 1, is_new));
  ShutdownTrackedFiles();
  EXPECT_EQ(waits.passes, 1);
}

TEST_F(UntrackedCleanupTest, ChangeDuringAPassBringsAnother) {
  Track(L"C:\\a", kFirstVolume, kTracked);
  const fs::path tracked = AddDirectory(kFirstVolumeText, kTrackedName);
  const CleanupWaits waits;
  const HeldUpCleanup cleanup;
  EXPECT_TRUE(StartCleanupThread());
  ASSERT_TRUE(cleanup.WaitUntilHeld());
  Track(L"C:\\b", kFirstVolume, 1);
  cleanup.Release();
  ASSERT_TRUE(waits.PassesReach(2));
  EXPECT_TRUE(fs::exists(tracked));
}

TEST_F(UntrackedCleanupTest, WithoutAChangeAPassRunsEverySixtySeconds) {
  const CleanupWaits waits;
  EXPECT_TRUE(StartCleanupThread());
  ASSERT_TRUE(waits.PassesReach(1));
  ShutdownTrackedFiles();
  EXPECT_EQ(waits.passes, 1);
  // The wait of 60 seconds, and no other, ends at once.
  CleanupWaits::pass_interval_is_over = true;
  ASSERT_TRUE(OpenAndLoad());
  EXPECT_TRUE(StartCleanupThread());
  ASSERT_TRUE(waits.PassesReach(4));
  const fs::path untracked = AddDirectory(kFirstVolumeText, L"00000000000000ab");
  EXPECT_TRUE(PollUntil([&] { return !fs::exists(cbt() / kFirstVolumeText); }));
}

TEST_F(UntrackedCleanupTest, EndIsSeenBetweenTwoDeletions) {
  (void)AddDirectory(kFirstVolumeText, L"00000000000000ab");
  (void)AddDirectory(kFirstVolumeText, L"00000000000000cd");
  const ThreadCalls calls;
  EndAtFirst(AtFirst::Call::kDelete, cbt());
  EXPECT_EQ(calls.ExitCode(), 0u);
  EXPECT_EQ(calls.terminations, 0);
  const auto left = [&](const wchar_t* name) {
    return fs::exists(cbt() / kFirstVolumeText / name);
  };
  EXPECT_TRUE(left(L"00000000000000ab") && left(L"00000000000000cd"));
  EXPECT_NE(left(L"00000000000000ab\\bitmap"), left(L"00000000000000cd\\bitmap"));
}

// Counts the entries that the cleanup asks for besides the first of each directory.
class NextEntries {
 public:
  static inline std::atomic<int> count{0};

 private:
  static BOOL WINAPI FindNext(HANDLE search, WIN32_FIND_DATAW* entry) {
    ++count;
    return real_find_(search, entry);
  }

  static inline auto* const real_find_ =
      reinterpret_cast<decltype(&::FindNextFileW)>(__imp_FindNextFileW);
  test::ImportHook hook_{__imp_FindNextFileW, &FindNext};
};

TEST_F(UntrackedCleanupTest, EndIsSeenBetweenTwoEntriesThatStay) {
  for (FileId file_id = kTracked; file_id < kTracked + 20; ++file_id) {
    Track(L"C:\\" + std::to_wstring(file_id), kFirstVolume, file_id);
    fs::create_directories(cbt() / kFirstVolumeText / FormatFileIdDirectory(file_id));
  }
  const NextEntries entries;
  EndAtFirst(AtFirst::Call::kList, cbt() / kFirstVolumeText);
  EXPECT_LT(entries.count, 10);
}

TEST_F(UntrackedCleanupTest, EmptyDirectoryOfAVolumeStaysOnceTheEndIsAskedFor) {
  fs::create_directories(cbt() / kFirstVolumeText);
  EndAtFirst(AtFirst::Call::kList, cbt() / kFirstVolumeText);
  EXPECT_TRUE(fs::exists(cbt() / kFirstVolumeText));
}

TEST_F(UntrackedCleanupTest, CanBeWoken) {
  const CleanupWaits waits;
  WakeCleanup();  // harmless
  EXPECT_TRUE(StartCleanupThread());
  ASSERT_TRUE(waits.PassesReach(1));
  WakeCleanup();
  ASSERT_TRUE(waits.PassesReach(2));
  ShutdownTrackedFiles();
  EXPECT_EQ(waits.passes, 2);
}

TEST_F(UntrackedCleanupTest, ThreadReservesOneMebibyteOfStack) {
  const ThreadCalls calls;
  EXPECT_TRUE(StartCleanupThread());
  EXPECT_EQ(calls.stack_bytes, 0x100000u);
  EXPECT_EQ(calls.flags, unsigned{STACK_SIZE_PARAM_IS_A_RESERVATION});
}

TEST_F(UntrackedCleanupTest, ShutdownEndsTheThreadAndEmptiesTheTable) {
  Track(L"C:\\a", kFirstVolume, kTracked);
  const CleanupWaits waits;
  const ThreadCalls calls;
  EXPECT_TRUE(StartCleanupThread());
  ShutdownTrackedFiles();
  EXPECT_EQ(calls.ExitCode(), 0u);
  EXPECT_EQ(calls.terminations, 0);
  EXPECT_EQ(calls.times_closed, 1);
  EXPECT_EQ(waits.end_waits, 1);
  EXPECT_THAT(test::Collect(), IsEmpty());
  EXPECT_EQ(key().Values().size(), 1u);
}

TEST_F(UntrackedCleanupTest, ShutdownWithoutAThreadClosesTheList) {
  Track(L"C:\\a", kFirstVolume, kTracked);
  const CleanupWaits waits;
  ShutdownTrackedFiles();
  ShutdownTrackedFiles();
  EXPECT_EQ(waits.end_waits, 0);
  EXPECT_THAT(test::Collect(), IsEmpty());
}

TEST_F(UntrackedCleanupTest, ThreadThatEndsWithinTheTimeoutIsNotTerminated) {
  Track(L"C:\\a", kFirstVolume, kTracked);
  const fs::path tracked = AddDirectory(kFirstVolumeText, kTrackedName);
  const CleanupWaits waits;
  const ThreadCalls calls;
  const HeldUpCleanup cleanup;
  EXPECT_TRUE(StartCleanupThread());
  ASSERT_TRUE(cleanup.WaitUntilHeld());
  {
    const std::jthread stopper(ShutdownTrackedFiles);
    EXPECT_TRUE(PollUntil([&] { return waits.end_waits == 1; }));
    // To the thread's running pass, an emptied table would make every file untracked.
    EXPECT_EQ(test::Collect().size(), 1u);
    cleanup.Release();
  }
  EXPECT_EQ(calls.ExitCode(), 0u);
  EXPECT_EQ(calls.terminations, 0);
  EXPECT_TRUE(fs::exists(tracked));
  EXPECT_THAT(test::Collect(), IsEmpty());
}

TEST_F(UntrackedCleanupTest, ThreadThatDoesNotEndWithinTheTimeoutIsTerminated) {
  const CleanupWaits waits;
  const ThreadCalls calls;
  const HeldUpCleanup cleanup;
  EXPECT_TRUE(StartCleanupThread());
  ASSERT_TRUE(cleanup.WaitUntilHeld());
  CleanupWaits::end_timeout_is_over = true;
  ShutdownTrackedFiles();
  EXPECT_EQ(calls.ExitCode(), 641u);
  EXPECT_EQ(calls.terminations, 1);
  EXPECT_EQ(calls.times_closed, 1);
  // The thread has taken no lock with it.
  Track(L"C:\\a", kFirstVolume, kTracked);
}

TEST_F(UntrackedCleanupTest, StopsThatComeAtOnceEachReturnAfterTheThreadsEnd) {
  Track(L"C:\\a", kFirstVolume, kTracked);
  const CleanupWaits waits;
  const ThreadCalls calls;
  const HeldUpCleanup cleanup;
  EXPECT_TRUE(StartCleanupThread());
  ASSERT_TRUE(cleanup.WaitUntilHeld());
  std::atomic<int> begun{0};
  std::atomic<int> returned_early{0};
  {
    std::vector<std::jthread> stoppers;
    for (int i = 0; i < 4; ++i) {
      stoppers.emplace_back([&] {
        ++begun;
        ShutdownTrackedFiles();
        if (calls.ExitCode() == STILL_ACTIVE || !test::Collect().empty()) ++returned_early;
      });
    }
    EXPECT_TRUE(PollUntil([&] { return begun == 4 && waits.end_waits == 1; }));
    EXPECT_EQ(test::Collect().size(), 1u);
    cleanup.Release();
  }
  EXPECT_EQ(returned_early, 0);
  EXPECT_EQ(waits.end_waits, 1);
  EXPECT_EQ(calls.terminations, 0);
}

TEST_F(UntrackedCleanupTest, StartBehindAStopDeletesNothing) {
  Track(L"C:\\a", kFirstVolume, kTracked);
  const fs::path tracked = AddDirectory(kFirstVolumeText, kTrackedName);
  ShutdownTrackedFiles();
  EXPECT_FALSE(StartCleanupThread());
  EXPECT_TRUE(fs::exists(tracked));
}

HANDLE WINAPI FailToCreateEvent(SECURITY_ATTRIBUTES*, BOOL, BOOL, const wchar_t*) {
  ::SetLastError(ERROR_NO_SYSTEM_RESOURCES);
  return nullptr;
}

std::uintptr_t FailToBeginThread(void*, unsigned, unsigned(__stdcall*)(void*), void*, unsigned,
                                 unsigned*) {
  return 0;
}

TEST_F(UntrackedCleanupTest, WithoutItsEventOrThreadNothingIsCleanedOrLogged) {
  StartLogging();
  {
    const ThreadCalls calls;
    const test::ImportHook hook(__imp_CreateEventW, &FailToCreateEvent);
    EXPECT_FALSE(StartCleanupThread());
    EXPECT_EQ(calls.thread, nullptr);
  }
  {
    const test::ImportHook hook(__imp__beginthreadex, &FailToBeginThread);
    EXPECT_FALSE(StartCleanupThread());
  }
  bool is_new = false;
  EXPECT_TRUE(StartTrackingFile(L"C:\\a", kFirstVolume, 1, is_new));
  ShutdownTrackedFiles();
  EXPECT_THAT(StopLogging(), ::testing::SizeIs(1));  // the start of tracking
}

TEST_F(UntrackedCleanupTest, ShutdownClosesEveryHandle) {
  const auto run = [&] {
    ASSERT_TRUE(OpenAndLoad());
    ASSERT_TRUE(StartCleanupThread());
    Track(L"C:\\a", kFirstVolume, kTracked);
    StopTrackingFile(L"C:\\a");
    ShutdownTrackedFiles();
  };
  run();  // what the run-time library opens once is open now
  const std::size_t before = test::HandleCount();
  for (int round = 0; round < 3; ++round) run();
  EXPECT_EQ(test::HandleCount(), before);
}

TEST_F(UntrackedCleanupTest, TerminationLeavesNoHandleOfTheThread) {
  const CleanupWaits waits;
  EXPECT_TRUE(StartCleanupThread());
  ShutdownTrackedFiles();  // what the run-time library opens once is open now
  const std::size_t before = test::HandleCount();
  ASSERT_TRUE(OpenAndLoad());
  const HeldUpCleanup cleanup;
  EXPECT_TRUE(StartCleanupThread());
  ASSERT_TRUE(cleanup.WaitUntilHeld());
  CleanupWaits::end_timeout_is_over = true;
  ShutdownTrackedFiles();
  EXPECT_EQ(test::HandleCount(), before);
}

}  // namespace
}  // namespace zel
