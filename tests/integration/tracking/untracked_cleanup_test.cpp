#include "tracking/untracked_cleanup.h"

#include <process.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>

#include "files/file_identity.h"
#include "files/layout.h"
#include "tests/integration/support/cbt_directory.h"
#include "tests/integration/support/handle_count.h"
#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/poll.h"
#include "tests/integration/support/tracking_fixture.h"
#include "tracking/clean_volume_directory.h"
#include "win32/handles.h"

extern "C" {
extern void* __imp_CloseHandle;
extern void* __imp_CreateEventW;
extern void* __imp_DeleteFileW;
extern void* __imp_FindFirstFileW;
extern void* __imp_TerminateThread;
extern void* __imp_WaitForSingleObject;
extern void* __imp__beginthreadex;
}

namespace zel {
namespace {

namespace fs = std::filesystem;

using test::kFirstVolume;
using test::kFirstVolumeText;
using test::kSecondVolume;
using test::kSecondVolumeText;
using test::PollUntil;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr wchar_t kTrackedName[] = L"0001000000000017";
constexpr FileId kTracked = 0x0001000000000017;

class UntrackedCleanupTest : public test::TrackingFixture {
 protected:
  UntrackedCleanupTest() : cbt_(test::UseCbtDirectoryOf(directory().wstring())) {
    EXPECT_TRUE(OpenAndLoad());
  }
  ~UntrackedCleanupTest() override { ShutdownTrackedFiles(); }

  [[nodiscard]] const fs::path& cbt() const { return cbt_; }

  // Puts a bitmap, as far as the cleanup knows one, into a file id's directory.
  [[nodiscard]] fs::path AddDirectory(const wchar_t* volume, const wchar_t* name) const {
    const fs::path path = cbt_ / volume / name;
    test::WriteFileBytes(path / L"bitmap", "bits");
    return path;
  }

 private:
  fs::path cbt_;
};

using CleanVolumeDirectoryTest = UntrackedCleanupTest;

TEST_F(CleanVolumeDirectoryTest, DeletesTheDirectoriesOfUntrackedFilesAndKeepsTheOthers) {
  Track(L"C:\\a", kFirstVolume, kTracked);
  Track(L"D:\\b", kSecondVolume, 0x18);
  const fs::path tracked = AddDirectory(kFirstVolumeText, kTrackedName);
  const fs::path untracked = AddDirectory(kFirstVolumeText, L"00000000000000ab");
  const fs::path of_other_volume = AddDirectory(kFirstVolumeText, L"0000000000000018");
  StartLogging();
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_TRUE(fs::exists(tracked / L"bitmap"));
  EXPECT_FALSE(fs::exists(untracked));
  EXPECT_FALSE(fs::exists(of_other_volume));
  const std::string begin =
      "DEBUG Cleaning up directory for untracked Volume "
      "00000001-89ab-cdef-0123-456789abcdef, FileId ";
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      UnorderedElementsAre(begin + "0x00000000000000ab", begin + "0x0000000000000018",
                           "DEBUG Deleted bitmap " + (untracked / L"bitmap").string(),
                           "DEBUG Deleted bitmap " + (of_other_volume / L"bitmap").string()));
}

TEST_F(CleanVolumeDirectoryTest, PathsAreNotCompared) {
  Track(L"C:\\moved", kFirstVolume, kTracked);
  Track(L"C:\\linked", kFirstVolume, kTracked);
  StopTrackingFile(L"C:\\moved");
  const fs::path tracked = AddDirectory(kFirstVolumeText, kTrackedName);
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_TRUE(fs::exists(tracked));
}

TEST_F(CleanVolumeDirectoryTest, NamesThatAreNoFileIdsStay) {
  Track(L"C:\\a", kFirstVolume, kTracked);
  const wchar_t* const names[] = {L"00100000000000a",  L"0001000000000000a", L"0000000000000000",
                                  L"FFFFFFFFFFFFFFFF", L"ffffffffffffffff",  L"is not a file id"};
  for (const wchar_t* name : names) (void)AddDirectory(kFirstVolumeText, name);
  CleanVolumeDirectory(kFirstVolume);
  for (const wchar_t* name : names) {
    EXPECT_TRUE(fs::exists(cbt() / kFirstVolumeText / name / L"bitmap")) << fs::path(name);
  }
}

TEST_F(CleanVolumeDirectoryTest, PlainFilesStay) {
  const fs::path file = cbt() / kFirstVolumeText / L"00000000000000ab";
  test::WriteFileBytes(file, "bits");
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_TRUE(fs::exists(file));
}

TEST_F(CleanVolumeDirectoryTest, VolumeWithoutTrackedFilesLosesItsDirectory) {
  (void)AddDirectory(kFirstVolumeText, L"00000000000000ab");
  (void)AddDirectory(kSecondVolumeText, L"00000000000000ab");
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_FALSE(fs::exists(cbt() / kFirstVolumeText));
  EXPECT_TRUE(fs::exists(cbt() / kSecondVolumeText / L"00000000000000ab"));
}

TEST_F(CleanVolumeDirectoryTest, EmptyDirectoryOfAVolumeWithTrackedFilesStays) {
  Track(L"C:\\a", kFirstVolume, kTracked);
  (void)AddDirectory(kFirstVolumeText, L"00000000000000ab");
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_TRUE(fs::is_empty(cbt() / kFirstVolumeText));
}

TEST_F(CleanVolumeDirectoryTest, MissingDirectoryIsNoFault) {
  StartLogging();
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_THAT(StopLogging(), IsEmpty());
}

TEST_F(CleanVolumeDirectoryTest, FileThatIsHeldOpenStaysAndTheRestGoes) {
  const fs::path untracked = AddDirectory(kFirstVolumeText, L"00000000000000ab");
  test::WriteFileBytes(untracked / L"held", "bits");
  {
    const UniqueFile held(::CreateFileW((untracked / L"held").c_str(), GENERIC_READ,
                                        FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(held);
    CleanVolumeDirectory(kFirstVolume);
    EXPECT_TRUE(fs::exists(untracked / L"held"));
    EXPECT_FALSE(fs::exists(untracked / L"bitmap"));
  }
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_FALSE(fs::exists(cbt() / kFirstVolumeText));
}

TEST_F(CleanVolumeDirectoryTest, MarkBesideABitmapGoesWithIt) {
  const fs::path untracked = AddDirectory(kFirstVolumeText, L"00000000000000ab");
  fs::create_directory(MissedMarkPath((untracked / L"bitmap").wstring()));
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_FALSE(fs::exists(untracked));
}

TEST_F(CleanVolumeDirectoryTest, TreeGoesWithEverythingInIt) {
  const fs::path tree = cbt() / L"tree";
  test::WriteFileBytes(tree / L"a" / L"b" / L"c", "");
  test::WriteFileBytes(tree / L"a" / L"d", "");
  fs::create_directories(tree / L"e");
  StartLogging();
  const auto may_delete = [] { return true; };
  EXPECT_TRUE(DeleteDirectoryTree(tree.wstring(), may_delete));
  EXPECT_FALSE(fs::exists(tree));
  EXPECT_TRUE(DeleteDirectoryTree(tree.wstring(), may_delete));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              UnorderedElementsAre("DEBUG Deleted bitmap " + (tree / L"a" / L"b" / L"c").string(),
                                   "DEBUG Deleted bitmap " + (tree / L"a" / L"d").string()));
}

TEST_F(CleanVolumeDirectoryTest, TreeIsAskedForBeforeEachDeletionAndLeftWhenItMayNotGo) {
  for (int allowed = 0; allowed < 5; ++allowed) {
    const fs::path tree = cbt() / L"tree";
    test::WriteFileBytes(tree / L"a" / L"b", "");
    test::WriteFileBytes(tree / L"c", "");
    int left = allowed;
    const bool is_gone = DeleteDirectoryTree(tree.wstring(), [&] { return left-- > 0; });
    EXPECT_EQ(is_gone, allowed == 4);  // two files and two directories
    const auto entries =
        fs::exists(tree) ? std::distance(fs::recursive_directory_iterator(tree), {}) + 1 : 0;
    EXPECT_EQ(entries, 4 - allowed);
    fs::remove_all(tree);
  }
}

// Does something of the test's own at the cleanup's first deletion of a file, or before it lists
// a directory.
class AtFirst {
 public:
  enum class Call { kList, kDelete };
  AtFirst(Call call, std::wstring path, std::function<void()> action) {
    call_ = call;
    path_ = std::move(path);
    action_ = std::move(action);
  }

 private:
  static void Act(Call call, std::wstring_view path) {
    if (call == call_ && path.starts_with(path_) && action_) std::exchange(action_, nullptr)();
  }
  static HANDLE WINAPI FindFirst(const wchar_t* pattern, WIN32_FIND_DATAW* entry) {
    Act(Call::kList, pattern);
    return real_find_(pattern, entry);
  }
  static BOOL WINAPI Delete(const wchar_t* path) {
    Act(Call::kDelete, path);
    return real_delete_(path);
  }

  static inline Call call_;
  static inline std::wstring path_;
  static inline std::function<void()> action_;
  static inline auto* const real_find_ =
      reinterpret_cast<decltype(&::FindFirstFileW)>(__imp_FindFirstFileW);
  static inline auto* const real_delete_ =
      reinterpret_cast<decltype(&::DeleteFileW)>(__imp_DeleteFileW);
  test::ImportHook find_{__imp_FindFirstFileW, &FindFirst};
  test::ImportHook delete_{__imp_DeleteFileW, &Delete};
};

TEST_F(CleanVolumeDirectoryTest, FileThatBecomesTrackedDuringThePassKeepsItsNewBitmap) {
  const fs::path path = AddDirectory(kFirstVolumeText, kTrackedName);
  const AtFirst hook(AtFirst::Call::kList, path.wstring(), [&] {
    Track(L"C:\\a", kFirstVolume, kTracked);
    test::WriteFileBytes(path / L"new", "bits");
  });
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_TRUE(fs::exists(path / L"new"));
}

TEST_F(CleanVolumeDirectoryTest, FileThatBecomesTrackedBetweenTwoDeletionsKeepsTheRest) {
  const fs::path path = AddDirectory(kFirstVolumeText, kTrackedName);
  test::WriteFileBytes(path / L"other", "bits");
  const AtFirst hook(AtFirst::Call::kDelete, path.wstring(),
                     [&] { Track(L"C:\\a", kFirstVolume, kTracked); });
  CleanVolumeDirectory(kFirstVolume);
  // The call that was under way could not be called back.
  EXPECT_EQ(std::distance(fs::directory_iterator(path), {}), 1);
}

TEST_F(CleanVolumeDirectoryTest, EmptiedDirectoryOfAFileThatBecomesTrackedStays) {
  const fs::path path = AddDirectory(kFirstVolumeText, kTrackedName);
  const AtFirst hook(AtFirst::Call::kDelete, path.wstring(),
                     [&] { Track(L"C:\\a", kFirstVolume, kTracked); });
  CleanVolumeDirectory(kFirstVolume);
  EXPECT_TRUE(fs::exists(path));
}

// Sees the cleanup thread's waits for its event and the shutdown's wait for the thread.
class Waits {
 public:
  static constexpr DWORD kPassInterval = 60'000;
  static constexpr DWORD kEndTimeout = 1'000;

  static inline std::atomic<int> passes{0};     // that ended: waits begun
  static inline std::atomic<int> end_waits{0};  // for the thread
  static inline std::atomic<bool> pass_interval_is_over{false};
  static inline std::atomic<bool> end_timeout_is_over{false};

  [[nodiscard]] static bool PassesReach(int count) {
    return PollUntil([=] { return passes >= count; });
  }

 private:
  static DWORD WINAPI Wait(HANDLE handle, DWORD timeout_ms) {
    if (timeout_ms == kPassInterval) {
      ++passes;
      if (pass_interval_is_over) return real_wait_(handle, 1);
    }
    if (timeout_ms == kEndTimeout) {
      ++end_waits;
      return real_wait_(handle, end_timeout_is_over ? 1 : INFINITE);
    }
    return real_wait_(handle, timeout_ms);
  }

  static inline auto* const real_wait_ =
      reinterpret_cast<decltype(&::WaitForSingleObject)>(__imp_WaitForSingleObject);
  test::ImportHook hook_{__imp_WaitForSingleObject, &Wait};
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
  const Waits waits;
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
  const Waits waits;
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
  const Waits waits;
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
  const Waits waits;
  const HeldUpCleanup cleanup;
  EXPECT_TRUE(StartCleanupThread());
  ASSERT_TRUE(cleanup.WaitUntilHeld());
  Track(L"C:\\b", kFirstVolume, 1);
  cleanup.Release();
  ASSERT_TRUE(waits.PassesReach(2));
  EXPECT_TRUE(fs::exists(tracked));
}

TEST_F(UntrackedCleanupTest, WithoutAChangeAPassRunsEverySixtySeconds) {
  const Waits waits;
  EXPECT_TRUE(StartCleanupThread());
  ASSERT_TRUE(waits.PassesReach(1));
  ShutdownTrackedFiles();
  EXPECT_EQ(waits.passes, 1);
  // The wait of 60 seconds, and no other, ends at once.
  Waits::pass_interval_is_over = true;
  ASSERT_TRUE(OpenAndLoad());
  EXPECT_TRUE(StartCleanupThread());
  ASSERT_TRUE(waits.PassesReach(4));
  const fs::path untracked = AddDirectory(kFirstVolumeText, L"00000000000000ab");
  EXPECT_TRUE(PollUntil([&] { return !fs::exists(cbt() / kFirstVolumeText); }));
}

TEST_F(UntrackedCleanupTest, EndIsSeenBetweenTwoDeletions) {
  (void)AddDirectory(kFirstVolumeText, L"00000000000000ab");
  (void)AddDirectory(kFirstVolumeText, L"00000000000000cd");
  const Waits waits;
  const ThreadCalls calls;
  std::jthread stopper;
  const AtFirst hook(AtFirst::Call::kDelete, cbt().wstring(), [&] {
    stopper = std::jthread(ShutdownTrackedFiles);
    EXPECT_TRUE(PollUntil([&] { return waits.end_waits == 1; }));
  });
  EXPECT_TRUE(StartCleanupThread());
  ASSERT_TRUE(PollUntil([&] { return waits.end_waits == 1; }));
  stopper.join();
  EXPECT_EQ(calls.ExitCode(), 0u);
  EXPECT_EQ(calls.terminations, 0);
  const auto left = [&](const wchar_t* name) {
    return fs::exists(cbt() / kFirstVolumeText / name);
  };
  EXPECT_TRUE(left(L"00000000000000ab") && left(L"00000000000000cd"));
  EXPECT_NE(left(L"00000000000000ab\\bitmap"), left(L"00000000000000cd\\bitmap"));
}

TEST_F(UntrackedCleanupTest, CanBeWoken) {
  const Waits waits;
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
  const Waits waits;
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
  const Waits waits;
  ShutdownTrackedFiles();
  ShutdownTrackedFiles();
  EXPECT_EQ(waits.end_waits, 0);
  EXPECT_THAT(test::Collect(), IsEmpty());
}

TEST_F(UntrackedCleanupTest, ThreadThatEndsWithinTheTimeoutIsNotTerminated) {
  Track(L"C:\\a", kFirstVolume, kTracked);
  const fs::path tracked = AddDirectory(kFirstVolumeText, kTrackedName);
  const Waits waits;
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
  const Waits waits;
  const ThreadCalls calls;
  const HeldUpCleanup cleanup;
  EXPECT_TRUE(StartCleanupThread());
  ASSERT_TRUE(cleanup.WaitUntilHeld());
  Waits::end_timeout_is_over = true;
  ShutdownTrackedFiles();
  EXPECT_EQ(calls.ExitCode(), 641u);
  EXPECT_EQ(calls.terminations, 1);
  EXPECT_EQ(calls.times_closed, 1);
  // The thread has taken no lock with it.
  Track(L"C:\\a", kFirstVolume, kTracked);
}

TEST_F(UntrackedCleanupTest, StopsThatComeAtOnceEachReturnAfterTheThreadsEnd) {
  Track(L"C:\\a", kFirstVolume, kTracked);
  const Waits waits;
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
  const Waits waits;
  EXPECT_TRUE(StartCleanupThread());
  ShutdownTrackedFiles();  // what the run-time library opens once is open now
  const std::size_t before = test::HandleCount();
  ASSERT_TRUE(OpenAndLoad());
  const HeldUpCleanup cleanup;
  EXPECT_TRUE(StartCleanupThread());
  ASSERT_TRUE(cleanup.WaitUntilHeld());
  Waits::end_timeout_is_over = true;
  ShutdownTrackedFiles();
  EXPECT_EQ(test::HandleCount(), before);
}

}  // namespace
}  // namespace zel
