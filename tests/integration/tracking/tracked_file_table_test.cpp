#include "tracking/tracked_file_table.h"

#include <atomic>
#include <thread>

#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/poll.h"
#include "tests/integration/support/tracking_fixture.h"
#include "win32/stop_requested.h"

extern "C" {
extern void* __imp_EnterCriticalSection;
extern void* __imp_RegDeleteValueW;
extern void* __imp_RegSetValueExW;
}

namespace zel {
namespace {

using test::Collect;
using test::kFirstVolume;
using test::kFirstVolumeText;
using test::kSecondVolume;
using test::kSecondVolumeText;
using test::ValueOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

// Lies between the other two by its text, behind them by its bytes.
constexpr VolumeGuid kThirdVolume = {0x00010001, 0, 0, {}};

// Counts the writes to the registry that go through.
class RegistryWrites {
 public:
  static inline std::atomic<int> count{0};

 private:
  static LSTATUS WINAPI Set(HKEY key, const wchar_t* name, DWORD reserved, DWORD type,
                            const BYTE* data, DWORD bytes) {
    ++count;
    return real_set_(key, name, reserved, type, data, bytes);
  }
  static LSTATUS WINAPI Delete(HKEY key, const wchar_t* name) {
    ++count;
    return real_delete_(key, name);
  }

  static inline auto* const real_set_ =
      reinterpret_cast<decltype(&::RegSetValueExW)>(__imp_RegSetValueExW);
  static inline auto* const real_delete_ =
      reinterpret_cast<decltype(&::RegDeleteValueW)>(__imp_RegDeleteValueW);
  test::ImportHook set_{__imp_RegSetValueExW, &Set};
  test::ImportHook delete_{__imp_RegDeleteValueW, &Delete};
};

class TrackedFileTableTest : public test::TrackingFixture {
 protected:
  TrackedFileTableTest() {
    EXPECT_TRUE(OpenAndLoad());
    StartLogging();
  }

  [[nodiscard]] std::string Value(const wchar_t* name) const { return key().Values()[name].bytes; }

  // Starts tracking where something speaks against it.
  static void ExpectConflict(std::wstring_view path, const VolumeGuid& volume, FileId file_id) {
    bool is_new = true;
    EXPECT_FALSE(StartTrackingFile(path, volume, file_id, is_new));
    EXPECT_FALSE(is_new);
  }
};

TEST_F(TrackedFileTableTest, StartOfANewFileIsLoggedAndWritten) {
  bool is_new = false;
  EXPECT_TRUE(StartTrackingFile(L"C:\\Data\\a", kFirstVolume, 0xFEDCBA9876543210, is_new));
  EXPECT_TRUE(is_new);
  EXPECT_THAT(Collect(),
              ElementsAre(TrackedFileEntry{L"C:\\Data\\a", kFirstVolume, 0xFEDCBA9876543210}));
  EXPECT_EQ(Value(kFirstVolumeText), ValueOf(kFirstVolume, {{L"C:\\Data\\a", 0xFEDCBA9876543210}}));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  Started tracking C:\\Data\\a, Volume "
                          "00000001-89ab-cdef-0123-456789abcdef, FileId 0xfedcba9876543210"));
}

TEST_F(TrackedFileTableTest, StartOfATrackedFileWritesAndLogsNothing) {
  Track(L"C:\\a", kFirstVolume, 1);
  Track(L"C:\\a2", kFirstVolume, 1);
  StopLogging();
  const RegistryWrites writes;
  for (const wchar_t* path : {L"C:\\a", L"c:\\A"}) {
    bool is_new = true;
    EXPECT_TRUE(StartTrackingFile(path, kFirstVolume, 1, is_new));
    EXPECT_FALSE(is_new);
  }
  EXPECT_EQ(writes.count, 0);
  EXPECT_THAT(Collect(), SizeIs(2));
}

TEST_F(TrackedFileTableTest, StartOfATrackedFileLogsNothing) {
  bool is_new = false;
  EXPECT_TRUE(StartTrackingFile(L"C:\\a", kFirstVolume, 1, is_new));
  EXPECT_TRUE(StartTrackingFile(L"C:\\a", kFirstVolume, 1, is_new));
  EXPECT_THAT(StopLogging(), SizeIs(1));
}

TEST_F(TrackedFileTableTest, OtherFileIdOnTheSameVolumeIsAConflict) {
  Track(L"C:\\a", kFirstVolume, 0x17);
  const RegistryWrites writes;
  ExpectConflict(L"c:\\A", kFirstVolume, 0x18);
  EXPECT_EQ(writes.count, 0);
  EXPECT_THAT(Collect(), ElementsAre(TrackedFileEntry{L"C:\\a", kFirstVolume, 0x17}));
  std::vector<std::string> messages = StopLoggingAndGetMessages();
  messages.erase(messages.begin());
  EXPECT_THAT(messages,
              ElementsAre("WARN  Unable to start tracking file c:\\A because it is already tracked "
                          "under a different FileId",
                          "WARN    Requested: VolumeGuid 00000001-89ab-cdef-0123-456789abcdef "
                          "FileId 0x0000000000000018",
                          "WARN    Existing:  VolumeGuid 00000001-89ab-cdef-0123-456789abcdef "
                          "FileId 0x0000000000000017"));
}

TEST_F(TrackedFileTableTest, SameFileIdOnAnotherVolumeIsAConflict) {
  Track(L"C:\\a", kFirstVolume, 0x17);
  ExpectConflict(L"C:\\a", kSecondVolume, 0x17);
  EXPECT_THAT(Collect(), ElementsAre(TrackedFileEntry{L"C:\\a", kFirstVolume, 0x17}));
  std::vector<std::string> messages = StopLoggingAndGetMessages();
  messages.erase(messages.begin());
  EXPECT_THAT(messages,
              ElementsAre("WARN  Unable to start tracking file C:\\a because it is already tracked "
                          "under a different VolumeGuid",
                          "WARN    Requested: VolumeGuid 00000002-89ab-cdef-0123-456789abcdef "
                          "FileId 0x0000000000000017",
                          "WARN    Existing:  VolumeGuid 00000001-89ab-cdef-0123-456789abcdef "
                          "FileId 0x0000000000000017"));
}

TEST_F(TrackedFileTableTest, OtherFileIdOnAnotherVolumeIsAConflict) {
  Track(L"C:\\a", kFirstVolume, 0x17);
  ExpectConflict(L"C:\\a", kSecondVolume, 0x18);
  std::vector<std::string> messages = StopLoggingAndGetMessages();
  messages.erase(messages.begin());
  EXPECT_THAT(messages,
              ElementsAre("WARN  Unable to start tracking file C:\\a because it is already tracked "
                          "under a different VolumeGuid and FileId",
                          "WARN    Requested: VolumeGuid 00000002-89ab-cdef-0123-456789abcdef "
                          "FileId 0x0000000000000018",
                          "WARN    Existing:  VolumeGuid 00000001-89ab-cdef-0123-456789abcdef "
                          "FileId 0x0000000000000017"));
}

TEST_F(TrackedFileTableTest, FirstConflictingVolumeInTheOrderOfTheGuidsDecides) {
  // Only the registry can hold a path under several volumes.
  key().Set(kFirstVolumeText, ValueOf(kFirstVolume, {{L"C:\\a", 0}}));
  key().Set(kSecondVolumeText, ValueOf(kSecondVolume, {{L"C:\\a", 2}}));
  key().Set(L"00000000-0000-0000-0000-000000000003", ValueOf(kThirdVolume, {{L"C:\\a", 3}}));
  EXPECT_TRUE(Restart());
  ExpectConflict(L"C:\\a", kThirdVolume, 3);
  ExpectConflict(L"C:\\a", kSecondVolume, 2);
  const std::vector<std::string> messages = StopLoggingAndGetMessages();
  EXPECT_EQ(messages[messages.size() - 4],
            "WARN    Existing:  VolumeGuid 00000002-89ab-cdef-0123-456789abcdef "
            "FileId 0x0000000000000002");
  EXPECT_EQ(messages.back(),
            "WARN    Existing:  VolumeGuid 00010001-0000-0000-0000-000000000000 "
            "FileId 0x0000000000000003");
}

TEST_F(TrackedFileTableTest, ConflictDoesNotBringItsVolumeIntoTheTable) {
  Track(L"C:\\a", kFirstVolume, 1);
  ExpectConflict(L"C:\\a", kSecondVolume, 1);
  EXPECT_THAT(key().Values(), ElementsAre(Pair(kFirstVolumeText, ::testing::_)));
}

TEST_F(TrackedFileTableTest, OneFileIdMayHaveSeveralPaths) {
  Track(L"C:\\a", kFirstVolume, 1);
  Track(L"C:\\b", kFirstVolume, 1);
  Track(L"D:\\a", kSecondVolume, 1);
  EXPECT_THAT(Collect(), SizeIs(3));
}

TEST_F(TrackedFileTableTest, FileIdZeroCountsAsNotTracked) {
  key().Set(kFirstVolumeText, ValueOf(kFirstVolume, {{L"C:\\a", 0}, {L"C:\\b", 7}}));
  EXPECT_TRUE(Restart());
  VolumeGuid volume = kThirdVolume;
  FileId file_id = 99;
  EXPECT_FALSE(FindTrackedFile(L"C:\\a", volume, file_id));
  EXPECT_EQ(volume, kThirdVolume);
  EXPECT_EQ(file_id, 99u);
  EXPECT_THAT(Collect(), ElementsAre(TrackedFileEntry{L"C:\\b", kFirstVolume, 7}));
  Track(L"C:\\a", kFirstVolume, 5);
  EXPECT_EQ(Value(kFirstVolumeText), ValueOf(kFirstVolume, {{L"C:\\a", 5}, {L"C:\\b", 7}}));
}

TEST_F(TrackedFileTableTest, FileIdZeroOnAnotherVolumeIsNoConflict) {
  key().Set(kFirstVolumeText, ValueOf(kFirstVolume, {{L"C:\\a", 0}}));
  EXPECT_TRUE(Restart());
  Track(L"C:\\a", kSecondVolume, 5);
  VolumeGuid volume = {};
  FileId file_id = 0;
  EXPECT_TRUE(FindTrackedFile(L"C:\\a", volume, file_id));
  EXPECT_EQ(volume, kSecondVolume);
  EXPECT_EQ(file_id, 5u);
}

TEST_F(TrackedFileTableTest, FindTellsTheIdentityInAnyCase) {
  Track(L"C:\\Data\\a", kSecondVolume, 0x17);
  VolumeGuid volume = {};
  FileId file_id = 0;
  EXPECT_TRUE(FindTrackedFile(L"c:\\DATA\\A", volume, file_id));
  EXPECT_EQ(volume, kSecondVolume);
  EXPECT_EQ(file_id, 0x17u);
  EXPECT_FALSE(FindTrackedFile(L"C:\\Data", volume, file_id));
  EXPECT_FALSE(FindTrackedFile(L"C:\\Data\\a2", volume, file_id));
}

TEST_F(TrackedFileTableTest, CollectGivesVolumesInTheOrderOfTheirBytesAndPathsInTheirs) {
  Track(L"C:\\b", kThirdVolume, 1);
  Track(L"D:\\B", kSecondVolume, 2);
  Track(L"D:\\a", kSecondVolume, 3);
  Track(L"E:\\z", kFirstVolume, 4);
  std::vector<TrackedFileEntry> entries = {{L"old", kFirstVolume, 9}};
  CollectTrackedFiles(entries);
  // The third GUID's first byte is 1, like the first one's, and its third is not 0.
  EXPECT_THAT(entries, ElementsAre(TrackedFileEntry{L"E:\\z", kFirstVolume, 4},
                                   TrackedFileEntry{L"C:\\b", kThirdVolume, 1},
                                   TrackedFileEntry{L"D:\\a", kSecondVolume, 3},
                                   TrackedFileEntry{L"D:\\B", kSecondVolume, 2}));
}

TEST_F(TrackedFileTableTest, StopRewritesTheValueAndLogsNothing) {
  Track(L"C:\\a", kFirstVolume, 1);
  Track(L"C:\\b", kFirstVolume, 2);
  StopTrackingFile(L"c:\\A");
  EXPECT_THAT(Collect(), ElementsAre(TrackedFileEntry{L"C:\\b", kFirstVolume, 2}));
  EXPECT_EQ(Value(kFirstVolumeText), ValueOf(kFirstVolume, {{L"C:\\b", 2}}));
  EXPECT_THAT(StopLogging(), SizeIs(2));  // the two starts
}

TEST_F(TrackedFileTableTest, StopOfTheLastFileDeletesTheValueAndTheVolume) {
  Track(L"C:\\a", kFirstVolume, 1);
  Track(L"D:\\a", kSecondVolume, 2);
  StopTrackingFile(L"C:\\a");
  EXPECT_THAT(key().Values(), ElementsAre(Pair(kSecondVolumeText, ::testing::_)));
  EXPECT_THAT(Collect(), ElementsAre(TrackedFileEntry{L"D:\\a", kSecondVolume, 2}));
}

TEST_F(TrackedFileTableTest, StopTakesThePathFromEveryVolume) {
  const test::Files files = {{L"C:\\a", 1}, {L"C:\\b", 2}};
  key().Set(kFirstVolumeText, ValueOf(kFirstVolume, files));
  key().Set(kSecondVolumeText, ValueOf(kSecondVolume, files));
  EXPECT_TRUE(Restart());
  StopTrackingFile(L"C:\\a");
  EXPECT_EQ(Value(kFirstVolumeText), ValueOf(kFirstVolume, {{L"C:\\b", 2}}));
  EXPECT_EQ(Value(kSecondVolumeText), ValueOf(kSecondVolume, {{L"C:\\b", 2}}));
}

TEST_F(TrackedFileTableTest, StopOfAnUnknownPathWritesNothing) {
  Track(L"C:\\a", kFirstVolume, 1);
  const RegistryWrites writes;
  StopTrackingFile(L"C:\\b");
  EXPECT_EQ(writes.count, 0);
  EXPECT_THAT(Collect(), SizeIs(1));
}

TEST_F(TrackedFileTableTest, FileMayBeTrackedAnewUnderAnotherIdentityAfterAStop) {
  Track(L"C:\\a", kFirstVolume, 1);
  StopTrackingFile(L"C:\\a");
  Track(L"C:\\a", kSecondVolume, 2);
  EXPECT_THAT(Collect(), ElementsAre(TrackedFileEntry{L"C:\\a", kSecondVolume, 2}));
}

TEST_F(TrackedFileTableTest, LongestPathThatARecordHoldsIsTracked) {
  const std::wstring longest(kMaxTrackedPath, L'p');
  Track(longest, kFirstVolume, 1);
  ASSERT_TRUE(Restart());
  EXPECT_THAT(Collect(), ElementsAre(TrackedFileEntry{longest, kFirstVolume, 1}));
}

TEST_F(TrackedFileTableTest, LongerPathIsRefusedAndLogged) {
  const RegistryWrites writes;
  ExpectConflict(std::wstring(kMaxTrackedPath + 1, L'p'), kFirstVolume, 1);
  EXPECT_EQ(writes.count, 0);
  EXPECT_THAT(Collect(), IsEmpty());
  EXPECT_THAT(
      StopLoggingAndGetMessages(),
      ElementsAre("WARN  Unable to start tracking file " + std::string(kMaxTrackedPath + 1, 'p') +
                  " because its path is longer than 32767 characters"));
}

TEST_F(TrackedFileTableTest, ChangesWithoutAKeyStayInMemory) {
  CloseTrackedFileList();
  const RegistryWrites writes;
  Track(L"C:\\a", kFirstVolume, 1);
  Track(L"C:\\b", kFirstVolume, 1);
  StopTrackingFile(L"C:\\a");
  EXPECT_EQ(writes.count, 0);
  EXPECT_THAT(Collect(), SizeIs(1));
}

TEST_F(TrackedFileTableTest, TenThousandFilesAreStartedStoppedAndLoaded) {
  CloseTrackedFileList();  // so that only the last start writes
  constexpr FileId kFiles = 10'000;
  const auto path = [](FileId i) {
    return L"C:\\Data\\File " + std::to_wstring(i * 7919 % kFiles);
  };
  VolumeFileList expected(kFirstVolume);
  for (FileId i = 1; i <= kFiles; ++i) {
    if (i == kFiles) SetTrackedFileListKey(key().Open());
    Track(path(i), kFirstVolume, i);
    expected.Set(path(i), i);
  }
  EXPECT_EQ(Value(kFirstVolumeText), ValueOf(expected));
  for (FileId i = 1; i <= 20; ++i) {
    StopTrackingFile(path(i));
    expected.Erase(path(i));
  }
  EXPECT_EQ(Value(kFirstVolumeText), ValueOf(expected));

  ASSERT_TRUE(Restart());
  const std::vector<TrackedFileEntry> loaded = Collect();
  ASSERT_EQ(loaded.size(), kFiles - 20);
  VolumeFileList loaded_list(kFirstVolume);
  for (const TrackedFileEntry& entry : loaded) loaded_list.Set(entry.Path, entry.FileId);
  EXPECT_EQ(ValueOf(loaded_list), ValueOf(expected));
  EXPECT_TRUE(std::ranges::is_sorted(loaded, {}, &TrackedFileEntry::Path));  // no capitals differ
}

TEST_F(TrackedFileTableTest, ChangesOfSeveralThreadsAreAllInTheTableAndTheRegistry) {
  constexpr int kThreads = 4;
  constexpr FileId kFiles = 50;
  {
    std::vector<std::jthread> threads;
    for (int number = 0; number < kThreads; ++number) {
      threads.emplace_back([number] {
        const std::wstring prefix = L"C:\\" + std::to_wstring(number) + L"-";
        for (FileId i = 1; i <= kFiles; ++i) {
          Track(prefix + std::to_wstring(i), kFirstVolume, i);
          (void)Collect();
          if (i % 2 == 0) StopTrackingFile(prefix + std::to_wstring(i));
        }
      });
    }
  }
  const std::vector<TrackedFileEntry> before = Collect();
  EXPECT_EQ(before.size(), kThreads * kFiles / 2);
  ASSERT_TRUE(Restart());
  EXPECT_EQ(Collect(), before);
}

decltype(&::EnterCriticalSection) real_enter = nullptr;
DWORD test_thread = 0;
std::atomic<bool> another_waits{false};  // for TrackedFilesLock, which the test's thread holds

void WINAPI NoteAndEnter(LPCRITICAL_SECTION section) {
  if (static_cast<void*>(section) == &TrackedFilesLock && ::GetCurrentThreadId() != test_thread) {
    another_waits = true;
  }
  real_enter(section);
}

// Runs `call` on a thread that comes to the lock before the service is to stop and gets it when the
// list is closed.
template <class Call>
void WaitForTheLockOverTheStop(Call call) {
  test_thread = ::GetCurrentThreadId();
  real_enter = reinterpret_cast<decltype(real_enter)>(__imp_EnterCriticalSection);
  const test::ImportHook hook(__imp_EnterCriticalSection, &NoteAndEnter);
  std::jthread caller;
  {
    const LockGuard guard(TrackedFilesLock);
    caller = std::jthread(call);
    EXPECT_TRUE(test::PollUntil([] { return another_waits.load(); }));
    StopRequested = true;
    CloseTrackedFileList();
  }
  caller.join();
}

TEST_F(TrackedFileTableTest, StartThatWaitedForTheLockOverTheStopDoesNotFindATrackedFileNew) {
  Track(L"C:\\a", kFirstVolume, 1);
  const std::string value = Value(kFirstVolumeText);
  bool is_new = true;
  bool result = true;
  WaitForTheLockOverTheStop([&] { result = StartTrackingFile(L"C:\\a", kFirstVolume, 1, is_new); });
  EXPECT_FALSE(result);
  EXPECT_FALSE(is_new);
  EXPECT_EQ(Value(kFirstVolumeText), value);
}

TEST_F(TrackedFileTableTest, StopThatWaitedForTheLockOverTheStopOfTheServiceSaysThatItDidNothing) {
  Track(L"C:\\a", kFirstVolume, 1);
  const std::string value = Value(kFirstVolumeText);
  bool result = true;
  WaitForTheLockOverTheStop([&] { result = StopTrackingFile(L"C:\\a").has_value(); });
  EXPECT_FALSE(result);
  EXPECT_EQ(Value(kFirstVolumeText), value);
}

TEST_F(TrackedFileTableTest, StopTakesBackTheStartsThatAreInHandAndNoOthers) {
  Track(L"C:\\a", kFirstVolume, 1);
  Track(L"C:\\b", kFirstVolume, 2);
  Track(L"D:\\c", kSecondVolume, 3);
  ASSERT_TRUE(EndTrackingStart(L"C:\\a"));
  StopRequested = true;
  EXPECT_FALSE(EndTrackingStart(L"C:\\b"));
  ShutdownTrackedFiles();
  StopRequested = false;
  EXPECT_TRUE(OpenAndLoad());
  EXPECT_THAT(Collect(), ElementsAre(TrackedFileEntry{L"C:\\a", kFirstVolume, 1}));
}

// Stopped and started again meanwhile: the second start is in hand when the first ends.
TEST_F(TrackedFileTableTest, EveryStartOfAPathIsInHandUntilItsOwnEnd) {
  Track(L"C:\\a", kFirstVolume, 1);
  EXPECT_TRUE(StopTrackingFile(L"C:\\a"));
  Track(L"C:\\a", kFirstVolume, 1);
  EXPECT_TRUE(EndTrackingStart(L"C:\\a"));
  StopRequested = true;
  ShutdownTrackedFiles();
  StopRequested = false;
  EXPECT_TRUE(OpenAndLoad());
  EXPECT_THAT(Collect(), IsEmpty());
}

}  // namespace
}  // namespace zel
