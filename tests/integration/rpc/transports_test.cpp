// The same client over every protocol sequence: what crosses the wire does not depend on it.
#include "tests/integration/support/rpc_fixture.h"

// After <windows.h>:
#include <psapi.h>

namespace zel {
namespace {

using test::ConnectTo;
using test::FakeDriver;
using test::kCreated;
using test::kFile;
using test::kKey;
using test::kVolume;
using test::Track;
using ::testing::ElementsAre;

constexpr CallResult kDone = {0, 0};
constexpr std::uint16_t kRoom = 600;

class TransportsTest : public test::BitmapFixture,
                       public ::testing::WithParamInterface<const wchar_t*> {
 protected:
  ~TransportsTest() override { CloseTrackedFileList(); }

  test::RunningServer server;
};

INSTANTIATE_TEST_SUITE_P(, TransportsTest,
                         ::testing::Values(L"ncalrpc", L"ncacn_ip_tcp", L"ncacn_np"),
                         [](const auto& info) {
                           return std::filesystem::path(info.param).string();
                         });

TEST_P(TransportsTest, EveryOperationWithoutAPipeAnswers) {
  const ZelClient client = ConnectTo(GetParam());
  wire::BitmapInfo info = {};
  EXPECT_EQ(client.Ping(), kDone);
  EXPECT_EQ(client.StartTracking(L"C:\\missing\\x", 4096, info),
            (CallResult{0, ERROR_PATH_NOT_FOUND}));
  EXPECT_EQ(client.StartTracking2(L"C:\\a", kKey, 100'000, 4096, info), kDone);
  EXPECT_EQ(info.FileId, kFile);
  FileList files;
  ListedFile file;
  EXPECT_EQ(client.ListFiles(files, kRoom, file), kDone);
  EXPECT_EQ(file.path, L"C:\\a");
  EXPECT_EQ(file.key, kKey);
  BitmapList bitmaps;
  NamedBitmap bitmap;
  EXPECT_EQ(client.ListBitmaps(kKey, bitmaps, kRoom, bitmap), kDone);
  EXPECT_EQ(bitmap.info.BitmapId, info.BitmapId);
  EXPECT_EQ(client.DeleteBitmap(info.BitmapId), kDone);
  EXPECT_EQ(client.SynchronizeBitmaps(7), kDone);
  EXPECT_EQ(client.GetDriverStatus(), kDone);
  EXPECT_EQ(client.StopTracking(L"C:\\a"), kDone);
  EXPECT_THAT(FakeDriver::Take(),
              ElementsAre("notify", "verify C:\\a 281474976710947", "synchronize 7", "status",
                          "stop C:\\a 281474976710947"));
}

// What the client gets of a bitmap.
struct Copy {
  CallResult result;
  std::string bytes;
};

Copy CopyBitmapFrom(const ZelClient& client, BitmapId id) {
  Copy copy;
  copy.result = client.CopyBitmap(id, [&](std::span<const std::byte> bytes) {
    copy.bytes.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return 0u;
  });
  return copy;
}

TEST_P(TransportsTest, BitmapsOfEveryLengthArriveWhole) {
  const ZelClient client = ConnectTo(GetParam());
  for (const std::size_t length : {512, 65'535, 65'536, 65'537, 10 << 20}) {
    std::string bits(length - test::kHeaderBytes, '\0');
    for (std::size_t at = 0; at < bits.size(); ++at) bits[at] = static_cast<char>(at * 7);
    const BitmapId id = test::IdOf(Add(kKey, kCreated, test::GoodBitmap(kKey, bits)));
    const Copy copy = CopyBitmapFrom(client, id);
    EXPECT_EQ(copy.result, kDone);
    ASSERT_EQ(copy.bytes.size(), length);
    EXPECT_EQ(test::Get(copy.bytes, 0, 4), 0x624C455Au);
    EXPECT_TRUE(copy.bytes.substr(test::kHeaderBytes) == bits) << length;
    EXPECT_EQ(GetBitmapById(id)->InUseCount, 1u);  // this very pin
    DiscardBitmapsOfFile(kKey);
  }
}

// However much of it has come: the call ends with the sink's code, and the client goes on.
TEST_P(TransportsTest, SinkThatTakesNoMoreEndsTheCallAndLeavesNoPin) {
  const ZelClient client = ConnectTo(GetParam());
  const BitmapId id = test::IdOf(
      Add(kKey, kCreated, test::GoodBitmap(kKey, std::string((10 << 20) - 512, '\x55'))));
  for (const std::size_t most : {0, 1 << 20, (10 << 20) - 1}) {
    std::size_t taken = 0;
    const CallResult result = client.CopyBitmap(id, [&](std::span<const std::byte> bytes) {
      EXPECT_LE(taken, most);
      taken += bytes.size();
      return taken > most ? ERROR_DISK_FULL : ERROR_SUCCESS;
    });
    EXPECT_EQ(result.rpc_status, static_cast<std::uint32_t>(ERROR_DISK_FULL));
    EXPECT_GT(taken, most);
    EXPECT_LE(taken, most + ReceivingPipe::kRoom);
  }
  EXPECT_EQ(CopyBitmapFrom(client, id).result, kDone);
  EXPECT_TRUE(test::PollUntil([id] { return GetBitmapById(id)->InUseCount == 1; }));
}

TEST_P(TransportsTest, UnknownBitmapIsNotFoundByItsCopy) {
  const ZelClient client = ConnectTo(GetParam());
  const Copy copy = CopyBitmapFrom(client, 0x123);
  EXPECT_EQ(copy.result, (CallResult{0, ERROR_NOT_FOUND}));
  EXPECT_EQ(copy.bytes, "");
}

TEST_P(TransportsTest, TrackedFilesArriveWithTheirBitmaps) {
  const ZelClient client = ConnectTo(GetParam());
  std::vector<TrackedFile> files = {{}};
  EXPECT_EQ(client.GetTrackedFiles(files), kDone);
  EXPECT_THAT(files, ::testing::IsEmpty());
  Track(L"C:\\a");
  Track(L"C:\\b", {kVolume, kFile + 1});
  const BitmapId id = test::IdOf(AddGood());
  EXPECT_EQ(client.GetTrackedFiles(files), kDone);
  EXPECT_EQ(files, (std::vector<TrackedFile>{{kKey, L"C:\\a", {{528, kCreated, id}}},
                                             {{kVolume, kFile + 1}, L"C:\\b", {}}}));
}

TEST_P(TransportsTest, LongEnumerationsComeToTheirEnd) {
  for (FileId id = 1; id <= 300; ++id) Track(L"C:\\" + std::to_wstring(id), {kVolume, id});
  const ZelClient client = ConnectTo(GetParam());
  FileList files;
  ListedFile file;
  int count = 0;
  CallResult result;
  while ((result = client.ListFiles(files, kRoom, file)).ok()) ++count;
  EXPECT_EQ(count, 300);
  EXPECT_EQ(result, (CallResult{0, ERROR_NO_MORE_ITEMS}));
  EXPECT_FALSE(files);
}

TEST_P(TransportsTest, ManyThreadsCallAtOnce) {
  Track(L"C:\\a");
  // The process's first connection makes the association that the others join; Wine's client can
  // make several when they come at once, and a context then belongs to one of them only.
  const ZelClient first = ConnectTo(GetParam());
  EXPECT_EQ(first.Ping(), kDone);
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 16; ++i) {
      threads.emplace_back([] {
        const ZelClient own = ConnectTo(GetParam());
        for (int call = 0; call < 50; ++call) {
          FileList files;
          ListedFile file;
          EXPECT_EQ(own.Ping(), kDone);
          EXPECT_EQ(own.ListFiles(files, kRoom, file), kDone);
          EXPECT_EQ(own.ListFiles(files, kRoom, file), (CallResult{0, ERROR_NO_MORE_ITEMS}));
        }
      });
    }
  }
}

std::size_t MemoryInUse() {
  PROCESS_MEMORY_COUNTERS counters = {};
  EXPECT_TRUE(::GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof counters));
  return counters.WorkingSetSize;
}

// A list of 1,000 files takes some 100 KiB: what the rundown did not free would show at once. The
// clients come one after the other, since those of one process count as one while any is left.
TEST_P(TransportsTest, ListsOfClientsThatGoAwayAreFreed) {
  for (FileId id = 1; id <= 1000; ++id) {
    Track(L"C:\\some\\longer\\path\\" + std::to_wstring(id), {kVolume, id});
  }
  const auto abandon = [](int lists) {
    for (int i = 0; i < lists; ++i) {
      const ZelClient own = ConnectTo(GetParam());
      FileList files;
      ListedFile file;
      ASSERT_EQ(own.ListFiles(files, kRoom, file), kDone);
    }
  };
  abandon(100);
  const std::size_t before = MemoryInUse();
  abandon(500);
  EXPECT_LT(MemoryInUse(), before + (8 << 20));
}

TEST(ZelClientTest, ServerThatIsNotThereIsUnavailable) {
  UniqueBinding binding;
  ASSERT_EQ(MakeBinding({L"ncacn_ip_tcp", L"127.0.0.1", L"1"}, binding), 0u);
  EXPECT_EQ(ZelClient(std::move(binding)).Ping(),
            (CallResult{static_cast<std::uint32_t>(RPC_S_SERVER_UNAVAILABLE), 0}));
}

TEST(ZelClientTest, UnknownProtocolSequenceIsToldByTheBindingOrTheCall) {
  UniqueBinding binding;
  std::uint32_t status = MakeBinding({L"ncacn_nonsense", L"", L"1"}, binding);
  if (status == 0) status = ZelClient(std::move(binding)).Ping().rpc_status;
  EXPECT_EQ(status, static_cast<std::uint32_t>(RPC_S_PROTSEQ_NOT_SUPPORTED));
}

}  // namespace
}  // namespace zel
