// The driver's messages: from the receive buffer through parsing and lookup to the bits, with few
// and many tracked files, on one thread and on four. The reference is what receiving costs at
// least: one overlapped read of the same bytes from a local message pipe.
#include <windows.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "bench/bench.h"
#include "bench/counting_new.h"
#include "bench/many_bitmaps.h"
#include "drivercomm/driver_message.h"
#include "drivercomm/message_handler.h"
#include "tests/integration/support/cbt_directory.h"
#include "win32/handles.h"

namespace zel::bench {
namespace {

constexpr int kRounds = 5;
constexpr int kThreads = 4;
constexpr std::size_t kMessages = 200'000;   // for each thread
constexpr std::size_t kPipedMessages = 500;  // what a pipe holds without a reader
constexpr double kLimit = 0.2;

using Messages = std::vector<DriverMessage>;

std::span<const std::byte> BytesOf(const DriverMessage& message) {
  return std::as_bytes(std::span(&message, 1));
}

// Writes to `files`, each to any block.
Messages MakeMessages(std::span<const FileId> files, unsigned seed) {
  std::mt19937_64 random(seed);
  Messages messages(kMessages);
  for (DriverMessage& message : messages) {
    message = {};
    message.Magic = kDriverMessageMagic;
    message.Type = DriverMessageType::kWrite;
    message.Timestamp = random();
    message.VolumeGuid = kVolume;
    message.FileId = files[random() % files.size()];
    message.OffsetOrSize = random() % (kBitmapBytes * 8ull * kBlockSize);
    message.Length = 1;
  }
  return messages;
}

void HandleAll(const Messages& messages) {
  for (const DriverMessage& message : messages) HandleDriverMessage(BytesOf(message));
}

// Nanoseconds of a message, all threads together.
double HandlingNanoseconds(std::span<const FileId> files, int threads) {
  std::vector<Messages> messages;
  for (int thread = 0; thread < threads; ++thread) {
    messages.push_back(MakeMessages(files, static_cast<unsigned>(thread)));
  }
  std::atomic<int> done{0};
  const double seconds = BestSeconds(kRounds, [&] {
    OnThreads(threads, [&](int thread) {
      HandleAll(messages[static_cast<std::size_t>(thread)]);
      ++done;
    });
  });
  if (done != kRounds * threads) std::abort();
  return seconds * 1e9 / static_cast<double>(kMessages) / threads;
}

// Both ends of a message pipe; the reading one is overlapped.
struct Pipe {
  UniqueFile read_end;
  UniqueFile write_end;
};

Pipe MakePipe() {
  const std::wstring name =
      L"\\\\.\\pipe\\zel-driver-bench-" + std::to_wstring(::GetCurrentProcessId());
  Pipe pipe;
  pipe.read_end.reset(::CreateNamedPipeW(name.c_str(), PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED,
                                         PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE, 1, 0, 65'536, 0,
                                         nullptr));
  pipe.write_end.reset(
      ::CreateFileW(name.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  if (!pipe.read_end || !pipe.write_end) std::abort();
  return pipe;
}

void ReadOne(HANDLE pipe, HANDLE event, std::span<std::byte> buffer) {
  OVERLAPPED overlapped = {};
  overlapped.hEvent = event;
  ::ResetEvent(event);
  if (!::ReadFile(pipe, buffer.data(), static_cast<DWORD>(buffer.size()), nullptr, &overlapped) &&
      ::GetLastError() != ERROR_IO_PENDING) {
    std::abort();
  }
  ::WaitForSingleObject(event, INFINITE);
  if (overlapped.InternalHigh != sizeof(DriverMessage)) std::abort();
}

// Nanoseconds of reading a message that is there already.
double ReceivingNanoseconds() {
  const Pipe pipe = MakePipe();
  const UniqueEvent event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  std::vector<std::byte> buffer(65'536);
  const DriverMessage message = {};
  double best = std::numeric_limits<double>::max();
  for (int round = 0; round < 10 * kRounds; ++round) {
    for (std::size_t i = 0; i < kPipedMessages; ++i) {
      DWORD written = 0;
      if (!::WriteFile(pipe.write_end.get(), &message, sizeof message, &written, nullptr)) {
        std::abort();
      }
    }
    best = std::min(best, BestSeconds(1, [&] {
                      for (std::size_t i = 0; i < kPipedMessages; ++i) {
                        ReadOne(pipe.read_end.get(), event.get(), buffer);
                      }
                    }));
  }
  return best * 1e9 / static_cast<double>(kPipedMessages);
}

bool ReportHandling(const char* files_text, std::span<const FileId> files, double receiving) {
  bool kept = true;
  for (const int threads : {1, kThreads}) {
    const double handling = HandlingNanoseconds(files, threads);
    const std::string name = std::string("message, ") + files_text + " tracked, " +
                             std::to_string(threads) + (threads == 1 ? " thread" : " threads");
    kept = Report(name.c_str(), handling, receiving, "ns", Bound::kAtMost, kLimit) && kept;
    std::printf("  = %.2f million messages a second\n", 1e3 / handling);
  }
  return kept;
}

bool ReportHeap(std::span<const FileId> files) {
  const Messages messages = MakeMessages(files, 0);
  HandleAll(messages);
  const std::int64_t before = heap_allocations;
  HandleAll(messages);
  return Report("heap allocations, messages about loaded bitmaps",
                static_cast<double>(heap_allocations - before), kMessages, "", Bound::kAtMost, 0.0);
}

bool RunAll() {
  const WithoutDeviceFlushes hook;
  const test::TempDirectory directory;
  const std::wstring install_directory = directory.path().wstring();
  test::UseCbtDirectoryOf(install_directory);
  std::vector<FileId> files(100'000);
  for (FileId i = 0; i < files.size(); ++i) files[i] = 0x0001000000000000 + i * 37;
  const std::span<const FileId> all = files;

  const double receiving = ReceivingNanoseconds();
  std::vector<FileId> loaded;
  LoadMore(all.first(1), loaded);
  bool kept = ReportHandling("1 file", loaded, receiving);
  LoadMore(all.subspan(1, 999), loaded);
  kept = ReportHandling("1,000 files", loaded, receiving) && kept;
  kept = ReportHeap(loaded) && kept;
  constexpr std::size_t kUnloaded = 92'000;  // more cannot be loaded everywhere
  for (const FileId file : all.subspan(1000, kUnloaded)) AddUnloadedBitmap(file);
  LoadMore(all.subspan(1000 + kUnloaded), loaded);
  std::printf("(of 100,000 tracked files %zu have a loaded bitmap and are written to)\n",
              loaded.size());
  kept = ReportHandling("100,000 files", loaded, receiving) && kept;
  ShutdownBitmapManager();
  return kept;
}

}  // namespace
}  // namespace zel::bench

int main() {
  return zel::bench::RunAll() ? 0 : 1;
}
