// The RPC interface: calls per second of the operations that agents make most, and the bytes per
// second of a bitmap's copy. Server and clients share this process and its processors.
#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/bare_rpc.h"
#include "bench/bench.h"
#include "bitmap/bitmap_manager.h"
#include "bitmap/create_bitmap.h"
#include "client/zel_client.h"
#include "rpc/rpc_server.h"
#include "tests/integration/support/cbt_directory.h"
#include "tests/integration/support/poll.h"
#include "tests/integration/support/rpc_endpoints.h"
#include "tests/integration/support/temp_directory.h"
#include "tracking/tracked_file_table.h"
#include "win32/handles.h"

namespace zel::bench {
namespace {

constexpr VolumeGuid kVolume = {0x01234567, 0x89AB, 0xCDEF, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr wchar_t kPath[] = L"C:\\some\\folder\\tracked";
constexpr std::uint32_t kBlockSize = 4096;
constexpr int kListedFiles = 1000;

void Require(bool condition) {
  if (!condition) std::abort();
}

UniqueBinding Bind(const wchar_t* sequence) {
  UniqueBinding binding;
  Require(MakeBinding({sequence, L"", test::ServerEndpoints()[sequence]}, binding) == 0);
  return binding;
}

// Calls per second of `threads` clients together; make_client() gives each a function to call.
template <class MakeClient>
double CallsPerSecond(int threads, int calls, MakeClient make_client) {
  const int each = calls / threads;
  const double seconds = BestSeconds(3, [&] {
    OnThreads(threads, [&](int) {
      auto call = make_client();
      for (int i = 0; i < each; ++i) call();
    });
  });
  return each * threads / seconds;
}

auto BareClient(const wchar_t* sequence) {
  return [binding = std::make_shared<UniqueBinding>(Bind(sequence))] {
    Require(CallBare(binding->get()) == 0);
  };
}

auto PingClient(const wchar_t* sequence) {
  return [client = std::make_shared<ZelClient>(Bind(sequence))] { Require(client->Ping().ok()); };
}

// Walks the list, again and again.
auto ListClient(const wchar_t* sequence) {
  return
      [client = std::make_shared<ZelClient>(Bind(sequence)), list = std::make_shared<FileList>()] {
        ListedFile file;
        const CallResult result = client->ListFiles(*list, 600, file);
        Require(result.rpc_status == 0 && (result.code == 0 || result.code == ERROR_NO_MORE_ITEMS));
      };
}

// Each call makes a bitmap file of a file that is tracked.
auto StartClient(const wchar_t* sequence) {
  return [client = std::make_shared<ZelClient>(Bind(sequence))] {
    wire::BitmapInfo info = {};
    Require(client->StartTracking2(kPath, {kVolume, 1}, 100'000, kBlockSize, info).ok());
  };
}

void DeleteBitmaps() {
  DiscardBitmapsOfFile({kVolume, 1});
}

// What StartTracking2 does besides being called.
double BitmapsPerSecond(int count) {
  const double seconds = BestSeconds(3, [&] {
    for (int i = 0; i < count; ++i) {
      BitmapId id = 0;
      Require(CreateNewBitmap(kVolume, 1, 4, kBlockSize, 100'000, id) && GetBitmapById(id));
    }
  });
  DeleteBitmaps();
  return count / seconds;
}

bool Calls(const wchar_t* sequence, int threads) {
  const auto name = [&](const char* operation) {
    return std::string(operation) + ", " + std::filesystem::path(sequence).string() + ", " +
           std::to_string(threads);
  };
  const double bare = CallsPerSecond(threads, 3200, [&] { return BareClient(sequence); });
  const double ping = CallsPerSecond(threads, 3200, [&] { return PingClient(sequence); });
  const double list = CallsPerSecond(threads, 3200, [&] { return ListClient(sequence); });
  const double start = CallsPerSecond(threads, 320, [&] { return StartClient(sequence); });
  DeleteBitmaps();
  const double bitmaps = BitmapsPerSecond(320);
  // A call and its bitmap one after the other.
  const double start_at_best = 1 / (1 / ping + 1 / bitmaps);
  bool kept = Report(name("Ping").c_str(), ping, bare, "calls/s", Bound::kAtLeast, 0.5);
  kept = Report(name("ListFiles").c_str(), list, ping, "calls/s", Bound::kAtLeast, 0.3) && kept;
  return Report(name("StartTracking2").c_str(), start, start_at_best, "calls/s", Bound::kAtLeast,
                0.2) &&
         kept;
}

// Seconds that `bytes` take through a named pipe in messages of 64 KiB.
double PipeSeconds(std::size_t bytes) {
  constexpr wchar_t kName[] = L"\\\\.\\pipe\\zel_rpc_bench";
  constexpr DWORD kMessage = 65'536;
  const UniqueFile server(::CreateNamedPipeW(kName, PIPE_ACCESS_OUTBOUND,
                                             PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE, 1, kMessage,
                                             kMessage, 0, nullptr));
  const UniqueFile client(
      ::CreateFileW(kName, GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  Require(server && client);
  return BestSeconds(3, [&] {
    const std::jthread writer([&] {
      const std::vector<char> message(kMessage);
      DWORD written = 0;
      for (std::size_t sent = 0; sent < bytes; sent += written) {
        Require(::WriteFile(server.get(), message.data(), kMessage, &written, nullptr));
      }
    });
    std::vector<char> message(kMessage);
    DWORD read = 0;
    for (std::size_t received = 0; received < bytes; received += read) {
      Require(::ReadFile(client.get(), message.data(), kMessage, &read, nullptr));
    }
  });
}

bool Copies(const wchar_t* sequence, std::size_t mebibytes) {
  const std::size_t bytes = mebibytes << 20;
  BitmapId id = 0;
  Require(CreateNewBitmap(kVolume, 1, static_cast<std::uint32_t>(bytes - 512), kBlockSize,
                          std::uint64_t{bytes} * 8 * kBlockSize, id));
  const ZelClient client(Bind(sequence));
  const double seconds = BestSeconds(3, [&] {
    std::size_t received = 0;
    const auto count = [&](auto chunk) {
      received += chunk.size();
      return 0u;
    };
    Require(client.CopyBitmap(id, count).ok());
    Require(received == bytes);
  });
  DeleteBitmaps();
  const UniqueBinding binding = Bind(sequence);
  const double bare = BestSeconds(
      3, [&] { Require(CallBare(binding.get(), static_cast<std::uint32_t>(bytes)) == 0); });
  const std::string name = "CopyBitmap of " + std::to_string(mebibytes) + " MiB, " +
                           std::filesystem::path(sequence).string();
  const auto size = static_cast<double>(mebibytes);
  // Wine's runtime carries an answer in fragments of some 5 KiB, so the limit against a pipe with
  // messages of 64 KiB only tells when it becomes much worse.
  const bool kept =
      Report(name.c_str(), size / seconds, size / bare, "MiB/s", Bound::kAtLeast, 0.5);
  return Report((name + ", pipe").c_str(), size / seconds, size / PipeSeconds(bytes), "MiB/s",
                Bound::kAtLeast, 0.02) &&
         kept;
}

bool RunAll() {
  const test::TempDirectory directory;
  const std::wstring install_directory = directory.path().wstring();
  std::filesystem::create_directories(install_directory + L"\\cbt");
  test::UseCbtDirectoryOf(install_directory);
  bool is_new = false;
  for (FileId file = 1; file <= kListedFiles; ++file) {
    const std::wstring path = file == 1 ? kPath : kPath + std::to_wstring(file);
    Require(StartTrackingFile(path, kVolume, file, is_new));
  }
  std::jthread server(RunRpcServer, [](RpcServerStep, std::uint32_t) { return true; });
  Require(test::PollUntil([] { return ::RpcMgmtIsServerListening(nullptr) == RPC_S_OK; }));
  Require(RegisterBareInterface());

  bool kept = true;
  for (const wchar_t* sequence : {L"ncalrpc", L"ncacn_ip_tcp"}) {
    // The association that the clients' threads join: Wine's client may make several at once.
    const ZelClient first(Bind(sequence));
    Require(first.Ping().ok());
    for (const int threads : {1, 8, 64}) kept = Calls(sequence, threads) && kept;
    for (const std::size_t mebibytes : {1, 64}) kept = Copies(sequence, mebibytes) && kept;
  }
  ::RpcMgmtStopServerListening(nullptr);
  return kept;
}

}  // namespace
}  // namespace zel::bench

int main() {
  return zel::bench::RunAll() ? 0 : 1;
}
