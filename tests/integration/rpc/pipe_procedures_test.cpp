// CopyBitmap and ZEL_GetTrackedFiles, called as the stub calls them.
#include "client/tracked_files_reader.h"
#include "rpc/procedures.h"
#include "tests/integration/support/bitmap_fixture.h"
#include "tests/integration/support/failing_view.h"
#include "tests/integration/support/recording_pipe.h"
#include "tracking/registry_store.h"
#include "tracking/tracked_file_table.h"
#include "win32/rpc_exception.h"
#include "win32/stop_requested.h"

namespace zel {
namespace {

using test::GoodBitmap;
using test::kCreated;
using test::kFile;
using test::kHeaderBytes;
using test::kKey;
using test::kVolume;
using test::RecordingPipe;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// What the routine answers, or the exception that it raises.
struct Answer {
  std::uint32_t exception = 0;
  error_status_t code = 0;

  bool operator==(const Answer&) const = default;
};

template <class Routine>
Answer Ask(Routine routine) {
  Answer answer;
  answer.exception = CatchRpcException([&] { answer.code = routine(); });
  return answer;
}

class CopyBitmapTest : public test::BitmapFixture {
 protected:
  // Adds a bitmap whose file has `length` bytes.
  BitmapId AddOfLength(std::size_t length) {
    std::string bits(length - kHeaderBytes, '\0');
    for (std::size_t at = 0; at < bits.size(); ++at) bits[at] = static_cast<char>(at * 7);
    return test::IdOf(Add(kKey, kCreated, GoodBitmap(kKey, bits)));
  }

  static Answer Copy(BitmapId id, RecordingPipe& pipe) {
    return Ask([&] { return CopyBitmap(nullptr, id, pipe.get()); });
  }
};

TEST_F(CopyBitmapTest, FileGoesOutInChunksOf65536BytesAndAnEmptyPushEndsIt) {
  struct Case {
    std::size_t length;
    std::vector<std::size_t> pushes;
  };
  const std::vector<Case> cases = {{512, {512, 0}},
                                   {65'535, {65'535, 0}},
                                   {65'536, {65'536, 0}},
                                   {65'537, {65'536, 1, 0}},
                                   {131'072, {65'536, 65'536, 0}}};
  for (const Case& expected : cases) {
    const BitmapId id = AddOfLength(expected.length);
    RecordingPipe pipe;
    EXPECT_EQ(Copy(id, pipe), (Answer{0, 0}));
    EXPECT_EQ(pipe.Sizes(), expected.pushes) << expected.length;
    DiscardBitmapsOfFile(kKey);
  }
}

TEST_F(CopyBitmapTest, BytesAreThoseInMemory) {
  const BitmapId id = AddOfLength(10 << 20);
  RecordingPipe pipe;
  EXPECT_EQ(Copy(id, pipe), (Answer{0, 0}));
  const PinnedBitmap bitmap = GetBitmapById(id);
  EXPECT_TRUE(pipe.Bytes() ==
              std::string(reinterpret_cast<const char*>(bitmap->header()), 10 << 20));
}

TEST_F(CopyBitmapTest, UnknownBitmapIsNotFoundAndItsPipeIsEndedAllTheSame) {
  StartLogging();
  RecordingPipe pipe;
  EXPECT_EQ(Copy(0x123, pipe), (Answer{0, ERROR_NOT_FOUND}));
  EXPECT_THAT(pipe.Sizes(), ElementsAre(0));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("DEBUG CopyBitmap invoked: BitmapId 0x0000000000000123",
                          "ERROR Failed to find BitmapId 0x0000000000000123 to copy"));
}

// In the third chunk: what went before is out, and the client gets the code.
TEST_F(CopyBitmapTest, FaultInTheViewEndsThePipeWithItsCodeAndLeavesNoPin) {
  const BitmapId id = AddOfLength(200'000);
  std::byte* const view = reinterpret_cast<std::byte*>(GetBitmapById(id)->header());
  {
    const test::FailingView failing(view + 131'072, 4096);
    RecordingPipe pipe;
    EXPECT_EQ(Copy(id, pipe), (Answer{0, ERROR_NOACCESS}));
    EXPECT_THAT(pipe.Sizes(), ElementsAre(65'536, 65'536, 0));
  }
  RecordingPipe again;  // loaded anew
  EXPECT_EQ(Copy(id, again), (Answer{0, 0}));
  EXPECT_EQ(test::Get(again.Bytes(), test::kAtUnreliable, 1), 1u);
}

TEST_F(CopyBitmapTest, StopEndsACopyBetweenTwoChunks) {
  const BitmapId id = AddOfLength(200'000);
  RecordingPipe pipe;
  pipe.on_push = [] { StopRequested = true; };
  EXPECT_EQ(Copy(id, pipe), (Answer{0, ERROR_SHUTDOWN_IN_PROGRESS}));
  EXPECT_THAT(pipe.Sizes(), ElementsAre(65'536, 0));
}

TEST_F(CopyBitmapTest, CopyIsLoggedWithLengthAndIdentity) {
  const BitmapId id = AddOfLength(600);
  StartLogging("zelservicelog=none\nzelservicelog:bitmap=debug\nzelservicelog:drivercomm=none\n");
  RecordingPipe pipe;
  EXPECT_EQ(Copy(id, pipe), (Answer{0, 0}));
  char line[200];
  std::snprintf(line, sizeof line,
                "INFO  Copied BitmapId 0x%016llx, 600 bytes, Volume "
                "01234567-89ab-cdef-0123-456789abcdef, FileId 0x0001000000000123",
                id);
  EXPECT_EQ(StopLoggingAndGetMessages().back(), line);
}

TEST_F(CopyBitmapTest, BitmapIsPinnedWhileItIsCopiedAndNotAfterwards) {
  const BitmapId id = AddOfLength(600);
  const PinnedBitmap pin = GetBitmapById(id);
  struct Watcher {
    const PinnedBitmap& pin;
    std::vector<std::uint32_t> pins;
  } watcher = {pin, {}};
  wire::BytePipe pipe = {nullptr,
                         [](char* state, unsigned char*, std::uint32_t) {
                           auto& seen = *reinterpret_cast<Watcher*>(state);
                           seen.pins.push_back(seen.pin->InUseCount);
                         },
                         nullptr, reinterpret_cast<char*>(&watcher)};
  EXPECT_EQ(CopyBitmap(nullptr, id, &pipe), 0u);
  EXPECT_THAT(watcher.pins, ElementsAre(2, 2));
  EXPECT_EQ(pin->InUseCount, 1u);
}

TEST_F(CopyBitmapTest, ClientThatGoesAwayFaultsTheCallAndLeavesNoPin) {
  const BitmapId id = AddOfLength(200'000);
  StartLogging();
  for (const std::size_t failing_push : {0u, 1u, 4u}) {  // the first, one between, the empty one
    RecordingPipe pipe(failing_push);
    EXPECT_EQ(Copy(id, pipe), (Answer{RPC_S_CALL_FAILED, 0}));
    EXPECT_EQ(pipe.pushes().size(), failing_push);  // nothing more was pushed
  }
  EXPECT_EQ(GetBitmapById(id)->InUseCount, 1u);
  for (const std::string& message : StopLoggingAndGetMessages()) {
    EXPECT_THAT(message, ::testing::Not(::testing::HasSubstr("Copied")));
  }
}

class GetTrackedFilesTest : public test::BitmapFixture {
 protected:
  ~GetTrackedFilesTest() override { CloseTrackedFileList(); }

  static void Track(std::wstring_view path, const FileKey& file) {
    bool is_new = false;
    EXPECT_TRUE(StartTrackingFile(path, file.volume, file.file_id, is_new));
  }

  static Answer Get(RecordingPipe& pipe) {
    return Ask([&] { return ZEL_GetTrackedFiles(nullptr, pipe.get()); });
  }

  static std::vector<TrackedFile> FilesIn(const RecordingPipe& pipe) {
    const std::string bytes = pipe.Bytes();
    std::vector<TrackedFile> files;
    EXPECT_STREQ(ReadTrackedFiles(std::as_bytes(std::span(bytes)), files), nullptr);
    return files;
  }
};

TEST_F(GetTrackedFilesTest, NoFilesAreFourZeroBytesAndTheEnd) {
  StartLogging();
  RecordingPipe pipe;
  EXPECT_EQ(Get(pipe), (Answer{0, 0}));
  EXPECT_THAT(pipe.pushes(), ElementsAre(std::string(4, '\0'), ""));
  EXPECT_THAT(StopLoggingAndGetMessages(),
              ElementsAre("INFO  ZEL_GetTrackedFiles: Sent results for 0 tracked file and 0 "
                          "bitmaps"));
}

TEST_F(GetTrackedFilesTest, FileWithoutBitmapsHasACountOf0) {
  Track(L"C:\\a", kKey);
  RecordingPipe pipe;
  EXPECT_EQ(Get(pipe), (Answer{0, 0}));
  EXPECT_THAT(pipe.Sizes(), ElementsAre(4, 16, 8, 10, 4, 0));
  EXPECT_EQ(FilesIn(pipe), (std::vector<TrackedFile>{{kKey, L"C:\\a", {}}}));
}

TEST_F(GetTrackedFilesTest, FilesComeInTheTablesOrderWithTheirBitmaps) {
  const FileKey other = {{0x00000001, 2, 3, {}}, 9};  // before the other volume
  Track(L"C:\\b", kKey);
  Track(L"C:\\a", {kVolume, kFile + 1});
  Track(L"D:\\z", other);
  const BitmapId first = test::IdOf(AddGood(kKey, kCreated + 1));
  const BitmapId second = test::IdOf(AddGood(kKey, kCreated));
  AddGood({kVolume, kFile + 7}, kCreated);  // of a file that is not tracked
  StartLogging();
  RecordingPipe pipe;
  EXPECT_EQ(Get(pipe), (Answer{0, 0}));
  EXPECT_EQ(FilesIn(pipe),
            (std::vector<TrackedFile>{
                {other, L"D:\\z", {}},
                {{kVolume, kFile + 1}, L"C:\\a", {}},
                {kKey, L"C:\\b", {{528, kCreated + 1, first}, {528, kCreated, second}}}}));
  EXPECT_EQ(StopLoggingAndGetMessages().back(),
            "INFO  ZEL_GetTrackedFiles: Sent results for 3 tracked file and 2 bitmaps");
}

TEST_F(GetTrackedFilesTest, EveryValueIsAPushOfItsOwn) {
  Track(L"C:\\a", kKey);
  AddGood();
  RecordingPipe pipe;
  EXPECT_EQ(Get(pipe), (Answer{0, 0}));
  EXPECT_THAT(pipe.Sizes(), ElementsAre(4, 16, 8, 10, 4, 4, 8, 8, 0));
}

TEST_F(GetTrackedFilesTest, StopEndsTheListBetweenTwoFiles) {
  Track(L"C:\\a", kKey);
  Track(L"C:\\b", {kVolume, kFile + 1});
  RecordingPipe pipe;
  pipe.on_push = [&] { StopRequested = StopRequested || pipe.pushes().size() == 1; };
  StartLogging("zelservicelog=trace\nzelservicelog:bitmap=none\n");
  EXPECT_EQ(Get(pipe), (Answer{0, ERROR_SHUTDOWN_IN_PROGRESS}));
  EXPECT_THAT(pipe.Sizes(), ElementsAre(4, 16, 8, 10, 4, 0));
  EXPECT_THAT(StopLogging(), IsEmpty());
}

TEST_F(GetTrackedFilesTest, ClientThatGoesAwayFaultsTheCall) {
  Track(L"C:\\a", kKey);
  StartLogging();
  for (std::size_t failing_push = 0; failing_push <= 5; ++failing_push) {
    RecordingPipe pipe(failing_push);
    EXPECT_EQ(Get(pipe), (Answer{RPC_S_CALL_FAILED, 0}));
    EXPECT_EQ(pipe.pushes().size(), failing_push);
  }
  EXPECT_THAT(StopLogging(), IsEmpty());
}

}  // namespace
}  // namespace zel
