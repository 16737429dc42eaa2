// Calls that are in hand while the service stops: the stop's steps are made in the middle of them,
// or before a call that listening has let through.
#include "rpc/procedures.h"
#include "tests/integration/support/import_hook.h"
#include "tests/integration/support/recording_pipe.h"
#include "tests/integration/support/registry_key.h"
#include "tests/integration/support/rpc_fixture.h"
#include "tracking/untracked_cleanup.h"
#include "win32/stop_requested.h"

extern "C" {
extern void* __imp_CreateFileW;
}

namespace zel {
namespace {

using test::FakeDriver;
using test::kKey;
using test::ReadFileBytes;
using test::RecordingPipe;
using test::Track;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr wchar_t kPath[] = L"C:\\data\\file";
constexpr CallResult kStopping = {0, ERROR_SHUTDOWN_IN_PROGRESS};
constexpr std::uint16_t kRoom = 600;

// What a stop does to the parts that the procedures ask.
void StopTheParts() {
  StopRequested = true;
  ShutdownBitmapManager();
  ShutdownTrackedFiles();
}

class CallAtStopTest : public test::RpcFixture {
 protected:
  CallAtStopTest() { SetTrackedFileListKey(key_.Open()); }
  ~CallAtStopTest() override {
    FakeDriver::on_notify = [] {};
    FakeDriver::on_verify = [] {};
  }

  CallResult Start() {
    wire::BitmapInfo info = {};
    return client.StartTracking2(kPath, kKey, 100'000, 4096, info);
  }

  // The paths that the next start of the service finds in the registry.
  std::vector<std::wstring> TrackedInTheNextLife() {
    StopRequested = false;
    SetTrackedFileListKey(key_.Open());
    EXPECT_TRUE(LoadTrackedFileList());
    std::vector<TrackedFileEntry> entries;
    CollectTrackedFiles(entries);
    std::vector<std::wstring> paths;
    for (const TrackedFileEntry& entry : entries) paths.push_back(entry.Path);
    return paths;
  }

 private:
  test::TestRegistryKey key_;
};

TEST_F(CallAtStopTest, StartOfATrackedFileLeavesItsBitmapsAlone) {
  Track(kPath);
  ASSERT_TRUE(EndTrackingStart(kPath));
  const auto path = AddGood();
  const std::string bytes = ReadFileBytes(path);
  FakeDriver::verify_code = ERROR_SHUTDOWN_IN_PROGRESS;
  StopTheParts();
  EXPECT_EQ(Start(), kStopping);
  EXPECT_THAT(FakeDriver::Take(), IsEmpty());
  EXPECT_EQ(ReadFileBytes(path), bytes);
  EXPECT_THAT(TrackedInTheNextLife(), ElementsAre(kPath));
}

decltype(&::CreateFileW) real_create = nullptr;

// The stop comes when the bitmap's file is made.
HANDLE WINAPI StopAtCreation(LPCWSTR name, DWORD access, DWORD share,
                             LPSECURITY_ATTRIBUTES security, DWORD disposition, DWORD flags,
                             HANDLE model) {
  if (disposition == CREATE_NEW && !StopRequested) StopTheParts();
  return real_create(name, access, share, security, disposition, flags, model);
}

TEST_F(CallAtStopTest, StartOfATrackedFileDoesNotSucceedWithoutABitmapToShow) {
  ASSERT_EQ(Start(), (CallResult{0, 0}));
  real_create = reinterpret_cast<decltype(real_create)>(__imp_CreateFileW);
  const test::ImportHook hook(__imp_CreateFileW, &StopAtCreation);
  EXPECT_EQ(Start(), kStopping);
  EXPECT_THAT(TrackedInTheNextLife(), ElementsAre(kPath));
}

TEST_F(CallAtStopTest, NewFileIsNotTrackedByAStartThatTheStopOvertook) {
  for (const bool at_notify : {true, false}) {
    SCOPED_TRACE(at_notify);
    (at_notify ? FakeDriver::on_notify : FakeDriver::on_verify) = StopTheParts;
    EXPECT_EQ(Start(), kStopping);
    EXPECT_THAT(TrackedInTheNextLife(), IsEmpty());
    FakeDriver::on_notify = [] {};
    FakeDriver::on_verify = [] {};
    AllowLoads(true);
  }
}

// The next start of the file would find it tracked, and not tell the driver of it.
TEST_F(CallAtStopTest, NewFileIsTakenBackAlsoWhenItsListIsClosedAfterTheCall) {
  FakeDriver::on_verify = [] { StopRequested = true; };
  EXPECT_EQ(Start(), kStopping);
  ShutdownTrackedFiles();
  EXPECT_THAT(TrackedInTheNextLife(), IsEmpty());
}

TEST_F(CallAtStopTest, NewFileStaysWhenASecondStartOfItHasBeenAnswered) {
  FakeDriver::on_verify = [this] {
    FakeDriver::on_verify = [] {};
    EXPECT_EQ(Start(), (CallResult{0, 0}));
    StopTheParts();
  };
  EXPECT_EQ(Start(), kStopping);
  EXPECT_THAT(TrackedInTheNextLife(), ElementsAre(kPath));
}

TEST_F(CallAtStopTest, FileWhoseVerificationTheStopEndedKeepsItsBitmaps) {
  const auto earlier = AddGood();
  FakeDriver::verify_code = ERROR_SHUTDOWN_IN_PROGRESS;
  FakeDriver::on_verify = [] { StopRequested = true; };
  EXPECT_EQ(Start(), kStopping);
  EXPECT_TRUE(std::filesystem::exists(earlier));
  EXPECT_THAT(ListAllBitmaps()[kKey], SizeIs(2));
}

TEST_F(CallAtStopTest, FinishedStartsStayTracked) {
  EXPECT_EQ(Start(), (CallResult{0, 0}));
  StopTheParts();
  EXPECT_THAT(TrackedInTheNextLife(), ElementsAre(kPath));
}

TEST_F(CallAtStopTest, StopOfTrackingDoesNotTakeATrackedFileForAnUntrackedOne) {
  Track(kPath);
  ASSERT_TRUE(EndTrackingStart(kPath));
  const auto path = AddGood();
  StopTheParts();
  EXPECT_EQ(client.StopTracking(kPath), kStopping);
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_THAT(TrackedInTheNextLife(), ElementsAre(kPath));
}

TEST_F(CallAtStopTest, StopOfTrackingThatHasFoundTheFileTouchesNothingAfterTheListIsClosed) {
  Track(kPath);
  ASSERT_TRUE(EndTrackingStart(kPath));
  const auto path = AddGood();
  StopRequested = true;  // the list is open still
  EXPECT_EQ(client.StopTracking(kPath), kStopping);
  EXPECT_TRUE(std::filesystem::exists(path));
  ShutdownTrackedFiles();
  EXPECT_THAT(TrackedInTheNextLife(), ElementsAre(kPath));
}

TEST_F(CallAtStopTest, ListsAreNotEmptyBecauseOfTheStop) {
  Track(kPath);
  ASSERT_TRUE(EndTrackingStart(kPath));
  const auto path = AddGood();
  const std::string bytes = ReadFileBytes(path);
  StopTheParts();

  FileList files;
  ListedFile file;
  EXPECT_EQ(client.ListFiles(files, kRoom, file), kStopping);
  EXPECT_FALSE(files);
  BitmapList bitmaps;
  NamedBitmap bitmap;
  EXPECT_EQ(client.ListBitmaps(kKey, bitmaps, kRoom, bitmap), kStopping);
  EXPECT_FALSE(bitmaps);
  RecordingPipe all;
  EXPECT_EQ(ZEL_GetTrackedFiles(nullptr, all.get()), DWORD{ERROR_SHUTDOWN_IN_PROGRESS});
  EXPECT_THAT(all.pushes(), ElementsAre(""));  // the pipe's end
  RecordingPipe copy;
  EXPECT_EQ(CopyBitmap(nullptr, test::IdOf(path), copy.get()), DWORD{ERROR_SHUTDOWN_IN_PROGRESS});
  EXPECT_THAT(copy.pushes(), ElementsAre(""));
  EXPECT_EQ(ReadFileBytes(path), bytes);  // nothing was loaded
}

TEST_F(CallAtStopTest, ListThatWasBegunBeforeTheStopGoesOn) {
  Track(kPath);
  Track(L"C:\\data\\other", {test::kVolume, 2});
  FileList files;
  ListedFile file;
  ASSERT_EQ(client.ListFiles(files, kRoom, file), (CallResult{0, 0}));
  StopTheParts();
  EXPECT_EQ(client.ListFiles(files, kRoom, file), (CallResult{0, 0}));
  EXPECT_EQ(file.path, L"C:\\data\\other");
  EXPECT_EQ(client.ListFiles(files, kRoom, file), (CallResult{0, ERROR_NO_MORE_ITEMS}));
}

TEST_F(CallAtStopTest, DriverThatHasNoPortAnyMoreIsNotBlamed) {
  FakeDriver::synchronize_code = 0x80070006;
  FakeDriver::status_code = 0x80070006;
  EXPECT_EQ(client.SynchronizeBitmaps(1), (CallResult{0, 0x80070006}));
  EXPECT_EQ(client.GetDriverStatus(), (CallResult{0, 0x80070006}));
  StopRequested = true;
  EXPECT_EQ(client.SynchronizeBitmaps(1), kStopping);
  EXPECT_EQ(client.GetDriverStatus(), kStopping);
}

}  // namespace
}  // namespace zel
