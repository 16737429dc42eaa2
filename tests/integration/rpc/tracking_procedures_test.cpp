// StartTracking, StartTracking2 and StopTracking, called by a client.
#include <atomic>
#include <functional>
#include <thread>

#include "bitmap/bitmap_sweep.h"
#include "bitmap/flusher.h"
#include "driver/missing_bitmaps.h"
#include "tests/integration/support/flush_hooks.h"
#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/registry_key.h"
#include "tests/integration/support/rpc_fixture.h"
#include "tracking/clean_volume_directory.h"
#include "tracking/untracked_cleanup.h"
#include "win32/handles.h"

extern "C" {
extern void* __imp_CreateFileW;
extern void* __imp_FindFirstFileW;
extern void* __imp_GetVolumeNameForVolumeMountPointW;
extern void* __imp_RegQueryValueExW;
}

namespace zel {
namespace {

using test::FakeDriver;
using test::kFile;
using test::kKey;
using test::kVolume;
using test::Track;
using test::WriteFileBytes;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint32_t kBlock = 4096;
constexpr char kGeneralOnly[] =
    "zelservicelog=trace\nzelservicelog:bitmap=none\nzelservicelog:drivercomm=none\n";
constexpr wchar_t kPath[] = L"C:\\data\\file";

std::vector<std::string> TrackedPaths() {
  std::vector<TrackedFileEntry> entries;
  CollectTrackedFiles(entries);
  std::vector<std::string> paths;
  for (const TrackedFileEntry& entry : entries) {
    paths.push_back(std::filesystem::path(entry.Path).string());
  }
  return paths;
}

std::vector<BitmapInfo> BitmapsOf(const FileKey& file = kKey) {
  const auto all = ListAllBitmaps();
  const auto found = all.find(file);
  return found == all.end() ? std::vector<BitmapInfo>{} : found->second;
}

class StartTracking2Test : public test::RpcFixture {
 protected:
  CallResult Start(std::uint64_t file_size, std::uint32_t block_size = kBlock,
                   const FileKey& file = kKey) {
    info = {};
    return client.StartTracking2(kPath, file, file_size, block_size, info);
  }

  // Ends the server's log; the bitmap's id is printed as "ID".
  std::vector<std::string> Messages() {
    char id[17];
    std::snprintf(id, sizeof id, "%016llx", info.BitmapId);
    std::vector<std::string> messages = StopLoggingAndGetMessages();
    for (std::string& message : messages) {
      const std::size_t at = message.find(id);
      if (info.BitmapId != 0 && at != std::string::npos) message.replace(at, 16, "ID");
    }
    return messages;
  }

  wire::BitmapInfo info = {};
};

TEST_F(StartTracking2Test, NewFileGetsABitmapAndIsShownToTheDriver) {
  StartLogging(kGeneralOnly);
  EXPECT_EQ(Start(100'000), (CallResult{0, 0}));
  EXPECT_THAT(FakeDriver::Take(), ElementsAre("notify", "verify C:\\data\\file 281474976710947"));
  EXPECT_THAT(TrackedPaths(), ElementsAre("C:\\data\\file"));
  ASSERT_EQ(BitmapsOf().size(), 1u);
  EXPECT_EQ(info.FileSize, 512u + 4);  // 25 blocks
  EXPECT_EQ(info.CreationTime, BitmapsOf()[0].CreationTime);
  EXPECT_EQ(info.BlockSize, kBlock);
  EXPECT_EQ(info.BitmapId, BitmapsOf()[0].BitmapId);
  EXPECT_EQ(info.VolumeGuid, kVolume);
  EXPECT_EQ(info.FileId, kFile);
  EXPECT_THAT(
      Messages(),
      ElementsAre("DEBUG StartTracking2 invoked: C:\\data\\file",
                  "INFO  Started tracking C:\\data\\file, Volume "
                  "01234567-89ab-cdef-0123-456789abcdef, FileId 0x0001000000000123",
                  "DEBUG StartTracking2 exit 0: BitmapId 0xID, size 100000, C:\\data\\file"));
}

TEST_F(StartTracking2Test, TrackedFileGetsAnotherBitmapWithoutTheDriver) {
  ASSERT_TRUE(Start(100'000).ok());
  const BitmapId first = info.BitmapId;
  FakeDriver::Take();
  FakeDriver::verify_code = ERROR_TIMEOUT;  // would show
  EXPECT_EQ(Start(100'000), (CallResult{0, 0}));
  EXPECT_NE(info.BitmapId, first);
  EXPECT_EQ(BitmapsOf().size(), 2u);
  EXPECT_THAT(FakeDriver::Take(), IsEmpty());
}

TEST_F(StartTracking2Test, BitmapHasOneBitForEachBlockRoundedUp) {
  for (const auto& [blocks, bytes] : {std::pair{1u, 1u}, {8, 1}, {9, 2}, {64, 8}, {65, 9}}) {
    ASSERT_TRUE(Start(std::uint64_t{blocks} * kBlock).ok());
    EXPECT_EQ(info.FileSize, 512 + bytes) << blocks;
    ASSERT_TRUE(
        Start(std::uint64_t{blocks - 1} * kBlock + 1 + (blocks == 1 ? kBlock - 1 : 0)).ok());
    EXPECT_EQ(info.FileSize, 512 + bytes) << blocks;
  }
}

TEST_F(StartTracking2Test, FileBelow4096BytesIsRefusedAndNothingIsMade) {
  StartLogging(kGeneralOnly);
  EXPECT_EQ(Start(4095), (CallResult{0, ERROR_INSUFFICIENT_BUFFER}));
  EXPECT_THAT(TrackedPaths(), IsEmpty());
  EXPECT_THAT(BitmapsOf(), IsEmpty());
  EXPECT_THAT(FakeDriver::Take(), IsEmpty());
  EXPECT_THAT(Messages(),
              ElementsAre("DEBUG StartTracking2 invoked: C:\\data\\file",
                          "WARN  StartTracking: cannot track file C:\\data\\file because size is "
                          "4095",
                          "DEBUG StartTracking2 exit 122: BitmapId 0x0000000000000000, size 4095, "
                          "C:\\data\\file"));
}

TEST_F(StartTracking2Test, FileOf4096BytesIsTracked) {
  EXPECT_EQ(Start(4096), (CallResult{0, 0}));
}

TEST_F(StartTracking2Test, FileThatWasNotTrackedHasItsOldBitmapsMarked) {
  const auto old = AddGood();
  const auto of_another_file = AddGood({kVolume, kFile + 1});
  ASSERT_TRUE(Start(100'000).ok());
  EXPECT_TRUE(IsUnreliable(old));
  EXPECT_FALSE(IsUnreliable(of_another_file));
  ASSERT_EQ(BitmapsOf().size(), 2u);
  EXPECT_EQ(GetBitmapById(info.BitmapId)->header()->Unreliable, 0);
}

TEST_F(StartTracking2Test, OldBitmapsAreMarkedBeforeTheListSaysTracked) {
  const auto old = AddGood();
  StartLogging("zelservicelog=info\nzelservicelog:bitmap=warn\nzelservicelog:drivercomm=none\n");
  ASSERT_TRUE(Start(100'000).ok());
  const std::vector<std::string> messages = Messages();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_THAT(messages[0], ::testing::EndsWith("unreliable because its file was not tracked"));
  EXPECT_THAT(messages[1], ::testing::StartsWith("INFO  Started tracking"));
}

TEST_F(StartTracking2Test, FileThatIsTrackedByAnotherPathKeepsItsBitmapsGood) {
  Track(L"C:\\data\\link");
  const auto old = AddGood();
  ASSERT_TRUE(Start(100'000).ok());
  EXPECT_FALSE(IsUnreliable(old));
}

LSTATUS WINAPI FailToQuery(HKEY, const wchar_t*, DWORD*, DWORD*, BYTE*, DWORD*) {
  return ERROR_NO_SYSTEM_RESOURCES;
}

TEST_F(StartTracking2Test, ListThatCannotBeReadIsTheAnswerAndNothingIsTracked) {
  const test::TestRegistryKey key;
  SetTrackedFileListKey(key.Open());
  const auto old = AddGood();
  StartLogging(kGeneralOnly);
  const test::ImportHook hook(__imp_RegQueryValueExW, &FailToQuery);
  EXPECT_EQ(Start(100'000), (CallResult{0, ERROR_NO_SYSTEM_RESOURCES}));
  EXPECT_THAT(TrackedPaths(), IsEmpty());
  EXPECT_THAT(FakeDriver::Take(), IsEmpty());
  EXPECT_FALSE(IsUnreliable(old));
  EXPECT_EQ(BitmapsOf().size(), 1u);
  EXPECT_THAT(
      Messages(),
      ElementsAre("DEBUG StartTracking2 invoked: C:\\data\\file",
                  "ERROR RegQueryValueEx(01234567-89ab-cdef-0123-456789abcdef) failed: 1450",
                  "WARN  StartTracking: cannot track file C:\\data\\file",
                  "DEBUG StartTracking2 exit 1450: BitmapId 0x0000000000000000, size "
                  "100000, C:\\data\\file"));
}

// Lets the first loads of bitmaps fail as if their files were gone.
struct FailingLoads {
  static inline std::atomic<int> failing{0};

  static HANDLE WINAPI Create(const wchar_t* path, DWORD access, DWORD sharing,
                              SECURITY_ATTRIBUTES* security, DWORD disposition, DWORD flags,
                              HANDLE original) {
    constexpr DWORD kReadAndWrite = GENERIC_READ | GENERIC_WRITE;
    const bool is_load = disposition == OPEN_EXISTING && sharing == FILE_SHARE_READ &&
                         (access & kReadAndWrite) == kReadAndWrite;
    if (is_load && failing-- > 0) {
      ::SetLastError(ERROR_FILE_NOT_FOUND);
      return INVALID_HANDLE_VALUE;
    }
    return real(path, access, sharing, security, disposition, flags, original);
  }

  static inline auto* const real = reinterpret_cast<decltype(&::CreateFileW)>(__imp_CreateFileW);
  test::ImportHook hook{__imp_CreateFileW, &Create};
};

TEST_F(StartTracking2Test, BitmapThatGoesBeforeTheAnswerIsMadeAgain) {
  FailingLoads::failing = 2;
  const FailingLoads hook;
  EXPECT_EQ(Start(100'000), (CallResult{0, 0}));
  EXPECT_NE(info.BitmapId, 0u);
  ASSERT_EQ(BitmapsOf().size(), 1u);
  EXPECT_EQ(BitmapsOf()[0].BitmapId, info.BitmapId);
  // It was shown to the driver the first time.
  EXPECT_THAT(FakeDriver::Take(), ElementsAre("notify", "verify C:\\data\\file 281474976710947"));
}

TEST_F(StartTracking2Test, BitmapThatCanNeverBeUsedIsAFailureAndLeavesNothing) {
  FailingLoads::failing = 3;
  const FailingLoads hook;
  StartLogging(kGeneralOnly);
  EXPECT_EQ(Start(100'000), (CallResult{0, 1}));
  EXPECT_THAT(BitmapsOf(), IsEmpty());
  EXPECT_EQ(info.BitmapId, 0u);
  EXPECT_THAT(Messages(),
              ::testing::Contains("ERROR StartTracking: no usable bitmap for Volume "
                                  "01234567-89ab-cdef-0123-456789abcdef, FileId 0x0001000000000123 "
                                  "after 3 tries"));
}

// Another file's bitmap can have the id of one that has just gone.
TEST_F(StartTracking2Test, BitmapWhoseIdHasGoneToAnotherFileIsMadeAgain) {
  constexpr FileKey kOther = {kVolume, kFile + 1};
  const auto other = Write(kOther, test::kCreated, test::GoodBitmap(kOther, "bits"));
  BitmapId id = 0;
  FakeDriver::on_verify = [&] {
    if (id != 0) return;
    id = BitmapsOf().at(0).BitmapId;
    DiscardBitmapsOfFile(kKey);
    AddBitmap(kVolume, kOther.file_id, id, other.wstring(), 516);
  };
  EXPECT_EQ(Start(100'000), (CallResult{0, 0}));
  EXPECT_EQ(info.FileId, kFile);
  ASSERT_EQ(BitmapsOf().size(), 1u);
  EXPECT_EQ(BitmapsOf()[0].BitmapId, info.BitmapId);
  EXPECT_THAT(BitmapIdsOfFile(kOther), ElementsAre(id));
}

TEST_F(StartTracking2Test, ChangeBeforeTheFirstBitmapIsNotWarnedOf) {
  constexpr FileKey kOther = {kVolume, kFile + 1};
  Track(L"C:\\data\\other", kOther);
  FakeDriver::on_notify = [&] {
    WarnOfMissingBitmap(kKey);
    WarnOfMissingBitmap(kOther);
  };
  StartLogging("zelservicelog=warn\nzelservicelog:bitmap=none\nzelservicelog:drivercomm=none\n");
  EXPECT_EQ(Start(100'000), (CallResult{0, 0}));
  EXPECT_THAT(Messages(), ElementsAre(::testing::EndsWith(
                              "FileId 0x0001000000000124, which is tracked but has no bitmap")));
}

// Keeps every thread of the flusher busy while it lives.
class BusyFlusher {
 public:
  BusyFlusher() {
    StartFlusher();
    for (std::jthread& caller : callers_) caller = std::jthread([this] { Occupy(); });
    // Two callers, and all of the 32 threads.
    EXPECT_TRUE(test::PollUntil([this] { return waiting_ == 34; }));
  }
  ~BusyFlusher() {
    ::SetEvent(may_end_.get());
    for (std::jthread& caller : callers_) caller.join();
    StopFlusher();
  }
  BusyFlusher(const BusyFlusher&) = delete;
  BusyFlusher& operator=(const BusyFlusher&) = delete;

 private:
  void Occupy() {
    RunSideBySide(32, BatchShare::kAll, [this](std::size_t) {
      ++waiting_;
      ::WaitForSingleObject(may_end_.get(), INFINITE);
    });
  }

  const UniqueEvent may_end_{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  std::atomic<int> waiting_{0};
  std::jthread callers_[2];
};

TEST_F(StartTracking2Test, AnswerWaitsForTheNewBitmapsMarkOnTheDevice) {
  test::FlushHooks flushes;
  const BusyFlusher flusher;
  EXPECT_EQ(Start(100'000), (CallResult{0, 0}));
  EXPECT_THAT(flushes.Take(), ElementsAre("header", "file"));
}

// Does something of the test's own before the cleanup lists a directory for the first time.
struct BeforeListing {
  static inline std::wstring directory;
  static inline std::function<void()> action;

  static HANDLE WINAPI Find(const wchar_t* pattern, WIN32_FIND_DATAW* entry) {
    if (directory + L"\\*" == pattern && action) std::exchange(action, nullptr)();
    return real(pattern, entry);
  }

  static inline auto* const real =
      reinterpret_cast<decltype(&::FindFirstFileW)>(__imp_FindFirstFileW);
  test::ImportHook hook{__imp_FindFirstFileW, &Find};
};

TEST_F(StartTracking2Test, StartDuringACleanupPassKeepsItsBitmap) {
  Write(kKey, test::kCreated, test::GoodBitmap(kKey, "bits"));
  BeforeListing::directory = DirectoryOf(kKey).wstring();
  BeforeListing::action = [&] {
    EXPECT_EQ(Start(100'000), (CallResult{0, 0}));
    UnloadAllBitmaps();  // so that nobody holds its file
  };
  const BeforeListing hook;
  CleanVolumeDirectory(kVolume);
  EXPECT_NE(info.BitmapId, 0u);
  ShutdownBitmapManager();
  EXPECT_TRUE(std::filesystem::exists(DirectoryOf(kKey)));
  EXPECT_EQ(BitmapsOf().size(), 1u);
  EXPECT_FALSE(std::filesystem::is_empty(DirectoryOf(kKey)));
}

TEST_F(StartTracking2Test, StopAndStartInARowBesideTheCleanupAlwaysEndWithABitmap) {
  const test::TestRegistryKey key;
  SetTrackedFileListKey(key.Open());
  ASSERT_TRUE(LoadTrackedFileList());
  WhenFileHasNoBitmapsLeft(WakeCleanup);
  ASSERT_TRUE(StartCleanupThread());
  for (int row = 0; row < 500; ++row) {
    ASSERT_EQ(Start(100'000), (CallResult{0, 0})) << row;
    ASSERT_NE(info.BitmapId, 0u) << row;
    ASSERT_TRUE(GetBitmapById(info.BitmapId)) << row;
    ASSERT_EQ(client.StopTracking(kPath), (CallResult{0, 0})) << row;
  }
  EXPECT_TRUE(test::PollUntil([&] { return std::filesystem::is_empty(cbt()); }));
  ShutdownTrackedFiles();
}

// Does something of the test's own before a bitmap's file is made for the first time.
struct BeforeCreation {
  static inline std::function<void()> action;

  static HANDLE WINAPI Create(const wchar_t* path, DWORD access, DWORD sharing,
                              SECURITY_ATTRIBUTES* security, DWORD disposition, DWORD flags,
                              HANDLE original) {
    if (disposition == CREATE_NEW && action) std::exchange(action, nullptr)();
    return real(path, access, sharing, security, disposition, flags, original);
  }

  static inline auto* const real = reinterpret_cast<decltype(&::CreateFileW)>(__imp_CreateFileW);
  test::ImportHook hook{__imp_CreateFileW, &Create};
};

TEST_F(StartTracking2Test, StopOfTrackingJustBeforeTheBitmapBeginsTheStartAnew) {
  ASSERT_TRUE(Start(100'000).ok());
  FakeDriver::Take();
  BeforeCreation::action = [] {
    ASSERT_TRUE(StopTrackingFile(kPath));
    DiscardBitmapsOfFile(kKey);
  };
  const BeforeCreation hook;
  EXPECT_EQ(Start(100'000), (CallResult{0, 0}));
  EXPECT_THAT(TrackedPaths(), ElementsAre("C:\\data\\file"));
  ASSERT_EQ(BitmapsOf().size(), 1u);
  EXPECT_EQ(BitmapsOf()[0].BitmapId, info.BitmapId);
  EXPECT_THAT(FakeDriver::Take(), ElementsAre("notify", "verify C:\\data\\file 281474976710947"));
}

TEST_F(StartTracking2Test, NoticeThatFailedIsSentAgainWithTheNextStart) {
  FakeDriver::notify_code = static_cast<std::uint32_t>(E_FAIL);
  EXPECT_EQ(Start(100'000, 0), (CallResult{RPC_S_ZERO_DIVIDE, 0}));
  FakeDriver::notify_code = 0;
  EXPECT_TRUE(Start(100'000).ok());
  EXPECT_TRUE(Start(100'000).ok());
  EXPECT_THAT(FakeDriver::Take(), ElementsAre("notify", "notify"));
}

// A start of the file, its path in other letters, while another one, for which it is new, is being
// verified.
class SecondStartTest : public StartTracking2Test {
 protected:
  ~SecondStartTest() override {
    FakeDriver::on_verify = [] {};
  }

  // Lets the first verification meet a second start, and end with `code` afterwards.
  void MeetSecondStart(std::uint32_t second_code, std::uint32_t code) {
    FakeDriver::on_verify = [=, this] {
      FakeDriver::on_verify = [] {};
      FakeDriver::verify_code = second_code;
      wire::BitmapInfo second_info = {};
      second = client.StartTracking2(L"c:\\DATA\\File", kKey, 100'000, kBlock, second_info);
      FakeDriver::verify_code = code;
    };
  }

  CallResult second;
};

TEST_F(SecondStartTest, IsVerifiedToo) {
  MeetSecondStart(0, 0);
  EXPECT_EQ(Start(100'000), (CallResult{0, 0}));
  EXPECT_EQ(second, (CallResult{0, 0}));
  EXPECT_EQ(BitmapsOf().size(), 2u);
  EXPECT_THAT(FakeDriver::Take(), ElementsAre("notify", "verify C:\\data\\file 281474976710947",
                                              "notify", "verify c:\\DATA\\File 281474976710947"));
}

TEST_F(SecondStartTest, FailureOfTheFirstDoesNotUndoIt) {
  MeetSecondStart(0, ERROR_TIMEOUT);
  EXPECT_EQ(Start(100'000), (CallResult{0, ERROR_TIMEOUT}));
  EXPECT_EQ(second, (CallResult{0, 0}));
  EXPECT_THAT(TrackedPaths(), ElementsAre("C:\\data\\file"));
  EXPECT_EQ(BitmapsOf().size(), 1u);
}

TEST_F(SecondStartTest, FailureOfItLeavesTheFirst) {
  MeetSecondStart(ERROR_TIMEOUT, 0);
  EXPECT_EQ(Start(100'000), (CallResult{0, 0}));
  EXPECT_EQ(second, (CallResult{0, ERROR_TIMEOUT}));
  ASSERT_EQ(BitmapsOf().size(), 1u);
  EXPECT_EQ(BitmapsOf()[0].BitmapId, info.BitmapId);
}

TEST_F(StartTracking2Test, PathTrackedUnderAnotherIdIsAConflict) {
  ASSERT_TRUE(Start(100'000).ok());
  StartLogging(kGeneralOnly);
  EXPECT_EQ(Start(100'000, kBlock, {kVolume, kFile + 1}), (CallResult{0, ERROR_MEDIA_CHANGED}));
  EXPECT_EQ(info.BitmapId, 0u);
  EXPECT_THAT(BitmapsOf({kVolume, kFile + 1}), IsEmpty());
  const std::vector<std::string> messages = Messages();
  ASSERT_EQ(messages.size(), 6u);
  EXPECT_EQ(messages[4], "WARN  StartTracking: cannot track file C:\\data\\file");
  EXPECT_EQ(messages[5],
            "DEBUG StartTracking2 exit 1110: BitmapId 0x0000000000000000, size 100000, "
            "C:\\data\\file");
}

TEST_F(StartTracking2Test, BitmapThatCannotBeMadeLeavesTheFileTracked) {
  StartLogging(kGeneralOnly);
  WriteFileBytes(cbt() / test::kVolumeText, "a file where a directory belongs");
  EXPECT_EQ(Start(100'000), (CallResult{0, 1}));
  EXPECT_THAT(TrackedPaths(), ElementsAre("C:\\data\\file"));
  EXPECT_THAT(FakeDriver::Take(), ElementsAre("notify"));
  EXPECT_EQ(info.BitmapId, 0u);
  EXPECT_EQ(Messages().at(2),
            "ERROR StartTracking: CreateNewBitmap for Volume "
            "01234567-89ab-cdef-0123-456789abcdef, FileId 0x0001000000000123 failed");
}

TEST_F(StartTracking2Test, MoreBlocksThanABitmapFileCanHoldFailLikewise) {
  for (const std::uint64_t size : {~0ull, 1ull << 62}) {
    EXPECT_EQ(Start(size, 1), (CallResult{0, 1}));
  }
  EXPECT_THAT(TrackedPaths(), ElementsAre("C:\\data\\file"));
  EXPECT_THAT(BitmapsOf(), IsEmpty());
}

TEST_F(StartTracking2Test, FileThatTheDriverDoesNotTrackIsGivenUp) {
  FakeDriver::verify_code = ERROR_TIMEOUT;
  EXPECT_EQ(Start(100'000), (CallResult{0, ERROR_TIMEOUT}));
  EXPECT_THAT(FakeDriver::Take(), ElementsAre("notify", "verify C:\\data\\file 281474976710947",
                                              "stop C:\\data\\file 281474976710947"));
  EXPECT_THAT(TrackedPaths(), IsEmpty());
  EXPECT_THAT(BitmapsOf(), IsEmpty());
  EXPECT_EQ(info.FileSize, 0u);  // as it was
}

TEST_F(StartTracking2Test, BlockSizeOf0FaultsTheOneCallAfterTheFileIsTracked) {
  StartLogging(kGeneralOnly);
  EXPECT_EQ(Start(100'000, 0), (CallResult{RPC_S_ZERO_DIVIDE, 0}));
  EXPECT_THAT(TrackedPaths(), ElementsAre("C:\\data\\file"));
  EXPECT_THAT(FakeDriver::Take(), ElementsAre("notify"));
  EXPECT_THAT(BitmapsOf(), IsEmpty());
  EXPECT_EQ(client.Ping(), (CallResult{0, 0}));
  EXPECT_EQ(Messages().size(), 2u);  // no exit
}

TEST_F(StartTracking2Test, BlockSizeOf0IsNotReachedByARefusedFile) {
  EXPECT_EQ(Start(4095, 0), (CallResult{0, ERROR_INSUFFICIENT_BUFFER}));
}

// Answers for a volume's name as for its mount point, which not every system's look-up does.
BOOL WINAPI NameAnyVolume(const wchar_t*, wchar_t* name, DWORD size) {
  return ::wcscpy_s(name, size, L"\\\\?\\Volume{01234567-89ab-cdef-0123-456789abcdef}\\") == 0;
}

class StartTrackingTest : public test::RpcFixture {
 protected:
  StartTrackingTest() { WriteFileBytes(path, std::string(5000, 'x')); }

  CallResult Start(const std::filesystem::path& file) {
    info = {};
    return client.StartTracking(file.wstring(), kBlock, info);
  }

  test::ImportHook volumes{__imp_GetVolumeNameForVolumeMountPointW, &NameAnyVolume};
  std::filesystem::path path = directory() / "tracked";
  wire::BitmapInfo info = {};
};

TEST_F(StartTrackingTest, FindsTheIdentityAndTheSizeByThePath) {
  StartLogging(kGeneralOnly);
  EXPECT_EQ(Start(path), (CallResult{0, 0}));
  EXPECT_EQ(info.VolumeGuid, kVolume);
  EXPECT_EQ(info.FileId, test::IdOf(path));
  EXPECT_EQ(info.FileSize, 513u);  // 2 blocks
  EXPECT_THAT(TrackedPaths(), ElementsAre(path.string()));
  const std::vector<std::string> messages = StopLoggingAndGetMessages();
  ASSERT_EQ(messages.size(), 3u);
  EXPECT_EQ(messages[0], "DEBUG StartTracking invoked: " + path.string());
  char exit_line[1000];
  std::snprintf(exit_line, sizeof exit_line,
                "DEBUG StartTracking exit 0: BitmapId 0x%016llx, size 5000, %s", info.BitmapId,
                path.string().c_str());
  EXPECT_EQ(messages[2], exit_line);
}

TEST_F(StartTrackingTest, FileOf4095BytesIsRefusedAndFileOf4096BytesIsNot) {
  WriteFileBytes(path, std::string(4095, 'x'));
  EXPECT_EQ(Start(path), (CallResult{0, ERROR_INSUFFICIENT_BUFFER}));
  EXPECT_THAT(TrackedPaths(), IsEmpty());
  EXPECT_THAT(ListAllBitmaps(), IsEmpty());
  WriteFileBytes(path, std::string(4096, 'x'));
  EXPECT_EQ(Start(path), (CallResult{0, 0}));
}

TEST_F(StartTrackingTest, MissingFileGivesItsErrorAndNoExitLine) {
  StartLogging(kGeneralOnly);
  EXPECT_EQ(Start(directory() / "missing"), (CallResult{0, ERROR_FILE_NOT_FOUND}));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("DEBUG StartTracking invoked: " + (directory() / "missing").string()));
}

BOOL WINAPI NameNoVolume(const wchar_t*, wchar_t*, DWORD) {
  ::SetLastError(ERROR_NOT_A_REPARSE_POINT);
  return FALSE;
}

TEST_F(StartTrackingTest, VolumeWithoutANameGivesItsError) {
  const test::ImportHook hook(__imp_GetVolumeNameForVolumeMountPointW, &NameNoVolume);
  EXPECT_EQ(Start(path), (CallResult{0, ERROR_NOT_A_REPARSE_POINT}));
  EXPECT_THAT(TrackedPaths(), IsEmpty());
}

TEST_F(StartTrackingTest, BlockSizeOf0FaultsTheCall) {
  EXPECT_EQ(client.StartTracking(path.wstring(), 0, info), (CallResult{RPC_S_ZERO_DIVIDE, 0}));
  EXPECT_THAT(TrackedPaths(), ElementsAre(path.string()));
}

class StopTrackingTest : public test::RpcFixture {};

TEST_F(StopTrackingTest, UntrackedPathIsNotFound) {
  StartLogging(kGeneralOnly);
  EXPECT_EQ(client.StopTracking(kPath), (CallResult{0, ERROR_FILE_NOT_FOUND}));
  EXPECT_THAT(FakeDriver::Take(), IsEmpty());
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  StopTracking invoked: C:\\data\\file",
                          "INFO  StopTracking exit 2: C:\\data\\file"));
}

TEST_F(StopTrackingTest, TrackedPathIsStoppedUnderItsIdentity) {
  Track(kPath);
  EXPECT_EQ(client.StopTracking(L"c:\\DATA\\file"), (CallResult{0, 0}));
  EXPECT_THAT(FakeDriver::Take(), ElementsAre("stop c:\\DATA\\file 281474976710947"));
  EXPECT_THAT(TrackedPaths(), IsEmpty());
}

TEST_F(StopTrackingTest, CodeOfTheForcedStopIsTheAnswer) {
  Track(kPath);
  FakeDriver::stop_code = ERROR_ACCESS_DENIED;
  StartLogging(kGeneralOnly);
  EXPECT_EQ(client.StopTracking(kPath), (CallResult{0, ERROR_ACCESS_DENIED}));
  EXPECT_EQ(StopLoggingAndGetMessages().back(), "INFO  StopTracking exit 5: C:\\data\\file");
}

}  // namespace
}  // namespace zel
